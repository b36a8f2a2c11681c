#include "server/mjpeg.h"

#include <algorithm>

namespace zerlan::server {

namespace {

constexpr uint8_t kSOI = 0xD8;
constexpr uint8_t kEOI = 0xD9;
constexpr uint8_t kSOS = 0xDA;
constexpr uint8_t kTEM = 0x01;

bool isRestart(uint8_t code) { return code >= 0xD0 && code <= 0xD7; }

// Markers that stand alone, without a length field.
bool isStandalone(uint8_t code) { return code == kTEM || isRestart(code) || code == kSOI; }

}  // namespace

void MjpegSplitter::startImage() {
  image_.assign("\xFF\xD8", 2);
  state_ = State::Marker;
}

void MjpegSplitter::dropImage() {
  skipped_ += image_.size();
  image_.clear();
  state_ = State::Seek;
}

std::vector<std::string> MjpegSplitter::feed(std::string_view bytes) {
  std::vector<std::string> done;
  size_t i = 0;
  const size_t n = bytes.size();
  while (i < n) {
    const auto b = static_cast<uint8_t>(bytes[i]);
    switch (state_) {
      case State::Seek:
        ++i;
        if (b == 0xFF) {
          state_ = State::SeekD8;
        } else {
          ++skipped_;
        }
        continue;
      case State::SeekD8:
        if (b == kSOI) {
          ++i;
          startImage();
        } else {
          ++skipped_;  // the 0xFF before it
          state_ = State::Seek;
        }
        continue;
      case State::SegmentBody: {
        // Copy the rest of the segment in one go; thumbnails live here and are never parsed.
        size_t take = std::min<size_t>(remaining_, n - i);
        image_.append(bytes.substr(i, take));
        i += take;
        remaining_ -= static_cast<uint32_t>(take);
        if (remaining_ == 0) state_ = code_ == kSOS ? State::Entropy : State::Marker;
        break;
      }
      case State::Entropy: {
        // Copy up to the next 0xFF in one go.
        size_t ff = bytes.find('\xFF', i);
        size_t end = ff == std::string_view::npos ? n : ff;
        image_.append(bytes.substr(i, end - i));
        i = end;
        if (ff != std::string_view::npos) {
          image_.push_back('\xFF');
          ++i;
          state_ = State::EntropyFF;
        }
        break;
      }
      case State::EntropyFF:
        ++i;
        image_.push_back(static_cast<char>(b));
        if (b == 0x00 || isRestart(b)) {
          state_ = State::Entropy;  // byte stuffing or a restart marker: still inside the scan
        } else if (b == 0xFF) {
          // fill byte: stay
        } else if (b == kEOI) {
          done.push_back(std::move(image_));
          image_.clear();
          state_ = State::Seek;
        } else if (b == kSOI) {
          skipped_ += image_.size() - 2;
          startImage();
        } else {
          // A marker after the scan (DHT, another SOS in a progressive image, ...).
          code_ = b;
          state_ = State::LengthHigh;
        }
        break;
      case State::Marker:
        if (b != 0xFF) {
          // Not a marker where one must be: this is no JPEG after all. Rescan from here.
          dropImage();
          continue;
        }
        ++i;
        image_.push_back('\xFF');
        state_ = State::MarkerCode;
        break;
      case State::MarkerCode:
        ++i;
        image_.push_back(static_cast<char>(b));
        if (b == 0xFF) break;  // fill byte
        if (b == kEOI) {
          done.push_back(std::move(image_));
          image_.clear();
          state_ = State::Seek;
        } else if (b == 0x00) {
          dropImage();
        } else if (b == kSOI) {
          // A new image starts before the old one ended: the old one was cut short.
          skipped_ += image_.size() - 2;
          startImage();
        } else if (isStandalone(b)) {
          state_ = State::Marker;
        } else {
          code_ = b;
          state_ = State::LengthHigh;
        }
        break;
      case State::LengthHigh:
        ++i;
        image_.push_back(static_cast<char>(b));
        length_ = static_cast<uint32_t>(b) << 8;
        state_ = State::LengthLow;
        break;
      case State::LengthLow:
        ++i;
        image_.push_back(static_cast<char>(b));
        length_ |= b;
        if (length_ < 2) {
          dropImage();
          break;
        }
        remaining_ = length_ - 2;
        state_ =
            remaining_ > 0 ? State::SegmentBody : (code_ == kSOS ? State::Entropy : State::Marker);
        break;
    }
    if (image_.size() > max_) dropImage();
  }
  return done;
}

}  // namespace zerlan::server
