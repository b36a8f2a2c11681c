// The status page as a person uses it: headless Chromium, driven through WebDriver, against a
// real `zerlan serve --step` (its camera a generated lavfi video). Each case clicks and types on
// the page and checks what the server then serves (the QR code read back from the frame, the
// colour of a picture), what /status says and what the page shows. The last case leaves a
// screenshot of the panel in the build folder (panel.png), the one the README shows.
//
// One browser for all cases: the binary runs as one ctest test, and exits 77 (skipped) with the
// reason where Chromium or chromedriver is missing.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "support.h"
#include "webdriver.h"

namespace zerlan::test {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

const Rgb kRed{255, 0, 0}, kGreen{0, 200, 0}, kBlue{0, 0, 255};

class Panel : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = std::make_unique<TempDir>();
    server_ = std::make_unique<Child>(
        std::vector<std::string>{"serve", "--step", "--port", "0", "--camera-input", "lavfi"});
    port_ = server_->waitForPort(in(20s));
    browser_ = Browser::start();
  }
  static void TearDownTestSuite() {
    browser_.reset();
    server_.reset();
    dir_.reset();
  }

  void SetUp() override {
    ASSERT_NE(port_, 0) << server_->stderrText();
    ASSERT_TRUE(browser_);
    browser_->open(url());
    // The page has drawn its first /status.
    ASSERT_TRUE(eventually([] { return !browser_->text("#address").empty(); })) << "no status";
  }

  static std::string url() { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
  static json status() { return statusOf(port_); }
  static std::string frame() { return get(port_, "/frame").body; }
  static std::string message() { return browser_->text("#message"); }
  // Whether the page comes to say `part` after an action.
  static bool says(const std::string& part) {
    return eventually([&] { return message().find(part) != std::string::npos; });
  }
  // Drops a file onto the live view, as a person dragging it from the desktop: WebDriver cannot
  // drag from outside the page, so the drop event is built in the page. `content` is the file's
  // bytes (see byteArray) or a length of zeros.
  static void drop(const json& content, const std::string& name, const std::string& type) {
    browser_->run(
        "const [content, name, type] = arguments;"
        "const transfer = new DataTransfer();"
        "transfer.items.add(new File([new Uint8Array(content)], name, { type }));"
        "document.getElementById('stage').dispatchEvent("
        "    new DragEvent('drop', { dataTransfer: transfer, bubbles: true, cancelable: true }));",
        {content, name, type});
  }
  // Bytes as a script takes them: a list of numbers.
  static json byteArray(std::string_view bytes) {
    json list = json::array();
    for (unsigned char c : bytes) list.push_back(c);
    return list;
  }

  static inline std::unique_ptr<TempDir> dir_;
  static inline std::unique_ptr<Child> server_;
  static inline uint16_t port_ = 0;
  static inline std::unique_ptr<Browser> browser_;
};

TEST_F(Panel, TypedQrTextIsTheCodeInTheServedFrame) {
  // From another source too: the page switches back to the pattern, which draws the code.
  ASSERT_EQ(post(port_, "/control",
                 R"({"source": {"image": ")" +
                     makePng(*dir_, "grey.png", 320, 240, {128, 128, 128}) + R"("}})")
                .status,
            200);
  browser_->click("[data-pane=pattern]");
  browser_->type("#qrtext", "PANEL-QR-7");
  browser_->click("#qrgo");
  // The page says so once the server answers, and the server answers once it serves the code.
  ASSERT_TRUE(says("Showing the QR code \"PANEL-QR-7\"")) << message();
  EXPECT_EQ(status()["qr"], "PANEL-QR-7");
  EXPECT_EQ(status()["source_kind"], "pattern");
  EXPECT_EQ(readQr(frame()), "PANEL-QR-7") << "read back with the project's decoder";
}

TEST_F(Panel, PicturesByPathByDropAndByTheFileChooser) {
  const std::string red = makePng(*dir_, "red.png", 320, 240, kRed);
  browser_->click("[data-pane=image]");
  browser_->type("#path", red);
  browser_->click("#pathgo");
  ASSERT_TRUE(says("Serving " + red)) << message();
  EXPECT_HAS(status()["source"].get<std::string>(), red);
  EXPECT_EQ(nearest(centreColour(frame()), {kRed, kGreen, kBlue}), 0u);
  EXPECT_EQ(status()["uploads"]["kept"], 0) << "a path is served where it lies";

  drop(byteArray(solidJpeg(320, 240, kGreen)), "green card.jpg", "image/jpeg");
  ASSERT_TRUE(says("Serving green card.jpg")) << message();
  EXPECT_EQ(status()["uploads"]["kept"], 1);
  EXPECT_EQ(nearest(centreColour(frame()), {kRed, kGreen, kBlue}), 1u);
  const json uploads = status()["uploads"];
  const fs::path folder = uploads["folder"].get<std::string>();
  EXPECT_TRUE(fs::exists(folder / "1-green_card.jpg")) << folder;
  EXPECT_EQ((fs::status(folder).permissions() & fs::perms::others_all), fs::perms::none);

  const std::string blue = dir_->write("blue.jpg", solidJpeg(320, 240, kBlue));
  browser_->click("[data-pane=upload]");
  browser_->type("#file", blue);
  ASSERT_TRUE(says("Serving blue.jpg")) << message();
  EXPECT_EQ(status()["uploads"]["kept"], 2);
  EXPECT_EQ(nearest(centreColour(frame()), {kRed, kGreen, kBlue}), 2u);

  // A dropped file the server cannot read is refused with the server's reason, and not kept.
  drop(byteArray("these bytes are no picture"), "broken.png", "image/png");
  EXPECT_TRUE(says("\"broken.png\" cannot be served")) << message();
  EXPECT_EQ(status()["uploads"]["kept"], 2);
  EXPECT_EQ(nearest(centreColour(frame()), {kRed, kGreen, kBlue}), 2u) << "the source stays";
}

TEST_F(Panel, TooLargeUploadsAreRefusedOnThePage) {
  const json before = status();
  const size_t limit = before["uploads"]["max_video_bytes"];
  drop(limit + 1, "long take.mp4", "video/mp4");
  EXPECT_TRUE(says("long take.mp4 is larger than 64 MiB")) << message();
  EXPECT_EQ(status()["uploads"], before["uploads"]);
  EXPECT_EQ(status()["source"], before["source"]);
}

TEST_F(Panel, StepButtonsAndTheFrameIndex) {
  ASSERT_EQ(post(port_, "/control", R"({"source": "pattern"})").status, 200);
  const uint64_t steps = status()["steps"];
  const uint64_t index = status()["frame_index"];
  const std::string held = frame();
  EXPECT_EQ(frame(), held) << "step mode holds the frame";
  browser_->click("#step1");
  // A step is answered once its frame is served.
  ASSERT_TRUE(eventually([&] { return status()["frame_index"] == index + 1; })) << message();
  EXPECT_EQ(status()["steps"], steps + 1);
  EXPECT_NE(frame(), held);
  browser_->click("#step10");
  ASSERT_TRUE(eventually([&] { return status()["frame_index"] == index + 11; })) << message();
  EXPECT_EQ(status()["steps"], steps + 11);
  EXPECT_TRUE(eventually([&] {
    return browser_->text("#frame_index") == std::to_string(index + 11);
  })) << browser_->text("#frame_index")
      << " on the page, " << index + 11 << " in /status";
}

TEST_F(Panel, AFaultIsInjectedShownAndCleared) {
  browser_->run("document.getElementById('faultkind').value = 'http-error';");
  browser_->type("#faultsecs", "30");
  browser_->click("#faultgo");
  ASSERT_TRUE(eventually([] { return status()["fault"].is_object(); })) << message();
  EXPECT_EQ(status()["fault"]["kind"], "http-error");
  EXPECT_TRUE(eventually([] { return browser_->text("#fault").find("http-error, ") == 0; }))
      << browser_->text("#fault");
  EXPECT_HAS(browser_->text("#faultpill"), "http-error");
  EXPECT_EQ(get(port_, "/frame").status, 503) << "an app gets the fault";
  EXPECT_EQ(get(port_, "/frame?view=panel").status, 200) << "the live view does not";

  browser_->click("#faultclear");
  ASSERT_TRUE(eventually([] { return status()["fault"].is_null(); })) << message();
  EXPECT_TRUE(eventually([] { return browser_->text("#fault") == "none"; }));
  EXPECT_EQ(get(port_, "/frame").status, 200);
  EXPECT_GE(status()["faults"]["http-error"], 1);

  // A count of one is said as one.
  ASSERT_EQ(post(port_, "/control", R"({"fault": "refuse", "requests": 1})").status, 200);
  EXPECT_TRUE(eventually([] { return browser_->text("#fault") == "refuse, 1 request left"; }))
      << browser_->text("#fault");
  ASSERT_EQ(post(port_, "/control", R"({"fault": "none"})").status, 200);
}

TEST_F(Panel, TheLiveViewIsNoAppFetch) {
  const json before = status();
  ASSERT_TRUE(eventually([&] {
    return status()["panel_frames"] >= before["panel_frames"].get<uint64_t>() + 3;
  })) << "the live view polls";
  EXPECT_EQ(status()["frames_served"], before["frames_served"]);
  EXPECT_EQ(status()["last_fetch"], before["last_fetch"]);
  frame();
  EXPECT_EQ(status()["frames_served"], before["frames_served"].get<uint64_t>() + 1);
  EXPECT_TRUE(eventually([&] {
    return browser_->text("#frames_served") ==
           std::to_string(before["frames_served"].get<uint64_t>() + 1);
  }));
}

TEST_F(Panel, TheCameraFromThePanelHoldsItsFrameUntilAStep) {
  browser_->click("[data-pane=camera]");
  EXPECT_TRUE(eventually([] { return browser_->text("#camnote").find("lavfi has no list") == 0; }))
      << browser_->text("#camnote");
  browser_->click("#camgo");
  ASSERT_TRUE(says("Serving the default camera")) << message();
  EXPECT_EQ(status()["source_kind"], "camera");
  EXPECT_EQ(jpegSizeOf(frame()), (server::Size{640, 480}));
  const std::string held = frame();
  std::this_thread::sleep_for(200ms);  // the camera sends several frames meanwhile
  EXPECT_EQ(frame(), held);
  browser_->click("#step1");
  EXPECT_TRUE(eventually([&] { return frame() != held; }))
      << "a step shows what the camera sees now";

  browser_->type("#camname", "movie=/etc/passwd");
  browser_->click("#camgo");
  EXPECT_TRUE(says("the filter \"movie\" cannot make a lavfi camera")) << message();
  EXPECT_EQ(status()["source_kind"], "camera") << "the camera stays";
}

TEST_F(Panel, UploadsFromAnotherOriginAreRefused) {
  Child other({"serve", "--port", "0"});
  const uint16_t otherPort = other.waitForPort(in(20s));
  ASSERT_NE(otherPort, 0);
  const json before = status();
  // A page of another origin tries both ways a page can post a file: with CORS (the browser
  // asks first) and without (it sends, and cannot read the answer).
  browser_->open("http://127.0.0.1:" + std::to_string(otherPort) + "/");
  // A picture the server would serve, were it taken.
  const json picture = byteArray(solidJpeg(64, 48, kGreen));
  json outcome = browser_->run(
      "const target = arguments[0] + 'upload?name=x.jpg';"
      "const body = new Blob([new Uint8Array(arguments[1])], { type: 'image/jpeg' });"
      "const said = [];"
      "try { const r = await fetch(target, { method: 'POST', body, headers: { 'Content-Type': "
      "'image/jpeg' } });"
      "      said.push('cors: HTTP ' + r.status); } catch (e) { said.push('cors: refused'); }"
      "try { await fetch(target, { method: 'POST', body, mode: 'no-cors' }); said.push('no-cors: "
      "sent'); }"
      "catch (e) { said.push('no-cors: refused'); }"
      "return said;",
      {url(), picture});
  EXPECT_EQ(outcome, json({"cors: refused", "no-cors: sent"}));
  EXPECT_TRUE(server_->waitForLine("403 for POST /upload", in(5s)))
      << "the server saw the post and refused it";
  EXPECT_EQ(status()["uploads"], before["uploads"]) << "nothing was stored";
  EXPECT_EQ(status()["source"], before["source"]);
}

// The panel as the README shows it, on a server of its own: its counters are an app's, not
// those of the cases above.
TEST_F(Panel, Screenshot) {
  Child shown({"serve", "--step", "--port", "0", "--qr", "https://example.com/ticket/42"});
  const uint16_t port = shown.waitForPort(in(20s));
  ASSERT_NE(port, 0) << shown.stderrText();
  ASSERT_EQ(post(port, "/control", R"({"step": 3})").status, 200);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(get(port, "/frame").status, 200);  // as an app would
  browser_->open("http://127.0.0.1:" + std::to_string(port) + "/");
  ASSERT_TRUE(eventually([] {
    return browser_->text("#frames_served") == "3" && browser_->text("#panel_frames") != "0" &&
           browser_->run("return document.getElementById('feed').complete;") == true;
  }));
  const std::string png = browser_->screenshotPng(true);
  ASSERT_GT(png.size(), 8u);
  EXPECT_EQ(png.substr(1, 3), "PNG");
  const char* build = std::getenv("ZERLAN_BUILD_DIR");
  const fs::path out = fs::path(build ? build : ".") / "panel.png";
  std::ofstream(out, std::ios::binary) << png;
  std::cout << "the panel: " << out.string() << "\n";
}

}  // namespace
}  // namespace zerlan::test

int main(int argc, char** argv) {
  if (std::string reason = zerlan::test::browserMissing(); !reason.empty()) {
    std::cout << "skipped: " << reason << "\n";
    return 77;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
