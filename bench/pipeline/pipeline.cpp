// The frame pipeline's per-frame cost after the fetch, next to its floor, measured side by side in
// one run; then the frame rate that capture-app reaches against `zerlan serve`.
//
// Library: decode with UIImage imageWithData:, then ZerlanFrameClient::consume on a set-up capture
// session (preview layer, video data output with a delegate on a serial queue, QR detection),
// timed until the layer shows the frame and the delegate has the sample buffer. Each step is also
// timed alone: decode, layer update, ZerlanCreateSampleBuffer, CIDetector.
// Floor: the libraries that fakesdk builds on, called directly on the same frame: libjpeg-turbo
// decode to BGRA, pixman bilinear aspect-fill scale into a 640x480 buffer, zxing-cpp detection with
// the hints of a high-accuracy QR detector.
//
// Library and floor iterations alternate, so both see the same machine; medians are reported.
#include "frames/FrameClient.h"
#include "frames/SampleBuffer.h"
#include "objc/Frameworks.h"
#include "server/image.h"
#include "server/pattern.h"
#include "transport/FetchJPEG.h"

#include <ZXing/ReadBarcode.h>
#include <pixman.h>
#include <turbojpeg.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

using namespace zerlan::objc;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr double kTargetRatio = 1.5;
constexpr double kTargetFps = 9.5;

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

// A test-pattern frame as the server would serve it (quality 85), with its QR code.
std::string patternJpeg(int width, int height)
{
    zerlan::server::PatternRenderer renderer({width, height});
    if (!renderer.setPayload("zerlan"))
        return {};
    zerlan::server::JpegEncoder encoder;
    auto jpeg = encoder.encode(renderer.render(42, std::chrono::system_clock::now()), 85);
    return jpeg ? *jpeg : std::string();
}

// ---- floor: the libraries called directly ----

struct Floor {
    tjhandle decoder = tjInitDecompress();
    std::vector<uint8_t> frame;  // decoded BGRA
    std::vector<uint8_t> target = std::vector<uint8_t>(640 * 480 * 4);
    int width = 0, height = 0;
    ~Floor() { tjDestroy(decoder); }

    bool decode(const std::string &jpeg)
    {
        int subsampling = 0, colorspace = 0;
        auto bytes = reinterpret_cast<const unsigned char *>(jpeg.data());
        if (tjDecompressHeader3(decoder, bytes, jpeg.size(), &width, &height, &subsampling, &colorspace) != 0)
            return false;
        frame.resize(size_t(width) * height * 4);
        return tjDecompress2(decoder, bytes, jpeg.size(), frame.data(), width, width * 4, height, TJPF_BGRA, 0) == 0;
    }

    // Aspect fill into 640x480, centred, bilinear: what drawing a frame into a sample buffer is.
    void scale()
    {
        pixman_image_t *src = pixman_image_create_bits(PIXMAN_a8r8g8b8, width, height,
                                                       reinterpret_cast<uint32_t *>(frame.data()), width * 4);
        pixman_image_t *dst = pixman_image_create_bits(PIXMAN_a8r8g8b8, 640, 480,
                                                       reinterpret_cast<uint32_t *>(target.data()), 640 * 4);
        double s = std::max(640.0 / width, 480.0 / height);
        pixman_f_transform f;
        pixman_f_transform_init_scale(&f, 1 / s, 1 / s);
        pixman_f_transform_translate(&f, nullptr, (width * s - 640) / 2 / s, (height * s - 480) / 2 / s);
        pixman_transform fixed;
        pixman_transform_from_pixman_f_transform(&fixed, &f);
        pixman_image_set_transform(src, &fixed);
        pixman_image_set_filter(src, PIXMAN_FILTER_BILINEAR, nullptr, 0);
        pixman_image_set_repeat(src, PIXMAN_REPEAT_PAD);
        pixman_image_composite32(PIXMAN_OP_SRC, src, nullptr, dst, 0, 0, 0, 0, 0, 0, 640, 480);
        pixman_image_unref(src);
        pixman_image_unref(dst);
    }

    std::string detect()
    {
        ZXing::DecodeHints hints;
        hints.setFormats(ZXing::BarcodeFormat::QRCode);
        hints.setTryHarder(true);
        hints.setTryRotate(true);
        ZXing::ImageView view(frame.data(), width, height, ZXing::ImageFormat::BGRX, width * 4);
        for (const ZXing::Result &result : ZXing::ReadBarcodes(view, hints))
            if (result.isValid())
                return result.text();
        return {};
    }
};

// ---- library: a capture session set up as an app does, fed by consume ----

dispatch_semaphore_t gDelivered;
size_t gDeliveredWidth = 0;

void benchDidOutputSampleBuffer(id, SEL, id, CMSampleBufferRef buffer, id)
{
    gDeliveredWidth = CVPixelBufferGetWidth(CMSampleBufferGetImageBuffer(buffer));
    dispatch_semaphore_signal(gDelivered);
}

struct Library {
    Strong<> session, videoOutput, delegate, layer, detector;
    dispatch_queue_t queue = dispatch_queue_create("bench.video", DISPATCH_QUEUE_SERIAL);

    bool setUp()
    {
        gDelivered = dispatch_semaphore_create(0);
        id device = send<id>(cls("AVCaptureDevice"), sel<"defaultDeviceWithMediaType:">(), AVMediaTypeVideo);
        id error = nil;
        id input = send<id>(cls("AVCaptureDeviceInput"), sel<"deviceInputWithDevice:error:">(), device, &error);
        session = allocInit<"init">("AVCaptureSession");
        if (!input || !send<BOOL>(session.get(), sel<"canAddInput:">(), input))
            return false;
        send<void>(session.get(), sel<"addInput:">(), input);
        Class delegateClass = objc_allocateClassPair(objc_getClass("NSObject"), "BenchVideoDelegate", 0);
        class_addMethod(delegateClass, sel<"captureOutput:didOutputSampleBuffer:fromConnection:">(),
                        imp(benchDidOutputSampleBuffer), "v40@0:8@16^{opaqueCMSampleBuffer=}24@32");
        objc_registerClassPair(delegateClass);
        delegate = Strong<>::adopt(send<id>(send<id>(reinterpret_cast<id>(delegateClass), sel<"alloc">()), sel<"init">()));
        videoOutput = allocInit<"init">("AVCaptureVideoDataOutput");
        send<void>(videoOutput.get(), sel<"setSampleBufferDelegate:queue:">(), delegate.get(), queue);
        send<void>(session.get(), sel<"addOutput:">(), videoOutput.get());
        layer = allocInit<"initWithSession:">("AVCaptureVideoPreviewLayer", session.get());
        id options = send<id>(cls("NSDictionary"), sel<"dictionaryWithObject:forKey:">(), CIDetectorAccuracyHigh,
                              CIDetectorAccuracy);
        detector = Strong<>::retain(send<id>(cls("CIDetector"), sel<"detectorOfType:context:options:">(),
                                             CIDetectorTypeQRCode, static_cast<id>(nil), options));
        return detector && layer;
    }

    // The poll cycle's work after the fetch: decode, then consume (which draws the sample buffer and
    // runs detection here, and hands the layer update and the delivery to other queues). Returns
    // that time; `shownMs` gets the time until the layer shows the frame and the delegate holds its
    // buffer. Negative on failure.
    double pipeline(id data, double *shownMs = nullptr)
    {
        AutoreleasePool pool;
        auto start = Clock::now();
        id image = send<id>(cls("UIImage"), sel<"imageWithData:">(), data);
        if (!image)
            return -1;
        ZerlanFrameClient::shared().consume(image);
        double cycleMs = msSince(start);
        id bitmap = bridge(send<CGImageRef>(image, sel<"CGImage">()));
        auto deadline = Clock::now() + std::chrono::seconds(5);
        while (send<id>(layer.get(), sel<"contents">()) != bitmap && Clock::now() < deadline)
            CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.01, true);
        if (dispatch_semaphore_wait(gDelivered, dispatch_time(DISPATCH_TIME_NOW, 5000000000)) != 0 ||
            gDeliveredWidth != 640 || send<id>(layer.get(), sel<"contents">()) != bitmap)
            return -1;
        if (shownMs)
            *shownMs = msSince(start);
        return cycleMs;
    }

    id decode(id data) { return send<id>(cls("UIImage"), sel<"imageWithData:">(), data); }

    void layerUpdate(id image)
    {
        send<void>(layer.get(), sel<"setContents:">(), bridge(send<CGImageRef>(image, sel<"CGImage">())));
        send<void>(layer.get(), sel<"setContentsGravity:">(), kCAGravityResizeAspectFill);
    }

    bool sampleBuffer(id image)
    {
        CMSampleBufferRef buffer = ZerlanCreateSampleBuffer(image, 3);
        if (!buffer)
            return false;
        CFRelease(buffer);
        return true;
    }

    std::string detect(id image)
    {
        Strong<> coreImage = allocInit<"initWithImage:">("CIImage", image);
        id features = send<id>(detector.get(), sel<"featuresInImage:">(), coreImage.get());
        for (unsigned long i = 0, n = count(features); i < n; ++i)
            if (const char *text = utf8(send<id>(objectAtIndex(features, i), sel<"messageString">())))
                return text;
        return {};
    }
};

struct Row {
    std::string size;
    std::map<std::string, double> library, floor;
    double ratio = 0;
};

bool measure(Library &library, const char *label, int width, int height, int iterations, Row &row)
{
    std::string jpeg = patternJpeg(width, height);
    if (jpeg.empty()) {
        std::fprintf(stderr, "bench-pipeline: cannot render a %dx%d frame\n", width, height);
        return false;
    }
    AutoreleasePool pool;
    Strong<> data = Strong<>::retain(
        send<id>(cls("NSData"), sel<"dataWithBytes:length:">(), jpeg.data(), static_cast<unsigned long>(jpeg.size())));
    Floor floor;

    // Both paths must do the real work: the same decoded size and the same code.
    {
        AutoreleasePool inner;
        id image = library.decode(data);
        if (!image || !floor.decode(jpeg) || library.detect(image) != "zerlan" || floor.detect() != "zerlan" ||
            !library.sampleBuffer(image) || library.pipeline(data) < 0) {
            std::fprintf(stderr, "bench-pipeline: %s: the library or the floor did not decode, draw and read the frame\n",
                         label);
            return false;
        }
    }

    std::map<std::string, std::vector<double>> lib, flo;
    for (int i = 0; i < iterations; ++i) {
        AutoreleasePool inner;
        double shownMs = 0;
        lib["total"].push_back(library.pipeline(data, &shownMs));
        lib["shown"].push_back(shownMs);

        auto t = Clock::now();
        floor.decode(jpeg);
        double decodeMs = msSince(t);
        t = Clock::now();
        floor.scale();
        double scaleMs = msSince(t);
        t = Clock::now();
        floor.detect();
        double detectMs = msSince(t);
        flo["decode"].push_back(decodeMs);
        flo["sample buffer"].push_back(scaleMs);
        flo["QR detection"].push_back(detectMs);
        flo["total"].push_back(decodeMs + scaleMs + detectMs);

        t = Clock::now();
        id image = library.decode(data);
        lib["decode"].push_back(msSince(t));
        t = Clock::now();
        library.layerUpdate(image);
        lib["layer update"].push_back(msSince(t));
        t = Clock::now();
        library.sampleBuffer(image);
        lib["sample buffer"].push_back(msSince(t));
        t = Clock::now();
        library.detect(image);
        lib["QR detection"].push_back(msSince(t));
    }
    row.size = label;
    for (auto &[step, values] : lib)
        row.library[step] = median(values);
    for (auto &[step, values] : flo)
        row.floor[step] = median(values);
    row.ratio = row.library["total"] / row.floor["total"];
    return true;
}

// capture-app with the library against `zerlan serve` on the frame port: videoFrames / seconds.
struct FpsResult {
    bool ok = false;
    std::string error;
    long frames = 0;
    double seconds = 0;
    double fps = 0;
};

pid_t spawn(std::vector<std::string> argv, std::vector<std::string> env, int out)
{
    std::vector<char *> args, envp;
    for (auto &s : argv)
        args.push_back(s.data());
    args.push_back(nullptr);
    for (char **e = environ; *e; ++e)
        env.push_back(*e);
    for (auto &s : env)
        envp.push_back(s.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (out >= 0)
        posix_spawn_file_actions_adddup2(&actions, out, 1);
    int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    posix_spawn_file_actions_adddup2(&actions, devnull, 2);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(devnull);
    return pid;
}

FpsResult measureFps(const fs::path &binDir, double seconds)
{
    FpsResult result;
    result.seconds = seconds;
    fs::path zerlan = binDir / "zerlan", app = binDir / "capture-app";
    fs::path library = binDir.parent_path() / "lib" / "libZerlanInject.so";
    for (const fs::path &p : {zerlan, app, library})
        if (!fs::exists(p)) {
            result.error = p.string() + " not found: build zerlan, capture-app and ZerlanInject";
            return result;
        }
    char logName[] = "/tmp/zerlan-bench-pipeline-XXXXXX";
    int appOut = mkstemp(logName);
    unlink(logName);
    pid_t server = spawn({zerlan.string(), "serve", "--port", "47654"}, {}, -1);
    // The server answers once its first frame exists; a frame fetched here proves it.
    auto deadline = Clock::now() + std::chrono::seconds(10);
    bool serving = false;
    while (!serving && Clock::now() < deadline) {
        int status = 0;
        if (server < 0 || waitpid(server, &status, WNOHANG) == server) {
            server = -1;
            break;
        }
        AutoreleasePool pool;
        serving = static_cast<bool>(ZerlanFetchJPEG());
        if (!serving)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!serving) {
        if (server > 0) {
            kill(server, SIGTERM);
            waitpid(server, nullptr, 0);
        }
        result.error = "zerlan serve did not start on 127.0.0.1:47654 (is the port taken?)";
        close(appOut);
        return result;
    }
    char secondsText[32];
    std::snprintf(secondsText, sizeof secondsText, "%g", seconds);
    pid_t pid = spawn({app.string(), "--seconds", secondsText, "--photo-after-ms", "1000"},
                      {"LD_PRELOAD=" + library.string()}, appOut);
    int status = 0;
    if (pid > 0)
        waitpid(pid, &status, 0);
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    std::string output;
    lseek(appOut, 0, SEEK_SET);
    char buffer[4096];
    for (ssize_t n; (n = read(appOut, buffer, sizeof buffer)) > 0;)
        output.append(buffer, size_t(n));
    close(appOut);
    auto json = nlohmann::json::parse(output, nullptr, false);
    if (!json.is_object() || !json["videoFrames"].is_number()) {
        result.error = "capture-app gave no result: " + output;
        return result;
    }
    result.frames = json["videoFrames"].get<long>();
    result.fps = result.frames / seconds;
    result.ok = true;
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    int iterations = 60;
    double appSeconds = 5;
    bool skipApp = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--iterations" && i + 1 < argc)
            iterations = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--app-seconds" && i + 1 < argc)
            appSeconds = std::max(1.0, std::atof(argv[++i]));
        else if (arg == "--no-app")
            skipApp = true;
        else {
            std::printf("usage: bench-pipeline [--iterations N] [--app-seconds S] [--no-app]\n"
                        "Per-frame cost of the library's consume step next to its floor (libjpeg-turbo,\n"
                        "pixman, zxing-cpp called directly), at 640x480 and 1920x1080, then capture-app's frame\n"
                        "rate against zerlan serve on 127.0.0.1:47654 (which must be free).\n");
            return arg == "--help" || arg == "-h" ? 0 : 2;
        }
    }

    AutoreleasePool pool;
    Library library;
    if (!library.setUp()) {
        std::fprintf(stderr, "bench-pipeline: the capture session could not be set up: is ZerlanInject installed?\n");
        return 1;
    }
    std::vector<Row> rows;
    for (auto [label, w, h] : {std::tuple{"640x480", 640, 480}, std::tuple{"1920x1080", 1920, 1080}}) {
        Row row;
        if (!measure(library, label, w, h, iterations, row))
            return 1;
        rows.push_back(row);
    }

    std::printf("\nFrame pipeline after the fetch, per frame (median of %d, library and floor interleaved)\n",
                iterations);
    std::printf("library: UIImage decode + ZerlanFrameClient consume (layer, sample buffer, CIDetector)\n");
    std::printf("floor:   libjpeg-turbo BGRA decode + pixman bilinear 640x480 + zxing-cpp, called directly\n\n");
    std::printf("%-10s %-15s %12s %12s %8s\n", "frame", "step", "library ms", "floor ms", "ratio");
    bool ratioOk = true;
    for (Row &row : rows) {
        for (const char *step : {"decode", "layer update", "sample buffer", "QR detection"}) {
            double f = row.floor.count(step) ? row.floor[step] : 0;
            if (f > 0)
                std::printf("%-10s %-15s %12.3f %12.3f %8.2f\n", row.size.c_str(), step, row.library[step], f,
                            row.library[step] / f);
            else
                std::printf("%-10s %-15s %12.3f %12s %8s\n", row.size.c_str(), step, row.library[step], "-", "-");
        }
        std::printf("%-10s %-15s %12.3f %12.3f %8.2f  <- target <= %.1f\n", row.size.c_str(), "poll cycle", row.library["total"],
                    row.floor["total"], row.ratio, kTargetRatio);
        std::printf("%-10s %-15s %12.3f %12.3f %8.2f\n", row.size.c_str(), "shown+delivered", row.library["shown"],
                    row.floor["total"], row.library["shown"] / row.floor["total"]);
        ratioOk = ratioOk && row.ratio <= kTargetRatio;
    }
    std::printf("poll cycle: UIImage decode + consume on the poll thread (it hands the layer update and the\n"
                "delivery to the main and delegate queues); shown+delivered: until the layer shows the frame\n"
                "and the delegate holds its buffer, cross-thread hand-offs included.\n");

    bool fpsOk = true;
    if (!skipApp) {
        fs::path binDir = fs::read_symlink("/proc/self/exe").parent_path();
        FpsResult fps = measureFps(binDir, appSeconds);
        std::printf("\ncapture-app with ZerlanInject against zerlan serve: ");
        if (fps.ok)
            std::printf("%ld frames in %g s = %.2f fps (target >= %.1f; the poll cycle pauses 100 ms)\n", fps.frames,
                        fps.seconds, fps.fps, kTargetFps);
        else
            std::printf("not measured: %s\n", fps.error.c_str());
        fpsOk = fps.ok && fps.fps >= kTargetFps;
    }

    std::printf("\n");
    if (ratioOk && fpsOk) {
        std::printf("targets met: consume within %.1fx the floor%s\n", kTargetRatio,
                    skipApp ? "" : ", capture-app at >= 9.5 fps");
        return 0;
    }
    if (!ratioOk)
        std::printf("below target: the library's consume step costs more than %.1fx the floor\n", kTargetRatio);
    if (!fpsOk)
        std::printf("below target: capture-app gets fewer than %.1f frames a second\n", kTargetFps);
    return 1;
}
