// Colour spaces, data providers and images. Decoded images hold BGRA, premultiplied alpha first,
// 32-bit little-endian (bitmap info 0x2002), top row first: the layout of a 32BGRA pixel buffer.
#include "CGInternal.h"
#include "CGPrivate.h"

#include <png.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cstring>
#include <memory>

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

CGImageRef decodeJPEG(const uint8_t *bytes, size_t size)
{
    if (size < 3 || bytes[0] != 0xFF || bytes[1] != 0xD8)
        return nullptr;
    std::unique_ptr<void, int (*)(tjhandle)> handle(tjInitDecompress(), tjDestroy);
    if (!handle)
        return nullptr;
    int width = 0, height = 0, subsampling = 0, colorspace = 0;
    if (tjDecompressHeader3(
            handle.get(), bytes, static_cast<unsigned long>(size), &width, &height, &subsampling, &colorspace)
        != 0)
        return nullptr;
    if (width <= 0 || height <= 0)
        return nullptr;
    size_t stride = size_t(width) * 4;
    // Every byte is written by the decoder, so the buffer is not cleared first (a frame's worth of
    // memset is a measurable share of decoding).
    size_t length = stride * size_t(height);
    std::unique_ptr<uint8_t[]> pixels(new uint8_t[length]);
    if (tjDecompress2(handle.get(), bytes, static_cast<unsigned long>(size), pixels.get(), width, int(stride), height,
            TJPF_BGRA, 0)
            != 0
        && tjGetErrorCode(handle.get()) != TJERR_WARNING)
        return nullptr;
    // A warning (typically a truncated scan) still leaves a picture, as ImageIO's lenient decoding
    // does: the missing part stays grey.
    uint8_t *data = pixels.release();
    CGDataProviderRef provider = CGDataProviderCreateWithData(data, data, length, deleteBytes);
    CGColorSpaceRef space = CGColorSpaceCreateDeviceRGB();
    CGImageRef image = CGImageCreate(size_t(width), size_t(height), 8, 32, stride, space, kDecodedBitmapInfo, provider,
        nullptr, true, kCGRenderingIntentDefault);
    CGColorSpaceRelease(space);
    CGDataProviderRelease(provider);
    return image;
}

CGImageRef decodePNG(const uint8_t *bytes, size_t size)
{
    static const uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (size < 8 || std::memcmp(bytes, signature, 8) != 0)
        return nullptr;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, bytes, size))
        return nullptr;
    image.format = PNG_FORMAT_BGRA;
    size_t stride = size_t(image.width) * 4;
    std::vector<uint8_t> pixels(stride * image.height);
    if (!png_image_finish_read(&image, nullptr, pixels.data(), png_int_32(stride), nullptr)) {
        png_image_free(&image);
        return nullptr;
    }
    for (size_t i = 0; i < pixels.size(); i += 4) {
        unsigned a = pixels[i + 3];
        for (int c = 0; c < 3; ++c)
            pixels[i + c] = uint8_t((pixels[i + c] * a + 127) / 255);
    }
    return createOwnedImage(std::move(pixels), image.width, image.height, stride, kDecodedBitmapInfo, nullptr);
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
    st.converted.resize(st.width * 4 * st.height);
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
    return CFDataCreate(kCFAllocatorDefault, st->bytes, CFIndex(st->size));
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
    st.width = width;
    st.height = height;
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
    DataProviderState *st = providerOf(source);
    return st ? decodeJPEG(st->bytes, st->size) : nullptr;
}

CGImageRef CGImageCreateWithPNGDataProvider(CGDataProviderRef source, const CGFloat *, bool, CGColorRenderingIntent)
{
    DataProviderState *st = providerOf(source);
    return st ? decodePNG(st->bytes, st->size) : nullptr;
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
    return st ? reinterpret_cast<CGDataProviderRef>(st->provider) : nullptr;
}

} // extern "C"

namespace fakecg {

const uint8_t *storedBGRA(CGImageRef image, size_t *bytesPerRow)
{
    ImageState *st = imageOf(image);
    if (!st || st->bitsPerPixel != 32 || st->bitmapInfo != kDecodedBitmapInfo || !st->drawPixels)
        return nullptr;
    *bytesPerRow = st->drawStride;
    return st->drawPixels;
}

bool copyBGRA(CGImageRef image, std::vector<uint8_t> &pixels)
{
    ImageState *st = imageOf(image);
    if (!st)
        return false;
    size_t stride = st->width * 4;
    pixels.assign(stride * st->height, 0);
    CGColorSpaceRef space = CGColorSpaceCreateDeviceRGB();
    CGContextRef context = CGBitmapContextCreate(pixels.data(), st->width, st->height, 8, stride, space,
        kCGBitmapByteOrder32Little | uint32_t(kCGImageAlphaPremultipliedFirst));
    CGColorSpaceRelease(space);
    if (!context)
        return false;
    CGContextDrawImage(context, CGRectMake(0, 0, double(st->width), double(st->height)), image);
    CGContextRelease(context);
    return true;
}

bool encodePNG(CGImageRef image, std::vector<uint8_t> &file)
{
    std::vector<uint8_t> pixels;
    if (!copyBGRA(image, pixels))
        return false;
    for (size_t i = 0; i < pixels.size(); i += 4) {
        unsigned a = pixels[i + 3];
        if (a == 0 || a == 255)
            continue;
        for (int c = 0; c < 3; ++c)
            pixels[i + c] = uint8_t(std::min(255u, (pixels[i + c] * 255u + a / 2) / a));
    }
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    png.width = png_uint_32(CGImageGetWidth(image));
    png.height = png_uint_32(CGImageGetHeight(image));
    png.format = PNG_FORMAT_BGRA;
    png_alloc_size_t size = 0;
    if (!png_image_write_get_memory_size(png, size, 0, pixels.data(), 0, nullptr))
        return false;
    file.resize(size);
    if (!png_image_write_to_memory(&png, file.data(), &size, 0, pixels.data(), 0, nullptr))
        return false;
    file.resize(size);
    return true;
}

} // namespace fakecg
