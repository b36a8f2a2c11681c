// capture-app: the camera code of a typical scanning app. It builds a capture session around the
// default video device with a video data output (own serial queue), a QR metadata output (main
// queue), a photo output and a preview layer, runs the main run loop for a while, takes one photo
// part way, and prints one JSON object describing what arrived. Without a camera (a Simulator
// without ZerlanInject) it reports the error it hit and exits 1; it never crashes on an
// Objective-C exception.
#include "objc/Frameworks.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

using namespace zerlan::objc;

namespace {

struct Options {
    double seconds = 3;
    long photoAfterMs = 1500;
    std::string savePhoto;
};

constexpr const char *kUsage =
    "usage: capture-app [--seconds S] [--photo-after-ms MS] [--save-photo FILE]\n"
    "\n"
    "Runs a capture session on the default video device (video data, QR metadata and photo\n"
    "outputs, a preview layer) for S seconds (default 3), takes one photo after MS milliseconds\n"
    "(default 1500), and prints one JSON object: device, running, inputs, outputs, videoFrames,\n"
    "videoFps, bufferWidth, bufferHeight, pixelFormat, ptsIncreasing, qr, photoBytes, photoWidth,\n"
    "photoHeight, previewHasContents, error.\n"
    "--save-photo FILE writes the photo's file data byte for byte.\n"
    "Exit status: 0 when the camera delivered frames, 1 when it could not be set up or delivered\n"
    "none (the error says why), 2 for a bad command line.\n";

// What the delegates saw. Video arrives on the app's serial queue, metadata on the main queue,
// the photo on a queue of the framework's choosing: one lock for all of it.
struct Observed {
    std::mutex lock;
    long videoFrames = 0;
    bool ptsIncreasing = true;
    std::optional<CMTime> lastPts;
    size_t bufferWidth = 0;
    size_t bufferHeight = 0;
    OSType pixelFormat = 0;
    std::vector<std::string> qr;
    bool photoDelivered = false;
    Strong<> photoData;
    std::string photoError;
};

// Never destroyed: deliveries may still be running on other threads when main returns.
Observed &gObserved = *new Observed;

std::string text(id string)
{
    const char *chars = utf8(string);
    return chars ? chars : "";
}

std::string fourCharCode(OSType code)
{
    std::string out;
    for (int shift = 24; shift >= 0; shift -= 8)
        out += static_cast<char>((code >> shift) & 0xff);
    return out;
}

void didOutputSampleBuffer(id, SEL, id, CMSampleBufferRef buffer, id)
{
    CMTime pts = CMSampleBufferGetPresentationTimeStamp(buffer);
    CVImageBufferRef image = CMSampleBufferGetImageBuffer(buffer);
    std::lock_guard guard(gObserved.lock);
    ++gObserved.videoFrames;
    if (gObserved.lastPts && CMTimeCompare(pts, *gObserved.lastPts) <= 0)
        gObserved.ptsIncreasing = false;
    gObserved.lastPts = pts;
    if (image) {
        gObserved.bufferWidth = CVPixelBufferGetWidth(image);
        gObserved.bufferHeight = CVPixelBufferGetHeight(image);
        gObserved.pixelFormat = CVPixelBufferGetPixelFormatType(image);
    }
}

void didOutputMetadataObjects(id, SEL, id, id objects, id)
{
    std::lock_guard guard(gObserved.lock);
    for (unsigned long i = 0, n = count(objects); i < n; ++i) {
        id object = objectAtIndex(objects, i);
        if (!isEqualToString(send<id>(object, sel<"type">()), AVMetadataObjectTypeQRCode))
            continue;
        if (id value = send<id>(object, sel<"stringValue">()))
            gObserved.qr.push_back(text(value));
    }
}

void didFinishProcessingPhoto(id, SEL, id, id photo, id error)
{
    Strong<> data = Strong<>::retain(send<id>(photo, sel<"fileDataRepresentation">()));
    std::lock_guard guard(gObserved.lock);
    gObserved.photoDelivered = true;
    gObserved.photoData = data;
    if (error)
        gObserved.photoError = text(send<id>(error, sel<"localizedDescription">()));
}

// A delegate class declared at run time, as a Swift or Objective-C app's compiler would emit it.
Class delegateClass(const char *name, SEL selector, IMP implementation, const char *types)
{
    Class cls = objc_allocateClassPair(objc_getClass("NSObject"), name, 0);
    class_addMethod(cls, selector, implementation, types);
    objc_registerClassPair(cls);
    return cls;
}

Strong<> newInstance(Class cls)
{
    return Strong<>::adopt(send<id>(send<id>(reinterpret_cast<id>(cls), sel<"alloc">()), sel<"init">()));
}

std::optional<Options> parseOptions(int argc, char **argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> const char * {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "capture-app: %s needs a value\n", arg.c_str());
                return nullptr;
            }
            return argv[++i];
        };
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (arg == "--seconds") {
            const char *v = value();
            char *end = nullptr;
            if (!v || (options.seconds = std::strtod(v, &end), *end != '\0') || options.seconds <= 0) {
                std::fprintf(stderr, "capture-app: --seconds takes a positive number\n");
                return std::nullopt;
            }
        } else if (arg == "--photo-after-ms") {
            const char *v = value();
            char *end = nullptr;
            if (!v || (options.photoAfterMs = std::strtol(v, &end, 10), *end != '\0') || options.photoAfterMs < 0) {
                std::fprintf(stderr, "capture-app: --photo-after-ms takes a whole number of milliseconds\n");
                return std::nullopt;
            }
        } else if (arg == "--save-photo") {
            const char *v = value();
            if (!v)
                return std::nullopt;
            options.savePhoto = v;
        } else {
            std::fprintf(stderr, "capture-app: unknown argument %s (try --help)\n", arg.c_str());
            return std::nullopt;
        }
    }
    return options;
}

// Runs the main run loop (main-queue work and timers) until the deadline or until done().
template <typename Done>
void runMainLoopUntil(std::chrono::steady_clock::time_point deadline, Done done)
{
    while (!done()) {
        auto left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0)
            break;
        AutoreleasePool pool;
        CFRunLoopRunInMode(kCFRunLoopDefaultMode, left < 0.05 ? left : 0.05, false);
    }
}

struct Camera {
    Strong<> session;
    Strong<> videoOutput;
    Strong<> metadataOutput;
    Strong<> photoOutput;
    Strong<> previewLayer;
    Strong<> videoDelegate;
    Strong<> metadataDelegate;
    Strong<> photoDelegate;
    dispatch_queue_t videoQueue = nullptr;
};

// Sets the camera up the way an app does; returns the error a user would be shown, or nothing.
std::optional<std::string> configure(Camera &camera, id device)
{
    if (!device)
        return "no camera available";

    id error = nil;
    id input = send<id>(cls("AVCaptureDeviceInput"), sel<"deviceInputWithDevice:error:">(), device, &error);
    if (!input)
        return error ? text(send<id>(error, sel<"localizedDescription">())) : "cannot open the camera";

    camera.session = allocInit<"init">("AVCaptureSession");
    id session = camera.session;
    if (!send<BOOL>(session, sel<"canAddInput:">(), input))
        return "the capture session cannot use the camera";
    send<void>(session, sel<"addInput:">(), input);

    camera.videoOutput = allocInit<"init">("AVCaptureVideoDataOutput");
    camera.videoDelegate = newInstance(
        delegateClass("CaptureAppVideoDelegate", sel<"captureOutput:didOutputSampleBuffer:fromConnection:">(),
                      imp(didOutputSampleBuffer), "v40@0:8@16^{opaqueCMSampleBuffer=}24@32"));
    camera.videoQueue = dispatch_queue_create("capture-app.video", DISPATCH_QUEUE_SERIAL);
    send<void>(camera.videoOutput.get(), sel<"setSampleBufferDelegate:queue:">(), camera.videoDelegate.get(),
               camera.videoQueue);
    if (!send<BOOL>(session, sel<"canAddOutput:">(), camera.videoOutput.get()))
        return "the capture session cannot add a video data output";
    send<void>(session, sel<"addOutput:">(), camera.videoOutput.get());

    camera.metadataOutput = allocInit<"init">("AVCaptureMetadataOutput");
    if (!send<BOOL>(session, sel<"canAddOutput:">(), camera.metadataOutput.get()))
        return "the capture session cannot add a metadata output";
    send<void>(session, sel<"addOutput:">(), camera.metadataOutput.get());
    // The types must be set after the output joins the session: before that it offers none.
    send<void>(camera.metadataOutput.get(), sel<"setMetadataObjectTypes:">(),
               arrayWithObject(AVMetadataObjectTypeQRCode));
    camera.metadataDelegate = newInstance(
        delegateClass("CaptureAppMetadataDelegate", sel<"captureOutput:didOutputMetadataObjects:fromConnection:">(),
                      imp(didOutputMetadataObjects), "v40@0:8@16@24@32"));
    send<void>(camera.metadataOutput.get(), sel<"setMetadataObjectsDelegate:queue:">(),
               camera.metadataDelegate.get(), dispatch_get_main_queue());

    camera.photoOutput = allocInit<"init">("AVCapturePhotoOutput");
    if (!send<BOOL>(session, sel<"canAddOutput:">(), camera.photoOutput.get()))
        return "the capture session cannot add a photo output";
    send<void>(session, sel<"addOutput:">(), camera.photoOutput.get());
    camera.photoDelegate = newInstance(
        delegateClass("CaptureAppPhotoDelegate", sel<"captureOutput:didFinishProcessingPhoto:error:">(),
                      imp(didFinishProcessingPhoto), "v40@0:8@16@24@32"));

    camera.previewLayer = allocInit<"initWithSession:">("AVCaptureVideoPreviewLayer", session);

    send<void>(session, sel<"startRunning">());
    return std::nullopt;
}

nlohmann::ordered_json nullable(size_t value)
{
    return value ? nlohmann::ordered_json(value) : nlohmann::ordered_json(nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    std::optional<Options> options = parseOptions(argc, argv);
    if (!options)
        return 2;

    AutoreleasePool pool;
    Camera camera;
    id device = nil;
    std::optional<std::string> error;
    auto started = std::chrono::steady_clock::now();
    try {
        device = send<id>(cls("AVCaptureDevice"), sel<"defaultDeviceWithMediaType:">(), AVMediaTypeVideo);
        error = configure(camera, device);
        started = std::chrono::steady_clock::now();
        if (!error) {
            Camera *target = &camera;
            dispatch_after(dispatch_time(DISPATCH_TIME_NOW, options->photoAfterMs * 1000000), dispatch_get_main_queue(),
                           ^{
                               try {
                                   id settings = send<id>(cls("AVCapturePhotoSettings"), sel<"photoSettings">());
                                   send<void>(target->photoOutput.get(), sel<"capturePhotoWithSettings:delegate:">(),
                                              settings, target->photoDelegate.get());
                               } catch (id e) {
                                   std::lock_guard guard(gObserved.lock);
                                   gObserved.photoDelivered = true;
                                   gObserved.photoError = text(send<id>(e, sel<"reason">()));
                               }
                           });
            runMainLoopUntil(started + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                           std::chrono::duration<double>(options->seconds)),
                             [] { return false; });
            // A photo asked for near the end may still be on its way.
            bool photoPending = options->photoAfterMs < options->seconds * 1000;
            runMainLoopUntil(std::chrono::steady_clock::now() + std::chrono::seconds(2), [&] {
                std::lock_guard guard(gObserved.lock);
                return !photoPending || gObserved.photoDelivered;
            });
        }
    } catch (id e) {
        error = text(send<id>(e, sel<"reason">()));
        if (error->empty())
            error = "the camera raised " + text(send<id>(e, sel<"name">()));
    }
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    nlohmann::ordered_json out;
    bool running = false;
    unsigned long inputs = 0, outputs = 0;
    bool previewHasContents = false;
    try {
        running = camera.session && send<BOOL>(camera.session.get(), sel<"isRunning">());
        inputs = count(send<id>(camera.session.get(), sel<"inputs">()));
        outputs = count(send<id>(camera.session.get(), sel<"outputs">()));
        previewHasContents = send<id>(camera.previewLayer.get(), sel<"contents">()) != nil;
    } catch (id e) {
        if (!error)
            error = text(send<id>(e, sel<"reason">()));
    }

    std::lock_guard guard(gObserved.lock);
    out["device"] = device ? nlohmann::ordered_json(text(send<id>(device, sel<"localizedName">()))) : nlohmann::ordered_json(nullptr);
    out["running"] = running;
    out["inputs"] = inputs;
    out["outputs"] = outputs;
    out["videoFrames"] = gObserved.videoFrames;
    out["videoFps"] = error || elapsed <= 0 ? 0.0 : static_cast<double>(gObserved.videoFrames) / elapsed;
    out["bufferWidth"] = nullable(gObserved.bufferWidth);
    out["bufferHeight"] = nullable(gObserved.bufferHeight);
    out["pixelFormat"] = gObserved.pixelFormat ? nlohmann::ordered_json(fourCharCode(gObserved.pixelFormat)) : nlohmann::ordered_json(nullptr);
    out["ptsIncreasing"] = gObserved.videoFrames > 0 && gObserved.ptsIncreasing;
    out["qr"] = gObserved.qr;

    id data = gObserved.photoData;
    unsigned long photoBytes = send<unsigned long>(data, sel<"length">());
    out["photoBytes"] = data ? nlohmann::ordered_json(photoBytes) : nlohmann::ordered_json(nullptr);
    out["photoWidth"] = nullptr;
    out["photoHeight"] = nullptr;
    if (photoBytes > 0) {
        id image = send<id>(cls("UIImage"), sel<"imageWithData:">(), data);
        if (auto bitmap = send<CGImageRef>(image, sel<"CGImage">())) {
            out["photoWidth"] = CGImageGetWidth(bitmap);
            out["photoHeight"] = CGImageGetHeight(bitmap);
        }
    }
    out["previewHasContents"] = previewHasContents;
    if (!error && !gObserved.photoError.empty())
        error = "photo capture failed: " + gObserved.photoError;
    if (!error && gObserved.videoFrames == 0)
        error = "the camera delivered no frames: is the frame server running? (start it with: zerlan serve)";
    out["error"] = error ? nlohmann::ordered_json(*error) : nlohmann::ordered_json(nullptr);

    if (!options->savePhoto.empty() && data) {
        std::ofstream file(options->savePhoto, std::ios::binary);
        file.write(static_cast<const char *>(send<const void *>(data, sel<"bytes">())),
                   static_cast<std::streamsize>(photoBytes));
        if (!file) {
            std::fprintf(stderr, "capture-app: cannot write %s\n", options->savePhoto.c_str());
            out["error"] = "cannot write " + options->savePhoto;
            error = "cannot write";
        }
    }

    std::printf("%s\n", out.dump().c_str());
    std::fflush(stdout);
    // The camera feed keeps delivering on its own threads for the life of the process (an app on
    // a device is never asked to return from main): leave without running destructors under it.
    std::_Exit(error ? 1 : 0);
}
