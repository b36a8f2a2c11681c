// Pictures are held to what a frame may be from their header, before anything is decoded: the
// frame server's sources refuse larger ones with the reason (a control request opens its file the
// same way), an MJPEG stream skips them, and zerlan probe calls them no frame.
#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Pictures.h"
#include "Process.h"
#include "ScriptedServer.h"
#include "server/sources.h"
#include "support.h"

namespace zerlan::test {
namespace {

using server::PictureFormat;
using server::Size;
using server::SourceChoice;
using zerlan::testing::blackPng;
using zerlan::testing::claimSize;

constexpr size_t kLibraryTakes = 32u << 20;

std::string smallJpeg() { return solidJpeg(16, 16, {0, 0, 255}); }

TEST(PictureLimits, HeadersAreReadWithoutDecoding) {
  struct Case {
    const char* name;
    std::string bytes;
    PictureFormat format;
    Size size;  // {0, 0}: refused
  };
  std::string png = blackPng(16000, 16000);
  std::string zeroWide = png;
  zeroWide.replace(16, 4, std::string(4, '\0'));
  const Case cases[] = {
      {"JPEG", smallJpeg(), PictureFormat::Jpeg, {16, 16}},
      {"JPEG that claims more", claimSize(smallJpeg(), 30000, 30000), PictureFormat::Jpeg, {30000, 30000}},
      {"PNG", png, PictureFormat::Png, {16000, 16000}},
      {"PNG cut inside its header", png.substr(0, 20), PictureFormat::Png, {}},
      {"PNG of no width", zeroWide, PictureFormat::Png, {}},
      {"GIF", "GIF89a\x10\x00\x10\x00", PictureFormat::Png, {}},
      {"nothing", "", PictureFormat::Png, {}},
  };
  for (const Case& c : cases) {
    auto header = server::readPictureHeader(c.bytes);
    if (c.size.width == 0) {
      EXPECT_FALSE(header.ok()) << c.name;
      continue;
    }
    ASSERT_TRUE(header.ok()) << c.name << ": " << header.error().message;
    EXPECT_EQ(header->format, c.format) << c.name;
    EXPECT_EQ(header->size, c.size) << c.name;
  }
}

TEST(PictureLimits, SourcesRefuseWhatNoCameraFrameHasBeforeDecodingIt) {
  TempDir dir;
  const std::string small = smallJpeg();
  // A GIF states its size only to its decoder, which would make 1 GiB of it.
  ASSERT_EQ(0, shell("ffmpeg -nostdin -loglevel error -y -f lavfi -i color=c=black:s=16000x16000 -frames:v 1 '" +
                     dir.file("made.gif") + "'"));
  struct Case {
    std::string file;
    std::string bytes;
    std::string says;  // empty: opened
  };
  const Case cases[] = {
      {"limit.jpg", claimSize(small, 8000, 8000), ""},
      {"over.jpg", claimSize(small, 8000, 8001), "over.jpg: JPEG of 8000x8001, 64.008 megapixels, more than"},
      {"huge.jpg", claimSize(small, 30000, 30000), "JPEG of 30000x30000, 900 megapixels"},
      {"huge.png", blackPng(16000, 16000), "huge.png: PNG of 16000x16000, 256 megapixels"},
      // Read by FFmpeg, whose decoders refuse it before they allocate it.
      {"huge.gif", readFile(dir.file("made.gif")), "huge.gif: picture of 16000x16000, 256 megapixels"},
      {"full.jpg", small + std::string(kLibraryTakes - small.size(), '\0'), ""},
      {"overfull.jpg", small + std::string(kLibraryTakes - small.size() + 1, '\0'),
       "overfull.jpg is 33554433 bytes, more than the library takes for one frame (32 MiB"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string path = dir.write(c.file, c.bytes);
    zerlan::testing::resetPeakResident();
    const size_t before = zerlan::testing::peakResidentBytes();
    auto source = server::openSource(SourceChoice::image(path), {});
    // A 16000 x 16000 picture takes 768 MiB decoded; reading a file takes its size (and a
    // sanitizer's shadow memory a few times more).
    const size_t read = (zerlan::testing::kSanitized ? 4 : 1) * c.bytes.size();
    EXPECT_LT(zerlan::testing::peakResidentBytes() - before, read + (64u << 20));
    if (c.says.empty()) {
      EXPECT_TRUE(source.ok()) << source.error().message;
    } else {
      ASSERT_FALSE(source.ok());
      EXPECT_NE(source.error().message.find(c.says), std::string::npos) << source.error().message;
    }
  }

  // A control request opens its file so too: refused at once, and the server goes on as it was.
  auto s = startServer();
  ASSERT_TRUE(s.server);
  zerlan::testing::resetPeakResident();
  const size_t before = zerlan::testing::peakResidentBytes();
  Reply r = post(s.port(), "/control", nlohmann::json{{"source", {{"image", dir.file("huge.png")}}}}.dump());
  EXPECT_EQ(r.status, 400) << r.body;
  EXPECT_NE(r.body.find("PNG of 16000x16000, 256 megapixels"), std::string::npos) << r.body;
  EXPECT_LT(zerlan::testing::peakResidentBytes() - before, 64u << 20);
  EXPECT_EQ(s.server->status()["source_kind"], "pattern");
}

TEST(PictureLimits, AStreamSkipsAFrameLargerThanAFrameMayBe) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  auto s = startServer(SourceChoice::stream(fds[0]));
  ASSERT_TRUE(s.server);
  const std::string good = solidJpeg(64, 48, {255, 0, 0});
  ASSERT_TRUE(sendAll(fds[1], claimSize(smallJpeg(), 30000, 30000) + good));
  ASSERT_TRUE(s.server->frames().waitNewer(0, in(5s)));
  EXPECT_EQ(get(s.port(), "/frame").body, good);
  EXPECT_TRUE(s.log->contains("skipping a frame of the MJPEG stream: JPEG of 30000x30000, 900 megapixels"));
  s.server->stop();
  ::close(fds[1]);
  ::close(fds[0]);
}

// zerlan probe against a server that answers every fetch with `body`.
struct ProbeRun {
  zerlan::testing::ProcessResult process;
  nlohmann::json line;
};

ProbeRun probeAnswering(const std::string& body, bool json = true) {
  zerlan::testing::ScriptedServer server([&](int fd) {
    zerlan::testing::ScriptedServer::readHead(fd);
    zerlan::testing::ScriptedServer::writeAll(fd, "HTTP/1.1 200 OK\r\nContent-Type: image/jpeg\r\n\r\n" + body);
    return true;
  });
  std::vector<std::string> argv = {ZERLAN_BIN, "probe", "--port", std::to_string(server.port())};
  if (json) argv.push_back("--json");
  ProbeRun run{zerlan::testing::runProcess(argv), {}};
  if (json) run.line = nlohmann::json::parse(run.process.out, nullptr, false);
  return run;
}

TEST(PictureLimits, ProbeCallsWhatTheLibraryWouldDropNoFrameAndDecodesNothingLarge) {
  const std::string small = smallJpeg();
  struct Case {
    const char* name;
    std::string body;
    const char* verdict;
    int width;  // 0: unknown
    std::string problem;
  };
  const Case cases[] = {
      {"JPEG", small, "frame", 16, ""},
      {"PNG", blackPng(640, 480), "frame", 640, ""},
      {"JPEG that claims 30000 x 30000", claimSize(small, 30000, 30000), "too large", 30000,
       "JPEG of 30000x30000, 900 megapixels, more than a camera frame has"},
      {"PNG of 16000 x 16000", blackPng(16000, 16000), "too large", 16000, "PNG of 16000x16000, 256 megapixels"},
      {"text", "hello", "undecodable", 0, "neither a JPEG nor a PNG"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ProbeRun run = probeAnswering(c.body);
    const bool frame = c.verdict == std::string("frame");
    ASSERT_EQ(frame ? 0 : 1, run.process.status) << run.process.out << run.process.err;
    EXPECT_EQ(frame, run.line["frame"]);
    EXPECT_EQ(c.verdict, run.line["verdict"]);
    EXPECT_EQ(c.body.size(), run.line["bytes"].get<size_t>());
    if (c.width) EXPECT_EQ(c.width, run.line["width"]);
    else EXPECT_TRUE(run.line["width"].is_null());
    if (c.problem.empty()) EXPECT_TRUE(run.line["problem"].is_null()) << run.line["problem"];
    else EXPECT_NE(run.line["problem"].get<std::string>().find(c.problem), std::string::npos) << run.line["problem"];
  }

  ProbeRun text = probeAnswering(claimSize(small, 30000, 30000), false);
  EXPECT_EQ(1, text.process.status);
  EXPECT_NE(text.process.out.find("no frame: JPEG of 30000x30000"), std::string::npos) << text.process.out;
  EXPECT_NE(text.process.err.find("1 of 1 fetches got pictures larger than a frame may be (64 megapixels)"),
            std::string::npos)
      << text.process.err;
}

}  // namespace
}  // namespace zerlan::test
