// The camera source, through libavdevice: lavfi's generated video takes the same road as a
// camera (open, decode, scale on the producer thread), so it stands in for one here; the V4L2
// road runs where the machine has a /dev/video* device.
#include "server/camera.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "server/scenario.h"
#include "support.h"

namespace zerlan::test {
namespace {

using nlohmann::json;
using server::FrameSettings;
using server::Size;
using server::SourceChoice;

FrameSettings lavfi(bool step = false) {
  FrameSettings settings;
  settings.cameraInput = "lavfi";
  settings.step = step;
  return settings;
}

// Red, with a blue band down each side that a camera's 16:9 picture loses when it is cropped
// to 4:3.
const std::string kBanded =
    "color=c=red:size=1280x720:rate=30,drawbox=x=0:y=0:w=150:h=720:color=blue:t=fill,"
    "drawbox=x=1130:y=0:w=150:h=720:color=blue:t=fill";

Rgb colourAt(std::string_view jpeg, int x, int y) {
  auto image = server::decodeJpeg(jpeg);
  const uint8_t* p = image->row(y) + x * 3;
  return {p[0], p[1], p[2]};
}

TEST(Camera, FramesAreCroppedToTheServingShapeAndScaled) {
  struct Case { std::optional<Size> size; Size served; bool cropped; };
  for (const Case& c :
       {Case{std::nullopt, {640, 480}, true}, Case{Size{320, 240}, {320, 240}, true},
        Case{Size{1280, 720}, {1280, 720}, false}}) {
    FrameSettings settings = lavfi();
    settings.size = c.size;
    auto s = startServer(SourceChoice::camera(kBanded), settings);
    std::string jpeg = get(s.port(), "/frame").body;
    EXPECT_EQ(jpegSizeOf(jpeg), c.served);
    // Stretching would keep the bands at the edges; cropping cuts them off.
    EXPECT_EQ(nearest(colourAt(jpeg, 2, c.served.height / 2), {{255, 0, 0}, {0, 0, 255}}),
              c.cropped ? 0u : 1u)
        << server::formatSize(c.served);
    const json status = statusOf(s.port());
    EXPECT_EQ(status["source_kind"], "camera");
    EXPECT_HAS(status["source"].get<std::string>(), c.cropped ? "cropped and scaled" : "scaled to")
        << status["source"];
  }
}

TEST(Camera, LiveFramesFollowTheCameraInOrderAtItsPace) {
  const auto started = Clock::now();
  auto s = startServer(SourceChoice::camera("testsrc2=size=320x240:rate=30"), lavfi());
  auto first = s.server->frames().current();
  ASSERT_TRUE(first);
  std::vector<std::shared_ptr<const server::Frame>> frames{first};
  while (frames.size() < 6) {
    auto next = s.server->frames().waitNewer(frames.back()->number, in(5s));
    ASSERT_TRUE(next) << "the camera stopped after " << frames.size() << " frames";
    frames.push_back(next);
  }
  for (size_t i = 1; i < frames.size(); ++i) {
    EXPECT_GT(frames[i]->index, frames[i - 1]->index) << "frame indexes go up";
    EXPECT_NE(frames[i]->jpeg(), frames[i - 1]->jpeg()) << "testsrc2 moves";
  }
  // A generated video comes at its own rate, as a camera sends, not as fast as it is read: a
  // loaded machine makes fewer frames, never more.
  std::this_thread::sleep_for(300ms);
  const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  EXPECT_LE(s.server->frames().current()->index, 30 * seconds + 2) << "in " << seconds << " s";
}

TEST(Camera, StepModeHoldsTheCurrentFrameUntilAStep) {
  auto s = startServer(SourceChoice::camera("testsrc2=size=320x240:rate=30"), lavfi(true));
  const std::string held = get(s.port(), "/frame").body;
  std::this_thread::sleep_for(300ms);  // about nine camera frames
  EXPECT_EQ(get(s.port(), "/frame").body, held);
  EXPECT_EQ(statusOf(s.port())["frame_index"], 0);

  auto stepped = s.server->control(json{{"step", 2}});
  ASSERT_TRUE(stepped) << stepped.error().message;
  EXPECT_EQ((*stepped)["frame_index"], 2);
  const std::string now = get(s.port(), "/frame").body;
  EXPECT_NE(now, held) << "a step shows what the camera sees now";
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(get(s.port(), "/frame").body, now);
}

TEST(Camera, FaultsAndScenariosWorkOnItAsOnAnySource) {
  auto s = startServer(SourceChoice::pattern(), lavfi());
  TempDir dir;
  auto scenario = server::parseScenario(
      R"([{"at": 0, "camera": "smptebars=size=640x480"},
          {"after_fetches": 1, "fault": "http-error", "requests": 1},
          {"after_fetches": 0, "source": "camera"}])",
      "s.json", dir.path());
  ASSERT_TRUE(scenario) << scenario.error().message;
  server::ScenarioPlayer player(*s.server, std::move(scenario.value()), s.log->logger());
  ASSERT_TRUE(eventually([&] { return statusOf(s.port())["source_kind"] == "camera"; }));
  EXPECT_EQ(get(s.port(), "/frame").status, 200);
  ASSERT_TRUE(eventually([&] { return statusOf(s.port())["fault"].is_object(); }));
  EXPECT_EQ(get(s.port(), "/frame").status, 503);
  EXPECT_EQ(get(s.port(), "/frame").status, 200) << "one request only";
  ASSERT_TRUE(player.waitUntilDone(in(20s)));
  EXPECT_TRUE(s.log->contains("step 3 of 3 (line 3) at")) << "the default camera";
  EXPECT_HAS(statusOf(s.port())["source"].get<std::string>(), server::kLavfiDefaultGraph);
}

TEST(Camera, RefusedWithAReasonWhileTheRunningSourceStays) {
  struct Case { std::string input; std::string name; std::string says; };
  const Case cases[] = {
      {"lavfi", "movie=/etc/passwd", "the filter \"movie\" cannot make a lavfi camera"},
      {"lavfi", "color,drawtext=textfile=/etc/passwd", "the filter \"drawtext\" cannot"},
      {"lavfi", "testsrc2[out];[out]null", "one chain of generators and filters"},
      {"lavfi", "testsrc2=nosuchoption=1", "cannot open camera testsrc2=nosuchoption=1"},
      {"v4l2", "/dev/zerlan-no-such-camera", "no camera named \"/dev/zerlan-no-such-camera\""},
      {"qtkit", "", "unknown camera input \"qtkit\""},
  };
  for (const Case& c : cases) {
    FrameSettings settings;
    settings.cameraInput = c.input;
    auto opened = server::openSource(SourceChoice::camera(c.name), settings);
    ASSERT_FALSE(opened) << c.name;
    EXPECT_HAS(opened.error().message, c.says);
  }
  if (!std::filesystem::exists("/dev/video0")) {
    auto none = server::openSource(SourceChoice::camera(""), FrameSettings{});
    ASSERT_FALSE(none);
    EXPECT_HAS(none.error().message, "no camera found: this machine has no V4L2 video device");
  }

  auto s = startServer(SourceChoice::pattern(), lavfi());
  Reply refused = post(s.port(), "/control", R"({"source": {"camera": "movie=x.mp4"}})");
  EXPECT_EQ(refused.status, 400);
  EXPECT_HAS(errorReason(refused).value_or(""), "\"movie\" cannot make a lavfi camera");
  EXPECT_EQ(statusOf(s.port())["source_kind"], "pattern");
  EXPECT_EQ(readQr(get(s.port(), "/frame").body), "zerlan");
}

TEST(Camera, TheCameraListSaysWhatThereIs) {
  auto listed = server::listCameras("lavfi");
  ASSERT_FALSE(listed);
  EXPECT_HAS(listed.error().message, "lavfi has no list of cameras");

  auto s = startServer(SourceChoice::pattern(), FrameSettings{});
  const json cameras = json::parse(get(s.port(), "/cameras").body, nullptr, false);
  EXPECT_EQ(cameras["input"], "v4l2");
  auto v4l2 = server::listCameras("v4l2");
  ASSERT_TRUE(v4l2) << v4l2.error().message;
  EXPECT_EQ(cameras["cameras"].size(), v4l2->size());
  if (v4l2->empty())
    EXPECT_HAS(cameras["note"].get<std::string>(), "no camera found");
}

// The V4L2 road itself, on a machine with a camera.
TEST(Camera, V4l2DeviceWhereOneExists) {
  auto cameras = server::listCameras("v4l2");
  ASSERT_TRUE(cameras) << cameras.error().message;
  if (cameras->empty()) GTEST_SKIP() << "no V4L2 camera (/dev/video*) on this machine";
  auto opened = server::openCamera("v4l2", "", Size{640, 480});
  ASSERT_TRUE(opened) << opened.error().message;
  EXPECT_EQ(opened->first.image.width, 640);
  EXPECT_EQ(opened->first.image.height, 480);
}

TEST(Camera, TheCommandLine) {
  Child listing({"serve", "--list-cameras", "--camera-input", "lavfi"});
  EXPECT_EQ(listing.wait(in(10s)), 1);
  EXPECT_HAS(listing.stderrText(), "lavfi has no list of cameras");

  Child serve({"serve", "--port", "0", "--camera-input", "lavfi", "--camera"});
  const uint16_t port = serve.waitForPort(in(20s));
  EXPECT_HAS(serve.stderrText(), "source: camera " + std::string(server::kLavfiDefaultGraph));
  EXPECT_EQ(jpegSizeOf(get(port, "/frame").body), (Size{640, 480}));
  EXPECT_EQ(shell(std::string(ZERLAN_BIN) + " ctl --port " + std::to_string(port) +
                  " source camera 'smptebars=size=320x240' >/dev/null"),
            0);
  EXPECT_HAS(statusOf(port)["source"].get<std::string>(), "camera smptebars=size=320x240");

  Child both({"serve", "--port", "0", "--camera", "--image", "x.jpg"});
  EXPECT_EQ(both.wait(in(10s)), 2) << "one source at a time";
}

}  // namespace
}  // namespace zerlan::test
