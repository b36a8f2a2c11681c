// Declarations of Apple's <objc/message.h>. With OBJC_OLD_DISPATCH_PROTOTYPES at 0 (the modern
// default) the entry points are untyped and must be cast to the exact function type.
#pragma once

#include <objc/objc.h>
#include <objc/runtime.h>

struct objc_super {
    id receiver;
    Class super_class;
};

// What class_getMethodImplementation returns for a selector the class does not implement;
// calling it raises NSInvalidArgumentException ("unrecognized selector sent to instance").
OBJC_EXPORT void _objc_msgForward(void);
