// AVFoundation's private helpers: Foundation objects made by message sends, owning and weak
// references for C++ state, and the pieces the capture classes share across files.
#pragma once

#include "objc/define.h"

#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>
#include <CoreMedia/CoreMedia.h>
#include <CoreVideo/CoreVideo.h>

#include <mutex>
#include <utility>
#include <vector>

// Exported data and functions; everything else stays inside the image so that the message sends
// of these sources are made from code whose address lies in AVFoundation itself.
#define AVF_EXPORT extern "C" __attribute__((visibility("default")))

FAKEOBJC_ENCODING(CGRect, "{CGRect={CGPoint=dd}{CGSize=dd}}");
FAKEOBJC_ENCODING(CGPoint, "{CGPoint=dd}");
FAKEOBJC_ENCODING(CGSize, "{CGSize=dd}");
FAKEOBJC_ENCODING(CMTime, "{?=qiIq}");
FAKEOBJC_ENCODING(CMVideoDimensions, "{?=ii}");
FAKEOBJC_ENCODING(CMFormatDescriptionRef, "^{opaqueCMFormatDescription=}");
FAKEOBJC_ENCODING(CMSampleBufferRef, "^{opaqueCMSampleBuffer=}");
FAKEOBJC_ENCODING(CVPixelBufferRef, "^{__CVBuffer=}");
FAKEOBJC_ENCODING(CGImageRef, "^{CGImage=}");
FAKEOBJC_ENCODING(id *, "^@");

extern "C" {
extern id const AVMediaTypeVideo;
extern id const AVMediaTypeAudio;
extern id const AVMediaTypeMetadataObject;
extern id const AVMetadataObjectTypeQRCode;
extern id const AVCaptureDeviceTypeBuiltInWideAngleCamera;
extern id const AVVideoCodecKey;
extern id const AVVideoCodecTypeH264;
extern id const AVVideoCodecTypeJPEG;
extern id const AVVideoWidthKey;
extern id const AVVideoHeightKey;
extern id const AVVideoCompressionPropertiesKey;
extern id const AVVideoAverageBitRateKey;
extern id const AVCaptureSessionPresetHigh;
extern id const AVLayerVideoGravityResizeAspect;
}

namespace avf {

using fakeobjc::cls;
using fakeobjc::msg;

// One owned reference (retain on copy, release on destruction).
class Ref {
public:
    Ref() = default;
    explicit Ref(id obj) : obj_(objc_retain(obj)) {}
    Ref(const Ref &other) : obj_(objc_retain(other.obj_)) {}
    Ref(Ref &&other) noexcept : obj_(std::exchange(other.obj_, nullptr)) {}
    Ref &operator=(Ref other) noexcept
    {
        std::swap(obj_, other.obj_);
        return *this;
    }
    ~Ref()
    {
        if (obj_)
            objc_release(obj_);
    }
    [[nodiscard]] static Ref adopt(id obj)
    {
        Ref ref;
        ref.obj_ = obj;
        return ref;
    }
    id get() const { return obj_; }
    explicit operator bool() const { return obj_ != nullptr; }

private:
    id obj_ = nullptr;
};

// A zeroing weak slot; its address must not change, so it is neither copied nor moved.
class Weak {
public:
    Weak() = default;
    Weak(const Weak &) = delete;
    Weak &operator=(const Weak &) = delete;
    ~Weak() { objc_storeWeak(&slot_, nullptr); }
    void set(id obj) { objc_storeWeak(&slot_, obj); }
    // +0 (autoreleased), nil once the object is gone.
    id get()
    {
        id obj = objc_loadWeakRetained(&slot_);
        return obj ? objc_autorelease(obj) : nullptr;
    }
    // +1, for code that runs without a pool.
    Ref load() { return Ref::adopt(objc_loadWeakRetained(&slot_)); }

private:
    id slot_ = nullptr;
};

inline id str(const char *text)
{
    return msg<id>(cls("NSString"), "stringWithUTF8String:", text);
}

inline bool strEqual(id a, id b)
{
    if (a == b)
        return true;
    if (!a || !b)
        return false;
    return msg<bool>(a, "isEqual:", b);
}

inline id number(long value)
{
    return msg<id>(cls("NSNumber"), "numberWithInteger:", value);
}

inline id array(const std::vector<id> &objects)
{
    return msg<id>(cls("NSArray"), "arrayWithObjects:count:", objects.empty() ? nullptr : objects.data(),
                   static_cast<unsigned long>(objects.size()));
}

inline id array(const std::vector<Ref> &objects)
{
    std::vector<id> raw;
    for (const Ref &ref : objects)
        raw.push_back(ref.get());
    return array(raw);
}

inline std::vector<id> elements(id nsArray)
{
    std::vector<id> out;
    unsigned long count = msg<unsigned long>(nsArray, "count");
    for (unsigned long i = 0; i < count; ++i)
        out.push_back(msg<id>(nsArray, "objectAtIndex:", i));
    return out;
}

inline id dictionary(const std::vector<std::pair<id, id>> &entries)
{
    std::vector<id> keys, values;
    for (auto &[key, value] : entries) {
        keys.push_back(key);
        values.push_back(value);
    }
    return msg<id>(cls("NSDictionary"), "dictionaryWithObjects:forKeys:count:", values.data(), keys.data(),
                   static_cast<unsigned long>(keys.size()));
}

inline bool isKind(id obj, const char *className)
{
    return obj && msg<bool>(obj, "isKindOfClass:", cls(className));
}

// Shared across the capture files.
bool isRegisteredDevice(id device);
id deviceNotConnectedError(); // +0 NSError, AVFoundationErrorDomain -11814
id makeInputPort(id input, id device);   // +1
void portSetInput(id port, id input);
id deviceInputDevice(id input);           // +0, the device the framework opened, nil for a bare input
id inputSession(id input);
void inputSetSession(id input, id session);
id outputSession(id output);
void outputSetSession(id output, id session);
void outputAttachConnection(id output, id connection);
void outputDetachConnection(id output, id connection);
std::vector<id> outputOwnConnections(id output);
void connectionSetSession(id connection, id session);
id connectionSession(id connection);
std::vector<id> connectionPorts(id connection);
id connectionOwnOutput(id connection);
void videoOutputStartDelivery(id output, id connection);
void videoOutputStopDelivery(id output);
id sessionVideoPort(id session);
void sessionAttachConnection(id session, id connection);
void sessionDetachConnection(id session, id connection);

} // namespace avf
