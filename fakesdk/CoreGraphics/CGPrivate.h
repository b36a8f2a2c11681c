// CoreGraphics helpers for fakesdk's higher frameworks (UIKit, CoreImage), without pixman.
#pragma once

#include <CoreGraphics/CoreGraphics.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace fakecg {

// Pixels as BGRA, premultiplied alpha first, 32-bit little-endian (bitmap info 0x2002), width * 4
// bytes per row, top row first.
struct Bitmap {
    std::unique_ptr<uint8_t[]> pixels;
    size_t width = 0;
    size_t height = 0;
};

// The image's pixels at its full size. False for NULL or when the memory cannot be had.
bool copyBGRA(CGImageRef image, Bitmap &out);

// The image drawn into width x height (scaled, bilinear). False for NULL or when the memory
// cannot be had.
bool drawBGRA(CGImageRef image, size_t width, size_t height, Bitmap &out);

// The pixels the image keeps when they are stored exactly in that layout (as decoded JPEG and PNG
// images are), with their stride and size set: the image's size, or less for a picture decoded
// reduced. NULL otherwise (then drawBGRA). Valid while the image lives.
const uint8_t *storedBGRA(CGImageRef image, size_t *bytesPerRow, size_t *width, size_t *height);

// A PNG file of the image (RGBA, straight alpha). False for NULL or when libpng fails.
bool encodePNG(CGImageRef image, std::vector<uint8_t> &file);

} // namespace fakecg
