#include "server/image.h"

#include <turbojpeg.h>

#include <charconv>
#include <cmath>
#include <cstring>

#include "lib/transport/FrameLimit.h"

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

Result<PictureHeader> readPictureHeader(std::string_view bytes) {
  static constexpr char kPngSignature[] = "\x89PNG\r\n\x1A\n";
  // Only the start-of-image marker, as libjpeg (and so the platform's decoder) asks: it skips
  // what lies between markers.
  if (bytes.size() >= 2 && static_cast<uint8_t>(bytes[0]) == 0xFF && static_cast<uint8_t>(bytes[1]) == 0xD8) {
    auto size = jpegSize(bytes);
    if (!size) return size.error();
    return PictureHeader{PictureFormat::Jpeg, *size};
  }
  if (bytes.starts_with(std::string_view(kPngSignature, 8))) {
    // IHDR is the first chunk: its length (13), its name, then width and height, big-endian.
    auto be32 = [&](size_t at) {
      uint32_t v = 0;
      for (size_t i = 0; i < 4; ++i) v = v << 8 | static_cast<uint8_t>(bytes[at + i]);
      return v;
    };
    if (bytes.size() < 24 || be32(8) != 13 || bytes.substr(12, 4) != "IHDR")
      return fail("not a readable PNG: its header chunk is missing");
    uint32_t width = be32(16), height = be32(20);
    if (width == 0 || height == 0 || width > INT32_MAX || height > INT32_MAX)
      return fail("not a readable PNG: it claims a size of " + std::to_string(width) + "x" +
                  std::to_string(height));
    return PictureHeader{PictureFormat::Png, Size{static_cast<int>(width), static_cast<int>(height)}};
  }
  return fail("neither a JPEG nor a PNG");
}

std::string_view formatName(PictureFormat format) {
  return format == PictureFormat::Jpeg ? "JPEG" : "PNG";
}

Result<void> checkPictureSize(Size size, std::string_view what) {
  int64_t pixels = int64_t{size.width} * size.height;
  if (pixels <= kMaxPicturePixels) return {};
  char megapixels[32];
  std::snprintf(megapixels, sizeof megapixels, "%g", static_cast<double>(pixels) / 1e6);
  return fail(std::string(what) + " of " + formatSize(size) + ", " + megapixels +
              " megapixels, more than a camera frame has: a frame may have at most " +
              std::to_string(kMaxPicturePixels / 1'000'000) +
              " megapixels (8000x8000, for example); scale the picture down first");
}

Result<void> checkFrameBytes(size_t bytes) {
  if (bytes <= transport::kMaxFrameBytes) return {};
  return fail(std::to_string(bytes) + " bytes, more than the library takes for one frame (" +
              std::to_string(transport::kMaxFrameBytes >> 20) + " MiB, " +
              std::to_string(transport::kMaxFrameBytes) +
              " bytes): it would never arrive; save the picture smaller (fewer pixels or a lower JPEG quality)");
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
