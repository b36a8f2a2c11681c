// The diagnostic lines of the capture path: written through NSLog, in order, exactly when
// ZERLAN_DEBUG is in the environment (this file runs once without it and once with it).
#include "CaptureTestSupport.h"

#include <fakesdk/foundation_np.h>

using namespace capture_test;

namespace {

// Each executable registers the case under its own name.
#ifdef CAPTURE_TEST_WITH_DEBUG
#define DIAGNOSTICS_SUITE DiagnosticsOn
#else
#define DIAGNOSTICS_SUITE DiagnosticsOff
#endif

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
    char *captured = NSLogCopyCaptured_np();
    std::string log = captured;
    free(captured);
    NSLogCapture_np(false);

    const char *lines[] = {
        "[ZerlanInject] fabricated AVCaptureDeviceInput",
        "[ZerlanInject] accepted fabricated camera input",
        "[ZerlanInject] accepted video output",
        "[ZerlanInject] accepted photo output",
        "[ZerlanInject] accepted metadata output",
        "[ZerlanInject] captured metadata delegate",
        "[ZerlanInject] capture session started through bridge",
        "[ZerlanInject] accepted fabricated input without connections",
    };
    bool debug = std::getenv("ZERLAN_DEBUG") != nullptr;
    size_t from = 0;
    for (const char *line : lines) {
        size_t at = log.find(std::string(line) + "\n", from);
        EXPECT_EQ(debug, at != std::string::npos) << line;
        if (at != std::string::npos)
            from = at;
    }
}

} // namespace
