// AVCaptureDevice, AVCaptureDeviceFormat, AVFrameRateRange and AVCaptureDeviceDiscoverySession.
// The Simulator has no camera: every lookup answers nil or an empty list unless a test registered
// a device (avfoundation_np.h). A device the framework did not make (class_createInstance with no
// initialiser) has no state and answers nil, zero or NO.
#include "AVFPrivate.h"

#include <fakesdk/avfoundation_np.h>

#include <algorithm>
#include <string>

extern "C" id const AVFoundationErrorDomain;

namespace avf {
namespace {

struct FrameRateRangeState {
    double minRate = 0, maxRate = 0;
};

struct FormatState {
    Ref mediaType;
    CMFormatDescriptionRef description = nullptr;
    Ref frameRateRanges;
    ~FormatState()
    {
        if (description)
            CFRelease(description);
    }
};

struct DeviceState {
    std::atomic<bool> registered = false;
    Ref name, uniqueID, modelID, deviceType;
    long position = 0;
    std::vector<Ref> formats;
    Ref activeFormat;
    bool hasFlash = false, hasTorch = false, focusPOI = false, exposurePOI = false;
    long lockDepth = 0;
    std::mutex lock;
};

struct DiscoveryState {
    std::vector<Ref> deviceTypes;
    Ref mediaType;
    long position = 0;
};

fakeobjc::StateSlot<FrameRateRangeState> gRangeSlot;
fakeobjc::StateSlot<FormatState> gFormatSlot;
fakeobjc::StateSlot<DeviceState> gDeviceSlot;
fakeobjc::StateSlot<DiscoveryState> gDiscoverySlot;

std::mutex gRegistryLock;
std::vector<Ref> &registry()
{
    static auto *devices = new std::vector<Ref>();
    return *devices;
}

std::vector<id> registeredDevices()
{
    std::lock_guard guard(gRegistryLock);
    std::vector<id> out;
    for (const Ref &ref : registry())
        out.push_back(ref.get());
    return out;
}

DeviceState *deviceState(id self)
{
    return gDeviceSlot.peek(self);
}

// ---- AVFrameRateRange

double rangeMinRate(id self, SEL)
{
    auto *s = gRangeSlot.peek(self);
    return s ? s->minRate : 0;
}

double rangeMaxRate(id self, SEL)
{
    auto *s = gRangeSlot.peek(self);
    return s ? s->maxRate : 0;
}

CMTime rangeMinDuration(id self, SEL)
{
    auto *s = gRangeSlot.peek(self);
    return s && s->maxRate > 0 ? CMTimeMake(1, static_cast<int32_t>(s->maxRate)) : kCMTimeInvalid;
}

CMTime rangeMaxDuration(id self, SEL)
{
    auto *s = gRangeSlot.peek(self);
    return s && s->minRate > 0 ? CMTimeMake(1, static_cast<int32_t>(s->minRate)) : kCMTimeInvalid;
}

void rangeDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gRangeSlot, "AVFrameRateRange", self);
}

// ---- AVCaptureDeviceFormat

id formatMediaType(id self, SEL)
{
    auto *s = gFormatSlot.peek(self);
    return s ? s->mediaType.get() : nullptr;
}

CMFormatDescriptionRef formatDescription(id self, SEL)
{
    auto *s = gFormatSlot.peek(self);
    return s ? s->description : nullptr;
}

id formatFrameRateRanges(id self, SEL)
{
    auto *s = gFormatSlot.peek(self);
    return s && s->frameRateRanges ? s->frameRateRanges.get() : array(std::vector<id>{});
}

CMVideoDimensions formatStillDimensions(id self, SEL)
{
    auto *s = gFormatSlot.peek(self);
    if (!s || !s->description)
        return CMVideoDimensions{0, 0};
    return CMVideoFormatDescriptionGetDimensions(s->description);
}

double formatMaxZoom(id self, SEL)
{
    return gFormatSlot.peek(self) ? 1.0 : 0.0;
}

id formatDescriptionText(id self, SEL)
{
    auto *s = gFormatSlot.peek(self);
    char text[160];
    if (s && s->description) {
        CMVideoDimensions d = CMVideoFormatDescriptionGetDimensions(s->description);
        FourCharCode sub = CMFormatDescriptionGetMediaSubType(s->description);
        snprintf(text, sizeof text, "<AVCaptureDeviceFormat: %p 'vide'/'%c%c%c%c' %dx%d>", static_cast<void *>(self),
                 char(sub >> 24), char(sub >> 16), char(sub >> 8), char(sub), d.width, d.height);
    } else {
        snprintf(text, sizeof text, "<AVCaptureDeviceFormat: %p>", static_cast<void *>(self));
    }
    return str(text);
}

void formatDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gFormatSlot, "AVCaptureDeviceFormat", self);
}

id makeFormat(int width, int height, FourCharCode pixelFormat)
{
    id range = class_createInstance(objc_getClass("AVFrameRateRange"), 0);
    gRangeSlot.get(range).minRate = 1;
    gRangeSlot.get(range).maxRate = 30;
    id format = class_createInstance(objc_getClass("AVCaptureDeviceFormat"), 0);
    FormatState &s = gFormatSlot.get(format);
    s.mediaType = Ref(AVMediaTypeVideo);
    CMVideoFormatDescriptionCreate(kCFAllocatorDefault, pixelFormat, width, height, nullptr, &s.description);
    s.frameRateRanges = Ref(array(std::vector<id>{range}));
    objc_release(range);
    return format;
}

// ---- AVCaptureDevice: class methods

id defaultDeviceWithMediaType(id self, SEL, id mediaType)
{
    for (id device : registeredDevices())
        if (msg<bool>(device, "hasMediaType:", mediaType))
            return device;
    return nullptr;
}

id deviceWithUniqueID(id self, SEL, id uniqueID)
{
    if (!uniqueID)
        return nullptr;
    for (id device : registeredDevices())
        if (strEqual(msg<id>(device, "uniqueID"), uniqueID))
            return device;
    return nullptr;
}

id devicesWithMediaType(id self, SEL, id mediaType)
{
    std::vector<id> out;
    for (id device : registeredDevices())
        if (msg<bool>(device, "hasMediaType:", mediaType))
            out.push_back(device);
    return array(out);
}

id allDevices(id self, SEL)
{
    return array(registeredDevices());
}

bool deviceMatches(id device, id deviceType, id mediaType, long position)
{
    if (deviceType && !strEqual(msg<id>(device, "deviceType"), deviceType))
        return false;
    if (mediaType && !msg<bool>(device, "hasMediaType:", mediaType))
        return false;
    return position == 0 || msg<long>(device, "position") == position;
}

id defaultDeviceWithDeviceType(id self, SEL, id deviceType, id mediaType, long position)
{
    for (id device : registeredDevices())
        if (deviceMatches(device, deviceType, mediaType, position))
            return device;
    return nullptr;
}

long authorizationStatusForMediaType(id self, SEL, id mediaType)
{
    return 3; // AVAuthorizationStatusAuthorized: the Simulator never asks.
}

// ---- AVCaptureDevice: instance methods

id deviceLocalizedName(id self, SEL)
{
    auto *s = deviceState(self);
    return s ? s->name.get() : nullptr;
}

id deviceUniqueID(id self, SEL)
{
    auto *s = deviceState(self);
    return s ? s->uniqueID.get() : nullptr;
}

id deviceModelID(id self, SEL)
{
    auto *s = deviceState(self);
    return s ? s->modelID.get() : nullptr;
}

id deviceManufacturer(id self, SEL)
{
    auto *s = deviceState(self);
    return s && s->registered ? str("Apple Inc.") : nullptr;
}

long devicePosition(id self, SEL)
{
    auto *s = deviceState(self);
    return s ? s->position : 0;
}

id deviceType(id self, SEL)
{
    auto *s = deviceState(self);
    return s ? s->deviceType.get() : nullptr;
}

id deviceFormats(id self, SEL)
{
    auto *s = deviceState(self);
    if (!s)
        return array(std::vector<id>{});
    std::lock_guard guard(s->lock);
    return array(s->formats);
}

id deviceActiveFormat(id self, SEL)
{
    auto *s = deviceState(self);
    if (!s)
        return nullptr;
    std::lock_guard guard(s->lock);
    return s->activeFormat.get();
}

void deviceSetActiveFormat(id self, SEL, id format)
{
    auto *s = deviceState(self);
    if (!s || !s->registered)
        return;
    std::unique_lock guard(s->lock);
    bool known = std::any_of(s->formats.begin(), s->formats.end(), [&](const Ref &f) { return f.get() == format; });
    if (!known) {
        guard.unlock();
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVCaptureDevice setActiveFormat:] Unsupported format; use one of the device's -formats");
    }
    if (s->lockDepth <= 0) {
        guard.unlock();
        fakeobjc::raise("NSGenericException", "*** -[AVCaptureDevice setActiveFormat:] Not authorized to call "
                                              "-setActiveFormat: without first calling -lockForConfiguration:");
    }
    s->activeFormat = Ref(format);
}

bool deviceHasFlash(id self, SEL)
{
    auto *s = deviceState(self);
    return s && s->hasFlash;
}

bool deviceHasTorch(id self, SEL)
{
    auto *s = deviceState(self);
    return s && s->hasTorch;
}

bool deviceFocusPOI(id self, SEL)
{
    auto *s = deviceState(self);
    return s && s->focusPOI;
}

bool deviceExposurePOI(id self, SEL)
{
    auto *s = deviceState(self);
    return s && s->exposurePOI;
}

bool deviceIsConnected(id self, SEL)
{
    auto *s = deviceState(self);
    return s && s->registered;
}

bool deviceHasMediaType(id self, SEL, id mediaType)
{
    auto *s = deviceState(self);
    return s && s->registered && strEqual(mediaType, AVMediaTypeVideo);
}

bool deviceSupportsPreset(id self, SEL, id preset)
{
    auto *s = deviceState(self);
    return s && s->registered && preset;
}

} // namespace

id deviceNotConnectedError()
{
    id info = dictionary({{str("NSLocalizedDescription"), str("Cannot Open")},
                          {str("NSLocalizedFailureReason"), str("The device is not connected.")}});
    return msg<id>(cls("NSError"), "errorWithDomain:code:userInfo:", AVFoundationErrorDomain, -11814L, info);
}

namespace {

bool deviceLockForConfiguration(id self, SEL, id *outError)
{
    auto *s = deviceState(self);
    if (!s || !s->registered) {
        if (outError)
            *outError = deviceNotConnectedError();
        return false;
    }
    std::lock_guard guard(s->lock);
    ++s->lockDepth;
    return true;
}

void deviceUnlockForConfiguration(id self, SEL)
{
    auto *s = deviceState(self);
    if (!s || !s->registered)
        return;
    std::lock_guard guard(s->lock);
    --s->lockDepth;
}

id deviceDescription(id self, SEL)
{
    char text[256];
    id name = deviceLocalizedName(self, nullptr);
    snprintf(text, sizeof text, "<AVCaptureDevice: %p [%s]>", static_cast<void *>(self),
             name ? msg<const char *>(name, "UTF8String") : "");
    return str(text);
}

void deviceDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gDeviceSlot, "AVCaptureDevice", self);
}

// ---- AVCaptureDeviceDiscoverySession

id discoverySessionWith(id self, SEL, id deviceTypes, id mediaType, long position)
{
    id session = class_createInstance(reinterpret_cast<Class>(self), 0);
    DiscoveryState &s = gDiscoverySlot.get(session);
    for (id type : elements(deviceTypes))
        s.deviceTypes.emplace_back(type);
    s.mediaType = Ref(mediaType);
    s.position = position;
    return objc_autorelease(session);
}

id discoveryDevices(id self, SEL)
{
    auto *s = gDiscoverySlot.peek(self);
    if (!s)
        return array(std::vector<id>{});
    std::vector<id> out;
    std::vector<id> devices = registeredDevices();
    // Ordered by the order of the requested device types.
    for (const Ref &type : s->deviceTypes)
        for (id device : devices)
            if (deviceMatches(device, type.get(), s->mediaType.get(), s->position) &&
                std::find(out.begin(), out.end(), device) == out.end())
                out.push_back(device);
    return array(out);
}

id discoveryMultiCamSets(id self, SEL)
{
    return array(std::vector<id>{});
}

void discoveryDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gDiscoverySlot, "AVCaptureDeviceDiscoverySession", self);
}

__attribute__((constructor)) void declareDeviceClasses()
{
    fakeobjc::ClassDef("AVFrameRateRange", "NSObject")
        .method("minFrameRate", rangeMinRate)
        .method("maxFrameRate", rangeMaxRate)
        .method("minFrameDuration", rangeMinDuration)
        .method("maxFrameDuration", rangeMaxDuration)
        .method("dealloc", rangeDealloc)
        .stateIvar()
        .registerWith(gRangeSlot);

    fakeobjc::ClassDef("AVCaptureDeviceFormat", "NSObject")
        .method("mediaType", formatMediaType)
        .method("formatDescription", formatDescription)
        .method("videoSupportedFrameRateRanges", formatFrameRateRanges)
        .method("highResolutionStillImageDimensions", formatStillDimensions)
        .method("videoMaxZoomFactor", formatMaxZoom)
        .method("description", formatDescriptionText)
        .method("dealloc", formatDealloc)
        .stateIvar()
        .registerWith(gFormatSlot);

    fakeobjc::ClassDef("AVCaptureDevice", "NSObject")
        .classMethod("defaultDeviceWithMediaType:", defaultDeviceWithMediaType)
        .classMethod("deviceWithUniqueID:", deviceWithUniqueID)
        .classMethod("devices", allDevices)
        .classMethod("devicesWithMediaType:", devicesWithMediaType)
        .classMethod("defaultDeviceWithDeviceType:mediaType:position:", defaultDeviceWithDeviceType)
        .classMethod("authorizationStatusForMediaType:", authorizationStatusForMediaType)
        .method("localizedName", deviceLocalizedName)
        .method("uniqueID", deviceUniqueID)
        .method("modelID", deviceModelID)
        .method("manufacturer", deviceManufacturer)
        .method("position", devicePosition)
        .method("deviceType", deviceType)
        .method("formats", deviceFormats)
        .method("activeFormat", deviceActiveFormat)
        .method("setActiveFormat:", deviceSetActiveFormat)
        .method("hasFlash", deviceHasFlash)
        .method("hasTorch", deviceHasTorch)
        .method("isFocusPointOfInterestSupported", deviceFocusPOI)
        .method("isExposurePointOfInterestSupported", deviceExposurePOI)
        .method("isConnected", deviceIsConnected)
        .method("hasMediaType:", deviceHasMediaType)
        .method("supportsAVCaptureSessionPreset:", deviceSupportsPreset)
        .method("lockForConfiguration:", deviceLockForConfiguration)
        .method("unlockForConfiguration", deviceUnlockForConfiguration)
        .method("description", deviceDescription)
        .method("dealloc", deviceDealloc)
        .stateIvar()
        .registerWith(gDeviceSlot);

    fakeobjc::ClassDef("AVCaptureDeviceDiscoverySession", "NSObject")
        .classMethod("discoverySessionWithDeviceTypes:mediaType:position:", discoverySessionWith)
        .method("devices", discoveryDevices)
        .method("supportedMultiCamDeviceSets", discoveryMultiCamSets)
        .method("dealloc", discoveryDealloc)
        .stateIvar()
        .registerWith(gDiscoverySlot);
}

} // namespace

bool isRegisteredDevice(id device)
{
    if (!device)
        return false;
    auto *s = deviceState(device);
    return s && s->registered;
}

} // namespace avf

using namespace avf;

AVF_EXPORT id AVCaptureDeviceRegister_np(const char *name, const char *uniqueID, long position, id type, int width,
                                         int height, bool hasFlash, bool hasTorch, bool focusPOI, bool exposurePOI)
{
    id device = class_createInstance(objc_getClass("AVCaptureDevice"), 0);
    DeviceState &s = gDeviceSlot.get(device);
    s.name = Ref(str(name ? name : "Camera"));
    s.uniqueID = Ref(str(uniqueID ? uniqueID : "com.apple.avfoundation.avcapturedevice.built-in_video:0"));
    s.modelID = Ref(str("com.apple.avfoundation.avcapturedevice.built-in_video"));
    s.deviceType = Ref(type ? type : AVCaptureDeviceTypeBuiltInWideAngleCamera);
    s.position = position;
    s.hasFlash = hasFlash;
    s.hasTorch = hasTorch;
    s.focusPOI = focusPOI;
    s.exposurePOI = exposurePOI;
    s.formats.push_back(Ref::adopt(makeFormat(width, height, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange)));
    s.formats.push_back(Ref::adopt(makeFormat(width, height, kCVPixelFormatType_32BGRA)));
    s.activeFormat = s.formats.front();
    s.registered = true;
    std::lock_guard guard(gRegistryLock);
    registry().push_back(Ref::adopt(device));
    return device;
}

AVF_EXPORT void AVCaptureDeviceUnregisterAll_np(void)
{
    std::vector<Ref> old;
    {
        std::lock_guard guard(gRegistryLock);
        old.swap(registry());
    }
    for (const Ref &device : old)
        if (auto *s = gDeviceSlot.peek(device.get()))
            s->registered = false;
}

AVF_EXPORT long AVCaptureDeviceConfigurationLockDepth_np(id device)
{
    auto *s = device ? gDeviceSlot.peek(device) : nullptr;
    if (!s)
        return 0;
    std::lock_guard guard(s->lock);
    return s->lockDepth;
}
