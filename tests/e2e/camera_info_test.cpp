// camera-info as an app: a camera-less Simulator finds nothing; with the library preloaded it
// finds the injected camera, and ZERLAN_DEBUG (present, whatever its value) makes it say so.
#include "Process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <regex>

using namespace zerlan::testing;

namespace {

ProcessResult cameraInfo(bool withLibrary, const char *debug)
{
    std::map<std::string, std::string> env{{"ZERLAN_DEBUG", debug}};
    env["LD_PRELOAD"] = withLibrary ? buildDir() + "/lib/libZerlanInject.so" : kUnset;
    return runProcess({buildDir() + "/bin/camera-info"}, env);
}

TEST(CameraInfoTest, WithoutTheLibraryThereIsNoCamera)
{
    ProcessResult run = cameraInfo(false, "1");
    ASSERT_EQ(0, run.status) << run.err;
    auto out = nlohmann::json::parse(run.out);
    EXPECT_TRUE(out["defaultDevice"].is_null());
    EXPECT_EQ(false, out["byUniqueID"]);
    EXPECT_EQ(0, out["discovered"]);
    EXPECT_EQ("", run.err) << "nothing of ours runs";
}

TEST(CameraInfoTest, WithTheLibraryTheInjectedCameraIsFound)
{
    ProcessResult run = cameraInfo(true, kUnset);
    ASSERT_EQ(0, run.status) << run.err;
    auto out = nlohmann::json::parse(run.out);
    auto device = out["defaultDevice"];
    ASSERT_TRUE(device.is_object()) << run.out;
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
    EXPECT_EQ("", run.err) << "no diagnostics without ZERLAN_DEBUG";
}

TEST(CameraInfoTest, DiagnosticsFollowThePresenceOfTheVariable)
{
    const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} camera-info\[\d+:[0-9a-f]+\] \[ZerlanInject\] (.*))");
    for (const char *value : {"1", "0", ""}) {
        ProcessResult run = cameraInfo(true, value);
        ASSERT_EQ(0, run.status);
        std::vector<std::string> messages;
        std::istringstream lines(run.err);
        for (std::string text; std::getline(lines, text);) {
            std::smatch match;
            ASSERT_TRUE(std::regex_match(text, match, line)) << "not the system log's format: " << text;
            messages.push_back(match[1]);
        }
        ASSERT_EQ(5u, messages.size()) << "ZERLAN_DEBUG=" << value << "\n" << run.err;
        EXPECT_EQ("AVFoundation compatibility layer loaded", messages[0]);
        EXPECT_EQ("fabricated AVCaptureDevice", messages[1]);
        EXPECT_EQ("reopened fabricated camera by unique ID", messages[2]);
        EXPECT_EQ("empty DiscoverySession caller: " + buildDir() + "/bin/camera-info", messages[3]);
        EXPECT_EQ("supplied camera through client DiscoverySession", messages[4]);
    }
}

} // namespace

namespace {

TEST(CameraInfoTest, AFramePortThatIsNoPortIsSetAsideAndSaidSoOnlyUnderDebug)
{
    const std::string line = "[ZerlanInject] ZERLAN_FRAME_PORT \"47654x\" is not a port (1 to 65535): "
                             "fetching frames from 47654";
    struct Case {
        const char *port;
        const char *debug;
        bool says;
    };
    const Case cases[] = {
        {"47654x", "1", true}, {"47654x", kUnset, false}, {"47700", "1", false}, {kUnset, "1", false}};
    for (const Case &c : cases) {
        std::map<std::string, std::string> env{{"ZERLAN_DEBUG", c.debug}, {"ZERLAN_FRAME_PORT", c.port}};
        env["LD_PRELOAD"] = buildDir() + "/lib/libZerlanInject.so";
        ProcessResult run = runProcess({buildDir() + "/bin/camera-info"}, env);
        EXPECT_EQ(0, run.status) << run.err;
        EXPECT_EQ(c.says, run.err.find(line) != std::string::npos)
            << "ZERLAN_FRAME_PORT " << c.port << ", ZERLAN_DEBUG " << c.debug << ":\n" << run.err;
        if (c.says)
            EXPECT_EQ(std::string::npos, run.err.find("is not a port", run.err.find(line) + line.size())) << "said once";
    }
}

} // namespace
