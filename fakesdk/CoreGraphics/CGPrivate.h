// CoreGraphics helpers for fakesdk's higher frameworks (UIKit, CoreImage), without pixman.
#pragma once

#include <CoreGraphics/CoreGraphics.h>

#include <cstdint>
#include <vector>

namespace fakecg {

// The image's pixels as BGRA, premultiplied alpha first, 32-bit little-endian (bitmap info
// 0x2002), width * 4 bytes per row, top row first. False for NULL.
bool copyBGRA(CGImageRef image, std::vector<uint8_t> &pixels);

// The image's own pixels when they are stored exactly in that layout (as decoded JPEG and PNG
// images are), with *bytesPerRow set; NULL otherwise (then copyBGRA). Valid while the image lives.
const uint8_t *storedBGRA(CGImageRef image, size_t *bytesPerRow);

// A PNG file of the image (RGBA, straight alpha). False for NULL or when libpng fails.
bool encodePNG(CGImageRef image, std::vector<uint8_t> &file);

} // namespace fakecg
