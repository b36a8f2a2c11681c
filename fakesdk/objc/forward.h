// Hand-over between a failed method lookup and the forwarding entry point on the same thread.
#pragma once

#include <objc/objc.h>

namespace fakeobjc {
Class forwardClass();
SEL forwardSelector();
[[noreturn]] void raiseFormat(const char *name, const char *format, ...) __attribute__((format(printf, 2, 3)));
}

extern "C" const char *class_getName(Class cls);
extern "C" BOOL class_isMetaClass(Class cls);
