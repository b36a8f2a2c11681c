// Helpers for the frame server tests: raw HTTP over loopback, pictures with known colours, QR
// reading, temporary folders, a running server with a recorded log, and the zerlan binary as a
// child process.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "ScriptedServer.h"
#include "server/image.h"
#include "server/server.h"

namespace zerlan::test {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

inline Clock::time_point in(Clock::duration d) { return Clock::now() + d; }

// ---- HTTP over loopback ----------------------------------------------------------------

struct Reply {
  bool ok = false;  // a status line arrived
  int status = 0;
  std::string statusLine;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
  std::string raw;
  bool closedByServer = false;  // the server closed (EOF or reset) before the deadline
};

// A connected blocking TCP socket to 127.0.0.1:port, or -1.
int connectTo(uint16_t port);

// Sends everything to a socket or pipe; returns false if it broke first.
bool sendAll(int fd, std::string_view bytes);

// Reads until the server closes or `deadline`, then parses what arrived.
Reply readReply(int fd, Clock::time_point deadline);

// Reads an interim answer such as "100 Continue", up to its blank line, or what came by
// `deadline`.
std::string readInterim(int fd, Clock::time_point deadline);

// One request on a fresh connection: send `raw`, read until close.
Reply roundTrip(uint16_t port, std::string_view raw, Clock::duration limit = 5s);

inline Reply get(uint16_t port, const std::string& path) {
  return roundTrip(port,
                   "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
}

Reply post(uint16_t port, const std::string& path, const std::string& body);

// GET /status as JSON; null (and the test failed) when the answer is not.
nlohmann::json statusOf(uint16_t port);

// Polls `condition` until it holds or `limit` passes; returns whether it held.
template <class F>
bool eventually(F condition, Clock::duration limit = 10s) {
  auto deadline = in(limit);
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// Whether `text` holds `part`, word for word; a failure shows the whole text.
::testing::AssertionResult hasPart(const char* textExpr, const char* partExpr, std::string_view text,
                                   std::string_view part);
::testing::AssertionResult lacksPart(const char* textExpr, const char* partExpr, std::string_view text,
                                     std::string_view part);
#define EXPECT_HAS(text, part) EXPECT_PRED_FORMAT2(::zerlan::test::hasPart, text, part)
#define ASSERT_HAS(text, part) ASSERT_PRED_FORMAT2(::zerlan::test::hasPart, text, part)
#define EXPECT_LACKS(text, part) EXPECT_PRED_FORMAT2(::zerlan::test::lacksPart, text, part)

// The reason an error answer gives: the server answers every error as JSON {"error": REASON}.
// Nothing when the answer is not that (another type, no JSON, no "error" text).
std::optional<std::string> errorReason(const Reply& reply);

// Appends what arrives on `fd` to `got` until `done(got)` holds or `deadline` passes; true when
// the peer closed (EOF or reset) first.
bool readUntil(int fd, Clock::time_point deadline, std::string& got,
               const std::function<bool(const std::string&)>& done = nullptr);

// True when the server closes `fd` (EOF or reset) before `deadline`; bytes that arrive first
// are appended to `received` if given.
bool waitForClose(int fd, Clock::time_point deadline, std::string* received = nullptr);

// A loopback server that reads each request's head and answers it with `answer`: another
// program on a port, or a frame server that misbehaves in one exact way.
struct Answering : zerlan::testing::ScriptedServer {
  explicit Answering(std::string answer)
      : ScriptedServer([answer = std::move(answer)](int fd) {
          readHead(fd);
          writeAll(fd, answer);
          return true;
        }) {}
};

// ---- pictures ------------------------------------------------------------------------------

struct Rgb {
  int r, g, b;
};

std::string solidJpeg(int width, int height, Rgb color, int quality = 90);

// The colour at the centre of a JPEG (averaged over a small square).
Rgb centreColour(std::string_view jpeg);

// Which of `palette` is closest to `c`.
size_t nearest(Rgb c, const std::vector<Rgb>& palette);

server::Size jpegSizeOf(std::string_view jpeg);

// The text of the QR code in a JPEG, or nothing.
std::optional<std::string> readQr(std::string_view jpeg);

// ---- files and processes -----------------------------------------------------------------

class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::filesystem::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  std::string write(const std::string& name, std::string_view bytes) const;

 private:
  std::filesystem::path path_;
};

std::string readFile(const std::string& path);

// Runs a shell command; returns its exit status, fails the test when it cannot run.
int shell(const std::string& command);

// A PNG of one colour made with the ffmpeg command.
std::string makePng(const TempDir& dir, const std::string& name, int width, int height, Rgb color);

// A video whose frames are `colors` in order, at `fps`, made with the ffmpeg command and the
// encoder options `codec`.
std::string makeVideo(const TempDir& dir, const std::string& name, const std::vector<Rgb>& colors,
                      int fps, int width, int height,
                      const std::string& codec = "-c:v mpeg4 -q:v 2");

// ---- an in-process server -------------------------------------------------------------

// Log lines, recorded for tests that check what the server reported.
class LogRecorder {
 public:
  server::Logger logger();
  std::vector<std::string> lines() const;
  bool contains(const std::string& part) const;
  size_t count(const std::string& part) const;
  bool waitFor(const std::string& part, Clock::time_point deadline) const;

 private:
  mutable std::mutex mu_;
  mutable std::condition_variable cv_;
  std::vector<std::string> lines_;
};

struct RunningServer {
  std::shared_ptr<LogRecorder> log = std::make_shared<LogRecorder>();
  std::unique_ptr<server::Server> server;
  uint16_t port() const { return server->port(); }
};

// A server on an ephemeral port; throws (which fails the test) when it cannot start.
RunningServer startServer(const server::SourceChoice& choice = server::SourceChoice::pattern(),
                          server::FrameSettings settings = {}, server::ServerOptions options = {});

// ---- the zerlan binary ------------------------------------------------------------------

class Child {
 public:
  // Starts `zerlan ARGS...` with a pipe on standard input and standard error captured.
  explicit Child(const std::vector<std::string>& args) : Child(ZERLAN_BIN, args) {}
  // Starts `program ARGS...` the same way (for example a shell that sets limits first).
  Child(const std::string& program, const std::vector<std::string>& args);
  ~Child();

  // Waits for a line of standard error containing `part`; returns it.
  std::optional<std::string> waitForLine(const std::string& part, Clock::time_point deadline);
  std::string stderrText() const;

  // The port in the start line ("listening on http://127.0.0.1:PORT/"); throws (which fails the
  // test) when the line does not come by `deadline`.
  uint16_t waitForPort(Clock::time_point deadline);

  bool writeStdin(std::string_view bytes);
  void closeStdin();
  void signal(int signo);
  // The exit status, or nothing if it did not exit before `deadline` (then it is killed).
  std::optional<int> wait(Clock::time_point deadline);
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int stdinFd_ = -1;
  int stderrFd_ = -1;
  std::thread reader_;
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::string err_;
  bool eof_ = false;
  std::optional<int> status_;
};

}  // namespace zerlan::test
