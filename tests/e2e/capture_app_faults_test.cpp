// capture-app, with ZerlanInject preloaded, through each fault of a real `zerlan serve`: the app
// neither crashes nor takes the fault for a frame (its photo is the last good frame, byte for
// byte), and frames flow again once the fault is over. The server runs on a port of its own,
// which the library learns from ZERLAN_FRAME_PORT, so these tests need no fixed port.
#include "E2eSupport.h"

using namespace zerlan::e2e;

namespace {

class CaptureAppFaults : public ::testing::TestWithParam<const char *> {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("zerlan-capture-faults-" + std::to_string(getpid()));
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    fs::path dir_;
};

TEST_P(CaptureAppFaults, NoCrashTheLastGoodFrameIsKeptAndFramesResume)
{
    const std::string kind = GetParam();
    FrameServer server({"--step"}, 0);
    ASSERT_NE(server.port(), 0) << server.log();
    const HttpAnswer good = server.request("GET", "/frame");
    ASSERT_EQ(good.status, 200);
    const long before = server.served();

    fs::path photo = dir_ / "photo.jpg";
    auto app = std::async(std::launch::async, [&] {
        return runApp("capture-app", true,
                      {"--seconds", "9", "--photo-after-ms", "2000", "--save-photo", photo.string()},
                      {{"ZERLAN_FRAME_PORT", std::to_string(server.port())}});
    });
    ASSERT_TRUE(waitFor([&] { return server.served() >= before + 3; }, 10s)) << "the app never fetched";

    // From well before the photo (2 s after launch) to well after it.
    HttpAnswer set = server.request("POST", "/control", nlohmann::json{{"fault", kind}, {"seconds", 2.5}}.dump());
    ASSERT_EQ(set.status, 200) << set.body;
    ASSERT_TRUE(waitFor([&] { return server.status()["fault"].is_null(); }, 10s));
    const nlohmann::json after = server.status();
    EXPECT_GE(after["faults"][kind].get<long>(), 1) << "the app fetched during the fault";
    const long servedAfter = after["frames_served"].get<long>();
    EXPECT_TRUE(waitFor([&] { return server.served() >= servedAfter + 3; }, 10s)) << "frames did not resume";

    AppRun run = app.get();
    ASSERT_EQ(0, run.process.status) << "exit status (-1: killed by a signal)\n" << run.process.out << run.process.err;
    EXPECT_TRUE(run.out["error"].is_null()) << run.out["error"];
    EXPECT_EQ(nlohmann::json::array({"zerlan"}), run.out["qr"]) << "a fault is no new code";
    EXPECT_EQ(true, run.out["previewHasContents"]);
    const std::string taken = readFile(photo);
    if (kind == "truncate") {
        // Half a JPEG still decodes, as with ImageIO on a device (the lower part grey), so the
        // library may keep it as its latest frame: the photo is the good frame or that half.
        EXPECT_TRUE(taken == good.body || taken == good.body.substr(0, good.body.size() / 2))
            << taken.size() << " bytes";
    } else {
        EXPECT_EQ(good.body.size(), run.out["photoBytes"].get<size_t>());
        EXPECT_TRUE(taken == good.body) << "the photo is the last good frame, byte for byte";
    }
}

INSTANTIATE_TEST_SUITE_P(EachKind, CaptureAppFaults,
                         ::testing::Values("refuse", "stall", "slow", "garbage", "truncate", "http-error"),
                         [](const auto &info) {
                             std::string name = info.param;
                             name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                             return name;
                         });

} // namespace
