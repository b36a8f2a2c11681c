// picker-app: the image picker code of a typical app, and a tester's hands on the screen it
// presents. The app half asks whether there is a camera, makes a camera picker for the media
// types asked for, presents it from the root view controller of its window, and dismisses it from
// its delegate. The tester half then does what a person (or a UI test) would do on whatever screen
// was presented: wait for a picture, tap the shutter, switch to video, record, cancel. It prints
// one JSON object with what came back. Without a camera (a Simulator without ZerlanInject) it
// reports that and exits 1.
#include "objc/Frameworks.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

extern "C" id UIImageJPEGRepresentation(id image, CGFloat compressionQuality);

using namespace zerlan::objc;

namespace {

constexpr const char *kUsage =
    "usage: picker-app [--media photo|video|both] [--action photo|record|cancel|auto]\n"
    "                  [--record-seconds S] [--max-seconds S] [--save PATH] [--timeout S]\n"
    "\n"
    "Presents a UIImagePickerController with the camera source, as an app does, and acts on the\n"
    "screen that comes up as a tester would:\n"
    "  photo   taps the shutter once a picture shows (the default)\n"
    "  record  switches to video if needed, taps, waits --record-seconds (default 2), taps again\n"
    "  cancel  taps Cancel\n"
    "  auto    no taps: sets ZERLAN_HARNESS_AUTO_PICKER=photo-capture so the camera takes the\n"
    "          first picture by itself\n"
    "--media sets the picker's media types (default: photo for photo and auto, video for record,\n"
    "both for cancel; photo and auto need photos, record needs movies); --max-seconds sets its\n"
    "videoMaximumDuration; --save keeps the photo as JPEG or moves the movie there (a movie not\n"
    "saved is removed, as an app removes what it does not keep); --timeout bounds the wait for a\n"
    "result (default 20 s plus the recording).\n"
    "\n"
    "Prints one JSON object: sourceTypeAvailable, presented, mediaTypes, captureModes, result\n"
    "(photo, movie, cancel or null), imageWidth, imageHeight, movieURL, movieExists (whether the\n"
    "movie was there when it was delivered), statusTexts, delegateCalls, dismissed, error.\n"
    "Exit status: 0 when the action's result arrived, 1 when it did not (the error says why), 2 for\n"
    "a bad command line.\n";

struct Options {
    std::string media;
    std::string action = "photo";
    double recordSeconds = 2;
    double maxSeconds = 0;
    std::string save;
    double timeout = 0;
};

// What the picker's delegate was told; main thread only, as UIKit calls delegates there.
struct Outcome {
    std::vector<std::string> delegateCalls;
    std::optional<std::string> result;
    Strong<> image;
    Strong<> movieURL;
    bool movieExisted = false;
    bool dismissed = false;
};

Outcome gOutcome;

std::string text(id string)
{
    const char *chars = utf8(string);
    return chars ? chars : "";
}

void pickerDidDismiss(id picker)
{
    send<void>(picker, sel<"dismissViewControllerAnimated:completion:">(), YES, ^{
        gOutcome.dismissed = true;
    });
}

void didFinishPicking(id, SEL, id picker, id info)
{
    gOutcome.delegateCalls.push_back("imagePickerController:didFinishPickingMediaWithInfo:");
    std::string type = text(send<id>(info, sel<"objectForKey:">(), UIImagePickerControllerMediaType));
    if (type == "public.image") {
        gOutcome.result = "photo";
        gOutcome.image = Strong<>::retain(send<id>(info, sel<"objectForKey:">(), UIImagePickerControllerOriginalImage));
    } else if (type == "public.movie") {
        gOutcome.result = "movie";
        gOutcome.movieURL = Strong<>::retain(send<id>(info, sel<"objectForKey:">(), UIImagePickerControllerMediaURL));
        gOutcome.movieExisted = std::filesystem::exists(text(send<id>(gOutcome.movieURL.get(), sel<"path">())));
    }
    pickerDidDismiss(picker);
}

void didCancel(id, SEL, id picker)
{
    gOutcome.delegateCalls.push_back("imagePickerControllerDidCancel:");
    gOutcome.result = "cancel";
    pickerDidDismiss(picker);
}

Strong<> makeDelegate()
{
    Class c = objc_allocateClassPair(objc_getClass("NSObject"), "PickerAppDelegate", 0);
    class_addMethod(c, sel<"imagePickerController:didFinishPickingMediaWithInfo:">(), imp(didFinishPicking),
                    "v32@0:8@16@24");
    class_addMethod(c, sel<"imagePickerControllerDidCancel:">(), imp(didCancel), "v24@0:8@16");
    objc_registerClassPair(c);
    return Strong<>::adopt(send<id>(send<id>(reinterpret_cast<id>(c), sel<"alloc">()), sel<"init">()));
}

bool parseNumber(const char *value, double &out)
{
    char *end = nullptr;
    out = std::strtod(value, &end);
    return *value && *end == '\0' && out >= 0;
}

std::optional<Options> parseOptions(int argc, char **argv)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "picker-app: %s needs a value (try --help)\n", arg.c_str());
            return std::nullopt;
        }
        const char *value = argv[++i];
        bool ok = true;
        if (arg == "--media")
            ok = (o.media = value) == "photo" || o.media == "video" || o.media == "both";
        else if (arg == "--action")
            ok = (o.action = value) == "photo" || o.action == "record" || o.action == "cancel" || o.action == "auto";
        else if (arg == "--record-seconds")
            ok = parseNumber(value, o.recordSeconds);
        else if (arg == "--max-seconds")
            ok = parseNumber(value, o.maxSeconds);
        else if (arg == "--timeout")
            ok = parseNumber(value, o.timeout) && o.timeout > 0;
        else if (arg == "--save")
            o.save = value;
        else {
            std::fprintf(stderr, "picker-app: unknown argument %s (try --help)\n", arg.c_str());
            return std::nullopt;
        }
        if (!ok) {
            std::fprintf(stderr, "picker-app: bad value for %s: %s (try --help)\n", arg.c_str(), value);
            return std::nullopt;
        }
    }
    if (o.media.empty())
        o.media = o.action == "record" ? "video" : o.action == "cancel" ? "both" : "photo";
    // A picker that cannot give what the action waits for would only time out.
    bool photoAction = o.action == "photo" || o.action == "auto";
    if ((photoAction && o.media == "video") || (o.action == "record" && o.media == "photo")) {
        std::fprintf(stderr,
                     "picker-app: --action %s needs %s, but --media %s allows only %s: use --media %s or both%s\n",
                     o.action.c_str(), photoAction ? "photos" : "movies", o.media.c_str(),
                     photoAction ? "movies" : "photos", photoAction ? "photo" : "video",
                     photoAction ? ", or --action record" : "");
        return std::nullopt;
    }
    if (o.timeout == 0)
        o.timeout = 20 + o.recordSeconds;
    return o;
}

id mediaTypesFor(const std::string &media)
{
    std::vector<id> types;
    if (media != "video")
        types.push_back(string("public.image"));
    if (media != "photo")
        types.push_back(string("public.movie"));
    return send<id>(cls("NSArray"), sel<"arrayWithObjects:count:">(), types.data(), static_cast<unsigned long>(types.size()));
}

// ---- the tester's view of the screen

bool isKind(id object, const char *className)
{
    return send<BOOL>(object, sel<"isKindOfClass:">(), cls(className));
}

// The controls of the presented screen, found as a UI test finds them: the shutter is the round
// custom button, Cancel is titled so, the status is the label directly on the root view.
struct Screen {
    id shutter = nil, cancel = nil, mode = nil, status = nil, preview = nil;
    std::vector<Strong<>> held_;

    explicit Screen(id controller)
    {
        id root = send<id>(controller, sel<"view">());
        std::vector<id> views{root};
        for (size_t i = 0; i < views.size(); ++i) {
            id view = views[i];
            id subviews = send<id>(view, sel<"subviews">());
            for (unsigned long j = 0, n = count(subviews); j < n; ++j)
                views.push_back(objectAtIndex(subviews, j));
            if (isKind(view, "UISegmentedControl"))
                mode = view;
            else if (isKind(view, "UIButton")) {
                if (text(send<id>(view, sel<"titleForState:">(), 0L)) == "Cancel")
                    cancel = view;
                else if (send<long>(view, sel<"buttonType">()) == 0)
                    shutter = view;
            } else if (isKind(view, "UILabel") && send<id>(view, sel<"superview">()) == root)
                status = view;
            else if (isKind(view, "UIImageView"))
                preview = view;
        }
        // A tester keeps hold of what it found: the status is read once more after the screen
        // has been dismissed and freed.
        for (id control : {shutter, cancel, mode, status, preview})
            if (control)
                held_.push_back(Strong<>::retain(control));
    }

    bool showsPicture() const { return send<id>(preview, sel<"image">()) != nil; }
    bool shutterEnabled() const { return send<BOOL>(shutter, sel<"isEnabled">()); }
    std::string statusText() const { return text(send<id>(status, sel<"text">())); }
    static void tap(id control) { send<void>(control, sel<"sendActionsForControlEvents:">(), 1UL << 6); }
};

struct Run {
    std::chrono::steady_clock::time_point deadline;
    std::vector<std::string> statusTexts;
    std::optional<Screen> screen;

    void noteStatus()
    {
        if (!screen || !screen->status)
            return;
        std::string t = screen->statusText();
        if (!t.empty() && (statusTexts.empty() || std::find(statusTexts.begin(), statusTexts.end(), t) == statusTexts.end()))
            statusTexts.push_back(t);
    }

    // Runs the main run loop (UIKit's work, timers) until done() or the deadline; false on time-out.
    template <typename Done>
    bool until(Done done, std::optional<std::chrono::steady_clock::time_point> stop = std::nullopt)
    {
        auto end = stop ? *stop : deadline;
        while (!done()) {
            noteStatus();
            if (std::chrono::steady_clock::now() >= end)
                return false;
            AutoreleasePool pool;
            CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.02, false);
        }
        noteStatus();
        return true;
    }

    // Waits the given time, or less when done() first.
    template <typename Done>
    void forSeconds(double seconds, Done done)
    {
        auto end = std::chrono::steady_clock::now() +
                   std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
        until(done, end);
    }
};

constexpr const char *kNoFrames = "the camera showed no picture: is the frame server running? (start it with: zerlan serve)";

// Does the action on the screen; returns the error a tester would report, or nothing.
std::optional<std::string> act(Run &run, const Options &options)
{
    Screen &screen = *run.screen;
    if (options.action == "cancel") {
        if (!screen.cancel)
            return "the camera screen has no Cancel button";
        Screen::tap(screen.cancel);
        return std::nullopt;
    }
    if (options.action == "auto")
        return std::nullopt;
    if (!screen.shutter)
        return "the camera screen has no shutter button";
    if (options.action == "record" && screen.mode && send<long>(screen.mode, sel<"selectedSegmentIndex">()) != 1) {
        send<void>(screen.mode, sel<"setSelectedSegmentIndex:">(), 1L);
        send<void>(screen.mode, sel<"sendActionsForControlEvents:">(), 1UL << 12);
    }
    if (!run.until([&] { return screen.showsPicture() && screen.shutterEnabled(); }))
        return kNoFrames;
    Screen::tap(screen.shutter);
    if (options.action == "record") {
        // The maximum duration may end the recording first.
        run.forSeconds(options.recordSeconds, [] { return gOutcome.result.has_value(); });
        if (!gOutcome.result)
            Screen::tap(screen.shutter);
    }
    return std::nullopt;
}

// Keeps what --save asks for: the photo as JPEG, the movie moved there. A movie not kept is
// removed: the picker hands the app its file, and the library never deletes it.
bool keepOutcome(const std::string &path, std::string &error)
{
    std::error_code ec;
    if (gOutcome.image && !path.empty()) {
        id jpeg = UIImageJPEGRepresentation(gOutcome.image.get(), 0.9);
        std::ofstream file(path, std::ios::binary);
        file.write(static_cast<const char *>(send<const void *>(jpeg, sel<"bytes">())),
                   static_cast<std::streamsize>(send<unsigned long>(jpeg, sel<"length">())));
        if (!file)
            error = "cannot write " + path;
    } else if (gOutcome.movieURL) {
        std::filesystem::path movie = text(send<id>(gOutcome.movieURL.get(), sel<"path">()));
        if (path.empty()) {
            std::filesystem::remove(movie, ec);
            return true;
        }
        std::filesystem::rename(movie, path, ec);
        if (ec) { // another file system: a copy, then the original goes
            std::filesystem::copy_file(movie, path, std::filesystem::copy_options::overwrite_existing, ec);
            if (!ec)
                std::filesystem::remove(movie, ec);
            else
                error = "cannot write " + path + " (the movie stays at " + movie.string() + ")";
        }
    }
    return error.empty();
}

} // namespace

int main(int argc, char **argv)
{
    std::optional<Options> options = parseOptions(argc, argv);
    if (!options)
        return 2;
    if (options->action == "auto")
        setenv("ZERLAN_HARNESS_AUTO_PICKER", "photo-capture", 1);

    AutoreleasePool pool;
    nlohmann::ordered_json out;
    std::optional<std::string> error;
    Run run;
    run.deadline = std::chrono::steady_clock::now() +
                   std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(options->timeout));
    id pickerClass = cls("UIImagePickerController");
    bool available = false;
    std::string presented;
    std::vector<std::string> mediaTypes;
    std::vector<long> captureModes;
    try {
        available = send<BOOL>(pickerClass, sel<"isSourceTypeAvailable:">(), 1L);
        id types = send<id>(pickerClass, sel<"availableMediaTypesForSourceType:">(), 1L);
        for (unsigned long i = 0, n = count(types); i < n; ++i)
            mediaTypes.push_back(text(objectAtIndex(types, i)));
        id modes = send<id>(pickerClass, sel<"availableCaptureModesForCameraDevice:">(), 0L);
        for (unsigned long i = 0, n = count(modes); i < n; ++i)
            captureModes.push_back(integerValue(objectAtIndex(modes, i)));
        if (!available)
            throw std::string("no camera: the image picker's camera source is not available on this device "
                              "(is ZerlanInject loaded?)");

        Strong<> window = allocInit<"initWithFrame:">("UIWindow", send<CGRect>(send<id>(cls("UIScreen"), sel<"mainScreen">()), sel<"bounds">()));
        Strong<> root = allocInit<"init">("UIViewController");
        send<void>(window.get(), sel<"setRootViewController:">(), root.get());
        send<void>(window.get(), sel<"makeKeyAndVisible">());

        Strong<> delegate = makeDelegate();
        Strong<> picker = allocInit<"init">("UIImagePickerController");
        send<void>(picker.get(), sel<"setSourceType:">(), 1L);
        send<void>(picker.get(), sel<"setMediaTypes:">(), mediaTypesFor(options->media));
        if (options->maxSeconds > 0)
            send<void>(picker.get(), sel<"setVideoMaximumDuration:">(), options->maxSeconds);
        send<void>(picker.get(), sel<"setDelegate:">(), delegate.get());

        // The tester looks at the screen as soon as it is up, before its first frame can arrive.
        Run *tester = &run;
        std::string *presentedName = &presented;
        id presenter = root.get();
        send<void>(root.get(), sel<"presentViewController:animated:completion:">(), picker.get(), YES, ^{
            id screen = send<id>(presenter, sel<"presentedViewController">());
            *presentedName = class_getName(object_getClass(screen));
            tester->screen.emplace(screen);
            tester->noteStatus();
        });
        if (!run.until([&] { return run.screen.has_value(); }))
            throw std::string("the picker was never presented");

        error = act(run, *options);
        if (!error) {
            bool arrived = run.until([] { return gOutcome.result && gOutcome.dismissed; });
            if (!arrived && !gOutcome.result)
                error = run.screen->showsPicture() ? "no result reached the picker's delegate in time" : kNoFrames;
            else if (!arrived)
                error = "the picker was not dismissed in time";
        }
    } catch (const std::string &message) {
        error = message;
    } catch (id e) {
        error = "the picker raised " + text(send<id>(e, sel<"name">())) + ": " + text(send<id>(e, sel<"reason">()));
    }

    std::string expected = options->action == "record" ? "movie" : options->action == "cancel" ? "cancel" : "photo";
    if (!error && gOutcome.result != expected)
        error = "expected a " + expected + " result, got " + gOutcome.result.value_or("none");

    std::string saveError;
    if (!keepOutcome(options->save, saveError) && !error)
        error = saveError;

    out["sourceTypeAvailable"] = available;
    out["presented"] = presented.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(presented);
    out["mediaTypes"] = mediaTypes;
    out["captureModes"] = captureModes;
    out["result"] = gOutcome.result ? nlohmann::ordered_json(*gOutcome.result) : nlohmann::ordered_json(nullptr);
    CGSize size = send<CGSize>(gOutcome.image.get(), sel<"size">());
    out["imageWidth"] = gOutcome.image ? nlohmann::ordered_json(int(size.width)) : nlohmann::ordered_json(nullptr);
    out["imageHeight"] = gOutcome.image ? nlohmann::ordered_json(int(size.height)) : nlohmann::ordered_json(nullptr);
    out["movieURL"] = gOutcome.movieURL ? nlohmann::ordered_json(text(send<id>(gOutcome.movieURL.get(), sel<"absoluteString">())))
                                        : nlohmann::ordered_json(nullptr);
    out["movieExists"] = gOutcome.movieExisted;
    out["statusTexts"] = run.statusTexts;
    out["delegateCalls"] = gOutcome.delegateCalls;
    out["dismissed"] = gOutcome.dismissed;
    out["error"] = error ? nlohmann::ordered_json(*error) : nlohmann::ordered_json(nullptr);
    std::printf("%s\n", out.dump().c_str());
    std::fflush(stdout);
    // Fetches may still be finishing on background queues: leave without running destructors.
    std::_Exit(error ? 1 : 0);
}
