// The most bytes the library takes for one frame: a larger answer is no frame. Plain C++, so that
// the host command's frame server and probe can hold pictures to the same limit.
#pragma once

namespace zerlan::transport {

inline constexpr unsigned long kMaxFrameBytes = 32UL << 20;

} // namespace zerlan::transport
