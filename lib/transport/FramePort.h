// Which port the library fetches frames from. Parallel UI-test runs on one Mac give each
// Simulator's app its own frame server: `zerlan launch --port N`, or
// SIMCTL_CHILD_ZERLAN_FRAME_PORT=N, sets ZERLAN_FRAME_PORT in the app's environment.
#pragma once

#include <cstdint>
#include <optional>

// ZERLAN_FRAME_PORT when it names a port, else 47654. The environment is read once, on the
// first call (the library's initialiser makes that call at load); any thread may call it.
uint16_t ZerlanFramePort();

namespace zerlan::transport {

// The port a ZERLAN_FRAME_PORT value names: decimal digits only, 1 to 65535. Nothing for null,
// an empty text, signs, spaces or anything out of range.
std::optional<uint16_t> parseFramePort(const char *value);

// The ZERLAN_FRAME_PORT value that ZerlanFramePort set aside because it names no port, or null
// when the variable was unset or named one. Stable for the life of the process.
const char *ignoredFramePort();

} // namespace zerlan::transport
