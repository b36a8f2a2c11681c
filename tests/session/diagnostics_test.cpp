// The diagnostic lines of the capture path and the image picker: written through NSLog, word for
// word and in order, exactly when ZERLAN_DEBUG is in the environment (this file runs once without
// it and once with it).
#include "CaptureTestSupport.h"
#include "PickerTestSupport.h"

#include <fakesdk/foundation_np.h>

using namespace capture_test;

namespace {

// Each executable registers the case under its own name.
#ifdef CAPTURE_TEST_WITH_DEBUG
#define DIAGNOSTICS_SUITE DiagnosticsOn
#else
#define DIAGNOSTICS_SUITE DiagnosticsOff
#endif

// Each line in order in the log, or none of them: what the environment asks for.
void expectLines(const std::string &log, std::initializer_list<const char *> lines)
{
    bool debug = std::getenv("ZERLAN_DEBUG") != nullptr;
    size_t from = 0;
    for (const char *line : lines) {
        size_t at = log.find(std::string(line) + "\n", from);
        EXPECT_EQ(debug, at != std::string::npos) << line;
        if (at != std::string::npos)
            from = at;
    }
}

std::string stopCapturing()
{
    char *captured = NSLogCopyCaptured_np();
    std::string log = captured;
    free(captured);
    NSLogCapture_np(false);
    return log;
}

TEST(DIAGNOSTICS_SUITE, CapturePathLinesOnlyWithZerlanDebug)
{
    AutoreleasePool pool;
    NSLogCapture_np(true);
    AppSession app;
    app.add("AVCaptureVideoDataOutput");
    app.add("AVCapturePhotoOutput");
    Strong<> metadata = app.add("AVCaptureMetadataOutput");
    Recorder recorder;
    send<void>(metadata.get(), sel<"setMetadataObjectsDelegate:queue:">(), recorder.get(),
               static_cast<dispatch_queue_t>(nullptr));
    send<void>(app.session.get(), sel<"startRunning">());
    send<void>(allocInit<"init">("AVCaptureSession").get(), sel<"addInputWithNoConnections:">(), app.input.get());
    expectLines(stopCapturing(), {
        "[ZerlanInject] fabricated AVCaptureDeviceInput",
        "[ZerlanInject] accepted fabricated camera input",
        "[ZerlanInject] accepted video output",
        "[ZerlanInject] accepted photo output",
        "[ZerlanInject] accepted metadata output",
        "[ZerlanInject] captured metadata delegate",
        "[ZerlanInject] capture session started through bridge",
        "[ZerlanInject] accepted fabricated input without connections",
    });
}

TEST(DIAGNOSTICS_SUITE, PickerLinesOnlyWithZerlanDebug)
{
    using namespace picker_test;
    NSLogCapture_np(true);
    Delegate delegate;
    PickerApp app;
    Strong<> picker = app.cameraPicker(delegate.object.get());
    {
        // A frame port that answers 200 with 13 bytes that are no picture.
        zerlan::testing::ScriptedServer notAPicture(
            zerlan::testing::ScriptedServer::answering("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nnot a picture"), 47654);
        id screen = app.present(picker.get());
        ASSERT_TRUE(stopPolling(screen));
        send<void>(screen, sel<"requestFrame">());
        ASSERT_TRUE(stopPolling(screen));
    }
    // Nothing listens now: no bytes at all.
    id screen = send<id>(app.root(), sel<"presentedViewController">());
    send<void>(screen, sel<"requestFrame">());
    ASSERT_TRUE(stopPolling(screen));
    expectLines(stopCapturing(), {
                                     "[ZerlanInject] presenting virtual UIImagePickerController camera",
                                     "[ZerlanInject] image picker frame unavailable (13 bytes)",
                                     "[ZerlanInject] image picker frame unavailable (0 bytes)",
                                 });
}

} // namespace
