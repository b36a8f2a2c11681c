#include "server/log.h"

#include <unistd.h>

namespace zerlan::server {

std::string escapeControls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  auto hex = [&](unsigned char c) {
    static const char digits[] = "0123456789abcdef";
    out += "\\x";
    out += digits[c >> 4];
    out += digits[c & 15];
  };
  for (size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c == '\\') {
      out += "\\\\";
    } else if (c < 0x20 || c == 0x7f) {
      hex(c);
    } else if (c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
               static_cast<unsigned char>(text[i + 1]) <= 0x9f) {
      hex(c);
      hex(static_cast<unsigned char>(text[++i]));
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::string counted(uint64_t n, std::string_view one, std::string_view many) {
  std::string text = std::to_string(n) + " ";
  if (n == 1) return text.append(one);
  return many.empty() ? text.append(one).append("s") : text.append(many);
}

Logger stderrLogger(std::string prefix) { return descriptorLogger(STDERR_FILENO, std::move(prefix)); }

Logger descriptorLogger(int fd, std::string prefix) {
  return [fd, prefix = std::move(prefix)](const std::string& line) {
    std::string out = prefix + escapeControls(line) + "\n";
    const char* p = out.data();
    size_t left = out.size();
    while (left > 0) {
      ssize_t n = ::write(fd, p, left);
      if (n <= 0) return;
      p += n;
      left -= static_cast<size_t>(n);
    }
  };
}

}  // namespace zerlan::server
