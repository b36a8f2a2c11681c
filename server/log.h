// Log lines of the frame server. A Logger receives one complete line (no newline) and may be
// called from any thread at the same time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace zerlan::server {

using Logger = std::function<void(const std::string& line)>;

// "1 frame", "3 frames": a count and its noun, singular for exactly one. `many` defaults to the
// noun with an "s".
std::string counted(uint64_t n, std::string_view one, std::string_view many = {});

// Writes "<prefix><line>\n" to standard error with a single write, so lines from different
// threads never interleave. Control characters in the line are escaped (see escapeControls).
Logger stderrLogger(std::string prefix);

// The same to another open descriptor, a log file for example; the caller keeps it open.
Logger descriptorLogger(int fd, std::string prefix);

// The text with every control character written as \xNN (C0, DEL and the C1 controls in their
// UTF-8 form) and backslashes doubled: a QR payload or a path from a client can neither forge a
// log line nor send escape sequences to the terminal. Other UTF-8 text stays as it is.
std::string escapeControls(std::string_view text);

}  // namespace zerlan::server
