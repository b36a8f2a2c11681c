// Colour spaces, data providers and images. Decoded images hold BGRA, premultiplied alpha first,
// 32-bit little-endian (bitmap info 0x2002), top row first: the layout of a 32BGRA pixel buffer.
#include "CGInternal.h"
#include "CGPrivate.h"

#include <png.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

using namespace fakeobjc;

namespace fakecg {

Class gColorSpaceClass;
Class gDataProviderClass;
Class gImageClass;
StateSlot<ColorSpaceState> gColorSpaceSlot;
StateSlot<DataProviderState> gDataProviderSlot;
StateSlot<ImageState> gImageSlot;

namespace {

void colorSpaceDealloc(id self, SEL)
{
    destroyStateThenSuper(gColorSpaceSlot, "OpaqueCGColorSpace", self);
}

void providerDealloc(id self, SEL)
{
    destroyStateThenSuper(gDataProviderSlot, "OpaqueCGDataProvider", self);
}

void imageDealloc(id self, SEL)
{
    destroyStateThenSuper(gImageSlot, "OpaqueCGImage", self);
}

__attribute__((constructor)) void declareImageClasses()
{
    gColorSpaceClass = ClassDef("OpaqueCGColorSpace", "NSObject")
                           .stateIvar()
                           .method("dealloc", colorSpaceDealloc)
                           .registerWith(gColorSpaceSlot);
    gDataProviderClass = ClassDef("OpaqueCGDataProvider", "NSObject")
                             .stateIvar()
                             .method("dealloc", providerDealloc)
                             .registerWith(gDataProviderSlot);
    gImageClass
        = ClassDef("OpaqueCGImage", "NSObject").stateIvar().method("dealloc", imageDealloc).registerWith(gImageSlot);
}

ColorSpaceState *colorSpaceOf(CGColorSpaceRef space)
{
    id obj = instanceOf(space, gColorSpaceClass);
    return obj ? &gColorSpaceSlot.get(obj) : nullptr;
}

CGColorSpaceRef createColorSpace(size_t components)
{
    id obj = class_createInstance(gColorSpaceClass, 0);
    gColorSpaceSlot.get(obj).components = components;
    return reinterpret_cast<CGColorSpaceRef>(obj);
}

void deleteVector(void *info, const void *, size_t)
{
    delete static_cast<std::vector<uint8_t> *>(info);
}

void deleteBytes(void *info, const void *, size_t)
{
    delete[] static_cast<uint8_t *>(info);
}

constexpr CGBitmapInfo kDecodedBitmapInfo = kCGBitmapByteOrder32Little | uint32_t(kCGImageAlphaPremultipliedFirst);

bool isAlphaFirst(CGImageAlphaInfo alpha)
{
    return alpha == kCGImageAlphaPremultipliedFirst || alpha == kCGImageAlphaFirst
        || alpha == kCGImageAlphaNoneSkipFirst;
}

// Byte positions of A, R, G, B inside one 32-bit pixel in memory.
struct ByteOrder {
    int a, r, g, b;
};

ByteOrder byteOrderOf(CGBitmapInfo info)
{
    bool little = (info & kCGBitmapByteOrderMask) == kCGBitmapByteOrder32Little;
    bool first = isAlphaFirst(CGImageAlphaInfo(info & kCGBitmapAlphaInfoMask));
    // Big-endian (and default) order is the memory order of the name: ARGB or RGBA.
    ByteOrder big = first ? ByteOrder{0, 1, 2, 3} : ByteOrder{3, 0, 1, 2};
    if (!little)
        return big;
    return {3 - big.a, 3 - big.r, 3 - big.g, 3 - big.b};
}

} // namespace

bool pixmanFormatFor(CGBitmapInfo info, pixman_format_code_t &format)
{
    auto alpha = CGImageAlphaInfo(info & kCGBitmapAlphaInfoMask);
    CGBitmapInfo order = info & kCGBitmapByteOrderMask;
    if (info & kCGBitmapFloatComponents)
        return false;
    if (order != kCGBitmapByteOrderDefault && order != kCGBitmapByteOrder32Big && order != kCGBitmapByteOrder32Little)
        return false;
    bool little = order == kCGBitmapByteOrder32Little;
    // pixman names a 32-bit word from its high byte down; on this little-endian machine the word
    // a8r8g8b8 sits in memory as B, G, R, A.
    switch (alpha) {
    case kCGImageAlphaPremultipliedFirst:
        format = little ? PIXMAN_a8r8g8b8 : PIXMAN_b8g8r8a8;
        return true;
    case kCGImageAlphaNoneSkipFirst:
        format = little ? PIXMAN_x8r8g8b8 : PIXMAN_b8g8r8x8;
        return true;
    case kCGImageAlphaPremultipliedLast:
        format = little ? PIXMAN_r8g8b8a8 : PIXMAN_a8b8g8r8;
        return true;
    case kCGImageAlphaNoneSkipLast:
        format = little ? PIXMAN_r8g8b8x8 : PIXMAN_x8b8g8r8;
        return true;
    default:
        return false;
    }
}

CGImageRef createOwnedImage(std::vector<uint8_t> &&pixels, size_t width, size_t height, size_t bytesPerRow,
    CGBitmapInfo info, CGColorSpaceRef space)
{
    auto *owned = new std::vector<uint8_t>(std::move(pixels));
    CGDataProviderRef provider = CGDataProviderCreateWithData(owned, owned->data(), owned->size(), deleteVector);
    CGColorSpaceRef ownSpace = space ? CGColorSpaceRetain(space) : CGColorSpaceCreateDeviceRGB();
    CGImageRef image = CGImageCreate(
        width, height, 8, 32, bytesPerRow, ownSpace, info, provider, nullptr, true, kCGRenderingIntentDefault);
    CGColorSpaceRelease(ownSpace);
    CGDataProviderRelease(provider);
    return image;
}

namespace {

// A decoded picture's bitmap may take at most 1 GiB: a picture that claims more (a JPEG header
// says up to 65500 x 65500) is memory an app cannot have, and decoding fails as ImageIO's does
// when its allocation fails: no image. Larger than 2048 x 2048, a picture keeps reduced pixels,
// which is all that drawing it at a screen's or a pixel buffer's size needs; its whole pixels
// are decoded again when asked for.
constexpr size_t kMaxPicturePixels = (size_t(1) << 30) / 4;
constexpr DecodeLimit kKeptPixels = {size_t(2048) * 2048, 32767}; // pixman addresses 15-bit coordinates

CGImageRef createPicture(CGDataProviderRef source, PictureFormat format)
{
    DataProviderState *encoded = providerOf(source);
    std::optional<PictureHeader> header =
        encoded ? readPictureHeader(encoded->bytes, encoded->size, format) : std::nullopt;
    if (!header || header->width * header->height > kMaxPicturePixels)
        return nullptr;
    Bitmap bitmap;
    if (!decodePicture(encoded->bytes, encoded->size, *header, kKeptPixels, bitmap))
        return nullptr;
    uint8_t *data = bitmap.pixels.release();
    size_t length = bitmap.width * 4 * bitmap.height;
    CGDataProviderRef provider = CGDataProviderCreateWithData(data, data, length, deleteBytes);
    CGColorSpaceRef space = CGColorSpaceCreateDeviceRGB();
    CGImageRef image = CGImageCreate(bitmap.width, bitmap.height, 8, 32, bitmap.width * 4, space, kDecodedBitmapInfo,
        provider, nullptr, true, kCGRenderingIntentDefault);
    CGColorSpaceRelease(space);
    CGDataProviderRelease(provider);
    ImageState *st = imageOf(image);
    if (st && (bitmap.width != header->width || bitmap.height != header->height)) {
        st->width = header->width;
        st->height = header->height;
        st->bytesPerRow = header->width * 4;
        id whole = class_createInstance(gDataProviderClass, 0);
        DataProviderState &wholeState = gDataProviderSlot.get(whole);
        wholeState.encoded = objc_retain(reinterpret_cast<id>(source));
        wholeState.header = *header;
        st->wholeProvider = whole;
    }
    return image;
}

// The picture of a reduced picture's provider, whole; false when the memory cannot be had.
bool decodeWhole(const DataProviderState &whole, Bitmap &out)
{
    const DataProviderState *encoded = providerOf(reinterpret_cast<CGDataProviderRef>(whole.encoded));
    return encoded
        && decodePicture(encoded->bytes, encoded->size, whole.header, {kMaxPicturePixels, SIZE_MAX}, out);
}

// Pixman reads premultiplied 32-bit words at 4-byte aligned strides; anything else is converted
// once, at creation, to a premultiplied BGRA copy.
bool prepareDrawing(ImageState &st)
{
    const uint8_t *bytes = providerOf(reinterpret_cast<CGDataProviderRef>(st.provider))->bytes;
    auto alpha = CGImageAlphaInfo(st.bitmapInfo & kCGBitmapAlphaInfoMask);
    pixman_format_code_t format;
    if (st.bitsPerPixel == 32 && st.bytesPerRow % 4 == 0 && pixmanFormatFor(st.bitmapInfo, format)) {
        st.drawPixels = bytes;
        st.drawStride = st.bytesPerRow;
        st.drawFormat = format;
        return true;
    }
    bool rgb24 = st.bitsPerPixel == 24 && alpha == kCGImageAlphaNone;
    bool straight = st.bitsPerPixel == 32
        && (alpha == kCGImageAlphaFirst || alpha == kCGImageAlphaLast || alpha == kCGImageAlphaPremultipliedFirst
            || alpha == kCGImageAlphaPremultipliedLast || alpha == kCGImageAlphaNoneSkipFirst
            || alpha == kCGImageAlphaNoneSkipLast);
    if (!rgb24 && !straight)
        return false;
    if (straight && (st.bitmapInfo & kCGBitmapByteOrderMask) != kCGBitmapByteOrderDefault
        && (st.bitmapInfo & kCGBitmapByteOrderMask) != kCGBitmapByteOrder32Big
        && (st.bitmapInfo & kCGBitmapByteOrderMask) != kCGBitmapByteOrder32Little)
        return false;
    ByteOrder order = rgb24 ? ByteOrder{-1, 0, 1, 2} : byteOrderOf(st.bitmapInfo);
    bool premultiply = alpha == kCGImageAlphaFirst || alpha == kCGImageAlphaLast;
    bool opaque = order.a < 0 || alpha == kCGImageAlphaNoneSkipFirst || alpha == kCGImageAlphaNoneSkipLast;
    size_t bpp = st.bitsPerPixel / 8;
    try {
        st.converted.resize(st.width * 4 * st.height);
    } catch (const std::bad_alloc &) {
        return false; // no memory for the copy: CGImageCreate gives no image
    }
    for (size_t y = 0; y < st.height; ++y) {
        const uint8_t *in = bytes + y * st.bytesPerRow;
        uint8_t *out = st.converted.data() + y * st.width * 4;
        for (size_t x = 0; x < st.width; ++x, in += bpp, out += 4) {
            unsigned a = opaque ? 255 : in[order.a];
            unsigned r = in[order.r], g = in[order.g], b = in[order.b];
            if (premultiply) {
                r = (r * a + 127) / 255;
                g = (g * a + 127) / 255;
                b = (b * a + 127) / 255;
            }
            out[0] = uint8_t(b);
            out[1] = uint8_t(g);
            out[2] = uint8_t(r);
            out[3] = uint8_t(a);
        }
    }
    st.drawPixels = st.converted.data();
    st.drawStride = st.width * 4;
    st.drawFormat = PIXMAN_a8r8g8b8;
    return true;
}

id retainedOrNil(const void *ref)
{
    return ref ? objc_retain(reinterpret_cast<id>(const_cast<void *>(ref))) : nil;
}

} // namespace
} // namespace fakecg

using namespace fakecg;

extern "C" {

// ---- colour spaces

CFTypeID CGColorSpaceGetTypeID(void)
{
    return fakecf::typeIDForClass(gColorSpaceClass);
}

CGColorSpaceRef CGColorSpaceCreateDeviceRGB(void)
{
    return createColorSpace(3);
}

CGColorSpaceRef CGColorSpaceCreateDeviceGray(void)
{
    return createColorSpace(1);
}

CGColorSpaceRef CGColorSpaceRetain(CGColorSpaceRef space)
{
    return reinterpret_cast<CGColorSpaceRef>(retainedOrNil(space));
}

void CGColorSpaceRelease(CGColorSpaceRef space)
{
    if (space)
        objc_release(reinterpret_cast<id>(space));
}

size_t CGColorSpaceGetNumberOfComponents(CGColorSpaceRef space)
{
    ColorSpaceState *st = colorSpaceOf(space);
    return st ? st->components : 0;
}

// ---- data providers

CFTypeID CGDataProviderGetTypeID(void)
{
    return fakecf::typeIDForClass(gDataProviderClass);
}

CGDataProviderRef CGDataProviderCreateWithData(
    void *info, const void *data, size_t size, CGDataProviderReleaseDataCallback releaseData)
{
    id obj = class_createInstance(gDataProviderClass, 0);
    DataProviderState &st = gDataProviderSlot.get(obj);
    st.bytes = static_cast<const uint8_t *>(data);
    st.size = size;
    st.info = info;
    st.releaseData = releaseData;
    return reinterpret_cast<CGDataProviderRef>(obj);
}

CGDataProviderRef CGDataProviderCreateWithCFData(CFDataRef data)
{
    if (!data)
        return nullptr;
    id obj = class_createInstance(gDataProviderClass, 0);
    DataProviderState &st = gDataProviderSlot.get(obj);
    st.data = retainedOrNil(data);
    st.bytes = CFDataGetBytePtr(data);
    st.size = size_t(CFDataGetLength(data));
    return reinterpret_cast<CGDataProviderRef>(obj);
}

CGDataProviderRef CGDataProviderRetain(CGDataProviderRef provider)
{
    return reinterpret_cast<CGDataProviderRef>(retainedOrNil(provider));
}

void CGDataProviderRelease(CGDataProviderRef provider)
{
    if (provider)
        objc_release(reinterpret_cast<id>(provider));
}

CFDataRef CGDataProviderCopyData(CGDataProviderRef provider)
{
    DataProviderState *st = providerOf(provider);
    if (!st)
        return nullptr;
    if (!st->encoded)
        return CFDataCreate(kCFAllocatorDefault, st->bytes, CFIndex(st->size));
    Bitmap whole;
    if (!decodeWhole(*st, whole))
        return nullptr;
    return CFDataCreate(kCFAllocatorDefault, whole.pixels.get(), CFIndex(whole.width * 4 * whole.height));
}

// ---- images

CFTypeID CGImageGetTypeID(void)
{
    return fakecf::typeIDForClass(gImageClass);
}

CGImageRef CGImageCreate(size_t width, size_t height, size_t bitsPerComponent, size_t bitsPerPixel, size_t bytesPerRow,
    CGColorSpaceRef space, CGBitmapInfo bitmapInfo, CGDataProviderRef provider, const CGFloat *, bool shouldInterpolate,
    CGColorRenderingIntent)
{
    DataProviderState *source = providerOf(provider);
    if (!source || width == 0 || height == 0 || bitsPerComponent != 8 || (bitsPerPixel != 32 && bitsPerPixel != 24)
        || bytesPerRow < width * (bitsPerPixel / 8) || CGColorSpaceGetNumberOfComponents(space) != 3)
        return nullptr;
    if (source->size < bytesPerRow * (height - 1) + width * (bitsPerPixel / 8))
        return nullptr;
    id obj = class_createInstance(gImageClass, 0);
    ImageState &st = gImageSlot.get(obj);
    st.width = st.pixelWidth = width;
    st.height = st.pixelHeight = height;
    st.bitsPerComponent = bitsPerComponent;
    st.bitsPerPixel = bitsPerPixel;
    st.bytesPerRow = bytesPerRow;
    st.bitmapInfo = bitmapInfo;
    st.interpolate = shouldInterpolate;
    st.provider = retainedOrNil(provider);
    st.colorSpace = retainedOrNil(space);
    if (!prepareDrawing(st)) {
        objc_release(obj);
        return nullptr;
    }
    return reinterpret_cast<CGImageRef>(obj);
}

CGImageRef CGImageCreateWithJPEGDataProvider(CGDataProviderRef source, const CGFloat *, bool, CGColorRenderingIntent)
{
    return createPicture(source, PictureFormat::jpeg);
}

CGImageRef CGImageCreateWithPNGDataProvider(CGDataProviderRef source, const CGFloat *, bool, CGColorRenderingIntent)
{
    return createPicture(source, PictureFormat::png);
}

CGImageRef CGImageRetain(CGImageRef image)
{
    return reinterpret_cast<CGImageRef>(retainedOrNil(image));
}

void CGImageRelease(CGImageRef image)
{
    if (image)
        objc_release(reinterpret_cast<id>(image));
}

size_t CGImageGetWidth(CGImageRef image)
{
    ImageState *st = imageOf(image);
    return st ? st->width : 0;
}

size_t CGImageGetHeight(CGImageRef image)
{
    ImageState *st = imageOf(image);
    return st ? st->height : 0;
}

size_t CGImageGetBitsPerComponent(CGImageRef image)
{
    ImageState *st = imageOf(image);
    return st ? st->bitsPerComponent : 0;
}

size_t CGImageGetBitsPerPixel(CGImageRef image)
{
    ImageState *st = imageOf(image);
    return st ? st->bitsPerPixel : 0;
}

size_t CGImageGetBytesPerRow(CGImageRef image)
{
    ImageState *st = imageOf(image);
    return st ? st->bytesPerRow : 0;
}

CGColorSpaceRef CGImageGetColorSpace(CGImageRef image)
{
    ImageState *st = imageOf(image);
    return st ? reinterpret_cast<CGColorSpaceRef>(st->colorSpace) : nullptr;
}

CGImageAlphaInfo CGImageGetAlphaInfo(CGImageRef image)
{
    ImageState *st = imageOf(image);
    return st ? CGImageAlphaInfo(st->bitmapInfo & kCGBitmapAlphaInfoMask) : kCGImageAlphaNone;
}

CGBitmapInfo CGImageGetBitmapInfo(CGImageRef image)
{
    ImageState *st = imageOf(image);
    return st ? st->bitmapInfo : 0;
}

CGImageByteOrderInfo CGImageGetByteOrderInfo(CGImageRef image)
{
    ImageState *st = imageOf(image);
    return st ? CGImageByteOrderInfo(st->bitmapInfo & kCGImageByteOrderMask) : kCGImageByteOrderDefault;
}

CGDataProviderRef CGImageGetDataProvider(CGImageRef image)
{
    ImageState *st = imageOf(image);
    return st ? reinterpret_cast<CGDataProviderRef>(st->wholeProvider ? st->wholeProvider : st->provider) : nullptr;
}

} // extern "C"

namespace fakecg {

const uint8_t *storedBGRA(CGImageRef image, size_t *bytesPerRow, size_t *width, size_t *height)
{
    ImageState *st = imageOf(image);
    if (!st || st->bitsPerPixel != 32 || st->bitmapInfo != kDecodedBitmapInfo || !st->drawPixels)
        return nullptr;
    *bytesPerRow = st->drawStride;
    *width = st->pixelWidth;
    *height = st->pixelHeight;
    return st->drawPixels;
}

bool drawBGRA(CGImageRef image, size_t width, size_t height, Bitmap &out)
{
    if (!imageOf(image))
        return false;
    // Drawing composites over what is there: it starts transparent.
    std::unique_ptr<uint8_t[]> pixels(new (std::nothrow) uint8_t[width * 4 * height]());
    if (!pixels)
        return false;
    CGColorSpaceRef space = CGColorSpaceCreateDeviceRGB();
    CGContextRef context = CGBitmapContextCreate(pixels.get(), width, height, 8, width * 4, space,
        kCGBitmapByteOrder32Little | uint32_t(kCGImageAlphaPremultipliedFirst));
    CGColorSpaceRelease(space);
    if (!context)
        return false;
    CGContextDrawImage(context, CGRectMake(0, 0, double(width), double(height)), image);
    CGContextRelease(context);
    out = {std::move(pixels), width, height};
    return true;
}

bool copyBGRA(CGImageRef image, Bitmap &out)
{
    ImageState *st = imageOf(image);
    if (!st)
        return false;
    if (!st->wholeProvider)
        return drawBGRA(image, st->width, st->height, out);
    return decodeWhole(*providerOf(reinterpret_cast<CGDataProviderRef>(st->wholeProvider)), out);
}

bool encodePNG(CGImageRef image, std::vector<uint8_t> &file)
{
    Bitmap bitmap;
    if (!copyBGRA(image, bitmap))
        return false;
    uint8_t *pixels = bitmap.pixels.get();
    for (size_t i = 0, n = bitmap.width * 4 * bitmap.height; i < n; i += 4) {
        unsigned a = pixels[i + 3];
        if (a == 0 || a == 255)
            continue;
        for (int c = 0; c < 3; ++c)
            pixels[i + c] = uint8_t(std::min(255u, (pixels[i + c] * 255u + a / 2) / a));
    }
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    png.width = png_uint_32(bitmap.width);
    png.height = png_uint_32(bitmap.height);
    png.format = PNG_FORMAT_BGRA;
    try {
        png_alloc_size_t size = 0;
        if (!png_image_write_get_memory_size(png, size, 0, pixels, 0, nullptr))
            return false;
        file.resize(size);
        if (!png_image_write_to_memory(&png, file.data(), &size, 0, pixels, 0, nullptr))
            return false;
        file.resize(size);
    } catch (const std::bad_alloc &) {
        return false;
    }
    return true;
}

} // namespace fakecg
