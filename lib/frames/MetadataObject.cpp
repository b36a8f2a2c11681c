#include "frames/MetadataObject.h"

#include "objc/Frameworks.h"

using namespace zerlan::objc;

namespace {

id *payloadSlot(id self)
{
    return ivarPointer<id>(self, "_zerlanPayload");
}

id type(id, SEL)
{
    return AVMetadataObjectTypeQRCode;
}

id zerlanPayload(id self, SEL)
{
    id *slot = payloadSlot(self);
    return slot ? *slot : nil;
}

id stringValue(id self, SEL)
{
    return send<id>(self, sel<"zerlanPayload">());
}

void setZerlanPayload(id self, SEL, id payload)
{
    id *slot = payloadSlot(self);
    if (!slot)
        return;
    id copy = send<id>(payload, sel<"copy">());
    id previous = *slot;
    *slot = copy;
    objc_release(previous);
}

void dealloc(id self, SEL)
{
    if (id *slot = payloadSlot(self)) {
        objc_release(*slot);
        *slot = nil;
    }
    sendSuper<void>(ZerlanMetadataObjectClass(), self, sel<"dealloc">());
}

} // namespace

Class ZerlanMetadataObjectClass()
{
    static dispatch_once_t once;
    static Class cls;
    dispatch_once(&once, ^{
        cls = ClassBuilder("ZerlanMetadataObject", "AVMetadataMachineReadableCodeObject")
                  .ivar("_zerlanPayload", sizeof(id), alignof(id) == 8 ? 3 : 2, "@")
                  .override(sel<"type">(), imp(type))
                  .override(sel<"stringValue">(), imp(stringValue))
                  .method(sel<"zerlanPayload">(), imp(zerlanPayload), "@@:")
                  .method(sel<"setZerlanPayload:">(), imp(setZerlanPayload), "v@:@")
                  .override(sel<"dealloc">(), imp(dealloc))
                  .registerClass();
    });
    return cls;
}
