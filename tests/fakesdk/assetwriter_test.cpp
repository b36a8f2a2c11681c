// fakesdk's AVAssetWriter: a real H.264 movie of the requested file type, timed by the appended
// buffers, showing them from the first and spending the bit rate asked; Apple's statuses, errors
// and exceptions, a finish handler that runs once off the caller's thread, and an input that
// stops being ready while its encoder is behind.
#include "Movie.h"
#include "objc/Frameworks.h"

#include <fakesdk/dispatch_np.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

extern "C" id const AVFileTypeQuickTimeMovie;
extern "C" id const AVVideoCompressionPropertiesKey;
extern "C" id const AVVideoAverageBitRateKey;

using namespace zerlan::objc;
using zerlan::testing::readMovie;
namespace fs = std::filesystem;

namespace {

constexpr long kWriting = 1, kCompleted = 2, kFailed = 3, kCancelled = 4;

id settings(long width, long height)
{
    id compressionKeys[] = {AVVideoAverageBitRateKey};
    id compressionValues[] = {number(2000000)};
    id compression = send<id>(cls("NSDictionary"), sel<"dictionaryWithObjects:forKeys:count:">(), compressionValues,
                              compressionKeys, 1UL);
    id keys[] = {AVVideoCodecKey, AVVideoWidthKey, AVVideoHeightKey, AVVideoCompressionPropertiesKey};
    id values[] = {AVVideoCodecTypeH264, number(width), number(height), compression};
    return send<id>(cls("NSDictionary"), sel<"dictionaryWithObjects:forKeys:count:">(), values, keys, 4UL);
}

// A 32BGRA 640 x 480 buffer painted by paint(pixels, bytesPerRow), at `seconds` on a 1/600 s
// clock, lasting 0.1 s.
using Painter = std::function<void(uint8_t *pixels, size_t bytesPerRow)>;

CMSampleBufferRef buffer(double seconds, const Painter &paint)
{
    CVPixelBufferRef pixels = nullptr;
    CVPixelBufferCreate(kCFAllocatorDefault, 640, 480, kCVPixelFormatType_32BGRA, nullptr, &pixels);
    CVPixelBufferLockBaseAddress(pixels, 0);
    paint(static_cast<uint8_t *>(CVPixelBufferGetBaseAddress(pixels)), CVPixelBufferGetBytesPerRow(pixels));
    CVPixelBufferUnlockBaseAddress(pixels, 0);
    CMVideoFormatDescriptionRef format = nullptr;
    CMVideoFormatDescriptionCreateForImageBuffer(kCFAllocatorDefault, pixels, &format);
    CMSampleTimingInfo timing{CMTimeMake(60, 600), CMTimeMake(int64_t(seconds * 600), 600), kCMTimeInvalid};
    CMSampleBufferRef sample = nullptr;
    CMSampleBufferCreateReadyWithImageBuffer(kCFAllocatorDefault, pixels, format, &timing, &sample);
    CFRelease(format);
    CFRelease(pixels);
    return sample;
}

// One grey level all over.
CMSampleBufferRef buffer(double seconds, uint8_t grey)
{
    return buffer(seconds, [grey](uint8_t *pixels, size_t bytesPerRow) { memset(pixels, grey, bytesPerRow * 480); });
}

// A camera's view of a moving scene: a gradient with a texture, both drifting frame by frame.
uint8_t scene(int frame, size_t x, size_t y)
{
    double drift = 6.0 * frame;
    return uint8_t(128 + 60 * std::sin((double(x) + drift) / 23) * std::cos((double(y) - drift) / 17) +
                   (((x + size_t(drift)) / 8 + y / 8) % 2 ? 30 : -30));
}

// The luma (BT.601, video range) that an encoder makes of a grey level.
double lumaOf(uint8_t grey)
{
    return 16 + grey * 219.0 / 255;
}

class AssetWriterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("zerlan-writer-test-" + std::to_string(getpid()));
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    id url(const std::string &name) { return send<id>(cls("NSURL"), sel<"fileURLWithPath:">(), string((dir_ / name).c_str())); }

    // A writer with one H.264 input, not yet writing.
    Strong<> withInput(const std::string &name, id *input, long width = 640, long height = 480, id fileType = AVFileTypeMPEG4)
    {
        id error = nil;
        Strong<> writer = allocInit<"initWithURL:fileType:error:">("AVAssetWriter", url(name), fileType, &error);
        *input = send<id>(cls("AVAssetWriterInput"), sel<"assetWriterInputWithMediaType:outputSettings:">(),
                          AVMediaTypeVideo, settings(width, height));
        EXPECT_TRUE(send<BOOL>(writer.get(), sel<"canAddInput:">(), *input));
        send<void>(writer.get(), sel<"addInput:">(), *input);
        return writer;
    }

    // The same writer started; the session starts at 0.
    Strong<> started(const std::string &name, id *input, long width = 640, long height = 480, id fileType = AVFileTypeMPEG4)
    {
        Strong<> writer = withInput(name, input, width, height, fileType);
        EXPECT_TRUE(send<BOOL>(writer.get(), sel<"startWriting">()));
        send<void>(writer.get(), sel<"startSessionAtSourceTime:">(), CMTimeMake(0, 600));
        return writer;
    }

    // Appends the i-th buffer (and lets it go) once the input is ready for it.
    void appendWhenReady(id input, CMSampleBufferRef sample, int i)
    {
        CFRunLoopRunUntil_np(5, ^bool { return send<BOOL>(input, sel<"isReadyForMoreMediaData">()); });
        EXPECT_TRUE(send<BOOL>(input, sel<"appendSampleBuffer:">(), sample)) << i;
        CFRelease(sample);
    }

    // Finishes and waits for the handler; whether it ran off this thread, and how often.
    struct Finished {
        int calls;
        bool offCallerThread;
    };
    Finished finish(id writer)
    {
        auto calls = std::make_shared<std::atomic<int>>(0);
        auto offThread = std::make_shared<std::atomic<bool>>(false);
        pid_t caller = gettid();
        send<void>(writer, sel<"finishWritingWithCompletionHandler:">(), ^{
            offThread->store(gettid() != caller);
            ++*calls;
        });
        CFRunLoopRunUntil_np(10, ^bool { return *calls > 0; });
        CFRunLoopRunUntil_np(0.2, ^bool { return false; }); // a second call would come now
        return {calls->load(), offThread->load()};
    }

    AutoreleasePool pool_;
    fs::path dir_;
};

TEST_F(AssetWriterTest, TheMovieIsH264AtTheSettingsSizeAndTimedByItsBuffers)
{
    id input = nil;
    Strong<> writer = started("movie.mp4", &input, 320, 240);
    EXPECT_EQ(kWriting, send<long>(writer.get(), sel<"status">()));
    // Ten frames 0.1 s apart, a 1 s gap, ten more: the gap stays in the movie.
    for (int i = 0; i < 20; ++i) {
        double t = i < 10 ? 0.1 * i : 2.0 + 0.1 * (i - 10);
        appendWhenReady(input, buffer(t, uint8_t(i * 12)), i);
    }
    send<void>(input, sel<"markAsFinished">());
    Finished done = finish(writer.get());
    EXPECT_EQ(1, done.calls);
    EXPECT_TRUE(done.offCallerThread);
    EXPECT_EQ(kCompleted, send<long>(writer.get(), sel<"status">()));
    EXPECT_EQ(nil, send<id>(writer.get(), sel<"error">()));

    zerlan::testing::Movie movie = readMovie((dir_ / "movie.mp4").string());
    EXPECT_EQ(1, movie.streams) << "video only";
    EXPECT_EQ(AV_CODEC_ID_H264, movie.codec);
    EXPECT_EQ(320, movie.width) << "640 x 480 buffers scaled to the track";
    EXPECT_EQ(240, movie.height);
    EXPECT_NEAR(3.0, movie.seconds, 0.15);
}

// A camera's three seconds at 10 frames a second, in either container: the first picture is
// the first buffer's (not the flat grey of an encoder that spent nothing on it), and the stream
// spends about the average bit rate that was asked.
TEST_F(AssetWriterTest, TheMovieShowsItsFirstPictureAndSpendsTheBitRateAsked)
{
    struct {
        id fileType;
        const char *name, *majorBrand;
    } const cases[] = {{AVFileTypeMPEG4, "camera.mp4", "isom"}, {AVFileTypeQuickTimeMovie, "camera.mov", "qt  "}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        id input = nil;
        Strong<> writer = started(c.name, &input, 640, 480, c.fileType);
        for (int i = 0; i < 30; ++i) {
            appendWhenReady(input, buffer(0.1 * i, [i](uint8_t *pixels, size_t bytesPerRow) {
                for (size_t y = 0; y < 480; ++y)
                    for (size_t x = 0; x < 640; ++x) {
                        uint8_t *bgra = pixels + y * bytesPerRow + x * 4;
                        bgra[0] = bgra[1] = bgra[2] = scene(i, x, y);
                        bgra[3] = 255;
                    }
            }), i);
        }
        send<void>(input, sel<"markAsFinished">());
        ASSERT_EQ(1, finish(writer.get()).calls);
        ASSERT_EQ(kCompleted, send<long>(writer.get(), sel<"status">()));

        std::string path = (dir_ / c.name).string();
        zerlan::testing::Movie movie = readMovie(path);
        EXPECT_EQ(c.majorBrand, movie.majorBrand);
        EXPECT_EQ(30u, movie.times.size());
        EXPECT_NEAR(2000000, movie.bitRate, 400000);
        zerlan::testing::Pictures pictures = zerlan::testing::decodePictures(path);
        ASSERT_FALSE(pictures.luma.empty());
        double distance = 0;
        for (size_t y = 0; y < 480; ++y)
            for (size_t x = 0; x < 640; ++x)
                distance += std::abs(pictures.luma.front()[y * 640 + x] - lumaOf(scene(0, x, y)));
        EXPECT_LT(distance / (640 * 480), 4.0) << "mean luma difference of the first picture";
    }
}

TEST_F(AssetWriterTest, MisuseRaisesAndFailuresAreStatusesWithErrors)
{
    // An existing file is never overwritten.
    fs::path existing = dir_ / "taken.mp4";
    fclose(fopen(existing.c_str(), "w"));
    id error = nil;
    EXPECT_EQ(nil, allocInit<"initWithURL:fileType:error:">("AVAssetWriter", url("taken.mp4"), AVFileTypeMPEG4, &error).get());
    ASSERT_NE(nil, error);
    EXPECT_EQ(-11823, send<long>(error, sel<"code">()));
    EXPECT_EQ(0u, fs::file_size(existing));

    // Appending needs a session.
    id input = nil;
    Strong<> noSession = withInput("a.mp4", &input);
    ASSERT_TRUE(send<BOOL>(noSession.get(), sel<"startWriting">()));
    CMSampleBufferRef sample = buffer(0, 128);
    EXPECT_THROW(send<BOOL>(input, sel<"appendSampleBuffer:">(), sample), id);
    EXPECT_THROW(send<BOOL>(noSession.get(), sel<"startWriting">()), id) << "only once";

    // Finishing a session that got no frame fails, with an error to show.
    send<void>(noSession.get(), sel<"startSessionAtSourceTime:">(), CMTimeMake(0, 600));
    EXPECT_EQ(1, finish(noSession.get()).calls);
    EXPECT_EQ(kFailed, send<long>(noSession.get(), sel<"status">()));
    EXPECT_NE(nil, send<id>(send<id>(noSession.get(), sel<"error">()), sel<"localizedDescription">()));

    // A folder that does not exist fails at the start, not at the end.
    id badInput = nil;
    Strong<> nowhere = withInput("no/such/dir.mp4", &badInput);
    EXPECT_FALSE(send<BOOL>(nowhere.get(), sel<"startWriting">()));
    EXPECT_EQ(kFailed, send<long>(nowhere.get(), sel<"status">()));
    EXPECT_NE(nil, send<id>(nowhere.get(), sel<"error">()));

    // Cancelling removes what was written.
    id cancelInput = nil;
    Strong<> cancelled = started("cancelled.mp4", &cancelInput);
    EXPECT_TRUE(send<BOOL>(cancelInput, sel<"appendSampleBuffer:">(), sample));
    send<void>(cancelled.get(), sel<"cancelWriting">());
    EXPECT_EQ(kCancelled, send<long>(cancelled.get(), sel<"status">()));
    EXPECT_FALSE(fs::exists(dir_ / "cancelled.mp4"));
    CFRelease(sample);
}

TEST_F(AssetWriterTest, AFloodedInputIsNotReadyUntilItsEncoderCatchesUp)
{
    id input = nil;
    Strong<> writer = started("flood.mp4", &input);
    // Made beforehand, so that appending is all the loop does: stripes that move from frame to
    // frame, which the encoder has to work at.
    std::vector<CMSampleBufferRef> samples;
    for (int i = 0; i < 40; ++i)
        samples.push_back(buffer(0.1 * i, [i](uint8_t *pixels, size_t bytesPerRow) {
            for (size_t y = 0; y < 480; ++y)
                memset(pixels + y * bytesPerRow, int((y + size_t(i) * 7) * 37 & 0xff), bytesPerRow);
        }));
    bool sawNotReady = false;
    for (size_t i = 0; i < samples.size() && !sawNotReady; ++i) {
        send<BOOL>(input, sel<"appendSampleBuffer:">(), samples[i]);
        sawNotReady = !send<BOOL>(input, sel<"isReadyForMoreMediaData">());
    }
    for (CMSampleBufferRef sample : samples)
        CFRelease(sample);
    EXPECT_TRUE(sawNotReady) << "appending faster than the encoder runs fills its queue";
    EXPECT_TRUE(CFRunLoopRunUntil_np(10, ^bool { return send<BOOL>(input, sel<"isReadyForMoreMediaData">()); }))
        << "and the queue drains";
    send<void>(input, sel<"markAsFinished">());
    EXPECT_FALSE(send<BOOL>(input, sel<"isReadyForMoreMediaData">())) << "a finished input takes nothing more";
    EXPECT_EQ(1, finish(writer.get()).calls);
    EXPECT_EQ(kCompleted, send<long>(writer.get(), sel<"status">()));
}

} // namespace
