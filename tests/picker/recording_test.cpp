// Recording on the camera screen against a real frame server: what is asked of the writer, what
// the screen says and allows while recording, finishing and failing, the movie the delegate gets
// (read back as ffprobe reads it), the maximum duration, and which files are kept or removed.
#include "Movie.h"
#include "PickerTestSupport.h"

#include "picker/PickerScreen.h"

#include <cmath>
#include <filesystem>
#include <optional>
#include <vector>

using namespace picker_test;
using zerlan::testing::Movie;
namespace fs = std::filesystem;

namespace {

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

id dictionary(std::initializer_list<id> keys, std::initializer_list<id> values)
{
    return send<id>(cls("NSDictionary"), sel<"dictionaryWithObjects:forKeys:count:">(), std::data(values),
                    std::data(keys), static_cast<unsigned long>(keys.size()));
}

// For its lifetime, a method of the platform's writer does what the real one does where this
// machine's never would (refuse, fail without a word).
class ReplacedMethod {
public:
    ReplacedMethod(const char *className, SEL selector, IMP replacement)
        : method_(class_getInstanceMethod(objc_getClass(className), selector)),
          original_(method_setImplementation(method_, replacement))
    {
    }
    ReplacedMethod(const ReplacedMethod &) = delete;
    ReplacedMethod &operator=(const ReplacedMethod &) = delete;
    ~ReplacedMethod() { method_setImplementation(method_, original_); }

private:
    Method method_;
    IMP original_;
};

// AVAssetWriter's initialiser where the file cannot be made: nil, and Apple's error.
id writerThatCannotBeCreated(id self, SEL, id, id, id *error)
{
    objc_release(self);
    if (error)
        *error = send<id>(cls("NSError"), sel<"errorWithDomain:code:userInfo:">(), string("AVFoundationErrorDomain"),
                          -11823L, dictionary({string("NSLocalizedDescription")}, {string("Cannot Save")}));
    return nil;
}

BOOL refusesEveryInput(id, SEL, id)
{
    return NO;
}

id noError(id, SEL)
{
    return nil;
}

class PickerRecording : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (ZerlanFetchJPEG())
            GTEST_SKIP() << "something else answers on 127.0.0.1:47654";
        serve();
    }

    void TearDown() override
    {
        for (const std::string &file : movies_)
            fs::remove(file);
    }

    void serve()
    {
        server_ = std::make_unique<FrameServer>(canvas_.jpeg());
        ASSERT_TRUE(server_->waitUntilServing());
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

    // Starts a recording (a tap, or the screen's own method) and returns the file it writes.
    std::string startRecording(id screen, const char *how = "captureTapped")
    {
        send<void>(screen, sel_registerName(how));
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

    static double cornerRadius(id screen)
    {
        return send<double>(send<id>(send<id>(screen, sel<"captureButton">()), sel<"layer">()), sel<"cornerRadius">());
    }

    // After a recording that failed: the screen takes taps in video mode again, keeps what it
    // said until the next frame replaces it, and is dismissed.
    void expectIdleUntilTheNextFrame(id screen)
    {
        EXPECT_FALSE(send<BOOL>(screen, sel<"finishing">()));
        EXPECT_TRUE(captureEnabled(screen));
        EXPECT_EQ(36, cornerRadius(screen));
        EXPECT_TRUE(send<BOOL>(send<id>(screen, sel<"modeControl">()), sel<"isEnabled">()));
        send<void>(screen, sel<"requestFrame">());
        EXPECT_TRUE(runMainUntil(10, [&] { return statusOf(screen) == "Tap to record"; }));
        ASSERT_TRUE(PickerApp::dismiss(picker_.get()));
    }

    Canvas canvas_ = codeFrame("recording", kGreen);
    std::unique_ptr<FrameServer> server_;
    Delegate delegate_;
    PickerApp app_;
    Strong<> picker_;
    std::vector<std::string> movies_;
};

TEST_F(PickerRecording, TwoTapsRecordAnMPEG4MovieOfWhatWasShownAsAsked)
{
    delegate_->dismissOnResult = false;
    id screen = showVideoCamera(0, {"public.image", "public.movie"});
    id button = send<id>(screen, sel<"captureButton">());
    id mode = send<id>(screen, sel<"modeControl">());
    std::string file = startRecording(screen);
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ("Recording… Tap to stop", statusOf(screen));
    EXPECT_EQ(12, cornerRadius(screen));
    EXPECT_FALSE(send<BOOL>(mode, sel<"isEnabled">())) << "no switching modes while recording";
    EXPECT_EQ(file.rfind(text(NSTemporaryDirectory()), 0), 0u) << file;
    EXPECT_EQ(0u, fs::path(file).filename().string().rfind("zerlan-picker-", 0)) << file;
    EXPECT_EQ(".mp4", fs::path(file).extension());

    // What the writer was asked for, read back from the writer and its one input: the documented
    // track settings, exactly, and a real-time input.
    id writer = send<id>(screen, sel<"writer">()), input = send<id>(screen, sel<"writerInput">());
    EXPECT_TRUE(send<BOOL>(send<id>(writer, sel<"outputFileType">()), sel<"isEqual:">(), AVFileTypeMPEG4));
    ASSERT_EQ(1u, count(send<id>(writer, sel<"inputs">())));
    EXPECT_EQ(input, objectAtIndex(send<id>(writer, sel<"inputs">()), 0));
    EXPECT_TRUE(send<BOOL>(send<id>(input, sel<"mediaType">()), sel<"isEqual:">(), AVMediaTypeVideo));
    EXPECT_TRUE(send<BOOL>(input, sel<"expectsMediaDataInRealTime">()));
    id asked = dictionary({AVVideoCodecKey, AVVideoWidthKey, AVVideoHeightKey, AVVideoCompressionPropertiesKey},
                          {AVVideoCodecTypeH264, number(640), number(480),
                           dictionary({AVVideoAverageBitRateKey}, {number(2000000)})});
    id settings = send<id>(input, sel<"outputSettings">());
    EXPECT_TRUE(send<BOOL>(settings, sel<"isEqual:">(), asked)) << text(send<id>(settings, sel<"description">()));

    // Frames keep coming while recording; a few of them make the movie.
    runMainUntil(1.2, [] { return false; });
    ASSERT_TRUE(tap(button));
    double recorded = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_EQ("Finishing video…", statusOf(screen));
    EXPECT_FALSE(captureEnabled(screen));
    EXPECT_TRUE(send<BOOL>(screen, sel<"finishing">()));
    send<void>(screen, sel<"stopRecordingAndDeliver:">(), YES); // a second stop is harmless

    ASSERT_TRUE(runMainUntil(10, [&] { return !delegate_->calls.empty(); }));
    ASSERT_EQ(1u, delegate_->calls.size());
    EXPECT_TRUE(delegate_->calls[0].mainThread);
    id info = delegate_->calls[0].info.get();
    EXPECT_EQ(2u, count(info));
    EXPECT_EQ("public.movie", text(send<id>(info, sel<"objectForKey:">(), UIImagePickerControllerMediaType)));
    EXPECT_EQ(file, pathOf(movieURLOf(0)));
    EXPECT_TRUE(send<BOOL>(mode, sel<"isEnabled">()));
    EXPECT_EQ(nil, send<id>(screen, sel<"writer">()));
    EXPECT_EQ("Finishing video…", statusOf(screen)) << "delivered: the screen waits to be dismissed";
    EXPECT_FALSE(captureEnabled(screen));

    // The file: MPEG-4 (not QuickTime), one H.264 track of 640 x 480.
    Movie movie = zerlan::testing::readMovie(file);
    ASSERT_TRUE(movie.opened) << file;
    EXPECT_TRUE(movie.majorBrand == "isom" || movie.majorBrand == "mp42") << "major brand " << movie.majorBrand;
    EXPECT_EQ(1, movie.streams);
    EXPECT_EQ(AV_CODEC_ID_H264, movie.codec);
    EXPECT_EQ(640, movie.width);
    EXPECT_EQ(480, movie.height);
    // Frame times are the host clock's: the movie cannot be longer than the time between the taps
    // (plus the last frame's own 0.1 s), and a 1.2 s recording holds more than one frame.
    EXPECT_LE(movie.seconds, recorded + 0.15);
    EXPECT_GE(movie.seconds, 0.2);
    // And it shows the feed from its first picture to its last: the served picture, within what
    // H.264 at this bit rate loses.
    zerlan::testing::Pictures pictures = zerlan::testing::decodePictures(file);
    ASSERT_EQ(640, pictures.width);
    ASSERT_EQ(480, pictures.height);
    ASSERT_GE(pictures.luma.size(), 2u);
    EXPECT_LT(lumaDistance(pictures.luma.front(), canvas_), 6.0) << "the first picture";
    EXPECT_LT(lumaDistance(pictures.luma.back(), canvas_), 6.0) << "the last picture";

    // Dismissing the picker later leaves the delivered movie alone.
    ASSERT_TRUE(PickerApp::dismiss(picker_.get()));
    drainMainQueue();
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(1u, delegate_->calls.size()) << "one movie, however often stop was sent";
}

TEST_F(PickerRecording, TheFrameThatReachesTheMaximumDurationEndsTheMovieAndEachRecordingHasItsOwnFile)
{
    std::vector<std::string> files;
    for (int round = 0; round < 2; ++round) {
        id screen = showVideoCamera(0.5);
        files.push_back(startRecording(screen));
        ASSERT_TRUE(runMainUntil(15, [&] { return delegate_->calls.size() > size_t(round); }))
            << "status " << statusOf(screen);
        EXPECT_EQ(files.back(), pathOf(movieURLOf(round)));
        ASSERT_TRUE(runMainUntil(5, [&] { return !send<id>(app_.root(), sel<"presentedViewController">()); }));
        // Every frame but the last came before the limit; the last reached it and is in.
        std::vector<double> times = zerlan::testing::readMovie(files.back()).times;
        ASSERT_GE(times.size(), 2u);
        EXPECT_GE(times.back() - times.front(), 0.5);
        EXPECT_LT(times[times.size() - 2] - times.front(), 0.5);
    }
    EXPECT_NE(files[0], files[1]);
    EXPECT_TRUE(fs::exists(files[0]) && fs::exists(files[1])) << "delivered movies are the app's";
}

TEST_F(PickerRecording, AFrameMissedWhileRecordingDisablesTheStopButtonUntilTheNextOne)
{
    delegate_->dismissOnResult = false;
    id screen = showVideoCamera();
    startRecording(screen);
    server_->stop();
    ASSERT_TRUE(runMainUntil(10, [&] { return statusOf(screen) == "Waiting for Zerlan camera feed…"; }));
    EXPECT_FALSE(captureEnabled(screen));
    EXPECT_TRUE(send<BOOL>(screen, sel<"recording">())) << "the recording goes on without the frame";

    serve();
    ASSERT_TRUE(runMainUntil(10, [&] { return captureEnabled(screen); }));
    EXPECT_EQ("Waiting for Zerlan camera feed…", statusOf(screen)) << "the recording text does not come back";
    EXPECT_TRUE(send<BOOL>(screen, sel<"recording">()));
    ASSERT_TRUE(tap(send<id>(screen, sel<"captureButton">())));
    EXPECT_TRUE(runMainUntil(10, [&] { return !delegate_->calls.empty(); }));
}

TEST_F(PickerRecording, CancelAndDisappearingDiscardTheRecording)
{
    delegate_->dismissOnResult = false;
    id screen = showVideoCamera();
    std::string cancelled = startRecording(screen);
    ASSERT_TRUE(tap(cancelButton(screen)));
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
    ASSERT_TRUE(PickerApp::dismiss(app_.root()));
    EXPECT_FALSE(send<BOOL>(screen, sel<"recording">()));
    ASSERT_TRUE(waitForWriterDone(screen));
    EXPECT_FALSE(fs::exists(dropped));
    EXPECT_EQ(1u, delegate_->calls.size()) << "a discarded recording is not delivered";
}

TEST_F(PickerRecording, AScreenGoneBeforeTheWriterCompletesGetsNothingAndTheFileStays)
{
    Strong<> frame = image(canvas_);
    for (bool deliver : {true, false}) {
        SCOPED_TRACE(deliver ? "delivering" : "discarding");
        Weak screenLeft, writerLeft;
        std::string file;
        {
            // A screen made as the library makes one, never shown: nothing polls it, and the test
            // holds the only reference.
            AutoreleasePool pool;
            picker_ = app_.cameraPicker(delegate_.object.get(), {"public.movie"});
            Strong<> screen = Strong<>::adopt(send<id>(reinterpret_cast<id>(ZerlanVirtualImagePickerClass()), sel<"new">()));
            send<void>(screen.get(), sel<"setPicker:">(), picker_.get());
            send<id>(screen.get(), sel<"view">());
            file = startRecording(screen.get(), "startRecording");
            send<void>(screen.get(), sel<"appendVideoFrame:">(), frame.get());
            writerLeft.store(send<id>(screen.get(), sel<"writer">()));
            send<void>(screen.get(), sel<"stopRecordingAndDeliver:">(), BOOL(deliver));
            screenLeft.store(screen.get());
        }
        EXPECT_FALSE(screenLeft.load()) << "the writer's completion holds the screen weakly";
        // The completion holds the writer until it has run on the main queue.
        ASSERT_TRUE(runMainUntil(10, [&] { return !writerLeft.load(); }));
        EXPECT_TRUE(delegate_->calls.empty());
        EXPECT_TRUE(fs::exists(file));
    }
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

// A start that fails changes nothing but the status text, which the next frame replaces; a stop
// with nothing recording does nothing either, also when it asks for delivery.
TEST_F(PickerRecording, AStartThatFailsLeavesTheScreenIdleAndSaysWhy)
{
    struct {
        const char *what;
        SEL replaced; // in AVAssetWriter, by the replacement; none: startWriting fails
        IMP replacement;
        const char *status; // nullptr: the writer's own description
    } const cases[] = {
        {"the writer cannot be created", sel<"initWithURL:fileType:error:">(), imp(writerThatCannotBeCreated),
         "Unable to start video recording."},
        {"the writer refuses the input", sel<"canAddInput:">(), imp(refusesEveryInput), "Unable to start video recording."},
        {"startWriting fails", nullptr, nullptr, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        id screen = showVideoCamera(0, {"public.image", "public.movie"});
        ASSERT_TRUE(stopPolling(screen));
        for (BOOL deliver : {NO, YES})
            send<void>(screen, sel<"stopRecordingAndDeliver:">(), deliver);
        EXPECT_EQ("Tap to record", statusOf(screen)) << "nothing recording, nothing stopped";
        EXPECT_FALSE(send<BOOL>(screen, sel<"finishing">()));
        EXPECT_TRUE(captureEnabled(screen));

        std::optional<ReplacedMethod> fault;
        std::optional<ScopedEnv> noTemporaryFolder;
        if (c.replaced)
            fault.emplace("AVAssetWriter", c.replaced, c.replacement);
        else // the writer cannot make its file
            noTemporaryFolder.emplace("TMPDIR", "/nonexistent/zerlan-picker-test");
        send<void>(screen, sel<"captureTapped">());
        fault.reset();
        std::string said = statusOf(screen);
        if (c.status)
            EXPECT_EQ(c.status, said);
        else
            EXPECT_TRUE(said != "Recording… Tap to stop" && said != "Tap to record" && !said.empty()) << said;
        EXPECT_FALSE(send<BOOL>(screen, sel<"recording">()));
        EXPECT_EQ(nil, send<id>(screen, sel<"writer">()));
        expectIdleUntilTheNextFrame(screen);
    }
}

// A recording stopped before its first frame is a movie of nothing, which the writer fails to
// finish: the screen takes taps again and shows why, in the writer's words or its own, until the
// next frame comes.
TEST_F(PickerRecording, AFinishThatFailsUnblocksTheScreenAndSaysWhyUntilTheNextFrame)
{
    delegate_->dismissOnResult = false;
    for (bool writerSaysWhy : {true, false}) {
        SCOPED_TRACE(writerSaysWhy ? "the writer's error" : "no error from the writer");
        id screen = showVideoCamera(0, {"public.image", "public.movie"});
        ASSERT_TRUE(stopPolling(screen));
        std::string file = startRecording(screen);
        Strong<> writer = Strong<>::retain(send<id>(screen, sel<"writer">()));
        std::optional<ReplacedMethod> silent;
        if (!writerSaysWhy)
            silent.emplace("AVAssetWriter", sel<"error">(), imp(noError));
        send<void>(screen, sel<"captureTapped">());
        EXPECT_TRUE(send<BOOL>(screen, sel<"finishing">()));
        ASSERT_TRUE(waitForWriterDone(screen));

        id error = send<id>(writer.get(), sel<"error">());
        ASSERT_EQ(writerSaysWhy, error != nil);
        EXPECT_EQ(writerSaysWhy ? text(send<id>(error, sel<"localizedDescription">())) : "Video recording failed.",
                  statusOf(screen));
        EXPECT_TRUE(delegate_->calls.empty());
        EXPECT_TRUE(fs::exists(file)) << "the incomplete file stays";
        silent.reset();
        expectIdleUntilTheNextFrame(screen);
    }
}

} // namespace
