// Splitting an MJPEG stream: images whose bytes contain end-of-image markers that do not end
// them (thumbnails, comments, progressive scans, restart markers), junk between images, images
// cut short, and every way the stream can be chunked.
#include "server/mjpeg.h"

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <turbojpeg.h>

#include <cstdio>
#include <random>

#include "support.h"

namespace zerlan::test {
namespace {

using server::MjpegSplitter;

std::string segment(uint8_t marker, std::string_view payload) {
  std::string s = {'\xFF', static_cast<char>(marker)};
  size_t len = payload.size() + 2;
  s.push_back(static_cast<char>(len >> 8));
  s.push_back(static_cast<char>(len & 0xFF));
  s.append(payload);
  return s;
}

// `jpeg` with an EXIF block holding a complete thumbnail JPEG, and a comment with FF D9 in it,
// right after its start marker.
std::string withThumbnailAndComment(const std::string& jpeg) {
  std::string exif = std::string("Exif\0\0", 6) + solidJpeg(16, 16, {0, 0, 255});
  return jpeg.substr(0, 2) + segment(0xE1, exif) + segment(0xFE, "ends \xFF\xD9 here") +
         jpeg.substr(2);
}

std::string progressiveJpeg() {
  server::RgbImage image(64, 48);
  for (size_t i = 0; i < image.pixels.size(); ++i) image.pixels[i] = static_cast<uint8_t>(i * 7);
  tjhandle h = tjInitCompress();
  unsigned char* out = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(h, image.pixels.data(), 64, 0, 48, TJPF_RGB, &out, &size, TJSAMP_420, 80,
                        TJFLAG_PROGRESSIVE),
            0);
  std::string jpeg(reinterpret_cast<char*>(out), size);
  tjFree(out);
  tjDestroy(h);
  return jpeg;
}

// A baseline JPEG with a restart marker after every MCU row.
std::string jpegWithRestarts() {
  jpeg_compress_struct cinfo{};
  jpeg_error_mgr err{};
  cinfo.err = jpeg_std_error(&err);
  jpeg_create_compress(&cinfo);
  unsigned char* out = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&cinfo, &out, &size);
  cinfo.image_width = 64;
  cinfo.image_height = 64;
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&cinfo);
  cinfo.restart_in_rows = 1;
  jpeg_start_compress(&cinfo, TRUE);
  std::vector<uint8_t> row(64 * 3);
  while (cinfo.next_scanline < cinfo.image_height) {
    for (size_t i = 0; i < row.size(); ++i)
      row[i] = static_cast<uint8_t>(i + cinfo.next_scanline * 3);
    JSAMPROW rows[1] = {row.data()};
    jpeg_write_scanlines(&cinfo, rows, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  std::string jpeg(reinterpret_cast<char*>(out), size);
  free(out);
  return jpeg;
}

std::vector<std::string> feedInChunks(MjpegSplitter& splitter, const std::string& stream,
                                      const std::function<size_t()>& nextChunk) {
  std::vector<std::string> images;
  for (size_t at = 0; at < stream.size();) {
    size_t n = std::min(nextChunk(), stream.size() - at);
    for (auto& image : splitter.feed(std::string_view(stream).substr(at, n))) {
      images.push_back(std::move(image));
    }
    at += n;
  }
  return images;
}

TEST(MjpegSplitter, ImagesWithInnerEndMarkersSurviveAnyChunking) {
  const std::string thumbnailed = withThumbnailAndComment(solidJpeg(80, 60, {255, 0, 0}));
  const std::string progressive = progressiveJpeg();
  const std::string restarts = jpegWithRestarts();
  ASSERT_TRUE(server::decodeJpeg(thumbnailed).ok());
  ASSERT_HAS(restarts, "\xFF\xD0") << "no restart marker was written";

  const std::string junk1 = "junk\xFF\x00\xFF";
  const std::string junk2 = "\r\n--boundary\r\n";
  const std::string stream = junk1 + thumbnailed + progressive + junk2 + restarts;
  const std::vector<std::string> expected = {thumbnailed, progressive, restarts};

  std::mt19937 rng(7);
  const std::vector<std::pair<const char*, std::function<size_t()>>> chunkings = {
      {"one byte", [] { return size_t{1}; }},
      {"seven bytes", [] { return size_t{7}; }},
      {"random", [&rng] { return size_t{1} + rng() % 3000; }},
      {"whole", [&stream] { return stream.size(); }},
  };
  for (const auto& [name, chunk] : chunkings) {
    MjpegSplitter splitter;
    auto images = feedInChunks(splitter, stream, chunk);
    ASSERT_EQ(images.size(), expected.size()) << name;
    for (size_t i = 0; i < expected.size(); ++i) {
      EXPECT_EQ(images[i], expected[i]) << name << ": image " << i;
    }
    EXPECT_EQ(splitter.skippedBytes(), junk1.size() + junk2.size()) << name;
  }
}

TEST(MjpegSplitter, RecoversFromCutAndOversizedImages) {
  const std::string whole = solidJpeg(64, 64, {0, 255, 0});
  const std::string big = progressiveJpeg();
  {
    // A writer killed in the middle of the entropy-coded data, then a new image.
    size_t scan = whole.find("\xFF\xDA");
    ASSERT_NE(scan, std::string::npos);
    std::string cut = whole.substr(0, scan + 20);
    MjpegSplitter splitter;
    auto images = splitter.feed(cut + whole);
    ASSERT_EQ(images.size(), 1u);
    EXPECT_EQ(images[0], whole);
  }
  {
    // An image over the limit is dropped; the next one that fits still comes through.
    MjpegSplitter splitter(whole.size());
    ASSERT_GT(big.size(), whole.size());
    auto images = splitter.feed(big + whole);
    ASSERT_EQ(images.size(), 1u);
    EXPECT_EQ(images[0], whole);
    // The limit itself is allowed: exactly whole.size() bytes passed.
  }
  {
    MjpegSplitter splitter;
    EXPECT_TRUE(splitter.feed(whole.substr(0, whole.size() - 1)).empty());
    auto last = splitter.feed(whole.substr(whole.size() - 1));
    ASSERT_EQ(last.size(), 1u) << "the final byte of EOI completes the image";
    EXPECT_EQ(last[0], whole);
  }
}

TEST(MjpegSplitter, SplitsFfmpegOutput) {
  TempDir dir;
  std::string out = dir.file("stream.mjpeg");
  ASSERT_EQ(shell("ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc=size=160x120:rate=25 "
                  "-frames:v 12 -q:v 5 -f mjpeg '" +
                  out + "'"),
            0);
  std::string stream = readFile(out);
  MjpegSplitter splitter;
  std::mt19937 rng(11);
  auto images = feedInChunks(splitter, stream, [&rng] { return size_t{1} + rng() % 5000; });
  ASSERT_EQ(images.size(), 12u);
  std::string joined;
  for (const auto& image : images) {
    EXPECT_EQ(jpegSizeOf(image), (server::Size{160, 120}));
    joined += image;
  }
  EXPECT_EQ(joined, stream);
}

}  // namespace
}  // namespace zerlan::test
