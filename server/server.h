// The frame server behind `zerlan serve`.
//
// GET /frame answers the current frame as "HTTP/1.1 200 OK" with Content-Type image/jpeg,
// Content-Length and Connection: close, then closes the connection: the injected library reads
// the body until the close and ignores the headers. GET / is the control panel (the live view
// fetches GET /frame?view=panel, counted apart from the app's fetches), GET /status its figures
// as JSON, POST /control switches the source or the QR payload at run time, POST /upload serves
// a picture or video sent as the body, and GET /cameras lists the cameras. Every connection
// carries exactly one request.
//
// Serving runs on a few threads, each with an Asio io_context of its own, that share the
// listening socket (server/connection.h); frames are produced on a thread of their own, so
// encoding never holds up a request. Control requests run on a third
// kind of thread, so opening a large video does not stall the connections of one serving thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "server/frame_store.h"
#include "server/log.h"
#include "server/result.h"
#include "server/sources.h"

namespace zerlan::server {

inline constexpr uint16_t kDefaultPort = 47654;

struct ServerOptions {
  std::string host = "127.0.0.1";
  uint16_t port = kDefaultPort;  // 0: the system picks a free port (see Server::port)
  unsigned threads = 0;          // serving threads; 0: one per core
  // A client must send its whole request within this time of connecting, and must keep
  // reading the response (no gap longer than this).
  std::chrono::milliseconds timeout{5000};
  size_t maxHeadBytes = 8192;       // request line and headers, blank line included
  size_t maxBodyBytes = 64 * 1024;  // POST /control body
  // Control bodies being received or waiting to be applied, all together, and the same for
  // uploads (two of the largest); more are refused with 503 until some are done.
  size_t maxPendingBodyBytes = 8u << 20;
  size_t maxPendingUploadBytes = 128u << 20;
  size_t maxClients = 10000;        // connections open at once; more are refused with 503
  bool logRequests = false;         // a log line for every answer (zerlan serve -v)
  // When the source can never give a frame (a stream that ended before its first); the server
  // keeps answering, with 503 for GET /frame. Called on a thread of the server's.
  NothingToServe nothingToServe;
};

struct ServerTotals {
  uint64_t framesServed = 0;  // GET /frame answered with a frame
  uint64_t requests = 0;      // responses of any kind, errors included
  uint64_t errors = 0;        // 4xx and 5xx responses, and clients dropped for time-outs
  double uptimeSeconds = 0;
};

class Server {
 public:
  // Opens the source, binds, and starts serving. Logs one line with the address and the
  // source. Fails with a message that says what to do (port in use, bad file, ...).
  static Result<std::unique_ptr<Server>> start(const ServerOptions& options,
                                               const SourceChoice& source,
                                               const FrameSettings& settings, Logger log);
  // The same with a source already opened by the caller (so it can tell a bad file from a
  // busy port).
  static Result<std::unique_ptr<Server>> start(const ServerOptions& options,
                                               std::unique_ptr<Source> source,
                                               const FrameSettings& settings, Logger log);
  ~Server();  // stops
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Stops serving (open connections are closed) and stops the source. Idempotent.
  void stop();

  uint16_t port() const;
  std::string url() const;  // for example "http://127.0.0.1:47654/"

  // What GET /status answers.
  nlohmann::json status() const;

  // What POST /control does with a parsed body: applies it whole or not at all, and answers
  // the new status or an error that says what is wrong. When it returns, GET /frame already
  // serves a frame that shows the change (a new source's first frame, the new QR payload).
  Result<nlohmann::json> control(const nlohmann::json& request);

  // What POST /control does with the bytes of its body: parses them (any JSON error is an
  // error result, never an exception) and applies them as control() does.
  Result<nlohmann::json> controlBody(std::string_view body);

  ServerTotals totals() const;
  const FrameStore& frames() const;

  struct Impl;

 private:
  explicit Server(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace zerlan::server
