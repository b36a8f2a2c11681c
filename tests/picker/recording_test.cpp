// Recording on the camera screen against a real frame server: what the screen says and allows
// while recording and finishing, the movie the delegate gets (read back with libavformat), the
// maximum duration, and which files are kept or removed.
#include "PickerTestSupport.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cmath>
#include <cstring>
#include <filesystem>
#include <vector>

using namespace picker_test;
namespace fs = std::filesystem;

namespace {

struct Movie {
    bool opened = false;
    int streams = 0, videoStreams = 0, audioStreams = 0;
    AVCodecID codec = AV_CODEC_ID_NONE;
    int width = 0, height = 0;
    double seconds = 0;
};

Movie probe(const std::string &path)
{
    Movie movie;
    AVFormatContext *format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) != 0)
        return movie;
    movie.opened = avformat_find_stream_info(format, nullptr) >= 0;
    movie.streams = int(format->nb_streams);
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        AVCodecParameters *p = format->streams[i]->codecpar;
        if (p->codec_type == AVMEDIA_TYPE_VIDEO) {
            ++movie.videoStreams;
            movie.codec = p->codec_id;
            movie.width = p->width;
            movie.height = p->height;
        } else if (p->codec_type == AVMEDIA_TYPE_AUDIO) {
            ++movie.audioStreams;
        }
    }
    if (format->duration != AV_NOPTS_VALUE)
        movie.seconds = double(format->duration) / AV_TIME_BASE;
    avformat_close_input(&format);
    return movie;
}

// The luma plane of the movie's last picture, decoded; empty when there is none.
std::vector<uint8_t> lastPicture(const std::string &path, int *width)
{
    std::vector<uint8_t> luma;
    AVFormatContext *format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) != 0)
        return luma;
    avformat_find_stream_info(format, nullptr);
    const AVCodec *codec = nullptr;
    int stream = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    AVCodecContext *decoder = stream >= 0 ? avcodec_alloc_context3(codec) : nullptr;
    if (decoder && avcodec_parameters_to_context(decoder, format->streams[stream]->codecpar) >= 0 &&
        avcodec_open2(decoder, codec, nullptr) >= 0) {
        AVPacket *packet = av_packet_alloc();
        AVFrame *frame = av_frame_alloc();
        auto drain = [&] {
            while (avcodec_receive_frame(decoder, frame) >= 0) {
                *width = frame->width;
                luma.resize(size_t(frame->width) * frame->height);
                for (int y = 0; y < frame->height; ++y)
                    std::memcpy(&luma[size_t(y) * frame->width], frame->data[0] + y * frame->linesize[0],
                                size_t(frame->width));
            }
        };
        while (av_read_frame(format, packet) >= 0) {
            if (packet->stream_index == stream && avcodec_send_packet(decoder, packet) >= 0)
                drain();
            av_packet_unref(packet);
        }
        avcodec_send_packet(decoder, nullptr);
        drain();
        av_frame_free(&frame);
        av_packet_free(&packet);
    }
    avcodec_free_context(&decoder);
    avformat_close_input(&format);
    return luma;
}

// Mean absolute difference between a picture's luma and the canvas's (BT.601, video range).
double lumaDistance(const std::vector<uint8_t> &luma, const Canvas &canvas)
{
    double total = 0;
    for (size_t i = 0; i < luma.size(); ++i) {
        const uint8_t *p = &canvas.rgb[i * 3];
        double y = 16 + (65.481 * p[0] + 128.553 * p[1] + 24.966 * p[2]) / 255;
        total += std::abs(luma[i] - y);
    }
    return total / double(luma.size());
}

std::string pathOf(id url)
{
    return text(send<id>(url, sel<"path">()));
}

class PickerRecording : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (ZerlanFetchJPEG())
            GTEST_SKIP() << "something else answers on 127.0.0.1:47654";
        canvas_.qr("recording", 200, 100);
        server_ = std::make_unique<FrameServer>(canvas_.jpeg());
        ASSERT_TRUE(server_->waitUntilServing());
    }

    void TearDown() override
    {
        for (const std::string &file : movies_)
            fs::remove(file);
    }

    // A video camera screen with a frame on it.
    id showVideoCamera(double maxSeconds = 0, std::initializer_list<const char *> types = {"public.movie"})
    {
        picker_ = app_.cameraPicker(delegate_.object.get(), types);
        send<void>(picker_.get(), sel<"setVideoMaximumDuration:">(), maxSeconds);
        send<void>(picker_.get(), sel<"setCameraCaptureMode:">(), 1L);
        id screen = app_.present(picker_.get());
        EXPECT_TRUE(screen && runMainUntil(10, [&] { return statusOf(screen) == "Tap to record"; }))
            << "status " << statusOf(screen);
        return screen;
    }

    // Starts a recording with a tap and returns the file it writes.
    std::string startRecording(id screen)
    {
        send<void>(screen, sel<"captureTapped">());
        EXPECT_TRUE(send<BOOL>(screen, sel<"recording">()));
        std::string file = pathOf(send<id>(screen, sel<"recordingURL">()));
        movies_.push_back(file);
        return file;
    }

    bool waitForWriterDone(id screen)
    {
        return runMainUntil(10, [&] { return send<id>(screen, sel<"writer">()) == nil; });
    }

    id movieURLOf(size_t call)
    {
        if (delegate_->calls.size() <= call)
            return nil;
        return send<id>(delegate_->calls[call].info.get(), sel<"objectForKey:">(), UIImagePickerControllerMediaURL);
    }

    Canvas canvas_{640, 480, kGreen};
    std::unique_ptr<FrameServer> server_;
    Delegate delegate_;
    PickerApp app_;
    Strong<> picker_;
    std::vector<std::string> movies_;
};

TEST_F(PickerRecording, TwoTapsRecordAnH264MovieOfWhatWasShown)
{
    delegate_->dismissOnResult = false;
    id screen = showVideoCamera(0, {"public.image", "public.movie"});
    id button = send<id>(screen, sel<"captureButton">());
    id mode = send<id>(screen, sel<"modeControl">());
    std::string file = startRecording(screen);
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ("Recording… Tap to stop", statusOf(screen));
    EXPECT_EQ(12, send<double>(send<id>(button, sel<"layer">()), sel<"cornerRadius">()));
    EXPECT_FALSE(send<BOOL>(mode, sel<"isEnabled">())) << "no switching modes while recording";
    EXPECT_EQ(file.rfind(text(NSTemporaryDirectory()), 0), 0u) << file;
    EXPECT_EQ(0u, fs::path(file).filename().string().rfind("zerlan-picker-", 0)) << file;
    EXPECT_EQ(".mp4", fs::path(file).extension());

    // Frames keep coming while recording; a few of them make the movie.
    runMainUntil(1.2, [] { return false; });
    ASSERT_TRUE(tap(button));
    double recorded = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_EQ("Finishing video…", statusOf(screen));
    EXPECT_FALSE(captureEnabled(screen));
    EXPECT_TRUE(send<BOOL>(screen, sel<"finishing">()));

    ASSERT_TRUE(runMainUntil(10, [&] { return !delegate_->calls.empty(); }));
    ASSERT_EQ(1u, delegate_->calls.size());
    id info = delegate_->calls[0].info.get();
    EXPECT_EQ(2u, count(info));
    EXPECT_EQ("public.movie", text(send<id>(info, sel<"objectForKey:">(), UIImagePickerControllerMediaType)));
    EXPECT_EQ(file, pathOf(movieURLOf(0)));
    EXPECT_TRUE(send<BOOL>(mode, sel<"isEnabled">()));
    EXPECT_EQ(nil, send<id>(screen, sel<"writer">()));
    EXPECT_EQ("Finishing video…", statusOf(screen)) << "delivered: the screen waits to be dismissed";
    EXPECT_FALSE(captureEnabled(screen));

    Movie movie = probe(file);
    ASSERT_TRUE(movie.opened) << file;
    EXPECT_EQ(1, movie.streams);
    EXPECT_EQ(0, movie.audioStreams);
    EXPECT_EQ(AV_CODEC_ID_H264, movie.codec);
    EXPECT_EQ(640, movie.width);
    EXPECT_EQ(480, movie.height);
    // Frame times are the host clock's: the movie cannot be longer than the time between the taps
    // (plus the last frame's own 0.1 s), and a 1.2 s recording holds more than one frame.
    EXPECT_LE(movie.seconds, recorded + 0.15);
    EXPECT_GE(movie.seconds, 0.2);
    // And it shows the feed: the served picture, within what H.264 at this bit rate loses.
    int width = 0;
    std::vector<uint8_t> picture = lastPicture(file, &width);
    ASSERT_EQ(640u * 480u, picture.size()) << "width " << width;
    EXPECT_LT(lumaDistance(picture, canvas_), 6.0);

    // Dismissing the picker later leaves the delivered movie alone.
    __block bool gone = false;
    send<void>(picker_.get(), sel<"dismissViewControllerAnimated:completion:">(), NO, ^{
        gone = true;
    });
    ASSERT_TRUE(waitFor(^bool { return gone; }));
    drainMainQueue();
    EXPECT_TRUE(fs::exists(file));
}

TEST_F(PickerRecording, TheMaximumDurationEndsTheRecordingAndEachRecordingHasItsOwnFile)
{
    std::vector<std::string> files;
    for (int round = 0; round < 2; ++round) {
        id screen = showVideoCamera(0.5);
        files.push_back(startRecording(screen));
        ASSERT_TRUE(runMainUntil(15, [&] { return delegate_->calls.size() > size_t(round); }))
            << "status " << statusOf(screen);
        EXPECT_EQ(files.back(), pathOf(movieURLOf(round)));
        ASSERT_TRUE(runMainUntil(5, [&] { return !send<id>(app_.root(), sel<"presentedViewController">()); }));
        Movie movie = probe(files.back());
        EXPECT_EQ(AV_CODEC_ID_H264, movie.codec);
        EXPECT_GE(movie.seconds, 0.5) << "the frame that reached the limit is in the movie";
    }
    EXPECT_NE(files[0], files[1]);
    EXPECT_TRUE(fs::exists(files[0]) && fs::exists(files[1])) << "delivered movies are the app's";
}

TEST_F(PickerRecording, CancelAndDisappearingDiscardTheRecording)
{
    delegate_->dismissOnResult = false;
    id screen = showVideoCamera();
    std::string cancelled = startRecording(screen);
    id cancel = objectAtIndex(
        send<id>(objectAtIndex(send<id>(send<id>(screen, sel<"view">()), sel<"subviews">()), 1), sel<"subviews">()), 0);
    ASSERT_TRUE(tap(cancel));
    EXPECT_EQ("Cancelling…", statusOf(screen));
    EXPECT_FALSE(send<BOOL>(screen, sel<"finishing">())) << "a cancelled recording's screen goes on polling";
    ASSERT_EQ(1u, delegate_->calls.size());
    EXPECT_EQ(DelegateCall::cancelled, delegate_->calls[0].kind);
    ASSERT_TRUE(waitForWriterDone(screen));
    EXPECT_FALSE(fs::exists(cancelled));

    // The screen the delegate kept resumes, and can record again; taking it off screen discards.
    ASSERT_TRUE(runMainUntil(10, [&] { return statusOf(screen) == "Tap to record" && captureEnabled(screen); }));
    std::string dropped = startRecording(screen);
    EXPECT_NE(cancelled, dropped);
    __block bool gone = false;
    send<void>(app_.root(), sel<"dismissViewControllerAnimated:completion:">(), NO, ^{
        gone = true;
    });
    ASSERT_TRUE(waitFor(^bool { return gone; }));
    EXPECT_FALSE(send<BOOL>(screen, sel<"recording">()));
    ASSERT_TRUE(waitForWriterDone(screen));
    EXPECT_FALSE(fs::exists(dropped));
    EXPECT_EQ(1u, delegate_->calls.size()) << "a discarded recording is not delivered";
}

TEST_F(PickerRecording, TheHarnessSettingStartsARecordingInVideoMode)
{
    ScopedEnv env("ZERLAN_HARNESS_AUTO_PICKER", "photo-capture");
    picker_ = app_.cameraPicker(delegate_.object.get(), {"public.movie"});
    id screen = app_.present(picker_.get());
    ASSERT_TRUE(runMainUntil(10, [&] { return send<BOOL>(screen, sel<"recording">()); }));
    movies_.push_back(pathOf(send<id>(screen, sel<"recordingURL">())));
    EXPECT_TRUE(send<BOOL>(screen, sel<"automatedCaptureTriggered">()));
    EXPECT_TRUE(delegate_->calls.empty()) << "the recording runs until a tap, a limit or the screen goes";
}

TEST_F(PickerRecording, AWriterThatCannotStartLeavesTheScreenIdle)
{
    ScopedEnv env("TMPDIR", "/nonexistent/zerlan-picker-test");
    id screen = showVideoCamera();
    send<void>(screen, sel<"captureTapped">());
    // The writer cannot create its file, so starting fails; the screen shows the writer's own
    // description of it, whatever the platform's words are.
    std::string said = statusOf(screen);
    EXPECT_NE("Recording… Tap to stop", said);
    EXPECT_NE("Tap to record", said);
    EXPECT_FALSE(said.empty());
    EXPECT_FALSE(send<BOOL>(screen, sel<"recording">()));
    EXPECT_EQ(nil, send<id>(screen, sel<"writer">()));
    EXPECT_TRUE(captureEnabled(screen));
    // The next frame puts the ready text back.
    ASSERT_TRUE(runMainUntil(10, [&] { return statusOf(screen) == "Tap to record"; }));
}

} // namespace
