// Splits a byte stream of concatenated JPEG images (an MJPEG stream such as
// `ffmpeg ... -f mjpeg -`) into whole images.
//
// It walks the JPEG marker structure instead of searching for an end-of-image marker, so an
// EXIF thumbnail (a complete JPEG inside an APP1 segment) or 0xFF 0xD9 bytes inside any other
// segment do not end the image early. Bytes between images are skipped; an image that grows
// past `maxImageBytes` without ending is dropped and the splitter looks for the next one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zerlan::server {

class MjpegSplitter {
 public:
  explicit MjpegSplitter(size_t maxImageBytes = 64u << 20) : max_(maxImageBytes) {}

  // Consumes `bytes` and returns the images completed by them, in stream order.
  std::vector<std::string> feed(std::string_view bytes);

  // Bytes skipped so far because they were not inside an image (junk, dropped images).
  uint64_t skippedBytes() const { return skipped_; }

 private:
  enum class State {
    Seek,        // looking for 0xFF 0xD8
    SeekD8,      // saw 0xFF, expecting 0xD8
    Marker,      // expecting 0xFF that starts a marker
    MarkerCode,  // after 0xFF: the marker code (0xFF fill bytes repeat)
    LengthHigh,  // segment length, big-endian, includes its own two bytes
    LengthLow,
    SegmentBody,  // skipping the segment payload
    Entropy,      // entropy-coded data after SOS
    EntropyFF,    // entropy-coded data, after a 0xFF
  };

  void startImage();
  void dropImage();

  size_t max_;
  State state_ = State::Seek;
  std::string image_;
  uint32_t length_ = 0;
  uint32_t remaining_ = 0;
  uint8_t code_ = 0;
  uint64_t skipped_ = 0;
};

}  // namespace zerlan::server
