// Log lines of the frame server. A Logger receives one complete line (no newline) and may be
// called from any thread at the same time.
#pragma once

#include <functional>
#include <string>

namespace zerlan::server {

using Logger = std::function<void(const std::string& line)>;

// Writes "<prefix><line>\n" to standard error with a single write, so lines from different
// threads never interleave.
Logger stderrLogger(std::string prefix);

}  // namespace zerlan::server
