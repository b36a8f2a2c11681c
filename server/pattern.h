// The built-in test pattern: a moving gradient, the frame number and the time of day as text,
// and a QR code of a payload, large and with its quiet zone, so scanners read it at once.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "server/image.h"
#include "server/result.h"

namespace zerlan::server {

inline constexpr Size kPatternSize{640, 480};

class PatternRenderer {
 public:
  explicit PatternRenderer(Size size);

  // Encodes `payload` as a QR code for the frames that follow. Fails (and keeps the previous
  // payload) when the payload is empty or too long to draw at this frame size.
  Result<void> setPayload(const std::string& payload);

  // Draws frame `number`; `now` is the clock shown on it. Without a clock the image depends on
  // the number, the payload and the size alone (step mode: the same bytes on every run).
  RgbImage render(uint64_t number,
                  std::optional<std::chrono::system_clock::time_point> now) const;

  Size size() const { return size_; }

 private:
  Size size_;
  std::string payload_;
  int modules_ = 0;                   // QR symbol width in modules, without the quiet zone
  std::vector<uint8_t> darkModules_;  // modules_ x modules_, 1 = dark
};

// Whether `payload` can be drawn as a QR code on a pattern of `size`; the error says why not.
Result<void> checkQrPayload(const std::string& payload, Size size);

// Draws `text` with the built-in 5x7 font, each font pixel `scale` x `scale` image pixels, on a
// white box; characters outside the font draw as '?'. Clipped to the image.
void drawText(RgbImage& image, int x, int y, int scale, const std::string& text);

// Width in pixels that drawText uses for `chars` characters at `scale`.
int textWidth(size_t chars, int scale);

}  // namespace zerlan::server
