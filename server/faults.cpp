#include "server/faults.h"

#include <cmath>
#include <sstream>

namespace zerlan::server {

namespace {

constexpr double kMaxFaultSeconds = 86400;

std::string kindList() {
  std::string names;
  for (FaultKind k : kFaultKinds) names += std::string(faultName(k)) + ", ";
  return names + "or none to clear";
}

std::string secondsText(double seconds) {
  std::ostringstream out;
  out << seconds << " s";
  return out.str();
}

}  // namespace

std::string_view faultName(FaultKind kind) {
  switch (kind) {
    case FaultKind::None:
      return "none";
    case FaultKind::Refuse:
      return "refuse";
    case FaultKind::Stall:
      return "stall";
    case FaultKind::Slow:
      return "slow";
    case FaultKind::Garbage:
      return "garbage";
    case FaultKind::Truncate:
      return "truncate";
    case FaultKind::HttpError:
      return "http-error";
  }
  return "none";
}

Result<FaultRequest> parseFaultRequest(const nlohmann::json& request) {
  FaultRequest fault;
  if (!request.is_object() || !request.contains("fault"))
    return fail("a fault request needs \"fault\": " + kindList());
  const auto& kind = request["fault"];
  if (!kind.is_string()) return fail("\"fault\" must be a string: " + kindList());
  const std::string name = kind.get<std::string>();
  bool known = name == "none";
  for (FaultKind k : kFaultKinds) {
    if (name == faultName(k)) {
      fault.kind = k;
      known = true;
    }
  }
  if (!known) return fail("unknown fault \"" + name + "\": use " + kindList());
  for (const auto& [key, value] : request.items()) {
    if (key == "fault") continue;
    if (key == "seconds") {
      if (!value.is_number()) return fail("\"seconds\" must be a number");
      double s = value.get<double>();
      if (!(s > 0 && s <= kMaxFaultSeconds))
        return fail("\"seconds\" must be above 0 and at most 86400");
      fault.seconds = s;
    } else if (key == "requests") {
      if (!value.is_number_integer() || value.get<int64_t>() < 1)
        return fail("\"requests\" must be a whole number from 1");
      fault.requests = value.get<uint64_t>();
    } else {
      return fail("unknown key \"" + key + "\" in a fault request: use \"fault\" with "
                  "\"seconds\" or \"requests\"");
    }
  }
  if (fault.seconds && fault.requests)
    return fail("give a fault \"seconds\" or \"requests\", not both");
  if (fault.kind == FaultKind::None && (fault.seconds || fault.requests))
    return fail("\"none\" clears the fault and takes no \"seconds\" or \"requests\"");
  return fault;
}

std::string describe(const FaultRequest& fault) {
  std::string text(faultName(fault.kind));
  if (fault.kind == FaultKind::None) return text;
  if (fault.seconds) return text + " for " + secondsText(*fault.seconds);
  if (fault.requests)
    return text + " for " + counted(*fault.requests, "request");
  return text + " until cleared";
}

void FaultInjector::set(const FaultRequest& fault, Clock::time_point now) {
  std::string line;
  {
    std::lock_guard lock(mu_);
    expireLocked(now);
    if (kind_ != FaultKind::None) {
      line = "fault " + std::string(faultName(kind_)) + " ended (" +
             counted(applied_, "GET /frame request") + " got it)";
    }
    kind_ = fault.kind;
    until_.reset();
    requestsLeft_ = fault.requests;
    if (fault.seconds) {
      until_ = now + std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>(*fault.seconds));
    }
    applied_ = 0;
    active_.store(kind_ != FaultKind::None, std::memory_order_release);
  }
  if (!line.empty()) log_(line);
  if (fault.kind != FaultKind::None) log_("fault on GET /frame: " + describe(fault));
}

void FaultInjector::expireLocked(Clock::time_point now) const {
  if (kind_ == FaultKind::None || !until_ || now < *until_) return;
  std::string line = "fault " + std::string(faultName(kind_)) + " ended after its time (" +
                     counted(applied_, "GET /frame request") + " got it)";
  kind_ = FaultKind::None;
  active_.store(false, std::memory_order_release);
  log_(line);
}

FaultKind FaultInjector::take() {
  if (!active_.load(std::memory_order_acquire)) return FaultKind::None;
  std::string line;
  FaultKind kind;
  {
    std::lock_guard lock(mu_);
    expireLocked(Clock::now());
    kind = kind_;
    if (kind == FaultKind::None) return kind;
    ++applied_;
    counts_[static_cast<size_t>(kind)].fetch_add(1, std::memory_order_relaxed);
    if (requestsLeft_ && --*requestsLeft_ == 0) {
      line = "fault " + std::string(faultName(kind)) + " ended after " + counted(applied_, "request");
      kind_ = FaultKind::None;
      active_.store(false, std::memory_order_release);
    }
  }
  if (!line.empty()) log_(line);
  return kind;
}

nlohmann::json FaultInjector::current(Clock::time_point now) const {
  std::lock_guard lock(mu_);
  expireLocked(now);
  if (kind_ == FaultKind::None) return nullptr;
  nlohmann::json j;
  j["kind"] = faultName(kind_);
  j["seconds_left"] =
      until_ ? nlohmann::json(std::round(std::chrono::duration<double>(*until_ - now).count() *
                                         1000) /
                              1000)
             : nlohmann::json(nullptr);
  j["requests_left"] = requestsLeft_ ? nlohmann::json(*requestsLeft_) : nlohmann::json(nullptr);
  j["requests_so_far"] = applied_;
  return j;
}

nlohmann::json FaultInjector::counts() const {
  nlohmann::json j = nlohmann::json::object();
  for (FaultKind k : kFaultKinds)
    j[std::string(faultName(k))] = counts_[static_cast<size_t>(k)].load(std::memory_order_relaxed);
  return j;
}

}  // namespace zerlan::server
