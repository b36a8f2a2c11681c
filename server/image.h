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

Result<RgbImage> decodeJpeg(std::string_view bytes);

}  // namespace zerlan::server
