#include "inject/FakeDevice.h"

#include "inject/Diagnostics.h"
#include "inject/Registry.h"

#include <dlfcn.h>

using namespace zerlan::objc;

namespace {

constexpr const char *kCameraName = "Zerlan Camera";
constexpr const char *kCameraUniqueID = "com.zerlan.injected-camera";
constexpr long kPositionBack = 1;

id makeSingleton(Class cls, const void *key)
{
    id object = class_createInstance(cls, 0);
    ZerlanMark(object, key);
    ZerlanRetainFake(object);
    return object;
}

CMFormatDescriptionRef formatDescription(id, SEL)
{
    static dispatch_once_t once;
    static CMVideoFormatDescriptionRef description;
    dispatch_once(&once, ^{
        // A failure leaves the description null, which is what the format then reports.
        CMVideoFormatDescriptionCreate(kCFAllocatorDefault, kCVPixelFormatType_32BGRA, 640, 480, nullptr,
                                       &description);
    });
    return description;
}

id videoSupportedFrameRateRanges(id, SEL)
{
    return send<id>(cls("NSArray"), sel<"array">());
}

id portMediaType(id, SEL)
{
    return AVMediaTypeVideo;
}

long portSourceDevicePosition(id, SEL)
{
    return kPositionBack;
}

id portSourceDeviceType(id, SEL)
{
    return AVCaptureDeviceTypeBuiltInWideAngleCamera;
}

BOOL portIsEnabled(id, SEL)
{
    return YES;
}

Class deviceFormatClass()
{
    static dispatch_once_t once;
    static Class cls;
    dispatch_once(&once, ^{
        cls = ClassBuilder("ZerlanDeviceFormat", "AVCaptureDeviceFormat")
                  .override(sel<"formatDescription">(), imp(formatDescription))
                  .override(sel<"videoSupportedFrameRateRanges">(), imp(videoSupportedFrameRateRanges))
                  .registerClass();
    });
    return cls;
}

Class inputPortClass()
{
    static dispatch_once_t once;
    static Class cls;
    dispatch_once(&once, ^{
        cls = ClassBuilder("ZerlanInputPort", "AVCaptureInputPort")
                  .override(sel<"mediaType">(), imp(portMediaType))
                  .override(sel<"sourceDevicePosition">(), imp(portSourceDevicePosition))
                  .override(sel<"sourceDeviceType">(), imp(portSourceDeviceType))
                  .override(sel<"isEnabled">(), imp(portIsEnabled))
                  .registerClass();
    });
    return cls;
}

// The image path of the code at address, or nil when it cannot be told.
id imagePathOf(const void *address)
{
    Dl_info info;
    if (!address || !dladdr(address, &info) || !info.dli_fname)
        return nil;
    return string(info.dli_fname);
}

bool pathContains(id path, const char *text)
{
    return path && send<BOOL>(path, sel<"containsString:">(), string(text));
}

} // namespace

id ZerlanFakeVideoDevice()
{
    static dispatch_once_t once;
    static id device;
    dispatch_once(&once, ^{
        device = makeSingleton(objc_getClass("AVCaptureDevice"), &kFakeDeviceKey);
    });
    return device;
}

id ZerlanFakeFormat()
{
    static dispatch_once_t once;
    static id format;
    dispatch_once(&once, ^{
        format = makeSingleton(deviceFormatClass(), &kFakeFormatKey);
    });
    return format;
}

id ZerlanFakeInputPort()
{
    static dispatch_once_t once;
    static id port;
    dispatch_once(&once, ^{
        port = makeSingleton(inputPortClass(), &kFakePortKey);
    });
    return port;
}

bool ZerlanAddressIsSystemFramework(const void *address)
{
    id path = imagePathOf(address);
    // The second test can never change the answer; it mirrors the volume-mounted runtime path.
    return pathContains(path, "/System/Library/") || pathContains(path, "/Volumes/VOLUME/System/Library/");
}

id zerlan_defaultDeviceWithMediaType(id self, SEL, id mediaType)
{
    id device = send<id>(self, sel<"zerlan_defaultDeviceWithMediaType:">(), mediaType);
    if (device)
        return device;
    if (!isEqualToString(mediaType, AVMediaTypeVideo))
        return nil;
    ZerlanLog(CFSTR("[ZerlanInject] fabricated AVCaptureDevice"));
    return ZerlanFakeVideoDevice();
}

id zerlan_deviceWithUniqueID(id self, SEL, id uniqueID)
{
    id device = send<id>(self, sel<"zerlan_deviceWithUniqueID:">(), uniqueID);
    if (device)
        return device;
    if (!isEqualToString(uniqueID, string(kCameraUniqueID)))
        return nil;
    ZerlanLog(CFSTR("[ZerlanInject] reopened fabricated camera by unique ID"));
    return ZerlanFakeVideoDevice();
}

id zerlan_localizedName(id self, SEL)
{
    return ZerlanMarked(self, &kFakeDeviceKey) ? string(kCameraName) : send<id>(self, sel<"zerlan_localizedName">());
}

id zerlan_uniqueID(id self, SEL)
{
    return ZerlanMarked(self, &kFakeDeviceKey) ? string(kCameraUniqueID) : send<id>(self, sel<"zerlan_uniqueID">());
}

long zerlan_position(id self, SEL)
{
    return ZerlanMarked(self, &kFakeDeviceKey) ? kPositionBack : send<long>(self, sel<"zerlan_position">());
}

id zerlan_deviceType(id self, SEL)
{
    return ZerlanMarked(self, &kFakeDeviceKey) ? AVCaptureDeviceTypeBuiltInWideAngleCamera
                                               : send<id>(self, sel<"zerlan_deviceType">());
}

id zerlan_formats(id self, SEL)
{
    return ZerlanMarked(self, &kFakeDeviceKey) ? arrayWithObject(ZerlanFakeFormat())
                                               : send<id>(self, sel<"zerlan_formats">());
}

id zerlan_activeFormat(id self, SEL)
{
    return ZerlanMarked(self, &kFakeDeviceKey) ? ZerlanFakeFormat() : send<id>(self, sel<"zerlan_activeFormat">());
}

void zerlan_setActiveFormat(id self, SEL, id format)
{
    if (!ZerlanMarked(self, &kFakeDeviceKey))
        send<void>(self, sel<"zerlan_setActiveFormat:">(), format);
}

BOOL zerlan_hasFlash(id self, SEL)
{
    return ZerlanMarked(self, &kFakeDeviceKey) ? NO : send<BOOL>(self, sel<"zerlan_hasFlash">());
}

BOOL zerlan_hasTorch(id self, SEL)
{
    return ZerlanMarked(self, &kFakeDeviceKey) ? NO : send<BOOL>(self, sel<"zerlan_hasTorch">());
}

BOOL zerlan_isFocusPointOfInterestSupported(id self, SEL)
{
    return ZerlanMarked(self, &kFakeDeviceKey) ? NO
                                               : send<BOOL>(self, sel<"zerlan_isFocusPointOfInterestSupported">());
}

BOOL zerlan_isExposurePointOfInterestSupported(id self, SEL)
{
    return ZerlanMarked(self, &kFakeDeviceKey) ? NO
                                               : send<BOOL>(self, sel<"zerlan_isExposurePointOfInterestSupported">());
}

BOOL zerlan_lockForConfiguration(id self, SEL, id *error)
{
    if (!ZerlanMarked(self, &kFakeDeviceKey))
        return send<BOOL>(self, sel<"zerlan_lockForConfiguration:">(), error);
    if (error)
        *error = nil;
    return YES;
}

void zerlan_unlockForConfiguration(id self, SEL)
{
    if (!ZerlanMarked(self, &kFakeDeviceKey))
        send<void>(self, sel<"zerlan_unlockForConfiguration">());
}

id zerlan_devices(id self, SEL)
{
    id devices = send<id>(self, sel<"zerlan_devices">());
    if (count(devices) > 0)
        return devices;
    // Who asked decides: app code gets the fabricated camera, the system's own frameworks (and a
    // caller that cannot be placed) keep the empty answer.
    id path = imagePathOf(__builtin_return_address(0));
    ZerlanLog(CFSTR("[ZerlanInject] empty DiscoverySession caller: %@"), path ? path : string("unknown"));
    if (path && send<unsigned long>(path, sel<"length">()) > 0 && !pathContains(path, "/System/Library/")) {
        ZerlanLog(CFSTR("[ZerlanInject] supplied camera through client DiscoverySession"));
        return arrayWithObject(ZerlanFakeVideoDevice());
    }
    return devices;
}
