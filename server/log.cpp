#include "server/log.h"

#include <unistd.h>

namespace zerlan::server {

Logger stderrLogger(std::string prefix) {
  return [prefix = std::move(prefix)](const std::string& line) {
    std::string out = prefix + line + "\n";
    const char* p = out.data();
    size_t left = out.size();
    while (left > 0) {
      ssize_t n = ::write(STDERR_FILENO, p, left);
      if (n <= 0) return;
      p += n;
      left -= static_cast<size_t>(n);
    }
  };
}

}  // namespace zerlan::server
