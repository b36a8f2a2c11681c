// Declarations of Apple's <objc/objc-exception.h>. On fakesdk an Objective-C exception is a C++
// exception whose thrown value is the NSException object (type id).
#pragma once

#include <objc/objc.h>

OBJC_EXPORT void objc_exception_throw(id exception) __attribute__((noreturn));
