// Pictures whose headers claim any size, cheap to make however large, for tests of what the host
// tools and the platform do with them; and the peak memory of the test's own process. Link zlib.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <fstream>
#include <string>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZERLAN_TEST_SANITIZED 1
#endif
#endif

namespace zerlan::testing {

// Under AddressSanitizer or ThreadSanitizer, whose allocators report running out of memory
// instead of failing the allocation, and whose shadow memory adds to what a process has resident.
#ifdef ZERLAN_TEST_SANITIZED
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// A JPEG whose frame header is rewritten to claim width x height: the header reads as that size,
// and the scan, far too short for it, decodes grey as a truncated one does. Unchanged (and a
// failure to claim anything) when it has no baseline or progressive frame header.
inline std::string claimSize(std::string jpeg, int width, int height)
{
    for (size_t i = 2; i + 9 < jpeg.size();) {
        auto byte = [&](size_t at) { return static_cast<uint8_t>(jpeg[at]); };
        size_t length = size_t(byte(i + 2)) << 8 | byte(i + 3);
        if (byte(i + 1) == 0xC0 || byte(i + 1) == 0xC2) {
            jpeg[i + 5] = char(height >> 8), jpeg[i + 6] = char(height);
            jpeg[i + 7] = char(width >> 8), jpeg[i + 8] = char(width);
            break;
        }
        i += 2 + length;
    }
    return jpeg;
}

// A black PNG of width x height one-bit grey pixels: a real picture that any decoder decodes
// whole, a few kilobytes however large.
inline std::string blackPng(uint32_t width, uint32_t height)
{
    auto be32 = [](uint32_t v) {
        std::string out;
        for (int shift = 24; shift >= 0; shift -= 8)
            out += char(v >> shift);
        return out;
    };
    auto chunk = [&](const std::string &type, const std::string &data) {
        std::string body = type + data;
        return be32(uint32_t(data.size())) + body
            + be32(uint32_t(crc32(0, reinterpret_cast<const Bytef *>(body.data()), uInt(body.size()))));
    };
    // Bit depth 1, colour type 0 (grey), deflate, no filter choice, no interlace.
    std::string header = be32(width) + be32(height) + std::string("\x01\x00\x00\x00\x00", 5);
    // Each row: filter type 0, then (width + 7) / 8 zero bytes, deflated row by row.
    std::string row(1 + (width + 7) / 8, '\0');
    z_stream z{};
    deflateInit(&z, 1);
    std::string idat;
    char out[1 << 16];
    for (uint32_t y = 0; y <= height; ++y) {
        bool last = y == height;
        z.next_in = last ? nullptr : reinterpret_cast<Bytef *>(row.data());
        z.avail_in = last ? 0 : uInt(row.size());
        do {
            z.next_out = reinterpret_cast<Bytef *>(out);
            z.avail_out = sizeof out;
            deflate(&z, last ? Z_FINISH : Z_NO_FLUSH);
            idat.append(out, sizeof out - z.avail_out);
        } while (z.avail_out == 0);
    }
    deflateEnd(&z);
    return std::string("\x89PNG\r\n\x1A\n", 8) + chunk("IHDR", header) + chunk("IDAT", idat) + chunk("IEND", "");
}

// The most this process has had resident since the last reset, in bytes (Linux).
inline size_t peakResidentBytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0)
            return std::stoul(line.substr(6)) * 1024;
    return 0;
}

inline void resetPeakResident()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

} // namespace zerlan::testing
