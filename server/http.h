// The small part of HTTP/1.x the frame server speaks: one request per connection, answered and
// closed. The parser is a pure function over the bytes received so far, so the serving loop can
// call it after every read and so tests can probe its limits directly.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zerlan::server::http {

struct Request {
  std::string_view method;
  std::string_view target;
  std::string_view path;  // the target without query, and without scheme and authority
  // An absolute target ("http://host:port/path") names the server it is for: that authority
  // (empty when the target is a path).
  std::string_view authority;
  bool absolute = false;
  int minorVersion = 1;
  size_t headSize = 0;  // bytes up to and including the blank line
  size_t contentLength = 0;
  bool expectContinue = false;  // "Expect: 100-continue": the client waits before its body
  // Header values, empty when the header is absent (then the has* flag says so).
  std::string_view host;
  bool hasHost = false;
  std::string_view origin;
  bool hasOrigin = false;
  std::string_view contentType;
};

enum class Parse { Incomplete, Complete, Error };

struct ParseResult {
  Parse state = Parse::Incomplete;
  Request request;     // when Complete
  int status = 0;      // when Error: 400, 431, 501 or 505
  std::string reason;  // when Error: what is wrong, for the response body and the log
};

// Parses the request head at the start of `buffer`. A head of exactly `maxHead` bytes (blank
// line included) is accepted; one byte more is 431. A request line that cannot become valid is
// rejected as soon as it is seen, without waiting for the rest of the head. Lines may end in
// CRLF or a bare LF. An HTTP/1.1 (or later 1.x) request without Host, and a header that must
// come once (Host, Origin, Content-Type) given twice, are 400: a check of one value and a use
// of another could disagree.
ParseResult parseRequestHead(std::string_view buffer, size_t maxHead);

std::string_view reasonPhrase(int status);

// The value of parameter `name` in the query of `target` ("/frame?view=panel&n=3"),
// percent-decoded with '+' as a space; nothing when the query has no such parameter.
std::optional<std::string> queryParam(std::string_view target, std::string_view name);

// A complete response with Content-Length and Connection: close. `extraHeaders` are whole
// header lines, each ending in CRLF. With `headOnly` the body is left out (HEAD).
std::string response(int status, std::string_view contentType, std::string_view body,
                     std::string_view extraHeaders = {}, bool headOnly = false);

// An error answer, as the server gives every one whatever its status: JSON {"error": REASON}
// (bytes of the reason that are not UTF-8 are replaced), for scripts and the status page alike.
std::string errorResponse(int status, std::string_view reason, std::string_view extraHeaders = {},
                          bool headOnly = false);

}  // namespace zerlan::server::http
