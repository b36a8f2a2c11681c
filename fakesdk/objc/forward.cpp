// The forwarding entry point. It is defined apart from <objc/message.h>, whose prototype is
// untyped, because callers reach it through whatever function type they cast it to.
#include <objc/objc.h>

#include "forward.h"

// Declared separately from <objc/message.h>'s untyped prototype: whatever type the caller cast
// it to, the first registers hold the receiver and selector (or, for a struct returned through
// memory on x86-64, the result slot first). The thread-local record of the failed lookup says
// which selector to report; the receiver is whichever argument precedes it.
extern "C" [[noreturn]] void fakesdk_forward(void *a, void *b, void *c) __asm__("_objc_msgForward");
extern "C" void fakesdk_forward(void *a, void *b, void *c)
{
    Class cls = fakeobjc::forwardClass();
    SEL sel = fakeobjc::forwardSelector();
    void *receiver = (b == static_cast<void *>(sel)) ? a : (c == static_cast<void *>(sel)) ? b : nullptr;
    bool isClass = class_isMetaClass(cls);
    fakeobjc::raiseFormat("NSInvalidArgumentException", "%c[%s %s]: unrecognized selector sent to %s %p",
                          isClass ? '+' : '-', class_getName(cls), sel_getName(sel), isClass ? "class" : "instance",
                          receiver);
}
