// The serving side of the frame server: the listening socket, the serving threads and the
// connections on them, on Asio (epoll on Linux, kqueue on macOS).
//
// Each serving thread runs an io_context of its own and accepts from the one listening socket,
// so a connection lives on one thread from accept to close and needs no locks. A connection
// carries one request: it is read and checked (limits, Host, Origin, Content-Type), answered
// and closed. POST /control and POST /upload bodies, and GET /cameras, go to the server's control
// thread; the answer comes back to the connection's own thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "server/faults.h"
#include "server/frame_store.h"
#include "server/log.h"
#include "server/result.h"
#include "server/server.h"

namespace zerlan::server {

struct alignas(64) Counter {
  std::atomic<uint64_t> value{0};
  void add() { value.fetch_add(1, std::memory_order_relaxed); }
  uint64_t get() const { return value.load(std::memory_order_relaxed); }
};

// What the app saw of the feed: when the last frame was served, and which one.
struct FetchTally {
  void record(uint64_t index) {
    lastIndex.store(index, std::memory_order_relaxed);
    lastAt.store(std::chrono::system_clock::now().time_since_epoch().count(),
                 std::memory_order_release);
  }
  std::atomic<std::chrono::system_clock::rep> lastAt{0};  // 0: nothing served yet
  std::atomic<uint64_t> lastIndex{0};                     // the source's frame index
};

// Errors come from clients, and a broken or hostile client can make thousands a second: logs
// the first few of every ten seconds and counts the rest. Any thread may call it.
class ErrorLog {
 public:
  explicit ErrorLog(Logger log) : log_(std::move(log)) {}
  void operator()(const std::string& line);

 private:
  using Clock = std::chrono::steady_clock;
  Logger log_;
  std::mutex mu_;
  Clock::time_point windowStart_ = Clock::now();
  int logged_ = 0;
  uint64_t suppressed_ = 0;
};

// The bytes of request bodies being received or waiting for the control thread, all clients
// together, within a limit: thousands of clients each holding a large body cannot take the
// server's memory. Any thread may use it.
class BodyBudget {
 public:
  explicit BodyBudget(size_t limit) : limit_(limit) {}
  // Takes `bytes` unless that would pass the limit.
  bool take(size_t bytes);
  void give(size_t bytes);
  size_t held() const { return held_.load(std::memory_order_relaxed); }
  // The most held at once since the start or the last reset.
  size_t peak() const { return peak_.load(std::memory_order_relaxed); }
  void resetPeak() { peak_.store(held(), std::memory_order_relaxed); }

 private:
  const size_t limit_;
  std::atomic<size_t> held_{0};
  std::atomic<size_t> peak_{0};
};

// Raises `peak` to `value` if it is lower.
template <class T>
void raisePeak(std::atomic<T>& peak, T value) {
  T seen = peak.load(std::memory_order_relaxed);
  while (value > seen && !peak.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
  }
}

// A request handed to the control thread: a POST /control body, a file dropped onto the status
// page (POST /upload), or the list of cameras (GET /cameras, which may open each device).
// `reply` takes the complete HTTP response and sends it on the connection's own thread; call it
// exactly once.
struct ControlJob {
  enum class Kind { Control, Upload, Cameras };
  Kind kind = Kind::Control;
  std::string request;  // "POST /control", for the log
  std::string body;
  std::string contentType;  // Upload: the file's type
  std::string name;         // Upload: the file's name, from ?name=
  std::function<void(std::string response)> reply;
};

// What the serving threads use of the server. Every member is safe to use from any thread.
struct ServingContext {
  const ServerOptions& options;
  FrameStore& store;
  ErrorLog& errorLog;
  Counter& requests;      // responses of any kind
  Counter& framesServed;  // GET /frame answered with a frame
  Counter& panelFrames;   // the same for the status page's live view (GET /frame?view=panel)
  Counter& errors;        // 4xx and 5xx, and clients dropped for time-outs
  std::atomic<int64_t>& clients;
  std::atomic<int64_t>& peakClients;  // the most connections open at once, reset by the server
  BodyBudget& bodies;   // POST /control
  BodyBudget& uploads;  // POST /upload
  std::function<std::string()> statusJson;  // the body of GET /status
  std::function<void(ControlJob)> submitControl;
  std::function<void()> everySecond;  // called about once a second on one serving thread
  FetchTally& fetches;    // GET /frame answered with a frame
  FaultInjector& faults;  // consulted for every GET /frame
  const Logger& log;      // every answer, when options.logRequests
};

// Whether `authority` (a Host value, or the host and port of an Origin) names this server:
// 127.0.0.1, localhost, [::1], the configured host or `localAddress` (the address the client
// reached), each with `port` or, unless `portRequired`, with no port.
bool namesThisServer(std::string_view authority, uint16_t port, std::string_view configuredHost,
                     std::string_view localAddress, bool portRequired);

class Listener {
 public:
  // Binds and listens on options.host and options.port. Fails with one line that names the
  // cause and what to do (port in use, no permission, address not on this machine); when a
  // server holds the port, the error's systemError is EADDRINUSE.
  static Result<std::unique_ptr<Listener>> open(const ServingContext& context);
  ~Listener();  // stops
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  uint16_t port() const;

  // Starts the serving threads (options.threads, or one per core).
  void start();
  // Closes the listening socket and every connection, and joins the threads. Idempotent.
  void stop();

  struct Impl;

 private:
  explicit Listener(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace zerlan::server
