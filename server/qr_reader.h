// Reads the QR code in a picture with zxing-cpp, for `zerlan probe` and the tests. Header only:
// the frame server never reads codes, so whoever includes this links zxing-cpp itself.
//
// zxing-cpp renamed its reader settings: Debian 12 ships 1.4, which has only DecodeHints;
// Homebrew ships 3.x, where ReaderOptions (since 2.2) has replaced them. The darwin_headers
// check compiles this against both.
#pragma once

#include <ZXing/ReadBarcode.h>

#include <optional>
#include <string>

#include "server/image.h"

namespace zerlan::server {

#if __has_include(<ZXing/ReaderOptions.h>)
using BarcodeReaderOptions = ZXing::ReaderOptions;
#else
using BarcodeReaderOptions = ZXing::DecodeHints;
#endif

// The text of the QR code in `image`, or nothing when it shows none.
inline std::optional<std::string> readQrCode(const RgbImage& image) {
  ZXing::ImageView view(image.pixels.data(), image.width, image.height, ZXing::ImageFormat::RGB);
  auto code = ZXing::ReadBarcode(view, BarcodeReaderOptions().setFormats(ZXing::BarcodeFormat::QRCode));
  if (!code.isValid()) return std::nullopt;
  return code.text();
}

}  // namespace zerlan::server
