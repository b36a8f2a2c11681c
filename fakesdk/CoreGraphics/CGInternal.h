// What CoreGraphics' files share: the hidden runtime classes behind the CG types and the pixel
// view of an image that drawing needs.
#pragma once

#include "CGPrivate.h"
#include "CoreFoundation/cfinternal.h"
#include "objc/define.h"

#include <CoreGraphics/CoreGraphics.h>
#include <pixman.h>

#include <cstdint>
#include <memory>
#include <optional>
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

// Pictures as ImageIO reads them (CGDecode.cpp).
enum class PictureFormat { jpeg, png };

struct PictureHeader {
    PictureFormat format;
    size_t width;
    size_t height;
    bool interlaced; // PNG
};

// How large a decoded bitmap may be: its pixel count and its longest side.
struct DecodeLimit {
    size_t pixels;
    size_t side;
};

// The size a file of `format` (JPEG or PNG) states, read without decoding; nothing for bytes of
// another format or a header the decoder refuses.
std::optional<PictureHeader> readPictureHeader(const uint8_t *bytes, size_t size, PictureFormat format);

// The picture whole, or reduced as little as it must be to fit the limit (a JPEG by one of the
// decoder's scaling factors, a PNG by a whole factor). False when the bytes do not decode or the
// memory cannot be had; never throws.
bool decodePicture(const uint8_t *bytes, size_t size, const PictureHeader &header, const DecodeLimit &limit,
    Bitmap &out);

struct ColorSpaceState {
    size_t components = 0;
};

struct DataProviderState {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    void *info = nullptr;
    CGDataProviderReleaseDataCallback releaseData = nullptr;
    id data = nil; // a CFData kept alive for CGDataProviderCreateWithCFData
    // A reduced picture's provider has no bytes of its own: it decodes the encoded picture, held
    // by this provider, whole when its data is asked for.
    id encoded = nil;
    PictureHeader header{};

    ~DataProviderState()
    {
        if (releaseData)
            releaseData(info, bytes, size);
        objc_release(data);
        objc_release(encoded);
    }
};

struct ImageState {
    // The picture's size. A picture decoded reduced keeps fewer pixels (pixelWidth x pixelHeight)
    // and draws from them; its data provider decodes it whole when asked.
    size_t width = 0;
    size_t height = 0;
    size_t pixelWidth = 0;
    size_t pixelHeight = 0;
    size_t bitsPerComponent = 0;
    size_t bitsPerPixel = 0;
    size_t bytesPerRow = 0;
    CGBitmapInfo bitmapInfo = 0;
    bool interpolate = true;
    id provider = nil;
    id wholeProvider = nil; // a reduced picture's: what CGImageGetDataProvider answers
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
        objc_release(wholeProvider);
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
