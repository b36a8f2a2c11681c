// CoreGraphics helpers for fakesdk's higher frameworks (UIKit, CoreImage), without pixman.
#pragma once

#include <CoreGraphics/CoreGraphics.h>

#include <cstdint>
#include <vector>

namespace fakecg {

// The image's pixels as BGRA, premultiplied alpha first, 32-bit little-endian (bitmap info
// 0x2002), width * 4 bytes per row, top row first. False for NULL.
bool copyBGRA(CGImageRef image, std::vector<uint8_t> &pixels);

// A PNG file of the image (RGBA, straight alpha). False for NULL or when libpng fails.
bool encodePNG(CGImageRef image, std::vector<uint8_t> &file);

} // namespace fakecg
