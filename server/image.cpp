#include "server/image.h"

#include <turbojpeg.h>

#include <charconv>

namespace zerlan::server {

namespace {

constexpr int kMinSide = 16;
constexpr int kMaxSide = 8192;

bool parseSide(std::string_view text, int& out) {
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

Result<Size> parseSize(std::string_view text) {
  size_t x = text.find_first_of("xX*");
  Size size;
  if (x == std::string_view::npos || !parseSide(text.substr(0, x), size.width) ||
      !parseSide(text.substr(x + 1), size.height)) {
    return fail("size \"" + std::string(text) + "\" is not WIDTHxHEIGHT, for example 640x480");
  }
  if (size.width < kMinSide || size.height < kMinSide || size.width > kMaxSide ||
      size.height > kMaxSide) {
    return fail("size " + formatSize(size) + " is out of range: each side must be " +
                std::to_string(kMinSide) + " to " + std::to_string(kMaxSide) + " pixels");
  }
  return size;
}

std::string formatSize(Size size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

JpegEncoder::JpegEncoder() : handle_(tjInitCompress()) {}

JpegEncoder::~JpegEncoder() {
  if (handle_) tjDestroy(static_cast<tjhandle>(handle_));
}

Result<std::string> JpegEncoder::encode(const RgbImage& image, int quality) {
  if (!handle_) return fail("cannot start the JPEG encoder (libjpeg-turbo)");
  unsigned char* out = nullptr;
  unsigned long size = 0;
  int rc = tjCompress2(static_cast<tjhandle>(handle_), image.pixels.data(), image.width, 0,
                       image.height, TJPF_RGB, &out, &size, TJSAMP_420, quality, TJFLAG_FASTDCT);
  if (rc != 0) {
    std::string why = tjGetErrorStr2(static_cast<tjhandle>(handle_));
    tjFree(out);
    return fail("JPEG encoding failed: " + why);
  }
  std::string jpeg(reinterpret_cast<const char*>(out), size);
  tjFree(out);
  return jpeg;
}

bool looksLikeJpeg(std::string_view bytes) {
  return bytes.size() >= 3 && static_cast<uint8_t>(bytes[0]) == 0xFF &&
         static_cast<uint8_t>(bytes[1]) == 0xD8 && static_cast<uint8_t>(bytes[2]) == 0xFF;
}

Result<Size> jpegSize(std::string_view bytes) {
  tjhandle h = tjInitDecompress();
  if (!h) return fail("cannot start the JPEG decoder (libjpeg-turbo)");
  int w = 0, hgt = 0, subsamp = 0, colorspace = 0;
  int rc = tjDecompressHeader3(h, reinterpret_cast<const unsigned char*>(bytes.data()),
                               bytes.size(), &w, &hgt, &subsamp, &colorspace);
  std::string why = rc != 0 ? tjGetErrorStr2(h) : "";
  tjDestroy(h);
  if (rc != 0) return fail("not a readable JPEG: " + why);
  return Size{w, hgt};
}

Result<RgbImage> decodeJpeg(std::string_view bytes) {
  tjhandle h = tjInitDecompress();
  if (!h) return fail("cannot start the JPEG decoder (libjpeg-turbo)");
  int w = 0, hgt = 0, subsamp = 0, colorspace = 0;
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  if (tjDecompressHeader3(h, data, bytes.size(), &w, &hgt, &subsamp, &colorspace) != 0) {
    std::string why = tjGetErrorStr2(h);
    tjDestroy(h);
    return fail("not a readable JPEG: " + why);
  }
  RgbImage image(w, hgt);
  int rc = tjDecompress2(h, data, bytes.size(), image.pixels.data(), w, 0, hgt, TJPF_RGB, 0);
  // A warning (for example a truncated scan) still leaves a usable picture.
  bool fatal = rc != 0 && tjGetErrorCode(h) == TJERR_FATAL;
  std::string why = fatal ? tjGetErrorStr2(h) : "";
  tjDestroy(h);
  if (fatal) return fail("JPEG decoding failed: " + why);
  return image;
}

}  // namespace zerlan::server
