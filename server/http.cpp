#include "server/http.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>

namespace zerlan::server::http {

namespace {

bool isTchar(unsigned char c) {
  if (c >= '0' && c <= '9') return true;
  if ((c | 0x20) >= 'a' && (c | 0x20) <= 'z') return true;
  return c && std::strchr("!#$%&'*+-.^_`|~", c) != nullptr;
}

bool iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if ((a[i] | 0x20) != (b[i] | 0x20)) return false;
  }
  return true;
}

ParseResult error(int status, std::string reason) {
  ParseResult r;
  r.state = Parse::Error;
  r.status = status;
  r.reason = std::move(reason);
  return r;
}

// Where the head ends (just past the blank line), searching only the first `limit` bytes.
size_t findHeadEnd(std::string_view buffer, size_t limit) {
  size_t n = std::min(buffer.size(), limit);
  const char* data = buffer.data();
  for (size_t p = 0; p < n;) {
    const void* lf = std::memchr(data + p, '\n', n - p);
    if (!lf) return std::string_view::npos;
    size_t at = static_cast<const char*>(lf) - data;
    if (at + 1 < n && data[at + 1] == '\n') return at + 2;
    if (at + 2 < n && data[at + 1] == '\r' && data[at + 2] == '\n') return at + 3;
    p = at + 1;
  }
  return std::string_view::npos;
}

std::string_view chompLine(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

// Checks what there is of a request line. `complete` says whether the line ended.
ParseResult checkRequestLine(std::string_view line, bool complete, Request& out) {
  size_t sp1 = line.find(' ');
  std::string_view method = line.substr(0, sp1);
  for (unsigned char c : method) {
    if (!isTchar(c)) {
      if (c == 0x16) {
        return error(400, "this server speaks plain HTTP: use http://, not https://");
      }
      return error(400, "malformed request line: the method has a character that is not allowed");
    }
  }
  if (sp1 == std::string_view::npos) {
    if (!complete) return {};
    return error(400, "malformed request line: expected METHOD /path HTTP/1.1");
  }
  if (method.empty()) return error(400, "malformed request line: it starts with a space");
  size_t sp2 = line.find(' ', sp1 + 1);
  std::string_view target =
      line.substr(sp1 + 1, sp2 == std::string_view::npos ? sp2 : sp2 - sp1 - 1);
  for (unsigned char c : target) {
    if (c <= 0x20 || c >= 0x7F) {
      return error(400, "malformed request line: the target has a character that is not allowed");
    }
  }
  if (sp2 == std::string_view::npos) {
    if (!complete) return {};
    return error(400, "malformed request line: expected METHOD /path HTTP/1.1");
  }
  if (target.empty()) return error(400, "malformed request line: the target is empty");
  std::string_view version = line.substr(sp2 + 1);
  std::string_view expected = "HTTP/1.1";
  for (size_t i = 0; i < version.size() && i < expected.size(); ++i) {
    bool digit = version[i] >= '0' && version[i] <= '9';
    bool ok = (i == 5 || i == 7) ? digit : version[i] == expected[i];
    if (!ok) return error(400, "malformed request line: the version is not HTTP/1.x");
  }
  if (version.size() > expected.size()) {
    return error(400, "malformed request line: the version is not HTTP/1.x");
  }
  if (!complete) return {};
  if (version.size() != expected.size()) {
    return error(400, "malformed request line: the version is not HTTP/1.x");
  }
  if (version[5] != '1') return error(505, "only HTTP/1.0 and HTTP/1.1 are supported");

  std::string_view path = target;
  if (path.starts_with("http://") || path.starts_with("https://")) {
    std::string_view rest = path.substr(path.find("//") + 2);
    size_t end = rest.find_first_of("/?#");
    out.authority = rest.substr(0, end);
    out.absolute = true;
    path = end != std::string_view::npos && rest[end] == '/' ? rest.substr(end)
                                                             : std::string_view("/");
  } else if (path != "*" && path.front() != '/') {
    return error(400, "malformed request line: the target must start with /");
  }
  path = path.substr(0, path.find_first_of("?#"));
  out.method = method;
  out.target = target;
  out.path = path;
  out.minorVersion = version[7] - '0';
  ParseResult r;
  r.state = Parse::Complete;
  return r;
}

}  // namespace

ParseResult parseRequestHead(std::string_view buffer, size_t maxHead) {
  Request req;
  size_t end = findHeadEnd(buffer, maxHead);

  size_t firstLf = buffer.find('\n');
  std::string_view firstLine = buffer.substr(0, firstLf);
  bool lineComplete = firstLf != std::string_view::npos;
  if (lineComplete) {
    firstLine = chompLine(firstLine);
  } else if (size_t cr = firstLine.find('\r'); cr != std::string_view::npos) {
    // A CR as the last byte received may yet be followed by its LF.
    if (cr + 1 < firstLine.size()) {
      return error(400, "malformed request line: a CR that is not followed by LF");
    }
    firstLine.remove_suffix(1);
  }
  ParseResult line = checkRequestLine(firstLine, lineComplete, req);
  if (line.state == Parse::Error) return line;

  if (end == std::string_view::npos) {
    if (buffer.size() >= maxHead) {
      return error(431, "the request head is larger than " + std::to_string(maxHead) + " bytes");
    }
    return {};
  }

  req.headSize = end;
  bool haveLength = false;
  bool haveType = false;
  std::string_view rest = buffer.substr(firstLf + 1, end - firstLf - 1);
  while (!rest.empty()) {
    size_t lf = rest.find('\n');
    std::string_view field = chompLine(rest.substr(0, lf));
    rest.remove_prefix(lf + 1);
    if (field.empty()) break;  // the blank line
    if (field.find('\r') != std::string_view::npos) {
      return error(400, "malformed header: a CR that is not followed by LF");
    }
    if (field.front() == ' ' || field.front() == '\t') {
      return error(400, "malformed header: folded header lines are not allowed");
    }
    size_t colon = field.find(':');
    if (colon == std::string_view::npos || colon == 0) {
      return error(400, "malformed header: expected Name: value");
    }
    std::string_view name = field.substr(0, colon);
    for (unsigned char c : name) {
      if (!isTchar(c)) {
        return error(400, "malformed header: the name \"" + std::string(name) +
                              "\" has a character that is not allowed");
      }
    }
    std::string_view value = field.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
      value.remove_prefix(1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
    for (unsigned char c : value) {
      if ((c < 0x20 && c != '\t') || c == 0x7F) {
        return error(400, "malformed header: the value of " + std::string(name) +
                              " has a control character");
      }
    }
    if (iequals(name, "Content-Length")) {
      size_t length = 0;
      auto [p, ec] = std::from_chars(value.data(), value.data() + value.size(), length);
      if (value.empty() || ec != std::errc() || p != value.data() + value.size() ||
          value.size() > 18) {
        return error(400, "malformed header: Content-Length is not a number");
      }
      if (haveLength && length != req.contentLength) {
        return error(400, "malformed header: two different Content-Length values");
      }
      haveLength = true;
      req.contentLength = length;
    } else if (iequals(name, "Host")) {
      if (req.hasHost) return error(400, "malformed header: more than one Host");
      req.hasHost = true;
      req.host = value;
    } else if (iequals(name, "Origin")) {
      if (req.hasOrigin) return error(400, "malformed header: more than one Origin");
      req.hasOrigin = true;
      req.origin = value;
    } else if (iequals(name, "Content-Type")) {
      if (haveType) return error(400, "malformed header: more than one Content-Type");
      haveType = true;
      req.contentType = value;
    } else if (iequals(name, "Expect")) {
      req.expectContinue = iequals(value, "100-continue");
    } else if (iequals(name, "Transfer-Encoding")) {
      return error(501, "Transfer-Encoding is not supported: send the body with Content-Length");
    }
  }

  if (req.minorVersion >= 1 && !req.hasHost) {
    return error(400, "an HTTP/1.1 request must say which server it is for: add a Host header "
                      "(Host: 127.0.0.1)");
  }

  ParseResult r;
  r.state = Parse::Complete;
  r.request = req;
  return r;
}

std::string_view reasonPhrase(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 204:
      return "No Content";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 409:
      return "Conflict";
    case 413:
      return "Content Too Large";
    case 415:
      return "Unsupported Media Type";
    case 421:
      return "Misdirected Request";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "Unknown";
  }
}

std::optional<std::string> queryParam(std::string_view target, std::string_view name) {
  size_t q = target.find('?');
  if (q == std::string_view::npos) return std::nullopt;
  std::string_view query = target.substr(q + 1);
  query = query.substr(0, query.find('#'));
  while (!query.empty()) {
    std::string_view pair = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(query.size(), pair.size() + 1));
    size_t eq = pair.find('=');
    if (pair.substr(0, eq) != name) continue;
    std::string_view raw = eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1);
    std::string value;
    for (size_t i = 0; i < raw.size(); ++i) {
      auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f') return (c | 0x20) - 'a' + 10;
        return -1;
      };
      if (raw[i] == '+') {
        value += ' ';
      } else if (raw[i] == '%' && i + 2 < raw.size() && hex(raw[i + 1]) >= 0 &&
                 hex(raw[i + 2]) >= 0) {
        value += static_cast<char>(hex(raw[i + 1]) * 16 + hex(raw[i + 2]));
        i += 2;
      } else {
        value += raw[i];
      }
    }
    return value;
  }
  return std::nullopt;
}

std::string response(int status, std::string_view contentType, std::string_view body,
                     std::string_view extraHeaders, bool headOnly) {
  std::string out;
  out.reserve(128 + extraHeaders.size() + (headOnly ? 0 : body.size()));
  out.append("HTTP/1.1 ").append(std::to_string(status)).append(" ").append(reasonPhrase(status));
  out.append("\r\nContent-Type: ").append(contentType);
  out.append("\r\nContent-Length: ").append(std::to_string(body.size()));
  out.append("\r\nConnection: close\r\n");
  out.append(extraHeaders);
  out.append("\r\n");
  if (!headOnly) out.append(body);
  return out;
}

std::string errorResponse(int status, std::string_view reason, std::string_view extraHeaders,
                          bool headOnly) {
  std::string body = nlohmann::json{{"error", reason}}.dump(
                         -1, ' ', false, nlohmann::json::error_handler_t::replace) +
                     "\n";
  return response(status, "application/json", body, extraHeaders, headOnly);
}

}  // namespace zerlan::server::http
