// The request-head parser on its own: verdicts, limits at the exact boundary, and requests that
// arrive a byte at a time.
#include <gtest/gtest.h>

#include "server/http.h"

namespace zerlan::server::http {
namespace {

struct Case {
  const char* name;
  std::string bytes;
  Parse state;
  int status;  // when Error
};

TEST(HttpParser, Verdicts) {
  const Case cases[] = {
      {"library request", "GET /frame HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n",
       Parse::Complete, 0},
      {"HTTP/1.0 without headers", "GET /frame HTTP/1.0\r\n\r\n", Parse::Complete, 0},
      {"bare LF line ends", "GET /frame HTTP/1.1\nHost: x\n\n", Parse::Complete, 0},
      {"head only so far", "GET /frame HTTP/1.1\r\nHost: x\r\n", Parse::Incomplete, 0},
      {"request line so far", "GET /fra", Parse::Incomplete, 0},
      {"CR at the end of what arrived", "GET /frame HTTP/1.1\r", Parse::Incomplete, 0},
      {"empty", "", Parse::Incomplete, 0},
      {"no version", "GET /frame\r\n\r\n", Parse::Error, 400},
      {"two spaces", "GET  /frame HTTP/1.1\r\n\r\n", Parse::Error, 400},
      {"relative target", "GET frame HTTP/1.1\r\n\r\n", Parse::Error, 400},
      {"lower-case protocol", "GET /frame http/1.1\r\n\r\n", Parse::Error, 400},
      {"HTTP/2", "GET /frame HTTP/2.0\r\n\r\n", Parse::Error, 505},
      {"bad method byte, no line end yet", "G(T /frame", Parse::Error, 400},
      {"TLS handshake", std::string("\x16\x03\x01\x02\x00\x01", 6), Parse::Error, 400},
      {"CR inside the request line", "GET /fr\rame HTTP/1.1\r\n\r\n", Parse::Error, 400},
      {"header without colon", "GET / HTTP/1.1\r\nHost\r\n\r\n", Parse::Error, 400},
      {"space before colon", "GET / HTTP/1.1\r\nHost : x\r\n\r\n", Parse::Error, 400},
      {"folded header", "GET / HTTP/1.1\r\nA: b\r\n c\r\n\r\n", Parse::Error, 400},
      {"control byte in value", "GET / HTTP/1.1\r\nA: b\x01\r\n\r\n", Parse::Error, 400},
      {"length not a number", "POST /control HTTP/1.1\r\nContent-Length: 1x\r\n\r\n", Parse::Error,
       400},
      {"negative length", "POST /control HTTP/1.1\r\nContent-Length: -1\r\n\r\n", Parse::Error,
       400},
      {"two different lengths",
       "POST /control HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n", Parse::Error,
       400},
      {"chunked body", "POST /control HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n",
       Parse::Error, 501},
      // Which server a request is for, and what its body is, must be said once.
      {"HTTP/1.1 without Host", "GET /frame HTTP/1.1\r\nConnection: close\r\n\r\n", Parse::Error,
       400},
      {"a later HTTP/1.x without Host", "GET /frame HTTP/1.3\r\n\r\n", Parse::Error, 400},
      {"two Content-Types",
       "POST /control HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
       "content-type: text/plain\r\n\r\n",
       Parse::Error, 400},
      {"two Origins", "GET / HTTP/1.1\r\nHost: x\r\nOrigin: http://x\r\nOrigin: http://x\r\n\r\n",
       Parse::Error, 400},
  };
  for (const Case& c : cases) {
    ParseResult r = parseRequestHead(c.bytes, 8192);
    EXPECT_EQ(r.state, c.state) << c.name << ": " << r.reason;
    if (c.state == Parse::Error) {
      EXPECT_EQ(r.status, c.status) << c.name;
      EXPECT_FALSE(r.reason.empty()) << c.name;
    }
  }
}

TEST(HttpParser, FieldsOfACompleteRequest) {
  std::string bytes =
      "POST http://127.0.0.1:47654/control?x=1 HTTP/1.0\r\ncontent-length: 7\r\n\r\n{\"a\":1}";
  ParseResult r = parseRequestHead(bytes, 8192);
  ASSERT_EQ(r.state, Parse::Complete) << r.reason;
  EXPECT_EQ(r.request.method, "POST");
  EXPECT_EQ(r.request.path, "/control");  // scheme, authority and query stripped
  EXPECT_EQ(r.request.minorVersion, 0);
  EXPECT_EQ(r.request.contentLength, 7u);
  EXPECT_EQ(bytes.substr(r.request.headSize), "{\"a\":1}");

  EXPECT_TRUE(r.request.absolute);
  EXPECT_EQ(r.request.authority, "127.0.0.1:47654");

  ParseResult cacheBuster = parseRequestHead("GET /frame?n=12 HTTP/1.1\r\nHost: x\r\n\r\n", 8192);
  ASSERT_EQ(cacheBuster.state, Parse::Complete);
  EXPECT_EQ(cacheBuster.request.path, "/frame");
  EXPECT_EQ(cacheBuster.request.target, "/frame?n=12");
  EXPECT_FALSE(cacheBuster.request.absolute);
  EXPECT_EQ(cacheBuster.request.authority, "");

  // Absolute targets: the authority ends at the path, the query or the fragment, and a target
  // without a path (an empty authority included, as the fuzzer sent it) stands for the root.
  struct Absolute { std::string target, authority, path; };
  const Absolute absolutes[] = {
      {"http://?x=1", "", "/"},
      {"https://localhost", "localhost", "/"},
      {"http://evil.example?a=/frame", "evil.example", "/"},
      {"http://[::1]:80#x/y", "[::1]:80", "/"},
      {"http://user@127.0.0.1/status", "user@127.0.0.1", "/status"},
  };
  for (const Absolute& a : absolutes) {
    const std::string head = "GET " + a.target + " HTTP/1.0\nHost: 127.0.0.1\n\n";
    ParseResult p = parseRequestHead(head, 8192);
    ASSERT_EQ(p.state, Parse::Complete) << a.target << ": " << p.reason;
    EXPECT_TRUE(p.request.absolute) << a.target;
    EXPECT_EQ(p.request.authority, a.authority) << a.target;
    EXPECT_EQ(p.request.path, a.path) << a.target;
  }
}

// A head of exactly the limit is accepted; one byte more is 431, whether the blank line has
// arrived or not.
TEST(HttpParser, HeadLimitBoundary) {
  const size_t limit = 256;
  auto headOf = [](size_t total) {
    std::string start = "GET /frame HTTP/1.1\r\nHost: x\r\nX-Pad: ";
    std::string end = "\r\n\r\n";
    return start + std::string(total - start.size() - end.size(), 'a') + end;
  };
  std::string atLimit = headOf(limit);
  ASSERT_EQ(atLimit.size(), limit);
  ParseResult ok = parseRequestHead(atLimit, limit);
  EXPECT_EQ(ok.state, Parse::Complete) << ok.reason;
  EXPECT_EQ(ok.request.headSize, limit);

  ParseResult over = parseRequestHead(headOf(limit + 1), limit);
  EXPECT_EQ(over.state, Parse::Error);
  EXPECT_EQ(over.status, 431);

  // Still no blank line at the limit: nothing that follows can make it fit.
  std::string unfinished = atLimit.substr(0, limit - 1);
  EXPECT_EQ(parseRequestHead(unfinished, limit).state, Parse::Incomplete);
  unfinished.push_back('a');
  EXPECT_EQ(parseRequestHead(unfinished, limit).status, 431);
}

// The serving loop parses after every read: each prefix must say Incomplete (or be rejected at
// once), never Complete early, and the whole must parse the same as in one piece.
TEST(HttpParser, ByteAtATime) {
  const std::string good = "GET /frame HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
  for (size_t n = 0; n < good.size(); ++n) {
    ParseResult r = parseRequestHead(good.substr(0, n), 8192);
    ASSERT_EQ(r.state, Parse::Incomplete) << "prefix of " << n << " bytes: " << r.reason;
  }
  EXPECT_EQ(parseRequestHead(good, 8192).request.headSize, good.size());

  const std::string bad = "GET /frame HTTP/9.9\r\n";
  size_t firstError = bad.size();
  for (size_t n = 1; n <= bad.size(); ++n) {
    if (parseRequestHead(bad.substr(0, n), 8192).state == Parse::Error) {
      firstError = n;
      break;
    }
  }
  // Rejected at the line end, before any header or blank line arrives.
  EXPECT_EQ(firstError, bad.size());
}

TEST(HttpParser, ResponseFraming) {
  std::string r = response(404, "text/plain", "nope\n", "Allow: GET\r\n");
  EXPECT_EQ(r,
            "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 5\r\n"
            "Connection: close\r\nAllow: GET\r\n\r\nnope\n");
  std::string head = response(200, "application/json", "{}", {}, true);
  EXPECT_TRUE(head.ends_with("Content-Length: 2\r\nConnection: close\r\n\r\n")) << head;
}

}  // namespace
}  // namespace zerlan::server::http
