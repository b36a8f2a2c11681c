// Scenarios: a JSON list of steps that `zerlan serve --scenario FILE` plays against its own
// control interface, so a camera feed behaves the same way on every test run.
//
//   [{"at": 0, "qr": "A"},
//    {"after_fetches": 20, "qr": "B"},
//    {"at": 4, "image": "card.jpg"},
//    {"at": 6, "fault": "stall", "seconds": 1}]
//
// Steps play in file order. "at" is seconds since the scenario started, at most 1e6 (a time
// already past fires at once); "after_fetches" counts frames served since the step before it
// fired. The rest of a step is what it does: "qr", "image", "dir", "video" (paths relative to
// the file's folder), "camera" (a camera's name, "" for the default one), "source": "pattern"
// or "camera", "fps", "step" (step mode), or "fault" with "seconds" or "requests", as POST
// /control takes them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "server/log.h"
#include "server/result.h"

namespace zerlan::server {

class Server;

struct ScenarioStep {
  int line = 0;  // where the step starts in its file, from 1
  std::optional<double> at;
  std::optional<uint64_t> afterFetches;
  nlohmann::json control;  // the POST /control body it sends
  std::string what;        // for the report: "qr \"A\"", "fault stall for 1 s"
};

struct Scenario {
  std::string name;  // the file, as given
  std::vector<ScenarioStep> steps;
};

// Reads and checks a scenario file. The error is "FILE:LINE: reason" (or "FILE: reason" when
// the file cannot be read), and nothing plays.
Result<Scenario> loadScenario(const std::string& path);

// The same for text already read; relative paths start from `folder`.
Result<Scenario> parseScenario(std::string_view text, const std::string& name,
                               const std::filesystem::path& folder);

// Plays a scenario on a thread of its own from construction, logging each step as it fires
// ("scenario step 3 of 4 (line 3) at 4.00 s: image card.jpg") or fails, and a line when it is
// done. The server must outlive the player.
class ScenarioPlayer {
 public:
  ScenarioPlayer(Server& server, Scenario scenario, Logger log);
  ~ScenarioPlayer();  // stops
  ScenarioPlayer(const ScenarioPlayer&) = delete;
  ScenarioPlayer& operator=(const ScenarioPlayer&) = delete;

  // Stops before the next step. Idempotent. A step being applied finishes first, waiting for
  // its frame unless the server stops.
  void stop();
  // The same without waiting for the player's thread: for a caller that stops the server next.
  void requestStop();
  // Whether every step has fired before `deadline`.
  bool waitUntilDone(std::chrono::steady_clock::time_point deadline);

 private:
  void play();
  // Sleeps until `until` or a stop; false on a stop.
  bool sleepUntil(std::chrono::steady_clock::time_point until);

  Server& server_;
  Scenario scenario_;
  Logger log_;
  std::mutex mu_;
  std::condition_variable cv_;
  bool stopping_ = false;
  bool done_ = false;
  std::thread thread_;
};

}  // namespace zerlan::server
