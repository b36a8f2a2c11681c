// capture-app as a scanning app against a real `zerlan serve` on 127.0.0.1:47654: a camera-less
// Simulator fails as Apple's does; with ZerlanInject preloaded frames, QR payloads (in the order
// the server shows them) and the photo arrive, polling survives a server restart, and
// `zerlan demo` runs the whole thing from one command.
#include "E2eSupport.h"

using namespace zerlan::e2e;

namespace {

AppRun captureApp(bool withLibrary, std::vector<std::string> args)
{
    return runApp("capture-app", withLibrary, std::move(args));
}

std::future<AppRun> startCaptureApp(std::vector<std::string> args)
{
    return std::async(std::launch::async, [args] { return captureApp(true, args); });
}

class CaptureAppTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("zerlan-capture-app-" + std::to_string(getpid()));
        fs::create_directories(dir_);
        // Other suites hold the same ctest lock; a server of a run outside ctest may linger briefly.
        ASSERT_TRUE(waitFor([] { return !somethingListens(); }, 20s)) << "something else listens on port 47654";
    }
    void TearDown() override { fs::remove_all(dir_); }

    fs::path dir_;
};

TEST_F(CaptureAppTest, WithoutTheLibraryOrAServerTheAppSaysWhatIsMissing)
{
    AppRun run = captureApp(false, {"--seconds", "0.5"});
    EXPECT_EQ(1, run.process.status) << run.process.err;
    ASSERT_TRUE(run.out.is_object()) << run.process.out << run.process.err;
    EXPECT_EQ("no camera available", run.out["error"]) << "as a camera-less Simulator fails";
    EXPECT_TRUE(run.out["device"].is_null());
    EXPECT_EQ(false, run.out["running"]);
    EXPECT_EQ(0, run.out["videoFrames"]);
    EXPECT_EQ(nlohmann::json::array(), run.out["qr"]);
    EXPECT_TRUE(run.out["photoBytes"].is_null());
    EXPECT_EQ(false, run.out["previewHasContents"]);

    run = captureApp(true, {"--seconds", "0.5", "--photo-after-ms", "100"});
    EXPECT_EQ(1, run.process.status) << run.process.out << run.process.err;
    EXPECT_EQ("Zerlan Camera", run.out["device"]);
    EXPECT_EQ(0, run.out["videoFrames"]);
    ASSERT_TRUE(run.out["error"].is_string()) << run.out;
    EXPECT_NE(std::string::npos, run.out["error"].get<std::string>().find("no frames")) << run.out["error"];
    EXPECT_NE(std::string::npos, run.out["error"].get<std::string>().find("zerlan serve")) << run.out["error"];
}

TEST_F(CaptureAppTest, WithTheLibraryFramesTheCodeAndThePhotoArrive)
{
    FrameServer server({});
    ASSERT_TRUE(server.waitUntilServing()) << server.log();
    fs::path photo = dir_ / "photo.jpg";
    AppRun run = captureApp(true, {"--seconds", "2", "--photo-after-ms", "800", "--save-photo", photo.string()});
    ASSERT_EQ(0, run.process.status) << run.process.out << run.process.err;
    const nlohmann::json &out = run.out;
    EXPECT_TRUE(out["error"].is_null()) << out["error"];
    EXPECT_EQ("Zerlan Camera", out["device"]);
    EXPECT_EQ(true, out["running"]);
    EXPECT_EQ(1, out["inputs"]);
    EXPECT_EQ(3, out["outputs"]);
    EXPECT_GE(out["videoFrames"].get<long>(), 5) << "the feed polls every ~0.1 s";
    EXPECT_LE(out["videoFrames"].get<long>(), 22) << "never faster than one frame per 100 ms";
    EXPECT_EQ(640, out["bufferWidth"]);
    EXPECT_EQ(480, out["bufferHeight"]);
    EXPECT_EQ("BGRA", out["pixelFormat"]);
    EXPECT_EQ(true, out["ptsIncreasing"]);
    EXPECT_EQ(nlohmann::json::array({"zerlan"}), out["qr"]) << "one delivery per payload, however many frames";
    EXPECT_EQ(640, out["photoWidth"]);
    EXPECT_EQ(480, out["photoHeight"]);
    EXPECT_EQ(true, out["previewHasContents"]);
    std::string saved = readFile(photo);
    ASSERT_EQ(out["photoBytes"].get<size_t>(), saved.size());
    EXPECT_EQ("\xff\xd8", saved.substr(0, 2)) << "the photo's data is the served JPEG";
}

TEST_F(CaptureAppTest, PayloadChangesThroughTheControlInterfaceArriveInOrder)
{
    FrameServer server({"--qr", "first-code"});
    ASSERT_TRUE(server.waitUntilServing()) << server.log();
    long before = server.served();
    ASSERT_GE(before, 0);
    auto app = startCaptureApp({"--seconds", "3", "--photo-after-ms", "5000"});

    // Each switch waits until the app has fetched a few frames of the current payload: that many
    // served frames, and at least the time the client needs for them (one fetch per 100 ms), so
    // that another client of the port cannot make the wait end early.
    auto switchAfterFrames = [&](long frames, const char *payload) {
        long target = server.served() + frames;
        auto earliest = Clock::now() + frames * 100ms;
        EXPECT_TRUE(waitFor([&] { return server.served() >= target && Clock::now() >= earliest; }, 5s))
            << "the app stopped fetching";
        HttpAnswer answer = http("POST", "/control", nlohmann::json{{"qr", payload}}.dump());
        EXPECT_EQ(200, answer.status) << answer.body;
    };
    switchAfterFrames(3, "second-code");
    switchAfterFrames(3, "first-code");
    auto earliest = Clock::now() + 300ms;
    EXPECT_TRUE(waitFor([&] { return server.served() >= before + 9 && Clock::now() >= earliest; }, 5s));

    AppRun run = app.get();
    ASSERT_EQ(0, run.process.status) << run.process.out << run.process.err;
    EXPECT_EQ(nlohmann::json::array({"first-code", "second-code", "first-code"}), run.out["qr"]);
    EXPECT_TRUE(run.out["photoBytes"].is_null()) << "no photo was asked for";
}

TEST_F(CaptureAppTest, PollingSurvivesAServerRestartAndThePhotoIsTheLastFrameKept)
{
    // Every frame of an --image server is the same file, so the photo taken while the server is
    // down can be compared byte for byte with the last frame that reached the app.
    fs::path image = dir_ / "frame.jpg";
    {
        FrameServer pattern({"--qr", "restart"});
        ASSERT_TRUE(pattern.waitUntilServing()) << pattern.log();
        HttpAnswer frame = http("GET", "/frame");
        ASSERT_EQ(200, frame.status);
        std::ofstream(image, std::ios::binary) << frame.body;
    }
    const std::string jpeg = readFile(image);
    ASSERT_FALSE(jpeg.empty());
    fs::path photo = dir_ / "photo.jpg";

    auto server = std::make_unique<FrameServer>(std::vector<std::string>{"--image", image.string()});
    ASSERT_TRUE(server->waitUntilServing()) << server->log();
    long probe = server->served();
    auto launched = Clock::now();
    auto app = startCaptureApp({"--seconds", "4", "--photo-after-ms", "1500", "--save-photo", photo.string()});

    ASSERT_TRUE(waitFor([&] { return server->served() >= probe + 5 && Clock::now() >= launched + 500ms; }, 5s))
        << "the app never fetched";
    server->stop(SIGKILL);
    // The client fetches at most one frame per 100 ms, so more frames than this prove that
    // deliveries resumed after the restart.
    long mostBeforeKill = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - launched).count() / 100 + 1;
    ASSERT_NE(200, http("GET", "/frame").status);

    // The photo (1.5 s after launch) is taken while nothing answers; bring the server back well
    // after it and well before the run ends.
    ASSERT_TRUE(waitFor([&] { return Clock::now() >= launched + 2500ms; }, 5s));
    server = std::make_unique<FrameServer>(std::vector<std::string>{"--image", image.string()});
    ASSERT_TRUE(server->waitUntilServing()) << server->log();
    long restartProbe = server->served();

    AppRun run = app.get();
    long servedAfterRestart = server->served() - restartProbe;
    ASSERT_EQ(0, run.process.status) << run.process.out << run.process.err;
    EXPECT_GE(servedAfterRestart, 3) << "the client keeps polling through the outage";
    EXPECT_GT(run.out["videoFrames"].get<long>(), mostBeforeKill + 2) << "frames after the restart reach the app";
    EXPECT_EQ(nlohmann::json::array({"restart"}), run.out["qr"]) << "the same code after a restart is not news";
    EXPECT_EQ(jpeg.size(), run.out["photoBytes"].get<size_t>());
    EXPECT_EQ(jpeg, readFile(photo)) << "the photo is the last good frame, byte for byte";
    EXPECT_EQ(640, run.out["photoWidth"]);
}

class ZerlanDemoTest : public CaptureAppTest {};

TEST_F(ZerlanDemoTest, RunsServerAndAppAndLeavesTheResults)
{
    fs::path out = dir_ / "demo";
    ProcessResult demo = runProcess({buildDir() + "/bin/zerlan", "demo", "--seconds", "3", "--out", out.string()});
    ASSERT_EQ(0, demo.status) << demo.out << demo.err;
    nlohmann::json result = nlohmann::json::parse(readFile(out / "result.json"), nullptr, false);
    ASSERT_TRUE(result.is_object()) << readFile(out / "result.json");
    EXPECT_EQ(nlohmann::json::array({"zerlan", "zerlan-demo-2"}), result["qr"]);
    EXPECT_GT(result["videoFrames"].get<long>(), 0);
    std::string photo = readFile(out / "photo.jpg");
    EXPECT_EQ(result["photoBytes"].get<size_t>(), photo.size());
    EXPECT_EQ("\xff\xd8", photo.substr(0, 2));
    EXPECT_NE(std::string::npos, demo.out.find("switched the QR payload to \"zerlan-demo-2\"")) << demo.out;
    EXPECT_NE(std::string::npos, demo.out.find((out / "photo.jpg").string())) << demo.out;
    EXPECT_EQ("\xff\xd8", readFile(out / "picker-photo.jpg").substr(0, 2)) << "the picker's automated photo";
    nlohmann::json probe = ffprobe(out / "picker-video.mp4");
    ASSERT_EQ(1u, probe["streams"].size()) << "the picker's recording: one H.264 stream, no audio: " << probe;
    EXPECT_EQ("h264", probe["streams"][0]["codec_name"]);
    EXPECT_EQ(640, probe["streams"][0]["width"]);
    EXPECT_EQ(480, probe["streams"][0]["height"]);
    EXPECT_NE(std::string::npos, demo.out.find((out / "picker-video.mp4").string())) << demo.out;
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, ", %.2f s, ", std::stod(probe["format"]["duration"].get<std::string>()));
    EXPECT_NE(std::string::npos, demo.out.find(seconds)) << "the movie's length as a player shows it, " << seconds
                                                         << "\n" << demo.out;
    EXPECT_NE(200, http("GET", "/frame").status) << "the demo stops its server";
}

TEST_F(ZerlanDemoTest, RefusesABusyPort)
{
    FrameServer other({});
    ASSERT_TRUE(other.waitUntilServing()) << other.log();
    ProcessResult demo = runProcess({buildDir() + "/bin/zerlan", "demo", "--seconds", "1", "--out", (dir_ / "demo").string()});
    EXPECT_EQ(1, demo.status);
    EXPECT_NE(std::string::npos,
              demo.err.find("port 47654 is in use by another zerlan serve (http://127.0.0.1:47654/, serving test pattern"))
        << demo.err;
    EXPECT_NE(std::string::npos, demo.err.find("ss -ltnp 'sport = :47654'")) << demo.err;
    EXPECT_NE(std::string::npos, demo.err.find("or give the demo another --port")) << demo.err;
    EXPECT_FALSE(fs::exists(dir_ / "demo" / "result.json"));

    ProcessResult library = runProcess({buildDir() + "/bin/zerlan", "demo", "--library", (dir_ / "none.so").string()});
    EXPECT_EQ(2, library.status) << "a missing file on the command line is a usage error: " << library.err;
    EXPECT_NE(std::string::npos, library.err.find("--library " + (dir_ / "none.so").string() + ": no such file"))
        << library.err;
}

// An IDE's stop button or a CI job's cancel signals the demo alone, not its process group: the
// demo must stop what it started, say so, and leave the port free for the next run.
TEST_F(ZerlanDemoTest, AnInterruptedDemoStopsWhatItStartedAndSaysSo)
{
    struct Case {
        int signo;
        const char *name;
        const char *during; // the sample app running when the signal comes
        const char *seconds; // how long capture-app runs
        uint16_t port;
    };
    const Case cases[] = {
        {SIGTERM, "SIGTERM", "capture-app", "30", kFramePort},
        {SIGINT, "SIGINT", "picker-app", "1", kFramePort},
        {SIGHUP, "SIGHUP", "capture-app", "30", 47700},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path out = dir_ / c.name;
        const fs::path log = dir_ / (std::string(c.name) + ".err");
        pid_t demo = spawnLogged({buildDir() + "/bin/zerlan", "demo", "--seconds", c.seconds, "--port", std::to_string(c.port),
                                  "--out", out.string()},
                                 log);
        ASSERT_GT(demo, 0);
        std::map<pid_t, std::string> children;
        // Whatever the outcome, nothing of this case may outlive it.
        bool reaped = false;
        std::shared_ptr<void> reaper(nullptr, [&](void *) {
            for (const auto &[pid, name] : children)
                kill(pid, SIGKILL);
            if (!reaped && kill(demo, SIGKILL) == 0)
                waitpid(demo, nullptr, 0);
        });
        const bool running = waitFor(
            [&] {
                children.clear();
                for (const ProcessEntry &p : processes())
                    if (p.parent == demo)
                        children[p.pid] = p.name;
                bool server = false, app = false;
                for (const auto &[pid, name] : children) {
                    server = server || name == "zerlan";
                    app = app || name == c.during;
                }
                return server && app;
            },
            90s);
        ASSERT_TRUE(running) << "the demo's children: " << children.size() << "\n" << readFile(log);
        EXPECT_EQ(200, http(c.port, "GET", "/frame").status) << "its server, on its port";
        if (c.port != kFramePort)
            EXPECT_FALSE(somethingListens()) << "--port moves the whole demo";

        kill(demo, c.signo);
        int raw = 0;
        reaped = waitFor([&] { return waitpid(demo, &raw, WNOHANG) == demo; }, 30s);
        ASSERT_TRUE(reaped) << readFile(log);
        ASSERT_TRUE(WIFEXITED(raw)) << "it ends by itself, not by the signal";
        EXPECT_EQ(128 + c.signo, WEXITSTATUS(raw));
        const std::string err = readFile(log);
        EXPECT_NE(std::string::npos, err.find(std::string("zerlan demo: interrupted (") + c.name + "): stopped the frame server and " +
                                              c.during))
            << err;
        EXPECT_NE(std::string::npos, err.find("it left in " + out.string() + "/: ")) << err;
        EXPECT_NE(std::string::npos, err.find("serve.log")) << err;
        for (const auto &[pid, name] : children)
            EXPECT_TRUE(kill(pid, 0) != 0 && errno == ESRCH) << name << " (pid " << pid << ") outlived the demo";
        EXPECT_EQ(0, http(c.port, "GET", "/frame").status) << "the port is free again";
    }
}

} // namespace
