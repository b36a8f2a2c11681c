// picker-app, an app's image picker code, against a real `zerlan serve`: a camera-less Simulator
// has no camera source; with ZerlanInject preloaded the camera screen comes up in the picker's
// place and photos, movies (checked with ffprobe) and cancellations reach the app's delegate; the
// app keeps only the movies it is told to save, and refuses at once what it could never get.
#include "E2eSupport.h"

using namespace zerlan::e2e;

namespace {

AppRun pickerApp(bool withLibrary, std::vector<std::string> args, std::map<std::string, std::string> env = {})
{
    return runApp("picker-app", withLibrary, std::move(args), std::move(env));
}

class PickerAppTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("zerlan-picker-app-" + std::to_string(getpid()));
        fs::create_directories(tmp_ = dir_ / "tmp");
        ASSERT_TRUE(waitFor([] { return !somethingListens(); }, 20s)) << "something else listens on port 47654";
    }
    void TearDown() override { fs::remove_all(dir_); }

    // picker-app with the library, its temporary folder (where recordings go) in the test's own.
    AppRun record(std::vector<std::string> args)
    {
        return pickerApp(true, std::move(args), {{"TMPDIR", tmp_.string()}});
    }

    // What the app left in its temporary folder.
    std::vector<std::string> leftInTmp() const
    {
        std::vector<std::string> names;
        for (const auto &entry : fs::directory_iterator(tmp_))
            names.push_back(entry.path().filename().string());
        return names;
    }

    fs::path dir_, tmp_;
};

TEST_F(PickerAppTest, ActionsThatTheMediaTypesRuleOutAreRefusedAtOnce)
{
    for (std::vector<std::string> args : {std::vector<std::string>{"--action", "photo", "--media", "video"},
                                          {"--action", "auto", "--media", "video"},
                                          {"--action", "record", "--media", "photo"}}) {
        SCOPED_TRACE(args[1] + " " + args[3]);
        AppRun run = pickerApp(true, args);
        EXPECT_EQ(2, run.process.status) << "a bad command line, not a result that never came";
        EXPECT_EQ("", run.process.out);
        EXPECT_NE(std::string::npos, run.process.err.find("--media " + args[3] + " allows only")) << run.process.err;
    }
}

TEST_F(PickerAppTest, WithoutTheLibraryOrAServerTheAppSaysWhatIsMissing)
{
    AppRun run = pickerApp(false, {"--action", "photo"});
    EXPECT_EQ(1, run.process.status) << run.process.err;
    ASSERT_TRUE(run.out.is_object()) << run.process.out << run.process.err;
    EXPECT_EQ(false, run.out["sourceTypeAvailable"]);
    EXPECT_TRUE(run.out["presented"].is_null());
    EXPECT_NE(std::string::npos, run.out["error"].get<std::string>().find("no camera")) << run.out["error"];
    EXPECT_EQ(nlohmann::json::array(), run.out["delegateCalls"]);

    run = pickerApp(true, {"--action", "photo", "--timeout", "2"});
    EXPECT_EQ(1, run.process.status) << run.process.out << run.process.err;
    EXPECT_EQ(true, run.out["sourceTypeAvailable"]);
    EXPECT_EQ("ZerlanVirtualImagePickerViewController", run.out["presented"]);
    EXPECT_NE(std::string::npos, run.out["error"].get<std::string>().find("zerlan serve")) << run.out["error"];
    EXPECT_EQ(nlohmann::json::array({"Connecting to Zerlan…", "Waiting for Zerlan camera feed…"}), run.out["statusTexts"])
        << "what the screen said, in order";
}

TEST_F(PickerAppTest, PhotosAreTakenByTapOrByTheHarnessAndCancelIsReported)
{
    FrameServer server({});
    ASSERT_TRUE(server.waitUntilServing()) << server.log();
    struct {
        const char *action;
        const char *result;
        nlohmann::json calls;
    } const cases[] = {
        {"photo", "photo", {"imagePickerController:didFinishPickingMediaWithInfo:"}},
        {"auto", "photo", {"imagePickerController:didFinishPickingMediaWithInfo:"}},
        {"cancel", "cancel", {"imagePickerControllerDidCancel:"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.action);
        fs::path saved = dir_ / (std::string(c.action) + ".jpg");
        AppRun run = pickerApp(true, {"--action", c.action, "--save", saved.string()});
        ASSERT_EQ(0, run.process.status) << run.process.out << run.process.err;
        const nlohmann::json &out = run.out;
        EXPECT_TRUE(out["error"].is_null()) << out["error"];
        EXPECT_EQ(true, out["sourceTypeAvailable"]);
        EXPECT_EQ("ZerlanVirtualImagePickerViewController", out["presented"]);
        EXPECT_EQ(nlohmann::json::array({"public.image", "public.movie"}), out["mediaTypes"]);
        EXPECT_EQ(nlohmann::json::array({0, 1}), out["captureModes"]);
        EXPECT_EQ(c.result, out["result"]);
        EXPECT_EQ(c.calls, out["delegateCalls"]) << "exactly one delegate call";
        EXPECT_EQ(true, out["dismissed"]);
        if (std::string(c.result) == "photo") {
            EXPECT_EQ(640, out["imageWidth"]);
            EXPECT_EQ(480, out["imageHeight"]);
            EXPECT_EQ("\xff\xd8", readFile(saved).substr(0, 2));
            // A tap needs the ready screen; the automated capture takes the first frame at once.
            if (std::string(c.action) == "photo")
                EXPECT_EQ("Tap to capture", out["statusTexts"].back()) << out["statusTexts"];
        }
    }
}

TEST_F(PickerAppTest, ARecordingIsAnH264MovieOfTheFeedEndedByASecondTapOrTheMaximumDuration)
{
    FrameServer server({"--qr", "movie"});
    ASSERT_TRUE(server.waitUntilServing()) << server.log();
    fs::path saved = dir_ / "movie.mp4";
    AppRun run = record({"--action", "record", "--media", "both", "--record-seconds", "1.5", "--save", saved.string()});
    ASSERT_EQ(0, run.process.status) << run.process.out << run.process.err;
    const nlohmann::json &out = run.out;
    EXPECT_EQ("movie", out["result"]);
    EXPECT_EQ(true, out["movieExists"]) << "the library left the delivered movie for the app";
    EXPECT_EQ(0u, out["movieURL"].get<std::string>().rfind("file://" + tmp_.string() + "/zerlan-picker-", 0))
        << out["movieURL"];
    EXPECT_EQ(std::vector<std::string>{}, leftInTmp()) << "moved to --save";
    nlohmann::json statuses = out["statusTexts"];
    for (const char *expected : {"Tap to record", "Recording… Tap to stop", "Finishing video…"})
        EXPECT_NE(statuses.end(), std::find(statuses.begin(), statuses.end(), expected)) << expected << " in " << statuses;

    nlohmann::json probe = ffprobe(saved);
    ASSERT_TRUE(probe.is_object());
    EXPECT_EQ("isom", probe["format"]["tags"]["major_brand"]) << "MPEG-4, not QuickTime";
    ASSERT_EQ(1u, probe["streams"].size()) << probe << " (no audio track)";
    EXPECT_EQ("video", probe["streams"][0]["codec_type"]);
    EXPECT_EQ("h264", probe["streams"][0]["codec_name"]);
    EXPECT_EQ(640, probe["streams"][0]["width"]);
    EXPECT_EQ(480, probe["streams"][0]["height"]);
    double seconds = std::stod(probe["format"]["duration"].get<std::string>());
    EXPECT_GT(seconds, 0.3);
    EXPECT_LT(seconds, 1.5 + 0.2) << "never longer than the time between the two taps";

    run = record({"--action", "record", "--max-seconds", "0.5", "--record-seconds", "8"});
    ASSERT_EQ(0, run.process.status) << run.process.out << run.process.err;
    EXPECT_EQ("movie", run.out["result"]) << "the maximum duration ended it without the second tap";
    EXPECT_EQ(true, run.out["movieExists"]);
    EXPECT_EQ(std::vector<std::string>{}, leftInTmp()) << "a movie not saved is removed by the app";
}

} // namespace
