// Declarations of Apple's <objc/message.h>. With OBJC_OLD_DISPATCH_PROTOTYPES at 0 (the modern
// default) the entry points are untyped and must be cast to the exact function type.
#pragma once

#include <objc/objc.h>
#include <objc/runtime.h>

struct objc_super {
    id receiver;
    Class super_class;
};

// What class_getMethodImplementation (and, for a struct returned through memory,
// class_getMethodImplementation_stret) returns for a selector the class does not implement.
// Called with the message's own arguments, they forward it to the receiver's
// forwardingTargetForSelector: if that answers another object, and otherwise raise
// NSInvalidArgumentException ("unrecognized selector sent to instance"). Each must be called in
// the convention it was returned for.
OBJC_EXPORT void _objc_msgForward(void);
OBJC_EXPORT void _objc_msgForward_stret(void) OBJC_ARM64_UNAVAILABLE;
