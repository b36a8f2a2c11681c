// Each kind of source, seen through a running server: what the frames show, their size and
// bytes, their order, how bad files are refused, and pictures larger than a frame may be.
#include "server/sources.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <set>

#include "Pictures.h"
#include "support.h"

namespace zerlan::test {
namespace {

using server::Frame;
using server::FrameSettings;
using server::Size;
using server::SourceChoice;

const Rgb kRed{255, 0, 0}, kGreen{0, 255, 0}, kBlue{0, 0, 255}, kWhite{255, 255, 255};

// The next `count` frames the server publishes, in order.
std::vector<std::shared_ptr<const Frame>> collect(const server::Server& s, size_t count,
                                                  Clock::duration limit = 10s) {
  std::vector<std::shared_ptr<const Frame>> frames;
  auto deadline = in(limit);
  uint64_t last = s.frames().current() ? s.frames().current()->number : 0;
  while (frames.size() < count) {
    auto f = s.frames().waitNewer(last, deadline);
    if (!f) {
      ADD_FAILURE() << "only " << frames.size() << " of " << count << " frames arrived";
      break;
    }
    last = f->number;
    frames.push_back(std::move(f));
  }
  return frames;
}

// Frames may be missed when the test thread is slow, but never reordered: the colour of frame
// n must be palette[(start + n - n0) % size] for one start.
void expectCycle(const std::vector<std::shared_ptr<const Frame>>& frames,
                 const std::vector<Rgb>& palette) {
  ASSERT_FALSE(frames.empty());
  const uint64_t n0 = frames[0]->number;
  const size_t start = nearest(centreColour(frames[0]->jpeg()), palette);
  std::set<size_t> seen;
  for (const auto& f : frames) {
    size_t want = (start + (f->number - n0)) % palette.size();
    size_t got = nearest(centreColour(f->jpeg()), palette);
    EXPECT_EQ(got, want) << "frame " << f->number;
    seen.insert(got);
  }
  EXPECT_EQ(seen.size(), palette.size()) << "every picture shows up";
  EXPECT_GE(frames.back()->number - n0 + 1, palette.size() + 1) << "and the sequence wraps";
}

// Frames keep their pace: between any two, at least the time their numbers say, less one
// period. Sources keep a schedule, so a frame that a loaded machine made late is followed by
// one that catches up; a frame is never published before its due time, and due times are a
// period apart, so k frames on still span k - 1 periods however late the first one was.
void expectPaced(const std::vector<std::shared_ptr<const Frame>>& frames, double fps) {
  ASSERT_GE(frames.size(), 3u);
  const auto period = std::chrono::duration<double>(1.0 / fps);
  for (size_t i = 1; i < frames.size(); ++i) {
    auto gap = frames[i]->published - frames[0]->published;
    auto least = period * (static_cast<double>(frames[i]->number - frames[0]->number) - 1) * 0.9;
    EXPECT_GE(gap, least) << "frame " << frames[i]->number << " came too soon";
  }
}

TEST(Sources, PatternShowsItsQrPayloadAtEachSizeAndMoves) {
  const std::pair<Size, std::string> cases[] = {
      {{640, 480}, "hello from zerlan"},
      {{320, 240}, "small frame"},
      {{1280, 720}, "wide frame"},
      {{640, 480}, std::string(600, 'x') + "end"},
      {{480, 640}, "https://example.com/some/path?query=1&more=2"},
  };
  for (const auto& [size, qr] : cases) {
    SCOPED_TRACE(server::formatSize(size));
    FrameSettings settings;
    settings.size = size;
    settings.qr = qr;
    settings.fps = 30;
    auto s = startServer(SourceChoice::pattern(), settings);
    Reply r = get(s.port(), "/frame");
    ASSERT_EQ(r.status, 200);
    EXPECT_EQ(jpegSizeOf(r.body), size);
    EXPECT_EQ(readQr(r.body), qr);
    if (qr != cases[0].second) continue;  // one server is enough to watch it move
    auto frames = collect(*s.server, 4);
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_NE(frames[0]->jpeg(), frames[1]->jpeg()) << "the pattern is animated";
    EXPECT_EQ(readQr(frames[3]->jpeg()), qr) << "on every frame";
    expectPaced(frames, 30);
  }
}

TEST(Sources, PicturesAreServedAsIsOrTranscodedOnce) {
  TempDir dir;
  const std::string jpeg = solidJpeg(120, 90, kBlue);
  const std::string jpegPath = dir.write("photo.jpg", jpeg);
  const std::string pngPath = makePng(dir, "photo.png", 100, 80, kGreen);
  // A JPEG behind a misleading name is still a JPEG; decisions go by content.
  const std::string disguised = dir.write("photo.png.bin", jpeg);

  for (const std::string& path : {jpegPath, disguised}) {
    auto s = startServer(SourceChoice::image(path));
    EXPECT_EQ(get(s.port(), "/frame").body, jpeg) << path;
  }
  {
    auto s = startServer(SourceChoice::image(pngPath));
    Reply first = get(s.port(), "/frame");
    EXPECT_EQ(jpegSizeOf(first.body), (Size{100, 80}));
    EXPECT_EQ(nearest(centreColour(first.body), {kRed, kGreen, kBlue}), 1u);
    EXPECT_EQ(get(s.port(), "/frame").body, first.body) << "encoded once, served as the same bytes";
    EXPECT_EQ(s.server->frames().current()->number, 1u);
    EXPECT_HAS(s.server->status()["source"].get<std::string>(), "transcoded");
  }
  {
    FrameSettings settings;
    settings.size = Size{50, 40};
    auto s = startServer(SourceChoice::image(pngPath), settings);
    EXPECT_EQ(jpegSizeOf(get(s.port(), "/frame").body), (Size{50, 40}));
  }
}

TEST(Sources, FolderAdvancesInNameOrderAndLoops) {
  TempDir dir;
  const std::string red = solidJpeg(64, 48, kRed);
  dir.write("b.jpg", red);  // name order: a (green PNG), b (red), c (blue)
  makePng(dir, "a.png", 64, 48, kGreen);
  dir.write("c.JPG", solidJpeg(64, 48, kBlue));
  dir.write("notes.txt", "not a picture");
  dir.write(".hidden.jpg", solidJpeg(64, 48, kWhite));
  std::filesystem::create_directory(dir.file("sub.jpg"));

  FrameSettings settings;
  settings.fps = 25;
  auto s = startServer(SourceChoice::dir(dir.path().string()), settings);
  EXPECT_HAS(s.server->status()["source"].get<std::string>(), "3 images") << s.server->status()["source"];
  auto frames = collect(*s.server, 8);
  expectCycle(frames, {kGreen, kRed, kBlue});
  expectPaced(frames, 25);
  for (const auto& f : frames) {
    if (nearest(centreColour(f->jpeg()), {kGreen, kRed, kBlue}) == 1) {
      EXPECT_EQ(f->jpeg(), red) << "JPEG files of a folder are served byte for byte";
    }
  }
}

// Thousands of files named as pictures that are none: a few lines say so, not one per file,
// and the pictures among them play on.
TEST(Sources, AFolderOfThousandsOfBadFilesIsSummedUpInAFewLines) {
  TempDir dir;
  dir.write("a.jpg", solidJpeg(64, 48, kRed));
  char name[32];
  for (int i = 1; i <= 3000; ++i) {
    std::snprintf(name, sizeof name, "b%04d.jpg", i);
    dir.write(name, "not a picture " + std::to_string(i));
  }
  dir.write("c.jpg", solidJpeg(64, 48, kBlue));

  FrameSettings settings;
  settings.fps = 120;
  auto s = startServer(SourceChoice::dir(dir.path().string()), settings);
  ASSERT_TRUE(s.log->waitFor("skipped 3000 of the 3002 files of folder", in(30s)));
  EXPECT_TRUE(s.log->contains(": b0001.jpg, b0002.jpg, b0003.jpg and 2997 more"));
  EXPECT_EQ(s.log->count("skipping "), 3u);
  EXPECT_TRUE(s.log->contains("skipping " + dir.file("b0001.jpg") + " is not a picture"));
  EXPECT_LE(s.log->lines().size(), 6u);
  EXPECT_HAS(s.server->status()["source"].get<std::string>(), "3000 skipped") << s.server->status()["source"];
  expectCycle(collect(*s.server, 6), {kRed, kBlue});
}

TEST(Sources, VideoPlaysScaledAndLoops) {
  TempDir dir;
  const std::vector<Rgb> colors = {kRed, kGreen, kBlue, kWhite};
  std::string video = makeVideo(dir, "clip.mp4", colors, 20, 160, 120);
  FrameSettings settings;
  settings.size = Size{80, 60};
  auto s = startServer(SourceChoice::video(video), settings);
  std::string source = s.server->status()["source"];
  EXPECT_HAS(source, "mpeg4 160x120");
  EXPECT_HAS(source, "scaled to 80x60");
  auto frames = collect(*s.server, 10);
  for (const auto& f : frames) EXPECT_EQ(jpegSizeOf(f->jpeg()), (Size{80, 60}));
  expectCycle(frames, colors);
  expectPaced(frames, 20);  // the video's own rate, through the loop
}

TEST(Sources, AStreamThatEndsBeforeItsFirstFrameLeavesNothingToServe) {
  for (const std::string& before : {std::string(), "--boundary\r\n" + solidJpeg(64, 48, kRed).substr(0, 300)}) {
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    std::atomic<int> nothingToServe{0};
    server::ServerOptions options;
    options.nothingToServe = [&nothingToServe] { ++nothingToServe; };
    auto s = startServer(SourceChoice::stream(fds[0]), {}, options);
    ASSERT_TRUE(sendAll(fds[1], before));
    ::close(fds[1]);
    EXPECT_TRUE(s.log->waitFor("the MJPEG stream ended before a complete JPEG arrived: there is nothing to serve",
                               in(5s)));
    EXPECT_TRUE(eventually([&] { return nothingToServe > 0; }, 5s));
    EXPECT_EQ(nothingToServe, 1) << "told once";
    EXPECT_EQ(get(s.port(), "/frame").status, 503) << "the server still answers meanwhile";
    s.server->stop();
    ::close(fds[0]);
  }
}

TEST(Sources, AStreamThatIsNoMjpegSaysWhatWasExpectedAndIsCounted) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  auto s = startServer(SourceChoice::stream(fds[0]));
  // A PNG stream: plenty of bytes, none of them a JPEG.
  TempDir dir;
  const std::string png = readFile(makePng(dir, "frame.png", 640, 480, kGreen));
  std::string input;
  while (input.size() < 100 * 1024) input += png;
  ASSERT_TRUE(sendAll(fds[1], input));
  EXPECT_TRUE(s.log->waitFor("does not look like an MJPEG stream", in(5s)));
  EXPECT_TRUE(s.log->contains("ffmpeg -i INPUT -f mjpeg -"));
  EXPECT_EQ(s.log->count("does not look like an MJPEG stream"), 1u) << "said once";
  EXPECT_HAS(s.server->status()["source"].get<std::string>(), "bytes outside any JPEG skipped")
      << s.server->status()["source"];
  EXPECT_EQ(get(s.port(), "/frame").status, 503);
  s.server->stop();
  ::close(fds[1]);
  ::close(fds[0]);
}

TEST(Sources, BadSourcesAreRefusedWithAClearError) {
  TempDir dir;
  const std::string text = dir.write("notes.txt", "just some words, no picture here");
  const std::string garbage = dir.write("clip.mp4", std::string(4096, '\x42'));
  std::filesystem::create_directory(dir.file("empty"));
  dir.write("empty/readme.md", "nothing");
  const std::string missing = dir.file("missing.png");
  struct Case { SourceChoice choice; FrameSettings settings; std::string says; };
  FrameSettings tiny;
  tiny.size = Size{16, 16};
  tiny.qr = std::string(200, 'q');
  FrameSettings empty;
  empty.qr = "";
  const Case cases[] = {
      {SourceChoice::image(missing), {}, missing + " does not exist"},
      {SourceChoice::image(dir.path().string()), {}, "is a folder: use --dir"},
      {SourceChoice::image(text), {}, text + " is not an image"},
      {SourceChoice::image("/dev/null"), {}, "not a regular file"},
      {SourceChoice::dir(missing), {}, "does not exist"},
      {SourceChoice::dir(text), {}, "is not a folder: use --image"},
      {SourceChoice::dir(dir.file("empty")), {}, "has no images"},
      {SourceChoice::video(garbage), {}, garbage},
      {SourceChoice::video(missing), {}, "does not exist"},
      {SourceChoice::pattern(), tiny, "does not fit on a 16x16 frame"},
      {SourceChoice::pattern(), empty, "QR payload is empty"},
  };
  for (const Case& c : cases) {
    auto source = server::openSource(c.choice, c.settings);
    ASSERT_FALSE(source.ok()) << c.says;
    EXPECT_HAS(source.error().message, c.says) << "wanted \"" << c.says << "\" in: " << source.error().message;
  }
}

// Pictures are held to what a frame may be from their header, before anything is decoded: the
// frame server's sources refuse larger ones with the reason (a control request opens its file the
// same way), an MJPEG stream skips them, and zerlan probe calls them no frame.
using server::PictureFormat;
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
      EXPECT_HAS(source.error().message, c.says);
    }
  }

  // A control request opens its file so too: refused at once, and the server goes on as it was.
  auto s = startServer();
  zerlan::testing::resetPeakResident();
  const size_t before = zerlan::testing::peakResidentBytes();
  Reply r = post(s.port(), "/control", nlohmann::json{{"source", {{"image", dir.file("huge.png")}}}}.dump());
  EXPECT_EQ(r.status, 400) << r.body;
  EXPECT_HAS(r.body, "PNG of 16000x16000, 256 megapixels");
  EXPECT_LT(zerlan::testing::peakResidentBytes() - before, 64u << 20);
  EXPECT_EQ(s.server->status()["source_kind"], "pattern");
}

TEST(PictureLimits, AStreamSkipsAFrameLargerThanAFrameMayBe) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  auto s = startServer(SourceChoice::stream(fds[0]));
  const std::string good = solidJpeg(64, 48, {255, 0, 0});
  ASSERT_TRUE(sendAll(fds[1], claimSize(smallJpeg(), 30000, 30000) + good));
  ASSERT_TRUE(s.server->frames().waitNewer(0, in(5s)));
  EXPECT_EQ(get(s.port(), "/frame").body, good);
  EXPECT_TRUE(s.log->contains("skipping a frame of the MJPEG stream: JPEG of 30000x30000, 900 megapixels"));
  s.server->stop();
  ::close(fds[1]);
  ::close(fds[0]);
}

}  // namespace
}  // namespace zerlan::test
