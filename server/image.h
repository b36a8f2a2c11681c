// Pixels, JPEG encoding and decoding (libjpeg-turbo), and sizes as the command line writes them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "server/result.h"

namespace zerlan::server {

struct Size {
  int width = 0;
  int height = 0;
  bool operator==(const Size&) const = default;
};

// Parses "WxH" (also "W*H"); both sides 16..8192.
Result<Size> parseSize(std::string_view text);
std::string formatSize(Size size);

// Tightly packed 8-bit RGB.
struct RgbImage {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> pixels;

  RgbImage() = default;
  RgbImage(int w, int h) : width(w), height(h), pixels(static_cast<size_t>(w) * h * 3) {}
  uint8_t* row(int y) { return pixels.data() + static_cast<size_t>(y) * width * 3; }
  const uint8_t* row(int y) const { return pixels.data() + static_cast<size_t>(y) * width * 3; }
};

// A libjpeg-turbo compressor; one per thread (the handle is not thread-safe).
class JpegEncoder {
 public:
  JpegEncoder();
  ~JpegEncoder();
  JpegEncoder(const JpegEncoder&) = delete;
  JpegEncoder& operator=(const JpegEncoder&) = delete;

  // quality 1..100, 4:2:0 chroma subsampling.
  Result<std::string> encode(const RgbImage& image, int quality);

 private:
  void* handle_;
};

// True when the bytes start like a JPEG file (SOI followed by a marker).
bool looksLikeJpeg(std::string_view bytes);

// The dimensions in a JPEG's frame header, or an error when libjpeg-turbo cannot read it.
Result<Size> jpegSize(std::string_view bytes);

// A picture's format and size as its header states them, read before any pixel is decoded: a
// JPEG's frame header (libjpeg-turbo), a PNG's IHDR chunk. An error for anything else.
enum class PictureFormat { Jpeg, Png };
struct PictureHeader {
  PictureFormat format;
  Size size;
};
Result<PictureHeader> readPictureHeader(std::string_view bytes);
std::string_view formatName(PictureFormat format);

// The most pixels a frame may have. A camera feed is video-sized (8K video has 33 megapixels) and
// the usual phone photo has 12 to 50: a picture that claims more is no camera frame, and a header
// that claims 30000 x 30000 over a few hundred bytes is an attack on whatever decodes it.
inline constexpr int64_t kMaxPicturePixels = 64'000'000;

// Whether a picture of this size can be a frame. The error describes the picture ("JPEG of
// 30000x30000, 900 megapixels, ...", `what` naming its kind) and says what the limit is.
Result<void> checkPictureSize(Size size, std::string_view what);

// Whether a frame of this many bytes reaches the library (kMaxFrameBytes); the error says how
// large it is and what to do.
Result<void> checkFrameBytes(size_t bytes);

Result<RgbImage> decodeJpeg(std::string_view bytes);

}  // namespace zerlan::server
