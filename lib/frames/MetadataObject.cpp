#include "frames/MetadataObject.h"

#include "objc/Frameworks.h"

using namespace zerlan::objc;

namespace {

constexpr const char *kPayloadIvar = "_zerlanPayload";

id type(id, SEL)
{
    return AVMetadataObjectTypeQRCode;
}

id zerlanPayload(id self, SEL)
{
    return objectIvar(self, kPayloadIvar);
}

id stringValue(id self, SEL)
{
    return send<id>(self, sel<"zerlanPayload">());
}

void setZerlanPayload(id self, SEL, id payload)
{
    setObjectIvar(self, kPayloadIvar, payload, IvarStore::copy);
}

void dealloc(id self, SEL)
{
    releaseObjectIvar(self, kPayloadIvar);
    sendSuper<void>(ZerlanMetadataObjectClass(), self, sel<"dealloc">());
}

} // namespace

Class ZerlanMetadataObjectClass()
{
    static dispatch_once_t once;
    static Class cls;
    dispatch_once(&once, ^{
        cls = ClassBuilder("ZerlanMetadataObject", "AVMetadataMachineReadableCodeObject")
                  .objectIvar(kPayloadIvar)
                  .override(sel<"type">(), imp(type))
                  .override(sel<"stringValue">(), imp(stringValue))
                  .method(sel<"zerlanPayload">(), imp(zerlanPayload), "@@:")
                  .method(sel<"setZerlanPayload:">(), imp(setZerlanPayload), "v@:@")
                  .override(sel<"dealloc">(), imp(dealloc))
                  .registerClass();
    });
    return cls;
}
