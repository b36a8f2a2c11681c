// The cost of recording on the picker's camera screen, next to libx264 called directly, measured
// side by side in one run; then a real-time recording at 10 frames per second.
//
// Library: a camera screen in the middle of a recording (through the platform's asset writer,
// MP4, H.264 640x480 at 2,000,000 bit/s) is handed decoded frames one after another as its poll
// would hand them: appendVideoFrame: on the main thread. Timed are the main thread's part of each
// frame (the sample buffer and the hand-off to the writer) and the whole recording from the first
// frame until the finished file is delivered (drawing, conversion, encoding, muxing).
// Direct: the same decoded frames drawn into a BGRA bitmap, through libswscale (to YUV 4:2:0) and
// libx264 through libavcodec with the writer's settings (preset veryfast, tune zerolatency,
// 2,000,000 bit/s), muxed into an MP4 with libavformat.
//
// Rounds alternate between the two so both see the same machine; medians are reported.
#include "objc/Frameworks.h"
#include "server/image.h"
#include "server/pattern.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

using namespace zerlan::objc;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kWidth = 640, kHeight = 480;
constexpr int kBitRate = 2000000;
constexpr double kMainThreadTargetMs = 2.0;
constexpr double kTotalTargetRatio = 1.3;

double msSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

// Runs the main run loop (main-queue work, the writer's completion hop) until done() or timeout.
template <typename Done>
bool runMainUntil(double seconds, Done done)
{
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    while (!done()) {
        if (Clock::now() >= deadline)
            return false;
        AutoreleasePool pool;
        CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.005, false);
    }
    return true;
}

// Moving test-pattern frames with a QR code, decoded as the camera screen decodes its frames.
std::vector<Strong<>> makeFrames(int count)
{
    zerlan::server::PatternRenderer renderer({kWidth, kHeight});
    (void)renderer.setPayload("zerlan recording");
    zerlan::server::JpegEncoder encoder;
    std::vector<Strong<>> frames;
    auto start = std::chrono::system_clock::now();
    for (int i = 0; i < count; ++i) {
        auto jpeg = encoder.encode(renderer.render(uint64_t(i + 1), start + std::chrono::milliseconds(100 * i)), 85);
        if (!jpeg)
            break;
        id data = send<id>(cls("NSData"), sel<"dataWithBytes:length:">(), static_cast<const void *>(jpeg->data()),
                           static_cast<unsigned long>(jpeg->size()));
        frames.push_back(Strong<>::retain(send<id>(cls("UIImage"), sel<"imageWithData:">(), data)));
    }
    return frames;
}

// Frames in the movie's video stream (every packet read), or -1 when it cannot be read.
long framesIn(const std::string &path)
{
    AVFormatContext *format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) != 0)
        return -1;
    long frames = 0;
    if (avformat_find_stream_info(format, nullptr) >= 0) {
        AVPacket *packet = av_packet_alloc();
        while (av_read_frame(format, packet) >= 0) {
            frames += format->streams[packet->stream_index]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
    }
    avformat_close_input(&format);
    return frames;
}

// ---- library: the camera screen recording through the asset writer

struct LibraryRun {
    std::vector<double> mainThreadMs; // per appended frame
    double totalMs = 0;               // first frame to the delivered file
    long appended = 0, dropped = 0;
    long framesInMovie = -1;
};

class CameraScreen {
public:
    // Presents a camera picker as an app does and takes the screen shown in its place, with its
    // polling stopped: the benchmark hands it the frames itself.
    bool setUp()
    {
        picker_ = allocInit<"init">("UIImagePickerController");
        send<void>(picker_.get(), sel<"setSourceType:">(), 1L);
        send<void>(picker_.get(), sel<"setMediaTypes:">(), arrayWithObject(string("public.movie")));
        if (send<long>(picker_.get(), sel<"sourceType">()) != 1)
            return false;
        CGRect bounds = send<CGRect>(send<id>(cls("UIScreen"), sel<"mainScreen">()), sel<"bounds">());
        window_ = allocInit<"initWithFrame:">("UIWindow", bounds);
        root_ = allocInit<"init">("UIViewController");
        send<void>(window_.get(), sel<"setRootViewController:">(), root_.get());
        send<void>(window_.get(), sel<"makeKeyAndVisible">());
        send<void>(root_.get(), sel<"presentViewController:animated:completion:">(), picker_.get(), NO,
                   static_cast<void (^)(void)>(nullptr));
        id root = root_.get();
        runMainUntil(5, [&] { return send<id>(root, sel<"presentedViewController">()) != nil; });
        screen_ = Strong<>::retain(send<id>(root, sel<"presentedViewController">()));
        if (!screen_ || !send<BOOL>(screen_.get(), sel<"respondsToSelector:">(), sel<"appendVideoFrame:">()))
            return false;
        send<void>(send<id>(screen_.get(), sel<"frameTimer">()), sel<"invalidate">());
        runMainUntil(1, [&] { return !send<BOOL>(screen_.get(), sel<"fetchInFlight">()); });
        return true;
    }

    // Records the frames: as fast as the writer takes them (paced = 0), or one every `paced`
    // seconds as the poll delivers them.
    LibraryRun record(const std::vector<Strong<>> &frames, double paced)
    {
        LibraryRun run;
        id screen = screen_.get();
        send<void>(screen, sel<"startRecording">());
        if (!send<BOOL>(screen, sel<"recording">()))
            return run;
        std::string path = text(send<id>(send<id>(screen, sel<"recordingURL">()), sel<"path">()));
        id input = send<id>(screen, sel<"writerInput">());
        auto started = Clock::now();
        for (size_t i = 0; i < frames.size(); ++i) {
            if (paced > 0) {
                runMainUntil(10, [&] { return Clock::now() >= started + std::chrono::duration_cast<Clock::duration>(
                                                                        std::chrono::duration<double>(paced * i)); });
            } else {
                // The encoder running behind is part of the total, not of the main thread's share.
                runMainUntil(10, [&] { return send<BOOL>(input, sel<"isReadyForMoreMediaData">()); });
            }
            bool ready = send<BOOL>(input, sel<"isReadyForMoreMediaData">());
            auto t0 = Clock::now();
            send<void>(screen, sel<"appendVideoFrame:">(), frames[i].get());
            double ms = msSince(t0);
            if (ready) {
                run.mainThreadMs.push_back(ms);
                ++run.appended;
            } else {
                ++run.dropped;
            }
        }
        send<void>(screen, sel<"stopRecordingAndDeliver:">(), YES);
        runMainUntil(30, [&] { return send<id>(screen, sel<"writer">()) == nil; });
        run.totalMs = msSince(started);
        run.framesInMovie = framesIn(path);
        fs::remove(path);
        // A delivered recording leaves the screen finishing until it is dismissed; start afresh.
        send<void>(screen, sel<"setFinishing:">(), NO);
        return run;
    }

private:
    static std::string text(id s)
    {
        const char *chars = utf8(s);
        return chars ? chars : "";
    }

    Strong<> picker_, window_, root_, screen_;
};

// ---- direct: libswscale, libx264 through libavcodec, libavformat

double encodeDirectly(const std::vector<Strong<>> &frames, const std::string &path, const char *preset)
{
    auto started = Clock::now();
    const AVCodec *codec = avcodec_find_encoder_by_name("libx264");
    AVFormatContext *format = nullptr;
    avformat_alloc_output_context2(&format, nullptr, "mp4", path.c_str());
    AVStream *stream = avformat_new_stream(format, nullptr);
    AVCodecContext *encoder = avcodec_alloc_context3(codec);
    encoder->width = kWidth;
    encoder->height = kHeight;
    encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    encoder->time_base = {1, 600};
    encoder->bit_rate = kBitRate;
    if (format->oformat->flags & AVFMT_GLOBALHEADER)
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    av_opt_set(encoder->priv_data, "preset", preset, 0);
    av_opt_set(encoder->priv_data, "tune", "zerolatency", 0); // as the writer encodes a live feed
    av_opt_set(encoder->priv_data, "x264-params", "force-cfr=0", 0); // bits shared out by timestamps, too
    encoder->framerate = {30, 1};                                     // and the writer's first-frame hint
    avcodec_open2(encoder, codec, nullptr);
    avcodec_parameters_from_context(stream->codecpar, encoder);
    stream->time_base = encoder->time_base;
    avio_open(&format->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (avformat_write_header(format, nullptr) < 0)
        return -1;

    SwsContext *scaler = sws_getContext(kWidth, kHeight, AV_PIX_FMT_BGRA, kWidth, kHeight, AV_PIX_FMT_YUV420P,
                                        SWS_BILINEAR, nullptr, nullptr, nullptr);
    AVFrame *frame = av_frame_alloc();
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = kWidth;
    frame->height = kHeight;
    av_frame_get_buffer(frame, 0);
    AVPacket *packet = av_packet_alloc();
    auto drain = [&] {
        while (avcodec_receive_packet(encoder, packet) == 0) {
            av_packet_rescale_ts(packet, encoder->time_base, stream->time_base);
            packet->stream_index = stream->index;
            av_interleaved_write_frame(format, packet);
        }
    };
    // The bitmap of each decoded frame, as the screen draws it into its sample buffer.
    std::vector<uint8_t> bgra(size_t(kWidth) * kHeight * 4);
    CGColorSpaceRef space = CGColorSpaceCreateDeviceRGB();
    for (size_t i = 0; i < frames.size(); ++i) {
        CGImageRef image = send<CGImageRef>(frames[i].get(), sel<"CGImage">());
        CGContextRef context = CGBitmapContextCreate(bgra.data(), kWidth, kHeight, 8, kWidth * 4, space,
                                                     uint32_t(kCGImageAlphaPremultipliedFirst) | uint32_t(kCGBitmapByteOrder32Little));
        CGContextDrawImage(context, CGRectMake(0, 0, kWidth, kHeight), image);
        CGContextRelease(context);
        av_frame_make_writable(frame);
        const uint8_t *source[] = {bgra.data()};
        const int stride[] = {kWidth * 4};
        sws_scale(scaler, source, stride, 0, kHeight, frame->data, frame->linesize);
        frame->pts = int64_t(i) * 60; // 10 frames per second in a 1/600 time base
        avcodec_send_frame(encoder, frame);
        drain();
    }
    CGColorSpaceRelease(space);
    avcodec_send_frame(encoder, nullptr);
    drain();
    av_write_trailer(format);
    double ms = msSince(started);
    av_packet_free(&packet);
    av_frame_free(&frame);
    sws_freeContext(scaler);
    avcodec_free_context(&encoder);
    avio_closep(&format->pb);
    avformat_free_context(format);
    return ms;
}

} // namespace

int main(int argc, char **argv)
{
    int frameCount = 60, rounds = 3;
    double realtimeSeconds = 5;
    const char *preset = "veryfast";
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--frames" && i + 1 < argc)
            frameCount = std::max(10, std::atoi(argv[++i]));
        else if (arg == "--rounds" && i + 1 < argc)
            rounds = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--realtime-seconds" && i + 1 < argc)
            realtimeSeconds = std::max(1.0, std::atof(argv[++i]));
        else if (arg == "--preset" && i + 1 < argc)
            preset = argv[++i];
        else {
            std::printf("usage: bench-recording [--frames N] [--rounds N] [--realtime-seconds S] [--preset P]\n"
                        "The camera screen's recording cost per frame (main thread, and in total) next to\n"
                        "libx264 encoding the same 640x480 frames directly (x264 preset P, default the\n"
                        "writer's veryfast; tune zerolatency), then a real-time recording at 10 frames per second.\n");
            return arg == "--help" || arg == "-h" ? 0 : 2;
        }
    }

    AutoreleasePool pool;
    CameraScreen screen;
    if (!screen.setUp()) {
        std::fprintf(stderr, "bench-recording: no camera picker: is ZerlanInject loaded?\n");
        return 1;
    }
    std::printf("preparing %d frames (640x480 test pattern, decoded)...\n", frameCount);
    std::vector<Strong<>> frames = makeFrames(frameCount);

    std::vector<double> mainMs, libraryPerFrame, directPerFrame;
    long libraryFrames = 0;
    fs::path directMovie = fs::temp_directory_path() / ("zerlan-bench-direct-" + std::to_string(getpid()) + ".mp4");
    for (int round = 0; round < rounds; ++round) {
        LibraryRun run = screen.record(frames, 0);
        if (run.appended == 0) {
            std::fprintf(stderr, "bench-recording: the screen could not record\n");
            return 1;
        }
        mainMs.insert(mainMs.end(), run.mainThreadMs.begin(), run.mainThreadMs.end());
        libraryPerFrame.push_back(run.totalMs / double(run.appended));
        libraryFrames = run.framesInMovie;
        double direct = encodeDirectly(frames, directMovie.string(), preset);
        directPerFrame.push_back(direct / double(frames.size()));
        std::printf("round %d/%d: library %.2f ms/frame (%ld frames, main thread median %.3f ms), direct %.2f ms/frame\n",
                    round + 1, rounds, libraryPerFrame.back(), run.framesInMovie, median(run.mainThreadMs),
                    directPerFrame.back());
    }
    fs::remove(directMovie);

    std::printf("real-time recording: %.0f s at 10 frames per second...\n", realtimeSeconds);
    int realtimeCount = int(realtimeSeconds * 10);
    std::vector<Strong<>> realtimeFrames;
    for (int i = 0; i < realtimeCount; ++i)
        realtimeFrames.push_back(frames[size_t(i) % frames.size()]);
    LibraryRun realtime = screen.record(realtimeFrames, 0.1);

    std::sort(mainMs.begin(), mainMs.end());
    double mainMedian = median(mainMs);
    double mainP99 = mainMs.empty() ? 0 : mainMs[std::min(mainMs.size() - 1, size_t(double(mainMs.size()) * 0.99))];
    double library = median(libraryPerFrame), direct = median(directPerFrame);
    double ratio = direct > 0 ? library / direct : 0;
    bool mainOk = mainMedian < kMainThreadTargetMs;
    bool totalOk = ratio <= kTotalTargetRatio;
    bool realtimeOk = realtime.dropped == 0 && realtime.framesInMovie == realtimeCount;

    std::printf("\nRecording on the camera screen, 640x480 H.264 at 2 Mbit/s, %d frames, median of %d rounds:\n",
                frameCount, rounds);
    std::printf("  main thread per frame (sample buffer, hand-off)  median %.3f ms, p99 %.3f ms   target < %.1f ms  %s\n",
                mainMedian, mainP99, kMainThreadTargetMs, mainOk ? "ok" : "MISSED");
    std::printf("  total per frame (library)                        %.2f ms (%ld frames in the movie)\n", library,
                libraryFrames);
    std::printf("  total per frame (libx264 directly, %s)     %.2f ms\n", preset, direct);
    std::printf("  ratio                                            %.2f   target <= %.1f  %s\n", ratio,
                kTotalTargetRatio, totalOk ? "ok" : "MISSED");
    std::printf("  real-time at 10 fps: %d frames given, %ld appended, %ld dropped, %ld in the movie  %s\n",
                realtimeCount, realtime.appended, realtime.dropped, realtime.framesInMovie,
                realtimeOk ? "ok" : "MISSED");
    return mainOk && totalOk && realtimeOk ? 0 : 1;
}
