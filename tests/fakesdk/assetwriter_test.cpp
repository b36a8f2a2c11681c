// fakesdk's AVAssetWriter: a real H.264 movie timed by the appended buffers, Apple's statuses,
// errors and exceptions, a finish handler that runs once off the caller's thread, and an input
// that stops being ready while its encoder is behind.
#include "objc/Frameworks.h"

#include <fakesdk/dispatch_np.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>

extern "C" id const AVFileTypeMPEG4;
extern "C" id const AVVideoCompressionPropertiesKey;
extern "C" id const AVVideoAverageBitRateKey;

using namespace zerlan::objc;
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

// A 32BGRA buffer filled with one grey level, at `seconds` on a 1/600 s clock, lasting 0.1 s.
CMSampleBufferRef buffer(double seconds, uint8_t grey, size_t width = 640, size_t height = 480)
{
    CVPixelBufferRef pixels = nullptr;
    CVPixelBufferCreate(kCFAllocatorDefault, width, height, kCVPixelFormatType_32BGRA, nullptr, &pixels);
    CVPixelBufferLockBaseAddress(pixels, 0);
    memset(CVPixelBufferGetBaseAddress(pixels), grey, CVPixelBufferGetBytesPerRow(pixels) * height);
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

struct Probe {
    int streams = 0;
    AVCodecID codec = AV_CODEC_ID_NONE;
    int width = 0, height = 0;
    double seconds = 0;
};

Probe probe(const std::string &path)
{
    Probe p;
    AVFormatContext *format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) != 0)
        return p;
    avformat_find_stream_info(format, nullptr);
    p.streams = int(format->nb_streams);
    if (p.streams > 0) {
        p.codec = format->streams[0]->codecpar->codec_id;
        p.width = format->streams[0]->codecpar->width;
        p.height = format->streams[0]->codecpar->height;
    }
    p.seconds = double(format->duration) / AV_TIME_BASE;
    avformat_close_input(&format);
    return p;
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

    // A writer with one started H.264 input; the session starts at 0.
    Strong<> started(const std::string &name, id *input, long width = 640, long height = 480)
    {
        id error = nil;
        Strong<> writer = allocInit<"initWithURL:fileType:error:">("AVAssetWriter", url(name), AVFileTypeMPEG4, &error);
        *input = send<id>(cls("AVAssetWriterInput"), sel<"assetWriterInputWithMediaType:outputSettings:">(),
                          AVMediaTypeVideo, settings(width, height));
        EXPECT_TRUE(send<BOOL>(writer.get(), sel<"canAddInput:">(), *input));
        send<void>(writer.get(), sel<"addInput:">(), *input);
        EXPECT_TRUE(send<BOOL>(writer.get(), sel<"startWriting">()));
        send<void>(writer.get(), sel<"startSessionAtSourceTime:">(), CMTimeMake(0, 600));
        return writer;
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
        CMSampleBufferRef sample = buffer(t, uint8_t(i * 12));
        CFRunLoopRunUntil_np(5, ^bool { return send<BOOL>(input, sel<"isReadyForMoreMediaData">()); });
        EXPECT_TRUE(send<BOOL>(input, sel<"appendSampleBuffer:">(), sample)) << i;
        CFRelease(sample);
    }
    send<void>(input, sel<"markAsFinished">());
    Finished done = finish(writer.get());
    EXPECT_EQ(1, done.calls);
    EXPECT_TRUE(done.offCallerThread);
    EXPECT_EQ(kCompleted, send<long>(writer.get(), sel<"status">()));
    EXPECT_EQ(nil, send<id>(writer.get(), sel<"error">()));

    Probe movie = probe((dir_ / "movie.mp4").string());
    EXPECT_EQ(1, movie.streams) << "video only";
    EXPECT_EQ(AV_CODEC_ID_H264, movie.codec);
    EXPECT_EQ(320, movie.width) << "640 x 480 buffers scaled to the track";
    EXPECT_EQ(240, movie.height);
    EXPECT_NEAR(3.0, movie.seconds, 0.15);
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
    Strong<> noSession = allocInit<"initWithURL:fileType:error:">("AVAssetWriter", url("a.mp4"), AVFileTypeMPEG4, &error);
    id input = send<id>(cls("AVAssetWriterInput"), sel<"assetWriterInputWithMediaType:outputSettings:">(),
                        AVMediaTypeVideo, settings(640, 480));
    send<void>(noSession.get(), sel<"addInput:">(), input);
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
    Strong<> nowhere = allocInit<"initWithURL:fileType:error:">(
        "AVAssetWriter", send<id>(cls("NSURL"), sel<"fileURLWithPath:">(), string((dir_ / "no/such/dir.mp4").c_str())),
        AVFileTypeMPEG4, &error);
    badInput = send<id>(cls("AVAssetWriterInput"), sel<"assetWriterInputWithMediaType:outputSettings:">(),
                        AVMediaTypeVideo, settings(640, 480));
    send<void>(nowhere.get(), sel<"addInput:">(), badInput);
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
    bool sawNotReady = false;
    for (int i = 0; i < 40 && !sawNotReady; ++i) {
        CMSampleBufferRef sample = buffer(0.1 * i, uint8_t(i * 6));
        send<BOOL>(input, sel<"appendSampleBuffer:">(), sample);
        CFRelease(sample);
        sawNotReady = !send<BOOL>(input, sel<"isReadyForMoreMediaData">());
    }
    EXPECT_TRUE(sawNotReady) << "appending faster than the encoder runs fills its queue";
    EXPECT_TRUE(CFRunLoopRunUntil_np(10, ^bool { return send<BOOL>(input, sel<"isReadyForMoreMediaData">()); }))
        << "and the queue drains";
    send<void>(input, sel<"markAsFinished">());
    EXPECT_FALSE(send<BOOL>(input, sel<"isReadyForMoreMediaData">())) << "a finished input takes nothing more";
    EXPECT_EQ(1, finish(writer.get()).calls);
    EXPECT_EQ(kCompleted, send<long>(writer.get(), sel<"status">()));
}

} // namespace
