// What CoreGraphics' files share: the hidden runtime classes behind the CG types and the pixel
// view of an image that drawing needs.
#pragma once

#include "CoreFoundation/cfinternal.h"
#include "objc/define.h"

#include <CoreGraphics/CoreGraphics.h>
#include <pixman.h>

#include <cstdint>
#include <vector>

namespace fakecg {

// obj when it is an instance of cls or a subclass, else nil.
inline id instanceOf(const void *ref, Class cls)
{
    id obj = reinterpret_cast<id>(const_cast<void *>(ref));
    if (!obj || !cls)
        return nil;
    for (Class c = object_getClass(obj); c; c = class_getSuperclass(c))
        if (c == cls)
            return obj;
    return nil;
}

struct ColorSpaceState {
    size_t components = 0;
};

struct DataProviderState {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    void *info = nullptr;
    CGDataProviderReleaseDataCallback releaseData = nullptr;
    id data = nil; // a CFData kept alive for CGDataProviderCreateWithCFData

    ~DataProviderState()
    {
        if (releaseData)
            releaseData(info, bytes, size);
        objc_release(data);
    }
};

struct ImageState {
    size_t width = 0;
    size_t height = 0;
    size_t bitsPerComponent = 0;
    size_t bitsPerPixel = 0;
    size_t bytesPerRow = 0;
    CGBitmapInfo bitmapInfo = 0;
    bool interpolate = true;
    id provider = nil;
    id colorSpace = nil;
    // What drawing reads: the provider's bytes, or a premultiplied 32-bit copy when pixman cannot
    // read the stored layout directly.
    const uint8_t *drawPixels = nullptr;
    size_t drawStride = 0;
    pixman_format_code_t drawFormat = PIXMAN_a8r8g8b8;
    std::vector<uint8_t> converted;

    ~ImageState()
    {
        objc_release(provider);
        objc_release(colorSpace);
    }
};

extern Class gColorSpaceClass;
extern Class gDataProviderClass;
extern Class gImageClass;
extern fakeobjc::StateSlot<ColorSpaceState> gColorSpaceSlot;
extern fakeobjc::StateSlot<DataProviderState> gDataProviderSlot;
extern fakeobjc::StateSlot<ImageState> gImageSlot;

inline ImageState *imageOf(CGImageRef image)
{
    id obj = instanceOf(image, gImageClass);
    return obj ? &gImageSlot.get(obj) : nullptr;
}

inline DataProviderState *providerOf(CGDataProviderRef provider)
{
    id obj = instanceOf(provider, gDataProviderClass);
    return obj ? &gDataProviderSlot.get(obj) : nullptr;
}

// The pixman format of a 32-bit, 8-bit-per-component CG layout whose alpha (if any) is
// premultiplied or skipped; false for layouts pixman cannot read as they are.
bool pixmanFormatFor(CGBitmapInfo info, pixman_format_code_t &format);

// +1 image over bytes the image takes ownership of (freed with it).
CGImageRef createOwnedImage(std::vector<uint8_t> &&pixels, size_t width, size_t height, size_t bytesPerRow,
    CGBitmapInfo info, CGColorSpaceRef space);

} // namespace fakecg
