#include "inject/Connections.h"

#include "inject/Diagnostics.h"
#include "inject/FakeDevice.h"
#include "inject/Registry.h"

using namespace zerlan::objc;

namespace {

constexpr long kLandscapeRight = 3;

void storeOrientation(id connection, long orientation)
{
    objc_setAssociatedObject(connection, &kConnectionOrientationKey, number(orientation),
                             OBJC_ASSOCIATION_RETAIN_NONATOMIC);
}

bool isAcceptedOutput(id output)
{
    return ZerlanMarked(output, &kVideoOutputKey) || ZerlanMarked(output, &kPhotoOutputKey) ||
           ZerlanMarked(output, &kMetadataOutputKey);
}

} // namespace

id ZerlanConnectionForOutput(id output)
{
    if (id existing = objc_getAssociatedObject(output, &kOutputConnectionKey))
        return existing;
    Strong<> connection = Strong<>::adopt(class_createInstance(objc_getClass("AVCaptureConnection"), 0));
    ZerlanMark(connection, &kFakeConnectionKey);
    objc_setAssociatedObject(connection, &kConnectionOutputKey, output, OBJC_ASSOCIATION_ASSIGN);
    storeOrientation(connection, kLandscapeRight);
    objc_setAssociatedObject(output, &kOutputConnectionKey, connection, OBJC_ASSOCIATION_RETAIN_NONATOMIC);
    ZerlanRetainFake(connection);
    return connection.get();
}

id zerlan_initWithDevice_error(id self, SEL, id device, id *error)
{
    if (!ZerlanMarked(device, &kFakeDeviceKey))
        return send<id>(self, sel<"zerlan_initWithDevice:error:">(), device, error);
    ZerlanMark(self, &kFakeInputKey);
    ZerlanRetainFake(self);
    ZerlanLog(CFSTR("[ZerlanInject] fabricated AVCaptureDeviceInput"));
    if (error)
        *error = nil;
    return self;
}

id zerlan_ports(id self, SEL)
{
    return ZerlanMarked(self, &kFakeInputKey) ? arrayWithObject(ZerlanFakeInputPort())
                                              : send<id>(self, sel<"zerlan_ports">());
}

id zerlan_initWithInputPorts_output(id self, SEL, id ports, id output)
{
    if (!send<BOOL>(ports, sel<"containsObject:">(), ZerlanFakeInputPort()))
        return send<id>(self, sel<"zerlan_initWithInputPorts:output:">(), ports, output);
    ZerlanMark(self, &kFakeConnectionKey);
    objc_setAssociatedObject(self, &kConnectionOutputKey, output, OBJC_ASSOCIATION_ASSIGN);
    objc_setAssociatedObject(output, &kOutputConnectionKey, self, OBJC_ASSOCIATION_RETAIN_NONATOMIC);
    storeOrientation(self, kLandscapeRight);
    ZerlanRetainFake(self);
    return self;
}

BOOL zerlan_isVideoOrientationSupported(id self, SEL)
{
    return ZerlanMarked(self, &kFakeConnectionKey) ? YES
                                                   : send<BOOL>(self, sel<"zerlan_isVideoOrientationSupported">());
}

BOOL zerlan_isVideoMirroringSupported(id self, SEL)
{
    return ZerlanMarked(self, &kFakeConnectionKey) ? NO : send<BOOL>(self, sel<"zerlan_isVideoMirroringSupported">());
}

long zerlan_videoOrientation(id self, SEL)
{
    if (!ZerlanMarked(self, &kFakeConnectionKey))
        return send<long>(self, sel<"zerlan_videoOrientation">());
    id stored = objc_getAssociatedObject(self, &kConnectionOrientationKey);
    return stored ? integerValue(stored) : kLandscapeRight;
}

void zerlan_setVideoOrientation(id self, SEL, long orientation)
{
    if (ZerlanMarked(self, &kFakeConnectionKey))
        storeOrientation(self, orientation);
    else
        send<void>(self, sel<"zerlan_setVideoOrientation:">(), orientation);
}

// Both are reached only through the runtime, never inlined, so the return address is the code
// that sent the message: the framework's own internals keep seeing the framework's connections.
id zerlan_connections(id self, SEL)
{
    if (ZerlanAddressIsSystemFramework(__builtin_return_address(0)) || !isAcceptedOutput(self))
        return send<id>(self, sel<"zerlan_connections">());
    return arrayWithObject(ZerlanConnectionForOutput(self));
}

id zerlan_connectionWithMediaType(id self, SEL, id mediaType)
{
    if (ZerlanAddressIsSystemFramework(__builtin_return_address(0)) || !isAcceptedOutput(self) ||
        !isEqualToString(mediaType, AVMediaTypeVideo))
        return send<id>(self, sel<"zerlan_connectionWithMediaType:">(), mediaType);
    return ZerlanConnectionForOutput(self);
}
