#include "server/pattern.h"

#include <qrencode.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>

namespace zerlan::server {

namespace {

constexpr int kQuietZone = 4;  // modules of white around the symbol, as the QR standard asks

struct QrSymbol {
  int modules = 0;
  std::vector<uint8_t> dark;
};

Result<QrSymbol> encodeQr(const std::string& payload) {
  if (payload.empty()) return fail("the QR payload is empty: give it some text");
  // 8-bit mode over the raw bytes, so any UTF-8 (or even a NUL) survives unchanged.
  std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
      QRcode_encodeData(static_cast<int>(payload.size()),
                        reinterpret_cast<const unsigned char*>(payload.data()), 0, QR_ECLEVEL_M),
      &QRcode_free);
  if (!code) {
    if (errno == ERANGE) {
      return fail("the QR payload is " + std::to_string(payload.size()) +
                  " bytes, too long for a QR code: use at most about 2000 bytes");
    }
    return fail("cannot encode the QR payload (libqrencode failed)");
  }
  QrSymbol symbol;
  symbol.modules = code->width;
  symbol.dark.resize(static_cast<size_t>(code->width) * code->width);
  for (size_t i = 0; i < symbol.dark.size(); ++i) symbol.dark[i] = code->data[i] & 1;
  return symbol;
}

// Pixels per module: the symbol and its quiet zone take up to 3/4 of the height and 3/5 of the
// width, leaving room on the left for the captions.
int moduleSize(int modules, Size size) {
  int room = std::min(size.height * 3 / 4, size.width * 3 / 5);
  return room / (modules + 2 * kQuietZone);
}

Result<void> checkFits(int modules, size_t payloadBytes, Size size) {
  if (moduleSize(modules, size) < 1) {
    return fail("a QR code of " + std::to_string(payloadBytes) + " bytes does not fit on a " +
                formatSize(size) + " frame: use a shorter payload or a larger --size");
  }
  return {};
}

// A triangle wave over 0..255, so the moving gradient has no hard seams.
uint8_t wave(int v) {
  int m = v & 511;
  return static_cast<uint8_t>(m < 256 ? m : 511 - m);
}

std::string clockText(std::chrono::system_clock::time_point now) {
  auto secs = std::chrono::system_clock::to_time_t(now);
  auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) % 1000;
  std::tm tm{};
  localtime_r(&secs, &tm);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03d", tm.tm_hour, tm.tm_min, tm.tm_sec,
                static_cast<int>(millis.count()));
  return buf;
}

}  // namespace

Result<void> checkQrPayload(const std::string& payload, Size size) {
  auto symbol = encodeQr(payload);
  if (!symbol) return symbol.error();
  return checkFits(symbol->modules, payload.size(), size);
}

PatternRenderer::PatternRenderer(Size size) : size_(size) {}

Result<void> PatternRenderer::setPayload(const std::string& payload) {
  auto symbol = encodeQr(payload);
  if (!symbol) return symbol.error();
  if (auto fits = checkFits(symbol->modules, payload.size(), size_); !fits) return fits;
  payload_ = payload;
  modules_ = symbol->modules;
  darkModules_ = std::move(symbol->dark);
  return {};
}

RgbImage PatternRenderer::render(uint64_t number,
                                 std::optional<std::chrono::system_clock::time_point> now) const {
  RgbImage image(size_.width, size_.height);
  const int t = static_cast<int>(number % 100000) * 6;
  for (int y = 0; y < image.height; ++y) {
    uint8_t* p = image.row(y);
    uint8_t g = wave(y + t / 2);
    for (int x = 0; x < image.width; ++x) {
      p[0] = wave(x + t);
      p[1] = g;
      p[2] = wave(x + y - t);
      p += 3;
    }
  }

  // Captions first: where a small frame makes them overlap, the QR code stays whole.
  const int scale = std::max(1, size_.height / 160);
  const int lineHeight = 13 * scale;
  const int margin = std::max(4, size_.width / 64);
  char frameText[32];
  std::snprintf(frameText, sizeof frameText, "FRAME %06llu",
                static_cast<unsigned long long>(number));
  drawText(image, margin, margin, scale, "ZERLAN");
  drawText(image, margin, margin + lineHeight, scale, frameText);
  if (now) drawText(image, margin, margin + 2 * lineHeight, scale, clockText(*now));
  drawText(image, margin, size_.height - margin - 11 * scale, scale, formatSize(size_));

  if (modules_ > 0) {
    const int m = moduleSize(modules_, size_);
    const int box = m * (modules_ + 2 * kQuietZone);
    const int left = size_.width - box - std::max(4, size_.width / 32);
    const int top = (size_.height - box) / 2;
    for (int y = 0; y < box; ++y) {
      uint8_t* p = image.row(top + y) + left * 3;
      int my = y / m - kQuietZone;
      for (int x = 0; x < box; ++x, p += 3) {
        int mx = x / m - kQuietZone;
        bool dark = mx >= 0 && my >= 0 && mx < modules_ && my < modules_ &&
                    darkModules_[static_cast<size_t>(my) * modules_ + mx];
        p[0] = p[1] = p[2] = dark ? 0 : 255;
      }
    }
  }

  return image;
}

}  // namespace zerlan::server
