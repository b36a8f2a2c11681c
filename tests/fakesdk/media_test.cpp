// The media frameworks' real work, as the library and the sample apps rely on it: JPEG and PNG
// decoding, CGContextDrawImage's scaling, clipping and orientation over pixel-buffer memory,
// pixel buffer attributes and locking, sample buffer timing, validation and ownership, QR
// detection with several codes, and the layer contents recorder.
#include "FakesdkTestSupport.h"

#include <CoreGraphics/CoreGraphics.h>
#include <CoreMedia/CoreMedia.h>
#include <fakesdk/media_np.h>
#include <fakesdk/objc_np.h>
#include <objc/runtime.h>

#include "Pictures.h"

#include <gtest/gtest.h>
#include <png.h>
#include <qrencode.h>
#include <sys/resource.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <cmath>
#include <cstddef>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern "C" {
id UIImageJPEGRepresentation(id image, CGFloat compressionQuality);
id UIImagePNGRepresentation(id image);
extern id const CIDetectorTypeQRCode, CIDetectorTypeFace, CIDetectorAccuracy, CIDetectorAccuracyHigh;
extern id const CIFeatureTypeQRCode, kCAGravityResize, kCAGravityResizeAspectFill;
}

namespace {

using namespace fakesdk_test;

constexpr uint32_t kBGRA = kCGBitmapByteOrder32Little | uint32_t(kCGImageAlphaPremultipliedFirst);

struct Color {
    int r, g, b;
};

// BGRA memory, top row first, from a colour per pixel.
std::vector<uint8_t> paint(int w, int h, const std::function<Color(int, int)> &colorAt)
{
    std::vector<uint8_t> px(size_t(w) * h * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            Color c = colorAt(x, y);
            uint8_t *p = &px[(size_t(y) * w + x) * 4];
            p[0] = uint8_t(c.b), p[1] = uint8_t(c.g), p[2] = uint8_t(c.r), p[3] = 255;
        }
    return px;
}

CGImageRef makeImage(const std::vector<uint8_t> &px, int w, int h)
{
    CFDataRef data = CFDataCreate(nullptr, px.data(), CFIndex(px.size()));
    CGDataProviderRef provider = CGDataProviderCreateWithCFData(data);
    CGColorSpaceRef space = CGColorSpaceCreateDeviceRGB();
    CGImageRef image = CGImageCreate(
        size_t(w), size_t(h), 8, 32, size_t(w) * 4, space, kBGRA, provider, nullptr, true, kCGRenderingIntentDefault);
    CGColorSpaceRelease(space);
    CGDataProviderRelease(provider);
    CFRelease(data);
    return image;
}

std::vector<uint8_t> encodeJPEG(const std::vector<uint8_t> &px, int w, int h, int quality)
{
    tjhandle tj = tjInitCompress();
    unsigned char *out = nullptr;
    unsigned long size = 0;
    EXPECT_EQ(0, tjCompress2(tj, px.data(), w, w * 4, h, TJPF_BGRA, &out, &size, TJSAMP_444, quality, 0));
    std::vector<uint8_t> file(out, out + size);
    tjFree(out);
    tjDestroy(tj);
    return file;
}

// Autoreleased, as NSData's factory methods give it.
id nsData(const std::vector<uint8_t> &bytes)
{
    return asId(CFAutorelease(CFDataCreate(nullptr, bytes.data(), CFIndex(bytes.size()))));
}

CGImageRef decodeJPEG(const std::vector<uint8_t> &file)
{
    CFDataRef data = CFDataCreate(nullptr, file.data(), CFIndex(file.size()));
    CGDataProviderRef provider = CGDataProviderCreateWithCFData(data);
    CGImageRef image = CGImageCreateWithJPEGDataProvider(provider, nullptr, true, kCGRenderingIntentDefault);
    CGDataProviderRelease(provider);
    CFRelease(data);
    return image;
}

Color pixelOf(CGImageRef image, int x, int y)
{
    CFDataRef data = CGDataProviderCopyData(CGImageGetDataProvider(image));
    const uint8_t *p = CFDataGetBytePtr(data) + size_t(y) * CGImageGetBytesPerRow(image) + size_t(x) * 4;
    Color c{p[2], p[1], p[0]};
    CFRelease(data);
    return c;
}

::testing::AssertionResult near(Color actual, Color expected, int tolerance)
{
    if (std::abs(actual.r - expected.r) <= tolerance && std::abs(actual.g - expected.g) <= tolerance
        && std::abs(actual.b - expected.b) <= tolerance)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "got (" << actual.r << "," << actual.g << "," << actual.b << ") want ("
                                         << expected.r << "," << expected.g << "," << expected.b << ")";
}

using Media = PooledTest;

// ---- decoding and encoding

const Color kQuadrants[4] = {{220, 30, 30}, {30, 200, 40}, {40, 50, 210}, {240, 240, 240}};

Color quadrantAt(int x, int y, int w, int h)
{
    return kQuadrants[(y >= h / 2) * 2 + (x >= w / 2)];
}

TEST_F(Media, JPEGDecodesUprightWithColoursAndAppleLayout)
{
    auto file = encodeJPEG(paint(64, 48, [](int x, int y) { return quadrantAt(x, y, 64, 48); }), 64, 48, 95);
    CGImageRef image = decodeJPEG(file);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(CGImageGetWidth(image), 64u);
    EXPECT_EQ(CGImageGetHeight(image), 48u);
    EXPECT_EQ(CGImageGetBitmapInfo(image), 0x2002u);
    EXPECT_EQ(CGImageGetBitsPerPixel(image), 32u);
    EXPECT_GE(CGImageGetBytesPerRow(image), 64u * 4);
    for (int q = 0; q < 4; ++q)
        EXPECT_TRUE(near(pixelOf(image, 16 + 32 * (q % 2), 12 + 24 * (q / 2)), kQuadrants[q], 10)) << "quadrant " << q;
    CGImageRelease(image);

    id ui = send(cls("UIImage"), "imageWithData:", nsData(file));
    ASSERT_NE(ui, nil);
    CGSize size = send<CGSize>(ui, "size");
    EXPECT_EQ(size.width, 64);
    EXPECT_EQ(size.height, 48);
    EXPECT_EQ(send<double>(ui, "scale"), 1.0);
    EXPECT_EQ(send<long>(ui, "imageOrientation"), 0);
    EXPECT_TRUE(near(pixelOf(send<CGImageRef>(ui, "CGImage"), 2, 2), kQuadrants[0], 10));
}

TEST_F(Media, UndecodableBytesGiveNilWhileATruncatedScanStillDecodes)
{
    std::mt19937 rng(7);
    auto noisy = paint(256, 256, [&](int x, int y) {
        return y < 64 ? Color{200, 40, 40} : Color{int(rng() % 256), int(rng() % 256), int(rng() % 256)};
    });
    auto file = encodeJPEG(noisy, 256, 256, 90);

    std::vector<std::vector<uint8_t>> undecodable
        = {{}, {0xFF, 0xD8}, std::vector<uint8_t>(file.begin(), file.begin() + 20), {'G', 'I', 'F', '8', '9', 'a'}};
    std::vector<uint8_t> garbage(4096);
    for (auto &b : garbage)
        b = uint8_t(rng());
    undecodable.push_back(garbage);
    for (const auto &bytes : undecodable) {
        EXPECT_EQ(decodeJPEG(bytes), nullptr) << bytes.size() << " bytes";
        EXPECT_EQ(send(cls("UIImage"), "imageWithData:", nsData(bytes)), nil) << bytes.size() << " bytes";
    }
    EXPECT_EQ(send(cls("UIImage"), "imageWithData:", id(nil)), nil);

    // Cut inside the entropy-coded data: the header is whole, the top stripe decoded, the rest lost.
    std::vector<uint8_t> truncated(file.begin(), file.begin() + long(file.size() / 2));
    CGImageRef partial = decodeJPEG(truncated);
    ASSERT_NE(partial, nullptr);
    EXPECT_EQ(CGImageGetWidth(partial), 256u);
    EXPECT_TRUE(near(pixelOf(partial, 100, 10), {200, 40, 40}, 12));
    CGImageRelease(partial);
}

TEST_F(Media, JPEGAndPNGRepresentationsRoundTrip)
{
    CGImageRef source = makeImage(paint(80, 60, [](int x, int y) { return quadrantAt(x, y, 80, 60); }), 80, 60);
    id image = send(cls("UIImage"), "imageWithCGImage:", source);
    CGImageRelease(source);
    ASSERT_NE(image, nil);
    EXPECT_EQ(UIImageJPEGRepresentation(nil, 0.9), nil);

    id high = UIImageJPEGRepresentation(image, 0.95);
    ASSERT_NE(high, nil);
    auto *bytes = CFDataGetBytePtr(reinterpret_cast<CFDataRef>(high));
    EXPECT_EQ(bytes[0], 0xFF);
    EXPECT_EQ(bytes[1], 0xD8);
    id low = UIImageJPEGRepresentation(image, 0.05);
    EXPECT_LT(CFDataGetLength(reinterpret_cast<CFDataRef>(low)), CFDataGetLength(reinterpret_cast<CFDataRef>(high)));

    for (id file : {high, UIImagePNGRepresentation(image)}) {
        id decoded = send(cls("UIImage"), "imageWithData:", file);
        ASSERT_NE(decoded, nil);
        CGImageRef cg = send<CGImageRef>(decoded, "CGImage");
        for (int q = 0; q < 4; ++q)
            EXPECT_TRUE(near(pixelOf(cg, 20 + 40 * (q % 2), 15 + 30 * (q / 2)), kQuadrants[q], 12));
    }
}

// ---- drawing

// An 8 x 8 grid of distinct colours: red grows to the right, green downwards.
Color cellColor(int cx, int cy)
{
    return {16 + 32 * cx, 16 + 32 * cy, 128};
}

struct DrawCase {
    const char *name;
    int imageW, imageH, contextW, contextH;
    CGRect rect;
};

struct PixelBufferContext {
    CVPixelBufferRef buffer = nullptr;
    CGContextRef context = nullptr;
    uint8_t *base = nullptr;
    size_t stride = 0;

    PixelBufferContext(int w, int h, Color fill)
    {
        EXPECT_EQ(kCVReturnSuccess,
            CVPixelBufferCreate(nullptr, size_t(w), size_t(h), kCVPixelFormatType_32BGRA, nullptr, &buffer));
        CVPixelBufferLockBaseAddress(buffer, 0);
        base = static_cast<uint8_t *>(CVPixelBufferGetBaseAddress(buffer));
        stride = CVPixelBufferGetBytesPerRow(buffer);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                uint8_t *p = base + size_t(y) * stride + size_t(x) * 4;
                p[0] = uint8_t(fill.b), p[1] = uint8_t(fill.g), p[2] = uint8_t(fill.r), p[3] = 255;
            }
        CGColorSpaceRef space = CGColorSpaceCreateDeviceRGB();
        context = CGBitmapContextCreate(base, size_t(w), size_t(h), 8, stride, space, kBGRA);
        CGColorSpaceRelease(space);
    }
    ~PixelBufferContext()
    {
        CGContextRelease(context);
        CVPixelBufferUnlockBaseAddress(buffer, 0);
        CVPixelBufferRelease(buffer);
    }
    Color at(int x, int y) const
    {
        const uint8_t *p = base + size_t(y) * stride + size_t(x) * 4;
        return {p[2], p[1], p[0]};
    }
};

TEST_F(Media, DrawImageScalesClipsAndKeepsImagesUpright)
{
    const double s = 640.0 / 480.0, wide = 640 * s;
    const DrawCase cases[] = {
        {"same size", 640, 480, 640, 480, CGRectMake(0, 0, 640, 480)},
        {"landscape into portrait, aspect fill", 640, 480, 480, 640, CGRectMake((480 - wide) * 0.5, 0, wide, 640)},
        {"square into landscape, aspect fill", 500, 500, 640, 480, CGRectMake(0, -80, 640, 640)},
        {"downscaled into a corner", 640, 480, 200, 150, CGRectMake(100, 0, 100, 75)},
    };
    const Color marker{1, 2, 3};
    for (const DrawCase &c : cases) {
        SCOPED_TRACE(c.name);
        CGImageRef image = makeImage(
            paint(c.imageW, c.imageH, [&](int x, int y) { return cellColor(x * 8 / c.imageW, y * 8 / c.imageH); }),
            c.imageW, c.imageH);
        PixelBufferContext target(c.contextW, c.contextH, marker);
        ASSERT_NE(target.context, nullptr);
        CGContextDrawImage(target.context, c.rect, image);

        // Every pixel centre maps back into the image; compare away from cell borders.
        double top = c.contextH - (c.rect.origin.y + c.rect.size.height);
        int compared = 0;
        for (int y = 0; y < c.contextH; y += 3)
            for (int x = 0; x < c.contextW; x += 3) {
                double sx = (x + 0.5 - c.rect.origin.x) * c.imageW / c.rect.size.width;
                double sy = (y + 0.5 - top) * c.imageH / c.rect.size.height;
                if (sx < 0 || sy < 0 || sx >= c.imageW || sy >= c.imageH) {
                    ASSERT_TRUE(near(target.at(x, y), marker, 0)) << "outside the rectangle at " << x << "," << y;
                    continue;
                }
                double cellW = c.imageW / 8.0, cellH = c.imageH / 8.0;
                double fx = std::fmod(sx, cellW), fy = std::fmod(sy, cellH);
                double margin = 2 * std::max(1.0, c.imageW / c.rect.size.width);
                if (fx < margin || fx > cellW - margin || fy < margin || fy > cellH - margin)
                    continue;
                ASSERT_TRUE(near(target.at(x, y), cellColor(int(sx / cellW), int(sy / cellH)), 2))
                    << "at " << x << "," << y;
                ++compared;
            }
        EXPECT_GT(compared, 200);
        CGImageRelease(image);
    }
}

TEST_F(Media, DrawImageEdgeCases)
{
    CGImageRef image = makeImage(paint(64, 64, [](int, int) { return Color{250, 250, 250}; }), 64, 64);
    const Color marker{0, 0, 0};

    // Identity drawing copies exactly, and the rows after the width stay untouched padding.
    CGImageRef grid = makeImage(paint(100, 50, [](int x, int y) { return cellColor(x % 8, y % 8); }), 100, 50);
    PixelBufferContext exact(100, 50, marker);
    EXPECT_EQ(exact.stride, 448u);
    CGContextDrawImage(exact.context, CGRectMake(0, 0, 100, 50), grid);
    for (int y = 0; y < 50; ++y)
        for (int x = 0; x < 100; ++x)
            ASSERT_TRUE(near(exact.at(x, y), cellColor(x % 8, y % 8), 0)) << x << "," << y;
    CGImageRelease(grid);

    // Fractional edges blend in proportion to coverage; fully outside draws nothing.
    PixelBufferContext partial(40, 40, marker);
    CGContextDrawImage(partial.context, CGRectMake(10.5, 10, 20, 20.25), image);
    EXPECT_TRUE(near(partial.at(9, 20), marker, 0));
    EXPECT_TRUE(near(partial.at(10, 20), {125, 125, 125}, 3));
    EXPECT_TRUE(near(partial.at(20, 20), {250, 250, 250}, 0));
    EXPECT_TRUE(near(partial.at(30, 20), {125, 125, 125}, 3));
    EXPECT_TRUE(near(partial.at(20, 9), {62, 62, 62}, 3)); // a quarter row at the top of the rectangle
    EXPECT_TRUE(near(partial.at(20, 30), marker, 0));
    CGContextDrawImage(partial.context, CGRectMake(-100, 50, 60, 60), image);
    CGContextDrawImage(partial.context, CGRectMake(5, 5, 0, 10), image);
    CGContextDrawImage(partial.context, CGRectMake(0, 0, 40, 40), nullptr);
    EXPECT_TRUE(near(partial.at(0, 0), marker, 0));
    EXPECT_TRUE(near(partial.at(39, 39), marker, 0));

    // A flipped CTM draws the image upside down; save/restore brings the identity back.
    CGImageRef halves = makeImage(paint(8, 8,
                                      [](int, int y) {
                                          return y < 4 ? Color{255, 0, 0} : Color{0, 0, 255};
                                      }),
        8, 8);
    PixelBufferContext flipped(8, 8, marker);
    CGContextSaveGState(flipped.context);
    CGContextTranslateCTM(flipped.context, 0, 8);
    CGContextScaleCTM(flipped.context, 1, -1);
    CGContextDrawImage(flipped.context, CGRectMake(0, 0, 8, 8), halves);
    CGContextRestoreGState(flipped.context);
    EXPECT_TRUE(near(flipped.at(3, 0), {0, 0, 255}, 0));
    EXPECT_TRUE(near(flipped.at(3, 7), {255, 0, 0}, 0));
    EXPECT_TRUE(CGAffineTransformIsIdentity(CGContextGetCTM(flipped.context)));
    CGImageRelease(halves);

    // Across layouts: BGRA little-endian pixels land in an RGBA (alpha last, big-endian) bitmap.
    CGColorSpaceRef space = CGColorSpaceCreateDeviceRGB();
    uint8_t rgba[4 * 4 * 4] = {};
    CGContextRef rgbaContext = CGBitmapContextCreate(rgba, 4, 4, 8, 16, space, kCGImageAlphaPremultipliedLast);
    CGImageRef orange = makeImage(paint(2, 2, [](int, int) { return Color{250, 120, 10}; }), 2, 2);
    CGContextDrawImage(rgbaContext, CGRectMake(0, 0, 4, 4), orange);
    EXPECT_EQ(std::vector<int>(rgba + 20, rgba + 24), (std::vector<int>{250, 120, 10, 255}));
    CGImageRelease(orange);
    CGContextRelease(rgbaContext);

    // Unsupported layouts give no context.
    EXPECT_EQ(CGBitmapContextCreate(nullptr, 10, 10, 8, 40, space, kCGImageAlphaNone), nullptr);
    EXPECT_EQ(CGBitmapContextCreate(nullptr, 10, 10, 8, 39, space, kBGRA), nullptr);
    EXPECT_EQ(CGBitmapContextCreate(nullptr, 10, 10, 8, 40, nullptr, kBGRA), nullptr);
    CGColorSpaceRelease(space);
    CGImageRelease(image);
}

// ---- pixel buffers

CFDictionaryRef attributes(bool ioSurface)
{
    CFDictionaryRef empty = CFDictionaryCreate(
        nullptr, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    const void *keys[] = {kCVPixelBufferCGImageCompatibilityKey, kCVPixelBufferCGBitmapContextCompatibilityKey,
        kCVPixelBufferIOSurfacePropertiesKey};
    const void *values[] = {kCFBooleanTrue, kCFBooleanTrue, empty};
    CFDictionaryRef dict = CFDictionaryCreate(
        nullptr, keys, values, ioSurface ? 3 : 2, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    CFRelease(empty);
    return dict;
}

TEST_F(Media, PixelBufferRecordsAttributesAndPadsRows)
{
    for (bool ioSurface : {true, false}) {
        CFDictionaryRef attrs = attributes(ioSurface);
        CVPixelBufferRef pb = nullptr;
        ASSERT_EQ(kCVReturnSuccess, CVPixelBufferCreate(nullptr, 480, 640, kCVPixelFormatType_32BGRA, attrs, &pb));
        EXPECT_EQ(CVPixelBufferIsIOSurfaceBacked_np(pb), ioSurface);
        CFDictionaryRef recorded = CVPixelBufferCopyCreationAttributes_np(pb);
        ASSERT_NE(recorded, nullptr);
        EXPECT_EQ(CFDictionaryGetCount(recorded), ioSurface ? 3 : 2);
        EXPECT_EQ(CFDictionaryGetValue(recorded, kCVPixelBufferCGImageCompatibilityKey), kCFBooleanTrue);
        CFRelease(recorded);
        CFRelease(attrs);
        CVPixelBufferRelease(pb);
    }
    CVPixelBufferRef bare = nullptr;
    ASSERT_EQ(kCVReturnSuccess, CVPixelBufferCreate(nullptr, 4, 4, kCVPixelFormatType_32BGRA, nullptr, &bare));
    EXPECT_EQ(CVPixelBufferCopyCreationAttributes_np(bare), nullptr);
    EXPECT_FALSE(CVPixelBufferIsIOSurfaceBacked_np(bare));
    CVPixelBufferRelease(bare);

    const struct {
        size_t width, bytesPerRow;
    } rows[] = {{1, 64}, {16, 64}, {17, 128}, {480, 1920}, {500, 2048}, {640, 2560}};
    for (auto row : rows) {
        CVPixelBufferRef pb = nullptr;
        ASSERT_EQ(
            kCVReturnSuccess, CVPixelBufferCreate(nullptr, row.width, 3, kCVPixelFormatType_32BGRA, nullptr, &pb));
        EXPECT_EQ(CVPixelBufferGetBytesPerRow(pb), row.bytesPerRow) << row.width;
        EXPECT_EQ(CVPixelBufferGetDataSize(pb), row.bytesPerRow * 3);
        EXPECT_EQ(CVPixelBufferGetPixelFormatType(pb), 0x42475241u);
        EXPECT_FALSE(CVPixelBufferIsPlanar(pb));
        CVPixelBufferRelease(pb);
    }

    CVPixelBufferRef out = reinterpret_cast<CVPixelBufferRef>(0x1);
    EXPECT_EQ(kCVReturnInvalidSize, CVPixelBufferCreate(nullptr, 0, 10, kCVPixelFormatType_32BGRA, nullptr, &out));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(kCVReturnInvalidPixelFormat, CVPixelBufferCreate(nullptr, 10, 10, 'abcd', nullptr, &out));
    ASSERT_EQ(kCVReturnSuccess,
        CVPixelBufferCreate(nullptr, 641, 481, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, nullptr, &out));
    EXPECT_TRUE(CVPixelBufferIsPlanar(out));
    EXPECT_EQ(CVPixelBufferGetPlaneCount(out), 2u);
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(out, 1), 321u);
    EXPECT_EQ(CVPixelBufferGetHeightOfPlane(out, 1), 241u);
    EXPECT_EQ(CVPixelBufferGetBaseAddressOfPlane(out, 2), nullptr);
    CVPixelBufferRelease(out);
    CVPixelBufferRelease(nullptr);
    EXPECT_EQ(CVPixelBufferRetain(nullptr), nullptr);
}

TEST_F(Media, PixelBufferLockingAndWrappedMemory)
{
    static int released = 0;
    static const void *releasedAddress = nullptr;
    std::vector<uint8_t> memory(100 * 10);
    CVPixelBufferRef pb = nullptr;
    ASSERT_EQ(kCVReturnSuccess,
        CVPixelBufferCreateWithBytes(
            nullptr, 20, 10, kCVPixelFormatType_32BGRA, memory.data(), 100,
            [](void *, const void *base) { ++released, releasedAddress = base; }, nullptr, nullptr, &pb));
    EXPECT_EQ(CVPixelBufferGetBaseAddress(pb), memory.data());
    EXPECT_EQ(CVPixelBufferGetBytesPerRow(pb), 100u);

    EXPECT_EQ(CVPixelBufferLockCount_np(pb), 0);
    EXPECT_EQ(kCVReturnSuccess, CVPixelBufferLockBaseAddress(pb, 0));
    EXPECT_EQ(kCVReturnSuccess, CVPixelBufferLockBaseAddress(pb, kCVPixelBufferLock_ReadOnly));
    EXPECT_EQ(CVPixelBufferLockCount_np(pb), 2);
    EXPECT_EQ(kCVReturnSuccess, CVPixelBufferUnlockBaseAddress(pb, kCVPixelBufferLock_ReadOnly));
    EXPECT_NE(kCVReturnSuccess, CVPixelBufferUnlockBaseAddress(pb, kCVPixelBufferLock_ReadOnly)) << "flags mismatch";
    EXPECT_EQ(kCVReturnSuccess, CVPixelBufferUnlockBaseAddress(pb, 0));
    EXPECT_NE(kCVReturnSuccess, CVPixelBufferUnlockBaseAddress(pb, 0)) << "unbalanced unlock";
    EXPECT_EQ(CVPixelBufferLockCount_np(pb), 0);

    CVPixelBufferRef narrow = nullptr;
    EXPECT_EQ(kCVReturnInvalidArgument,
        CVPixelBufferCreateWithBytes(
            nullptr, 30, 10, kCVPixelFormatType_32BGRA, memory.data(), 100, nullptr, nullptr, nullptr, &narrow))
        << "rows shorter than width * 4";
    EXPECT_EQ(narrow, nullptr);

    CVBufferSetAttachment(pb, kCVPixelBufferWidthKey, kCFBooleanTrue, kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(pb, kCVPixelBufferWidthKey, kCFBooleanFalse, kCVAttachmentMode_ShouldNotPropagate);
    CVAttachmentMode mode = kCVAttachmentMode_ShouldPropagate;
    EXPECT_EQ(CVBufferGetAttachment(pb, kCVPixelBufferWidthKey, &mode), kCFBooleanFalse);
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldNotPropagate);
    CVBufferRemoveAttachment(pb, kCVPixelBufferWidthKey);
    EXPECT_EQ(CVBufferGetAttachment(pb, kCVPixelBufferWidthKey, nullptr), nullptr);

    CVPixelBufferRef kept = CVPixelBufferRetain(pb);
    CVPixelBufferRelease(pb);
    EXPECT_EQ(released, 0);
    CVPixelBufferRelease(kept);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(releasedAddress, memory.data());
}

// ---- sample buffers and time

struct Frame {
    CVPixelBufferRef buffer = nullptr;
    CMVideoFormatDescriptionRef format = nullptr;

    Frame(size_t w, size_t h)
    {
        EXPECT_EQ(kCVReturnSuccess, CVPixelBufferCreate(nullptr, w, h, kCVPixelFormatType_32BGRA, nullptr, &buffer));
        EXPECT_EQ(0, CMVideoFormatDescriptionCreateForImageBuffer(nullptr, buffer, &format));
    }
    ~Frame()
    {
        CFRelease(format);
        CVPixelBufferRelease(buffer);
    }
};

TEST_F(Media, SampleBufferCarriesTimingAndOwnsItsBuffers)
{
    long liveBefore = objc_liveObjects_np();
    CMSampleBufferRef sample = nullptr;
    CMTime now = CMClockGetTime(CMClockGetHostTimeClock());
    {
        Frame frame(640, 480);
        EXPECT_EQ(CMVideoFormatDescriptionGetDimensions(frame.format).height, 480);
        EXPECT_EQ(CMFormatDescriptionGetMediaType(frame.format), kCMMediaType_Video);
        EXPECT_EQ(CMFormatDescriptionGetMediaSubType(frame.format), kCVPixelFormatType_32BGRA);
        id buffer = asId(frame.buffer), format = asId(frame.format);
        objc_trackRetains_np(buffer);
        objc_trackRetains_np(format);
        CMSampleTimingInfo timing = {CMTimeMake(1, 10), now, kCMTimeInvalid};
        ASSERT_EQ(0, CMSampleBufferCreateReadyWithImageBuffer(nullptr, frame.buffer, frame.format, &timing, &sample));
        EXPECT_EQ(CMSampleBufferGetImageBuffer(sample), frame.buffer);
        EXPECT_EQ(CMSampleBufferGetFormatDescription(sample), frame.format);
        EXPECT_EQ(objc_retainCount_np(buffer), 2);
        EXPECT_EQ(objc_retainCount_np(format), 2);
        for (id obj : {buffer, format}) {
            long retains = 0, releases = 0;
            objc_retainCounts_np(obj, &retains, &releases);
            EXPECT_EQ(retains, 1);
            EXPECT_EQ(releases, 0);
        }
    }
    // The creator let go of both: the sample buffer keeps them alive until it goes itself.
    EXPECT_EQ(CVPixelBufferGetWidth(CMSampleBufferGetImageBuffer(sample)), 640u);
    EXPECT_EQ(CFGetTypeID(sample), CMSampleBufferGetTypeID());
    EXPECT_NE(CMSampleBufferGetTypeID(), CVPixelBufferGetTypeID());
    EXPECT_EQ(0, CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(sample), now));
    EXPECT_DOUBLE_EQ(CMTimeGetSeconds(CMSampleBufferGetDuration(sample)), 0.1);
    EXPECT_TRUE(CMTIME_IS_INVALID(CMSampleBufferGetDecodeTimeStamp(sample)));
    EXPECT_EQ(CMSampleBufferGetNumSamples(sample), 1);
    CMSampleTimingInfo out = kCMTimingInfoInvalid;
    EXPECT_EQ(0, CMSampleBufferGetSampleTimingInfo(sample, 0, &out));
    EXPECT_EQ(out.duration.timescale, 10);
    EXPECT_EQ(kCMSampleBufferError_SampleIndexOutOfRange, CMSampleBufferGetSampleTimingInfo(sample, 1, &out));
    CFRelease(sample);
    EXPECT_EQ(objc_liveObjects_np(), liveBefore);
    EXPECT_TRUE(CMTIME_IS_INVALID(CMSampleBufferGetPresentationTimeStamp(nullptr)));
}

TEST_F(Media, SampleBufferRejectsAFormatThatDoesNotDescribeTheBuffer)
{
    Frame frame(640, 480);
    CMSampleTimingInfo timing = {CMTimeMake(1, 10), CMTimeMake(5, 1), kCMTimeInvalid};
    const struct {
        CMVideoCodecType codec;
        int32_t width, height;
    } mismatches[] = {{kCVPixelFormatType_32BGRA, 641, 480}, {kCVPixelFormatType_32BGRA, 640, 479},
        {kCVPixelFormatType_32BGRA, 480, 640}, {kCMVideoCodecType_H264, 640, 480},
        {kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, 640, 480}};
    for (auto m : mismatches) {
        CMVideoFormatDescriptionRef format = nullptr;
        ASSERT_EQ(0, CMVideoFormatDescriptionCreate(nullptr, m.codec, m.width, m.height, nullptr, &format));
        EXPECT_FALSE(CMFormatDescriptionEqual(format, frame.format));
        CMSampleBufferRef sample = reinterpret_cast<CMSampleBufferRef>(0x1);
        EXPECT_EQ(kCMSampleBufferError_InvalidMediaFormat,
            CMSampleBufferCreateReadyWithImageBuffer(nullptr, frame.buffer, format, &timing, &sample))
            << m.width << "x" << m.height;
        EXPECT_EQ(sample, nullptr);
        CFRelease(format);
    }
    CMVideoFormatDescriptionRef same = nullptr;
    ASSERT_EQ(0, CMVideoFormatDescriptionCreate(nullptr, kCVPixelFormatType_32BGRA, 640, 480, nullptr, &same));
    EXPECT_TRUE(CMFormatDescriptionEqual(same, frame.format));
    CFRelease(same);

    CMSampleBufferRef sample = nullptr;
    EXPECT_EQ(kCMSampleBufferError_RequiredParameterMissing,
        CMSampleBufferCreateReadyWithImageBuffer(nullptr, nullptr, frame.format, &timing, &sample));
    EXPECT_EQ(kCMSampleBufferError_RequiredParameterMissing,
        CMSampleBufferCreateReadyWithImageBuffer(nullptr, frame.buffer, frame.format, nullptr, &sample));
    EXPECT_EQ(kCMFormatDescriptionError_InvalidParameter,
        CMVideoFormatDescriptionCreateForImageBuffer(nullptr, nullptr, &same));
}

TEST_F(Media, TimeArithmeticAndTheHostClock)
{
    static_assert(sizeof(CMTime) == 24 && alignof(CMTime) == 4 && offsetof(CMTime, epoch) == 16);
    static_assert(sizeof(CMSampleTimingInfo) == 72 && offsetof(CMSampleTimingInfo, presentationTimeStamp) == 24);
    EXPECT_EQ(kCMTimeZero.timescale, 1);

    CMTime half = CMTimeAdd(CMTimeMake(1, 3), CMTimeMake(1, 6));
    EXPECT_EQ(half.value, 3);
    EXPECT_EQ(half.timescale, 6);
    EXPECT_EQ(0, CMTimeCompare(half, CMTimeMake(1, 2)));
    EXPECT_EQ(CMTimeSubtract(CMTimeMake(1, 10), CMTimeMake(3, 10)).value, -2);
    EXPECT_TRUE(CMTIME_IS_INVALID(CMTimeAdd(CMTimeMake(1, 3), kCMTimeInvalid)));
    EXPECT_TRUE(CMTIME_IS_INVALID(CMTimeAdd(kCMTimePositiveInfinity, kCMTimeNegativeInfinity)));
    EXPECT_TRUE(CMTIME_IS_POSITIVE_INFINITY(CMTimeSubtract(CMTimeMake(1, 1), kCMTimeNegativeInfinity)));

    const struct {
        CMTimeRoundingMethod method;
        int64_t positive, negative;
    } rounding[] = {{kCMTimeRoundingMethod_RoundHalfAwayFromZero, 3, -3},
        {kCMTimeRoundingMethod_RoundTowardZero, 2, -2}, {kCMTimeRoundingMethod_RoundAwayFromZero, 3, -3},
        {kCMTimeRoundingMethod_RoundTowardPositiveInfinity, 3, -2},
        {kCMTimeRoundingMethod_RoundTowardNegativeInfinity, 2, -3}};
    for (auto r : rounding) {
        CMTime p = CMTimeConvertScale(CMTimeMake(5, 20), 10, r.method); // 2.5 / 10
        EXPECT_EQ(p.value, r.positive) << r.method;
        EXPECT_TRUE(CMTIME_HAS_BEEN_ROUNDED(p));
        EXPECT_EQ(CMTimeConvertScale(CMTimeMake(-5, 20), 10, r.method).value, r.negative) << r.method;
    }
    EXPECT_FALSE(CMTIME_HAS_BEEN_ROUNDED(CMTimeConvertScale(CMTimeMake(1, 3), 600, kCMTimeRoundingMethod_Default)));

    CMTime ordered[] = {kCMTimeNegativeInfinity, CMTimeMake(-1, 1), CMTimeMake(1, 1000), kCMTimeIndefinite,
        kCMTimePositiveInfinity, kCMTimeInvalid};
    for (size_t i = 0; i + 1 < std::size(ordered); ++i) {
        EXPECT_EQ(CMTimeCompare(ordered[i], ordered[i + 1]), -1) << i;
        EXPECT_EQ(CMTimeCompare(ordered[i + 1], ordered[i]), 1) << i;
    }
    EXPECT_TRUE(std::isnan(CMTimeGetSeconds(kCMTimeInvalid)));
    EXPECT_TRUE(std::isinf(CMTimeGetSeconds(kCMTimeNegativeInfinity)));
    CMTime seconds = CMTimeMakeWithSeconds(0.5, 600);
    EXPECT_EQ(seconds.value, 300);
    EXPECT_EQ(seconds.timescale, 600);

    CMClockRef clock = CMClockGetHostTimeClock();
    EXPECT_EQ(clock, CMClockGetHostTimeClock());
    CMTime a = CMClockGetTime(clock), b = CMClockGetTime(clock);
    EXPECT_EQ(a.timescale, 1000000000);
    EXPECT_LE(CMTimeCompare(a, b), 0);
    EXPECT_EQ(CMClockConvertHostTimeToSystemUnits(CMClockMakeHostTimeFromSystemUnits(123456789012)), 123456789012u);
}

// ---- QR detection

// Draws a QR code of text with module-pixel modules, its top-left corner (quiet zone included)
// at x, y.
void drawQR(std::vector<uint8_t> &px, int w, const char *text, int x0, int y0, int module = 6)
{
    QRcode *code = QRcode_encodeString(text, 0, QR_ECLEVEL_M, QR_MODE_8, 1);
    ASSERT_NE(code, nullptr);
    const int quiet = 4;
    for (int y = 0; y < (code->width + 2 * quiet) * module; ++y)
        for (int x = 0; x < (code->width + 2 * quiet) * module; ++x) {
            int mx = x / module - quiet, my = y / module - quiet;
            bool dark
                = mx >= 0 && my >= 0 && mx < code->width && my < code->width && (code->data[my * code->width + mx] & 1);
            uint8_t *p = &px[(size_t(y0 + y) * w + (x0 + x)) * 4];
            p[0] = p[1] = p[2] = dark ? 0 : 255;
        }
    QRcode_free(code);
}

// The features a high-accuracy QR detector finds in a UIImage (autoreleased).
id featuresIn(id ui)
{
    id ciImage = send(send(cls("CIImage"), "alloc"), "initWithImage:", ui);
    const void *keys[] = {CIDetectorAccuracy};
    const void *values[] = {CIDetectorAccuracyHigh};
    CFDictionaryRef options = CFDictionaryCreate(
        nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    id detector
        = send(cls("CIDetector"), "detectorOfType:context:options:", CIDetectorTypeQRCode, id(nil), asId(options));
    CFRelease(options);
    id features = send(detector, "featuresInImage:", ciImage);
    objc_release(ciImage);
    return features;
}

std::vector<std::string> detect(const std::vector<uint8_t> &px, int w, int h)
{
    CGImageRef cg = makeImage(px, w, h);
    id ui = send(cls("UIImage"), "imageWithCGImage:", cg);
    CGImageRelease(cg);
    id features = featuresIn(ui);
    std::vector<std::string> texts;
    if (!features)
        return {"<nil array>"};
    for (CFIndex i = 0; i < CFArrayGetCount(reinterpret_cast<CFArrayRef>(features)); ++i) {
        id feature = asId(CFArrayGetValueAtIndex(reinterpret_cast<CFArrayRef>(features), i));
        EXPECT_TRUE(send<bool>(send(feature, "type"), "isEqual:", CIFeatureTypeQRCode));
        EXPECT_GT(send<CGRect>(feature, "bounds").size.width, 100);
        texts.push_back(text(send(feature, "messageString")));
    }
    return texts;
}

std::vector<uint8_t> blank(int w, int h)
{
    return paint(w, h, [](int x, int y) { return Color{200 + (x + y) % 40, 210, 220}; });
}

TEST_F(Media, DetectorFindsEveryQRCodeInReadingOrder)
{
    EXPECT_TRUE(detect(blank(320, 240), 320, 240).empty());

    auto one = blank(640, 480);
    drawQR(one, 640, "https://example.com/zerlan?frame=1", 150, 60);
    EXPECT_EQ(detect(one, 640, 480), std::vector<std::string>{"https://example.com/zerlan?frame=1"});

    // Right code drawn first and a little higher: still one row, read left to right; the third
    // code sits below both.
    auto three = blank(900, 640);
    drawQR(three, 900, "second", 470, 10);
    drawQR(three, 900, "first", 20, 30);
    drawQR(three, 900, "third", 240, 340);
    std::vector<std::string> expected = {"first", "second", "third"};
    EXPECT_EQ(detect(three, 900, 640), expected);
    EXPECT_EQ(detect(three, 900, 640), expected);

    EXPECT_EQ(send(cls("CIDetector"), "detectorOfType:context:options:", CIDetectorTypeFace, id(nil), id(nil)), nil);
    id bitmapless = class_createInstance(objc_getClass("UIImage"), 0);
    EXPECT_EQ(send(send(cls("CIImage"), "alloc"), "initWithImage:", bitmapless), nil);
    objc_release(bitmapless);
}

// A PNG of BGRA pixels, interlaced (Adam7) or not, for the large-picture tests below.
std::vector<uint8_t> encodePNG(const std::vector<uint8_t> &px, int w, int h, bool interlaced)
{
    std::vector<uint8_t> file;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(
        png, &file,
        [](png_structp p, png_bytep data, png_size_t n) {
            auto *out = static_cast<std::vector<uint8_t> *>(png_get_io_ptr(p));
            out->insert(out->end(), data, data + n);
        },
        nullptr);
    png_set_compression_level(png, 1);
    png_set_IHDR(png, info, png_uint_32(w), png_uint_32(h), 8, PNG_COLOR_TYPE_RGB_ALPHA,
        interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_bgr(png);
    png_write_info(png, info);
    std::vector<png_bytep> rows(static_cast<size_t>(h));
    for (int y = 0; y < h; ++y)
        rows[size_t(y)] = const_cast<uint8_t *>(&px[size_t(y) * size_t(w) * 4]);
    png_write_image(png, rows.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return file;
}

std::vector<uint8_t> bytes(const std::string &file)
{
    return std::vector<uint8_t>(file.begin(), file.end());
}

std::vector<uint8_t> claimingJPEG(int w, int h)
{
    auto small = encodeJPEG(paint(16, 16, [](int, int) { return Color{90, 90, 90}; }), 16, 16, 90);
    return bytes(zerlan::testing::claimSize(std::string(small.begin(), small.end()), w, h));
}

std::vector<uint8_t> blackPNG(int w, int h)
{
    return bytes(zerlan::testing::blackPng(uint32_t(w), uint32_t(h)));
}

// The quadrants, with a one-pixel dark line down the white one: detail that only the whole
// picture keeps.
constexpr int kLineX = 2001;
Color quadrantsWithLine(int x, int y, int w, int h)
{
    return x == kLineX && y >= h / 2 ? Color{20, 20, 20} : quadrantAt(x, y, w, h);
}

TEST_F(Media, ALargePictureKeepsItsSizeDrawsFromFewerPixelsAndDecodesWholeWhenAsked)
{
    const int w = 2400, h = 1800; // more than the 2048 x 2048 pixels' worth a picture keeps
    auto px = paint(w, h, [&](int x, int y) { return quadrantsWithLine(x, y, w, h); });
    struct Case {
        const char *name;
        std::vector<uint8_t> file;
    };
    const Case cases[] = {{"JPEG", encodeJPEG(px, w, h, 95)}, {"PNG", encodePNG(px, w, h, false)},
        {"interlaced PNG", encodePNG(px, w, h, true)}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        id ui = send(cls("UIImage"), "imageWithData:", nsData(c.file));
        ASSERT_NE(ui, nil);
        CGSize size = send<CGSize>(ui, "size");
        EXPECT_EQ(size.width, w);
        EXPECT_EQ(size.height, h);
        CGImageRef cg = send<CGImageRef>(ui, "CGImage");
        EXPECT_EQ(CGImageGetWidth(cg), size_t(w));
        EXPECT_EQ(CGImageGetBytesPerRow(cg), size_t(w) * 4);

        // As a sample buffer is drawn: the whole picture into 640 x 480.
        PixelBufferContext target(640, 480, {0, 0, 0});
        CGContextDrawImage(target.context, CGRectMake(0, 0, 640, 480), cg);
        for (int q = 0; q < 4; ++q)
            EXPECT_TRUE(near(target.at(160 + 320 * (q % 2), 120 + 240 * (q / 2)), kQuadrants[q], 12)) << "quadrant " << q;

        // Its data, as its representations, is the whole picture, line included.
        CFDataRef data = CGDataProviderCopyData(CGImageGetDataProvider(cg));
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(size_t(CFDataGetLength(data)), size_t(w) * 4 * h);
        CFRelease(data);
        EXPECT_TRUE(near(pixelOf(cg, kLineX, 1500), {20, 20, 20}, 40));
        EXPECT_TRUE(near(pixelOf(cg, kLineX + 3, 1500), kQuadrants[3], 20));
        id again = send(cls("UIImage"), "imageWithData:", UIImageJPEGRepresentation(ui, 0.95));
        EXPECT_EQ(send<CGSize>(again, "size").width, w);
    }
}

TEST_F(Media, APictureDecodesReducedUpToOneGibibyteAndIsNoImageBeyond)
{
    // 16384 x 16384 x 4 bytes is exactly 1 GiB: decoded, reduced to 2048 x 2048 (16 MiB). A PNG
    // that size takes seconds to decode; one of 8000 x 8000 (256 MiB whole) shows its memory.
    for (auto [file, side] : {std::pair{claimingJPEG(16384, 16384), 16384}, {blackPNG(8000, 8000), 8000}}) {
        zerlan::testing::resetPeakResident();
        size_t before = zerlan::testing::peakResidentBytes();
        id large = send(cls("UIImage"), "imageWithData:", nsData(file));
        ASSERT_NE(large, nil);
        EXPECT_EQ(send<CGSize>(large, "size").width, side);
        EXPECT_LT(zerlan::testing::peakResidentBytes() - before, size_t(128) << 20)
            << "decoding took memory for more than reduced pixels";
    }
    for (auto *make : {claimingJPEG, blackPNG})
        EXPECT_EQ(send(cls("UIImage"), "imageWithData:", nsData(make(16384, 16385))), nil);
    for (auto [w, h] : {std::pair{30000, 30000}, {65500, 65500}}) {
        EXPECT_EQ(send(cls("UIImage"), "imageWithData:", nsData(claimingJPEG(w, h))), nil) << w << "x" << h;
        EXPECT_EQ(decodeJPEG(claimingJPEG(w, h)), nullptr) << w << "x" << h;
    }
}

TEST_F(Media, DetectionLooksAtAReducedPictureAndReportsWhereTheCodeIsInTheWholeOne)
{
    const int w = 3000, h = 2000, module = 12, at = 1200;
    auto px = blank(w, h);
    drawQR(px, w, "large", at, 600, module);
    CGImageRef made = makeImage(px, w, h);
    id fromData = send(cls("UIImage"), "imageWithData:", nsData(encodeJPEG(px, w, h, 95)));
    id drawn = send(cls("UIImage"), "imageWithCGImage:", made);
    CGImageRelease(made);
    for (id ui : {fromData, drawn}) {
        id features = featuresIn(ui);
        ASSERT_EQ(CFArrayGetCount(reinterpret_cast<CFArrayRef>(features)), 1);
        id feature = asId(CFArrayGetValueAtIndex(reinterpret_cast<CFArrayRef>(features), 0));
        EXPECT_EQ(text(send(feature, "messageString")), "large");
        // The code's own corners lie one quiet zone (4 modules) inside what was drawn; Core
        // Image's y runs upwards from the bottom.
        CGRect bounds = send<CGRect>(feature, "bounds");
        const double side = 21 * module, left = at + 4 * module, bottom = h - (600 + 4 * module + side);
        EXPECT_NEAR(bounds.origin.x, left, 2 * module);
        EXPECT_NEAR(bounds.origin.y, bottom, 2 * module);
        EXPECT_NEAR(bounds.size.width, side, 2 * module);
    }
}

TEST(MediaDeathTest, WhenMemoryCannotBeHadAPictureIsNoImageAndNothingIsThrown)
{
    if (zerlan::testing::kSanitized)
        GTEST_SKIP() << "a sanitizer's allocator reports running out of memory instead of failing the allocation";
    auto small = encodeJPEG(paint(64, 48, [](int x, int y) { return quadrantAt(x, y, 64, 48); }), 64, 48, 90);
    auto large = claimingJPEG(8000, 8000); // its reduced pixels take 16 MiB
    EXPECT_EXIT(
        {
            void *pool = objc_autoreleasePoolPush();
            // Made before the limit: a 16 MiB context, and 24-bit pixels that drawing would
            // convert into 16 MiB more.
            PixelBufferContext big(2048, 2048, {0, 0, 0});
            std::vector<uint8_t> rgb(size_t(2048) * 2048 * 3);
            CFDataRef rgbData = CFDataCreate(nullptr, rgb.data(), CFIndex(rgb.size()));
            CGDataProviderRef rgbProvider = CGDataProviderCreateWithCFData(rgbData);
            CGColorSpaceRef space = CGColorSpaceCreateDeviceRGB();
            std::ifstream statm("/proc/self/statm");
            size_t pages = 0;
            statm >> pages;
            rlimit limit{};
            limit.rlim_cur = limit.rlim_max = pages * size_t(sysconf(_SC_PAGESIZE)) + (size_t(8) << 20);
            setrlimit(RLIMIT_AS, &limit);
            try {
                bool largeFails = send(cls("UIImage"), "imageWithData:", nsData(large)) == nil;
                bool smallDecodes = send(cls("UIImage"), "imageWithData:", nsData(small)) != nil;
                bool noSnapshot = CGBitmapContextCreateImage(big.context) == nullptr;
                bool noConversion = CGImageCreate(2048, 2048, 8, 24, 2048 * 3, space, kCGImageAlphaNone, rgbProvider,
                                        nullptr, true, kCGRenderingIntentDefault)
                    == nullptr;
                objc_autoreleasePoolPop(pool);
                std::_Exit(largeFails && smallDecodes && noSnapshot && noConversion ? 0 : 1);
            } catch (...) {
                std::_Exit(2);
            }
        },
        ::testing::ExitedWithCode(0), "");
}

// ---- layers

TEST_F(Media, LayerRecordsContentsAndKeepsItsTree)
{
    id layer = objc_retain(send(cls("CALayer"), "layer"));
    EXPECT_TRUE(send<bool>(send(layer, "contentsGravity"), "isEqual:", kCAGravityResize));
    EXPECT_EQ(CALayerContentsSetCount_np(layer), 0);

    CGImageRef image = makeImage(blank(8, 8), 8, 8);
    id contents = asId(image);
    send<void>(layer, "setContents:", contents);
    send<void>(layer, "setContentsGravity:", kCAGravityResizeAspectFill);
    EXPECT_EQ(objc_retainCount_np(contents), 2);
    void *pool = objc_autoreleasePoolPush(); // the atomic getters retain and autorelease
    EXPECT_EQ(send(layer, "contents"), contents);
    objc_autoreleasePoolPop(pool);
    EXPECT_EQ(CALayerContentsSetCount_np(layer), 1);
    EXPECT_TRUE(CALayerContentsLastSetOnMainThread_np(layer));
    EXPECT_EQ(text(send(layer, "contentsGravity")), "resizeAspectFill");

    std::thread([&] { send<void>(layer, "setContents:", contents); }).join();
    EXPECT_EQ(CALayerContentsSetCount_np(layer), 2);
    EXPECT_FALSE(CALayerContentsLastSetOnMainThread_np(layer));
    EXPECT_EQ(objc_retainCount_np(contents), 2) << "setting the same contents again must not leak";
    send<void>(layer, "setContents:", id(nil));
    EXPECT_EQ(objc_retainCount_np(contents), 1);
    CGImageRelease(image);

    send<void>(layer, "setFrame:", CGRectMake(10, 20, 100, 50));
    EXPECT_TRUE(CGRectEqualToRect(send<CGRect>(layer, "bounds"), CGRectMake(0, 0, 100, 50)));
    EXPECT_TRUE(CGRectEqualToRect(send<CGRect>(layer, "frame"), CGRectMake(10, 20, 100, 50)));

    id child = send(send(cls("CALayer"), "alloc"), "init");
    id other = send(send(cls("CALayer"), "alloc"), "init");
    send<void>(layer, "addSublayer:", child);
    EXPECT_EQ(objc_retainCount_np(child), 2);
    EXPECT_EQ(send(child, "superlayer"), layer);
    send<void>(other, "addSublayer:", child); // moves it
    pool = objc_autoreleasePoolPush();
    EXPECT_EQ(send(layer, "sublayers"), nil);
    EXPECT_EQ(CFArrayGetCount(reinterpret_cast<CFArrayRef>(send(other, "sublayers"))), 1);
    objc_autoreleasePoolPop(pool);
    EXPECT_EQ(objc_retainCount_np(child), 2);
    send<void>(child, "removeFromSuperlayer");
    EXPECT_EQ(send(child, "superlayer"), nil);
    EXPECT_EQ(objc_retainCount_np(child), 1);
    for (id obj : {layer, child, other})
        objc_release(obj);
}

} // namespace
