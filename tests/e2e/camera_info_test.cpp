// camera-info as an app: a camera-less Simulator finds nothing; with the library preloaded it
// finds the injected camera, and ZERLAN_DEBUG (present, whatever its value) makes it say so in the
// system log's format, a ZERLAN_FRAME_PORT that is no port included.
#include "E2eSupport.h"

using namespace zerlan::e2e;

namespace {

TEST(CameraInfoTest, TheInjectedCameraIsFoundAndSaidSoOnlyUnderDebug)
{
    const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} camera-info\[\d+:[0-9a-f]+\] \[ZerlanInject\] (.*))");
    const std::string badPort = "ZERLAN_FRAME_PORT \"47654x\" is not a port (1 to 65535): fetching frames from 47654";
    struct Case {
        bool library;
        const char *debug, *port;
    } const cases[] = {{false, "1", kUnset}, {true, kUnset, kUnset}, {true, "1", kUnset},     {true, "0", kUnset},
                       {true, "", kUnset},   {true, "1", "47654x"},  {true, kUnset, "47654x"}, {true, "1", "47700"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "library " << c.library << ", ZERLAN_DEBUG " << c.debug
                                        << ", ZERLAN_FRAME_PORT " << c.port);
        AppRun run = runApp("camera-info", c.library, {}, {{"ZERLAN_DEBUG", c.debug}, {"ZERLAN_FRAME_PORT", c.port}});
        ASSERT_EQ(0, run.process.status) << run.process.err;
        const nlohmann::json &out = run.out, &device = out["defaultDevice"];
        if (!c.library) {
            EXPECT_TRUE(device.is_null());
            EXPECT_EQ(false, out["byUniqueID"]);
            EXPECT_EQ(0, out["discovered"]);
            EXPECT_EQ("", run.process.err) << "nothing of ours runs";
            continue;
        }
        ASSERT_TRUE(device.is_object()) << run.process.out;
        EXPECT_EQ("Zerlan Camera", device["name"]);
        EXPECT_EQ("com.zerlan.injected-camera", device["uniqueID"]);
        EXPECT_EQ(1, device["position"]);
        EXPECT_EQ("AVCaptureDeviceTypeBuiltInWideAngleCamera", device["deviceType"]);
        EXPECT_EQ(1, device["formats"]);
        EXPECT_EQ(640, device["width"]);
        EXPECT_EQ(480, device["height"]);
        EXPECT_EQ("BGRA", device["subtype"]);
        EXPECT_EQ(true, out["byUniqueID"]);
        EXPECT_EQ(1, out["discovered"]);

        std::vector<std::string> messages, expected;
        std::istringstream lines(run.process.err);
        for (std::string text; std::getline(lines, text);) {
            std::smatch match;
            ASSERT_TRUE(std::regex_match(text, match, line)) << "not the system log's format: " << text;
            messages.push_back(match[1]);
        }
        if (c.debug != kUnset) {
            expected = {"AVFoundation compatibility layer loaded", "fabricated AVCaptureDevice",
                        "reopened fabricated camera by unique ID",
                        "empty DiscoverySession caller: " + buildDir() + "/bin/camera-info",
                        "supplied camera through client DiscoverySession"};
            if (c.port == std::string("47654x"))
                expected.insert(expected.begin() + 1, badPort); // once, right after loading
        }
        EXPECT_EQ(expected, messages);
    }
}

} // namespace
