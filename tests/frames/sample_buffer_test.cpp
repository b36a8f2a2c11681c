// ZerlanCreateSampleBuffer: the geometry of the picture for each orientation and frame shape
// (read back from the pixel buffer), the buffer's format and timing, and that it owns exactly
// what it returns.
#include "CaptureTestSupport.h"

#include "frames/SampleBuffer.h"

#include <fakesdk/media_np.h>
#include <fakesdk/objc_np.h>

using namespace capture_test;

namespace {

struct Pixel {
    int b, g, r, a;
};

Pixel pixelAt(CMSampleBufferRef buffer, int x, int y)
{
    CVPixelBufferRef pixels = CMSampleBufferGetImageBuffer(buffer);
    CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    auto *row = static_cast<uint8_t *>(CVPixelBufferGetBaseAddress(pixels)) + size_t(y) * CVPixelBufferGetBytesPerRow(pixels);
    const uint8_t *p = row + size_t(x) * 4;
    Pixel px{p[0], p[1], p[2], p[3]};
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    return px;
}

char colourName(Pixel p)
{
    auto near = [](int v, int want) { return std::abs(v - want) < 60; };
    if (near(p.r, 255) && near(p.g, 0) && near(p.b, 0))
        return 'R';
    if (near(p.r, 0) && near(p.g, 255) && near(p.b, 0))
        return 'G';
    if (near(p.r, 0) && near(p.g, 0) && near(p.b, 255))
        return 'B';
    return '?';
}

struct GeometryCase {
    const char *name;
    int frameWidth, frameHeight;
    bool verticalBands; // red | green | blue from left to right, else from top to bottom
    int edge;           // width of the red and blue bands in the frame
    long orientation;
    int bufferWidth, bufferHeight;
    // Samples along the band axis (x for vertical bands, y for horizontal), in the middle of the
    // other axis, with the colour that aspect fill puts there. The inner two samples would show
    // red or blue if the frame were stretched instead of cropped.
    int at[4];
    const char *colours;
};

// 640x480 into portrait: s = 4/3, x0 = -186.7; the red band ends at 26.7, blue starts at 453.3.
// 500x500 into landscape: s = 1.28, y0 = -80; red ends at 48, blue starts at 432.
// 480x640 into landscape: s = 4/3, y0 = -186.7; red ends at 26.7, blue starts at 453.3.
const GeometryCase kGeometry[] = {
    {"LandscapeFrameLandscapeRight", 640, 480, true, 160, 3, 640, 480, {60, 200, 440, 600}, "RGGB"},
    {"LandscapeFramePortrait", 640, 480, true, 160, 1, 480, 640, {10, 100, 400, 470}, "RGGB"},
    {"LandscapeFramePortraitUpsideDown", 640, 480, true, 160, 2, 480, 640, {10, 100, 400, 470}, "RGGB"},
    {"LandscapeFrameLandscapeLeft", 640, 480, true, 160, 4, 640, 480, {60, 200, 440, 600}, "RGGB"},
    {"LandscapeFrameUnknownOrientation", 640, 480, true, 160, 0, 640, 480, {60, 200, 440, 600}, "RGGB"},
    {"SquareFrameLandscape", 500, 500, false, 100, 3, 640, 480, {20, 80, 400, 465}, "RGGB"},
    {"PortraitFramePortrait", 480, 640, false, 128, 1, 480, 640, {60, 200, 440, 600}, "RGGB"},
    {"PortraitFrameLandscape", 480, 640, false, 160, 3, 640, 480, {10, 100, 400, 470}, "RGGB"},
};

void PrintTo(const GeometryCase &c, std::ostream *os)
{
    *os << c.name;
}

class SampleBufferGeometry : public ::testing::TestWithParam<GeometryCase> {
protected:
    AutoreleasePool pool_;
};

TEST_P(SampleBufferGeometry, AspectFillCentredAndUpright)
{
    const GeometryCase &c = GetParam();
    Strong<> frame = image(bands(c.frameWidth, c.frameHeight, c.verticalBands, c.edge));
    ASSERT_TRUE(frame);
    auto buffer = Strong<CMSampleBufferRef>::adopt(ZerlanCreateSampleBuffer(frame, c.orientation));
    ASSERT_TRUE(buffer);
    CVPixelBufferRef pixels = CMSampleBufferGetImageBuffer(buffer);
    EXPECT_EQ(size_t(c.bufferWidth), CVPixelBufferGetWidth(pixels));
    EXPECT_EQ(size_t(c.bufferHeight), CVPixelBufferGetHeight(pixels));

    std::string seen;
    for (int position : c.at) {
        int x = c.verticalBands ? position : c.bufferWidth / 2;
        int y = c.verticalBands ? c.bufferHeight / 2 : position;
        seen += colourName(pixelAt(buffer, x, y));
    }
    EXPECT_EQ(c.colours, seen);
    EXPECT_EQ(255, pixelAt(buffer, 0, 0).a) << "the whole buffer is covered";
    EXPECT_EQ(255, pixelAt(buffer, c.bufferWidth - 1, c.bufferHeight - 1).a);
}

INSTANTIATE_TEST_SUITE_P(Frames, SampleBufferGeometry, ::testing::ValuesIn(kGeometry),
                         [](const auto &info) { return std::string(info.param.name); });

class SampleBufferTest : public ::testing::Test {
protected:
    AutoreleasePool pool_;
    Strong<> frame_ = image(bands(640, 480, true, 160));
};

TEST_F(SampleBufferTest, FormatAttributesReadinessAndOneTenthSecondAtTheHostClock)
{
    CMClockRef host = CMClockGetHostTimeClock();
    CMTime before = CMClockGetTime(host);
    auto buffer = Strong<CMSampleBufferRef>::adopt(ZerlanCreateSampleBuffer(frame_, 3));
    auto second = Strong<CMSampleBufferRef>::adopt(ZerlanCreateSampleBuffer(frame_, 1));
    CMTime after = CMClockGetTime(host);
    ASSERT_TRUE(buffer && second);
    EXPECT_TRUE(CMSampleBufferDataIsReady(buffer));
    EXPECT_EQ(1, CMSampleBufferGetNumSamples(buffer));

    CVPixelBufferRef pixels = CMSampleBufferGetImageBuffer(buffer);
    EXPECT_EQ(OSType('BGRA'), CVPixelBufferGetPixelFormatType(pixels));
    EXPECT_TRUE(CVPixelBufferIsIOSurfaceBacked_np(pixels));
    EXPECT_EQ(0, CVPixelBufferLockCount_np(pixels)) << "unlocked after drawing";
    auto attributes = Strong<CFDictionaryRef>::adopt(CVPixelBufferCopyCreationAttributes_np(pixels));
    ASSERT_TRUE(attributes);
    EXPECT_EQ(3, CFDictionaryGetCount(attributes));
    EXPECT_EQ(kCFBooleanTrue, CFDictionaryGetValue(attributes, kCVPixelBufferCGImageCompatibilityKey));
    EXPECT_EQ(kCFBooleanTrue, CFDictionaryGetValue(attributes, kCVPixelBufferCGBitmapContextCompatibilityKey));
    auto surface = static_cast<CFDictionaryRef>(CFDictionaryGetValue(attributes, kCVPixelBufferIOSurfacePropertiesKey));
    ASSERT_NE(nullptr, surface);
    EXPECT_EQ(0, CFDictionaryGetCount(surface));

    CMFormatDescriptionRef format = CMSampleBufferGetFormatDescription(buffer);
    ASSERT_NE(nullptr, format);
    EXPECT_EQ(FourCharCode('BGRA'), CMFormatDescriptionGetMediaSubType(format));
    CMVideoDimensions size = CMVideoFormatDescriptionGetDimensions(format);
    EXPECT_EQ(640, size.width);
    EXPECT_EQ(480, size.height);

    for (CMSampleBufferRef each : {buffer.get(), second.get()}) {
        EXPECT_EQ(0, CMTimeCompare(CMTimeMake(1, 10), CMSampleBufferGetDuration(each)));
        EXPECT_FALSE(CMSampleBufferGetDecodeTimeStamp(each).flags & kCMTimeFlags_Valid);
        CMTime pts = CMSampleBufferGetPresentationTimeStamp(each);
        EXPECT_LE(CMTimeCompare(before, pts), 0);
        EXPECT_GE(CMTimeCompare(after, pts), 0);
    }
    EXPECT_LT(CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(buffer), CMSampleBufferGetPresentationTimeStamp(second)), 0)
        << "stamped at conversion, so later buffers are later";
}

TEST_F(SampleBufferTest, OwnsOnlyWhatItReturns)
{
    // One warm-up call creates what the frameworks cache for the process (colour space, clock).
    CFRelease(ZerlanCreateSampleBuffer(frame_, 3));
    long live = objc_liveObjects_np();
    CMSampleBufferRef buffer = ZerlanCreateSampleBuffer(frame_, 1);
    ASSERT_NE(nullptr, buffer);
    EXPECT_EQ(1, objc_retainCount_np(bridge(buffer))) << "the caller's reference only";
    EXPECT_EQ(1, objc_retainCount_np(bridge(CMSampleBufferGetImageBuffer(buffer))))
        << "the pixel buffer is held by the sample buffer alone";
    CFRelease(buffer);
    EXPECT_EQ(live, objc_liveObjects_np()) << "pixel buffer, context, colour space and description all released";
}

} // namespace
