// Camera trouble on demand, for tests of an app's error handling: while a fault is set, every
// GET /frame gets it instead of the frame (the status page, /status and /control keep
// answering). A fault lasts a number of seconds, a number of requests, or until it is cleared.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "server/log.h"
#include "server/result.h"

namespace zerlan::server {

enum class FaultKind : uint8_t {
  None,
  Refuse,     // the connection is reset once the request has been read
  Stall,      // the request is read and nothing is ever sent; closed after the server's time-out
  Slow,       // the frame trickles out over about two seconds
  Garbage,    // a 200 whose body is no image
  Truncate,   // the head of a frame and half its JPEG, then the close
  HttpError,  // a 503
};

inline constexpr std::array<FaultKind, 6> kFaultKinds = {
    FaultKind::Refuse,  FaultKind::Stall,    FaultKind::Slow,
    FaultKind::Garbage, FaultKind::Truncate, FaultKind::HttpError};

std::string_view faultName(FaultKind kind);  // "refuse", ..., "http-error"; "none"

// What a control request asks for: a kind and at most one limit; neither limit means until
// cleared. Kind None clears.
struct FaultRequest {
  FaultKind kind = FaultKind::None;
  std::optional<double> seconds;
  std::optional<uint64_t> requests;
};

// Reads {"fault": KIND} with an optional "seconds" (above 0, at most a day) or "requests" (a
// whole number from 1); any other key is refused. The error says what is wrong.
Result<FaultRequest> parseFaultRequest(const nlohmann::json& request);

// One line for the log and the scenario report: "stall for 1 s", "refuse for 3 requests".
std::string describe(const FaultRequest& fault);

// The fault in force. Any thread may use it; the serving threads ask it for every GET /frame.
class FaultInjector {
 public:
  using Clock = std::chrono::steady_clock;

  explicit FaultInjector(Logger log) : log_(std::move(log)) {}

  // Replaces the fault in force (kind None clears it), and logs the change.
  void set(const FaultRequest& fault, Clock::time_point now = Clock::now());

  // The fault for one GET /frame, counted against its kind and its request limit; None when
  // no fault is in force. Cheap when there is none.
  FaultKind take();

  // {"kind": ..., "seconds_left": ..., "requests_left": ...} or null.
  nlohmann::json current(Clock::time_point now = Clock::now()) const;
  // Requests answered with each kind since the start: {"refuse": 0, ...}.
  nlohmann::json counts() const;

 private:
  // Ends an expired fault; the lock is held.
  void expireLocked(Clock::time_point now) const;

  Logger log_;
  mutable std::atomic<bool> active_{false};
  mutable std::mutex mu_;
  mutable FaultKind kind_ = FaultKind::None;
  std::optional<Clock::time_point> until_;
  std::optional<uint64_t> requestsLeft_;
  mutable uint64_t applied_ = 0;  // requests that got the fault in force
  std::array<std::atomic<uint64_t>, kFaultKinds.size() + 1> counts_{};
};

}  // namespace zerlan::server
