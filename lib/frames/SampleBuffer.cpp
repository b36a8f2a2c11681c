#include "frames/SampleBuffer.h"

using namespace zerlan::objc;

namespace {

constexpr uint32_t kBGRAContextInfo = static_cast<uint32_t>(kCGBitmapByteOrder32Little) |
                                       static_cast<uint32_t>(kCGImageAlphaPremultipliedFirst); // 0x2002

CFDictionaryRef createPixelBufferAttributes()
{
    CFDictionaryRef surface =
        CFDictionaryCreate(kCFAllocatorDefault, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                           &kCFTypeDictionaryValueCallBacks);
    const void *keys[] = {kCVPixelBufferCGImageCompatibilityKey, kCVPixelBufferCGBitmapContextCompatibilityKey,
                          kCVPixelBufferIOSurfacePropertiesKey};
    const void *values[] = {kCFBooleanTrue, kCFBooleanTrue, surface};
    CFDictionaryRef attributes = CFDictionaryCreate(kCFAllocatorDefault, keys, values, 3,
                                                    &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    if (surface)
        CFRelease(surface);
    return attributes;
}

// Aspect fill, centred: the larger scale wins (sx on a tie or an unordered comparison).
CGRect fillRect(double width, double height, CGImageRef bitmap)
{
    double w = static_cast<double>(CGImageGetWidth(bitmap));
    double h = static_cast<double>(CGImageGetHeight(bitmap));
    double sx = width / w;
    double sy = height / h;
    double s = sy > sx ? sy : sx;
    double dw = w * s;
    double dh = h * s;
    return CGRectMake((width - dw) * 0.5, (height - dh) / 2, dw, dh);
}

} // namespace

CMSampleBufferRef ZerlanCreateSampleBuffer(id image, long orientation)
{
    bool portrait = orientation == 1 || orientation == 2;
    size_t width = portrait ? 480 : 640;
    size_t height = portrait ? 640 : 480;

    CFDictionaryRef attributes = createPixelBufferAttributes();
    CVPixelBufferRef pixelBuffer = nullptr;
    CVReturn created = CVPixelBufferCreate(kCFAllocatorDefault, width, height, kCVPixelFormatType_32BGRA, attributes,
                                           &pixelBuffer);
    if (attributes)
        CFRelease(attributes);
    if (created != 0 || !pixelBuffer) {
        if (pixelBuffer)
            CFRelease(pixelBuffer);
        return nullptr;
    }

    CVPixelBufferLockBaseAddress(pixelBuffer, 0);
    CGColorSpaceRef colorSpace = CGColorSpaceCreateDeviceRGB();
    CGContextRef context = CGBitmapContextCreate(CVPixelBufferGetBaseAddress(pixelBuffer), width, height, 8,
                                                 CVPixelBufferGetBytesPerRow(pixelBuffer), colorSpace, kBGRAContextInfo);
    if (!context) {
        if (colorSpace)
            CGColorSpaceRelease(colorSpace);
        CVPixelBufferUnlockBaseAddress(pixelBuffer, 0);
        CFRelease(pixelBuffer);
        return nullptr;
    }
    CGImageRef bitmap = send<CGImageRef>(image, sel<"CGImage">());
    CGContextDrawImage(context, fillRect(static_cast<double>(width), static_cast<double>(height), bitmap), bitmap);
    CGContextRelease(context);
    if (colorSpace)
        CGColorSpaceRelease(colorSpace);
    CVPixelBufferUnlockBaseAddress(pixelBuffer, 0);

    CMVideoFormatDescriptionRef format = nullptr;
    if (CMVideoFormatDescriptionCreateForImageBuffer(kCFAllocatorDefault, pixelBuffer, &format) != 0) {
        if (format)
            CFRelease(format);
        CFRelease(pixelBuffer);
        return nullptr;
    }

    CMSampleTimingInfo timing;
    timing.duration = CMTimeMake(1, 10);
    timing.presentationTimeStamp = CMClockGetTime(CMClockGetHostTimeClock());
    timing.decodeTimeStamp = kCMTimeInvalid;
    CMSampleBufferRef sampleBuffer = nullptr;
    CMSampleBufferCreateReadyWithImageBuffer(kCFAllocatorDefault, pixelBuffer, format, &timing, &sampleBuffer);
    if (format)
        CFRelease(format);
    CFRelease(pixelBuffer);
    return sampleBuffer;
}
