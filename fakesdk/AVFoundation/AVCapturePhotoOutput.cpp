// AVCapturePhotoOutput, AVCapturePhotoSettings, AVCaptureResolvedPhotoSettings and AVCapturePhoto.
// Without an active, enabled video connection a capture raises, as on the Simulator; with a
// registered device in a running session it delivers a flat grey JPEG of the active format's size
// through the delegate callbacks, in Apple's order, on a global queue.
#include "AVOutputPrivate.h"

#include <Block.h>
#include <turbojpeg.h>

#include <atomic>

extern "C" id const AVVideoCodecTypeJPEG;

namespace avf {
namespace {

struct SettingsState {
    long long uniqueID = 0;
    Ref format;
    long flashMode = 0;
    long qualityPrioritization = 0;
};

struct ResolvedState {
    long long uniqueID = 0;
    CMVideoDimensions dimensions{0, 0};
};

struct PhotoState {
    Ref data;
    CVPixelBufferRef pixels = nullptr;
    CMTime timestamp{};
    Ref metadata;
    Ref resolvedSettings;
    std::once_flag decodeOnce;
    CGImageRef image = nullptr;
    ~PhotoState()
    {
        CVPixelBufferRelease(pixels);
        CGImageRelease(image);
    }
};

fakeobjc::StateSlot<SettingsState> gSettingsSlot;
fakeobjc::StateSlot<ResolvedState> gResolvedSlot;
fakeobjc::StateSlot<PhotoState> gPhotoSlot;
std::atomic<long long> gNextSettingsID{1};

// ---- AVCapturePhotoSettings

id settingsInit(id self, SEL)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("AVCapturePhotoSettings"), self, "init");
    if (self)
        gSettingsSlot.get(self).uniqueID = gNextSettingsID++;
    return self;
}

id settingsWithFormat(id self, SEL, id format)
{
    id settings = msg<id>(msg<id>(self, "alloc"), "init");
    if (format)
        gSettingsSlot.get(settings).format = Ref::adopt(msg<id>(format, "copy"));
    return objc_autorelease(settings);
}

id settingsPlain(id self, SEL)
{
    return settingsWithFormat(self, nullptr, nullptr);
}

id settingsFromSettings(id self, SEL, id other)
{
    id settings = msg<id>(msg<id>(self, "alloc"), "init");
    if (auto *o = other ? gSettingsSlot.peek(other) : nullptr) {
        SettingsState &s = gSettingsSlot.get(settings);
        s.format = o->format;
        s.flashMode = o->flashMode;
        s.qualityPrioritization = o->qualityPrioritization;
    }
    return objc_autorelease(settings);
}

long long settingsUniqueID(id self, SEL)
{
    auto *s = gSettingsSlot.peek(self);
    return s ? s->uniqueID : 0;
}

id settingsFormat(id self, SEL)
{
    auto *s = gSettingsSlot.peek(self);
    if (!s)
        return nullptr;
    if (s->format)
        return s->format.get();
    return dictionary({{AVVideoCodecKey, AVVideoCodecTypeJPEG}});
}

long settingsFlashMode(id self, SEL)
{
    auto *s = gSettingsSlot.peek(self);
    return s ? s->flashMode : 0;
}

void settingsSetFlashMode(id self, SEL, long mode)
{
    gSettingsSlot.get(self).flashMode = mode;
}

long settingsQuality(id self, SEL)
{
    auto *s = gSettingsSlot.peek(self);
    return s ? s->qualityPrioritization : 0;
}

void settingsSetQuality(id self, SEL, long value)
{
    gSettingsSlot.get(self).qualityPrioritization = value;
}

void settingsDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSettingsSlot, "AVCapturePhotoSettings", self);
}

// ---- AVCaptureResolvedPhotoSettings

long long resolvedUniqueID(id self, SEL)
{
    auto *s = gResolvedSlot.peek(self);
    return s ? s->uniqueID : 0;
}

CMVideoDimensions resolvedDimensions(id self, SEL)
{
    auto *s = gResolvedSlot.peek(self);
    return s ? s->dimensions : CMVideoDimensions{0, 0};
}

void resolvedDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gResolvedSlot, "AVCaptureResolvedPhotoSettings", self);
}

// ---- AVCapturePhoto

id photoFileData(id self, SEL)
{
    auto *s = gPhotoSlot.peek(self);
    return s ? s->data.get() : nullptr;
}

// Decoded from the file data on first request; the photo keeps it (+0 to the caller).
CGImageRef photoCGImage(id self, SEL)
{
    auto *s = gPhotoSlot.peek(self);
    if (!s || !s->data)
        return nullptr;
    std::call_once(s->decodeOnce, [s] {
        CGDataProviderRef provider = CGDataProviderCreateWithCFData(reinterpret_cast<CFDataRef>(s->data.get()));
        s->image = CGImageCreateWithJPEGDataProvider(provider, nullptr, false, kCGRenderingIntentDefault);
        CGDataProviderRelease(provider);
    });
    return s->image;
}

CVPixelBufferRef photoPixelBuffer(id self, SEL)
{
    auto *s = gPhotoSlot.peek(self);
    return s ? s->pixels : nullptr;
}

id photoMetadata(id self, SEL)
{
    auto *s = gPhotoSlot.peek(self);
    if (!s)
        return nullptr;
    return s->metadata ? s->metadata.get() : dictionary({});
}

CMTime photoTimestamp(id self, SEL)
{
    auto *s = gPhotoSlot.peek(self);
    return s ? s->timestamp : kCMTimeInvalid;
}

id photoResolvedSettings(id self, SEL)
{
    auto *s = gPhotoSlot.peek(self);
    return s ? s->resolvedSettings.get() : nullptr;
}

long photoCount(id self, SEL)
{
    return gPhotoSlot.peek(self) ? 1 : 0;
}

void photoDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gPhotoSlot, "AVCapturePhoto", self);
}

// ---- AVCapturePhotoOutput

id photoOutputInit(id self, SEL)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("AVCapturePhotoOutput"), self, "init");
    if (self)
        gOutputSlot.get(self).initialised = true;
    return self;
}

id activeVideoConnection(id output)
{
    for (id connection : elements(msg<id>(output, "connections"))) {
        bool video = false;
        for (id port : elements(msg<id>(connection, "inputPorts")))
            video = video || strEqual(msg<id>(port, "mediaType"), AVMediaTypeVideo);
        if (video && msg<bool>(connection, "isEnabled") && msg<bool>(connection, "isActive"))
            return connection;
    }
    return nullptr;
}

id makeJPEG(int width, int height, uint8_t shade)
{
    tjhandle handle = tjInitCompress();
    if (!handle)
        return nullptr;
    std::vector<uint8_t> pixels(size_t(width) * height * 3, shade);
    unsigned char *jpeg = nullptr;
    unsigned long size = 0;
    id data = nullptr;
    if (tjCompress2(handle, pixels.data(), width, 0, height, TJPF_RGB, &jpeg, &size, TJSAMP_420, 85, 0) == 0)
        data = msg<id>(cls("NSData"), "dataWithBytes:length:", static_cast<const void *>(jpeg), size);
    tjFree(jpeg);
    tjDestroy(handle);
    return data;
}

id makePhoto(CMVideoDimensions size, id resolved)
{
    id photo = class_createInstance(objc_getClass("AVCapturePhoto"), 0);
    PhotoState &s = gPhotoSlot.get(photo);
    s.data = Ref(makeJPEG(size.width, size.height, 0x80));
    CVPixelBufferCreate(kCFAllocatorDefault, size_t(size.width), size_t(size.height), kCVPixelFormatType_32BGRA,
                        nullptr, &s.pixels);
    s.timestamp = CMClockGetTime(CMClockGetHostTimeClock());
    s.resolvedSettings = Ref(resolved);
    return photo;
}

void capturePhoto(id self, SEL, id settings, id delegate)
{
    if (!settings)
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVCapturePhotoOutput capturePhotoWithSettings:delegate:] settings may not be nil");
    if (!delegate)
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVCapturePhotoOutput capturePhotoWithSettings:delegate:] delegate may not be nil");
    id connection = activeVideoConnection(self);
    if (!connection)
        fakeobjc::raise("NSInvalidArgumentException", "*** -[AVCapturePhotoOutput capturePhotoWithSettings:delegate:] "
                                                      "No active and enabled video connection");
    SEL finished = sel_registerName("captureOutput:didFinishProcessingPhoto:error:");
    SEL finishedOld = sel_registerName(
        "captureOutput:didFinishProcessingPhotoSampleBuffer:previewPhotoSampleBuffer:resolvedSettings:"
        "bracketSettings:error:");
    if (!msg<bool>(delegate, "respondsToSelector:", finished) && !msg<bool>(delegate, "respondsToSelector:", finishedOld))
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVCapturePhotoOutput capturePhotoWithSettings:delegate:] Delegate must respond to "
                        "captureOutput:didFinishProcessingPhoto:error:");
    long long uniqueID = msg<long long>(settings, "uniqueID");
    {
        OutputState &s = gOutputSlot.get(self);
        std::lock_guard guard(s.lock);
        if (!s.usedSettingIDs.insert(uniqueID).second)
            fakeobjc::raise("NSInvalidArgumentException", "*** -[AVCapturePhotoOutput "
                                                          "capturePhotoWithSettings:delegate:] Settings may not be "
                                                          "re-used");
    }

    CMVideoDimensions size = connectionBufferSize(connection);
    Ref resolved = Ref::adopt(class_createInstance(objc_getClass("AVCaptureResolvedPhotoSettings"), 0));
    gResolvedSlot.get(resolved.get()).uniqueID = uniqueID;
    gResolvedSlot.get(resolved.get()).dimensions = size;
    Ref photo = Ref::adopt(makePhoto(size, resolved.get()));
    Ref output(self), target(delegate);
    dispatch_async(dispatch_get_global_queue(QOS_CLASS_USER_INITIATED, 0), ^{
        auto send = [&](const char *selector, id argument, bool withError) {
            SEL sel = sel_registerName(selector);
            if (!msg<bool>(target.get(), "respondsToSelector:", sel))
                return;
            if (withError)
                msg<void>(target.get(), sel, output.get(), argument, static_cast<id>(nullptr));
            else
                msg<void>(target.get(), sel, output.get(), argument);
        };
        send("captureOutput:willBeginCaptureForResolvedSettings:", resolved.get(), false);
        send("captureOutput:willCapturePhotoForResolvedSettings:", resolved.get(), false);
        send("captureOutput:didCapturePhotoForResolvedSettings:", resolved.get(), false);
        send("captureOutput:didFinishProcessingPhoto:error:", photo.get(), true);
        send("captureOutput:didFinishCaptureForResolvedSettings:error:", resolved.get(), true);
    });
}

id photoOutputCodecTypes(id self, SEL)
{
    if (!activeVideoConnection(self) && !msg<id>(self, "connectionWithMediaType:", AVMediaTypeVideo))
        return array(std::vector<id>{});
    return array(std::vector<id>{AVVideoCodecTypeJPEG});
}

id photoOutputPixelFormats(id self, SEL)
{
    if (!msg<id>(self, "connectionWithMediaType:", AVMediaTypeVideo))
        return array(std::vector<id>{});
    return array(std::vector<id>{msg<id>(cls("NSNumber"), "numberWithUnsignedInt:", unsigned(kCVPixelFormatType_32BGRA))});
}

long photoOutputMaxQuality(id self, SEL)
{
    auto *s = outputState(self);
    return s && s->initialised ? 2 : 0;
}

void photoOutputSetMaxQuality(id self, SEL, long value)
{
}

bool photoOutputHighResolution(id self, SEL)
{
    return false;
}

void photoOutputSetHighResolution(id self, SEL, bool value)
{
}

id photoOutputFlashModes(id self, SEL)
{
    return array(std::vector<id>{});
}

__attribute__((constructor(202))) void declarePhotoClasses()
{
    fakeobjc::ClassDef("AVCapturePhotoSettings", "NSObject")
        .classMethod("photoSettings", settingsPlain)
        .classMethod("photoSettingsWithFormat:", settingsWithFormat)
        .classMethod("photoSettingsFromPhotoSettings:", settingsFromSettings)
        .method("init", settingsInit)
        .method("uniqueID", settingsUniqueID)
        .method("format", settingsFormat)
        .method("flashMode", settingsFlashMode)
        .method("setFlashMode:", settingsSetFlashMode)
        .method("photoQualityPrioritization", settingsQuality)
        .method("setPhotoQualityPrioritization:", settingsSetQuality)
        .method("dealloc", settingsDealloc)
        .stateIvar()
        .registerWith(gSettingsSlot);

    fakeobjc::ClassDef("AVCaptureResolvedPhotoSettings", "NSObject")
        .method("uniqueID", resolvedUniqueID)
        .method("photoDimensions", resolvedDimensions)
        .method("dealloc", resolvedDealloc)
        .stateIvar()
        .registerWith(gResolvedSlot);

    fakeobjc::ClassDef("AVCapturePhoto", "NSObject")
        .method("fileDataRepresentation", photoFileData)
        .method("CGImageRepresentation", photoCGImage)
        .method("pixelBuffer", photoPixelBuffer)
        .method("metadata", photoMetadata)
        .method("timestamp", photoTimestamp)
        .method("resolvedSettings", photoResolvedSettings)
        .method("photoCount", photoCount)
        .method("dealloc", photoDealloc)
        .stateIvar()
        .registerWith(gPhotoSlot);

    fakeobjc::ClassDef("AVCapturePhotoOutput", "AVCaptureOutput")
        .method("init", photoOutputInit)
        .method("capturePhotoWithSettings:delegate:", capturePhoto)
        .method("availablePhotoCodecTypes", photoOutputCodecTypes)
        .method("availablePhotoPixelFormatTypes", photoOutputPixelFormats)
        .method("supportedFlashModes", photoOutputFlashModes)
        .method("maxPhotoQualityPrioritization", photoOutputMaxQuality)
        .method("setMaxPhotoQualityPrioritization:", photoOutputSetMaxQuality)
        .method("isHighResolutionCaptureEnabled", photoOutputHighResolution)
        .method("setHighResolutionCaptureEnabled:", photoOutputSetHighResolution)
        .registerClass();
}

} // namespace
} // namespace avf
