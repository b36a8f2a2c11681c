#include "server/scenario.h"

#include <cmath>
#include <fstream>
#include <sstream>

#include "server/faults.h"
#include "server/server.h"
#include "server/sources.h"

namespace zerlan::server {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kFetchPoll = std::chrono::milliseconds(10);
// Far beyond any test run, and far below where seconds overflow the clock's nanoseconds (about
// 9.2e9 s), which would make a step fire at once.
constexpr double kMaxAtSeconds = 1e6;

int lineAt(std::string_view text, size_t offset) {
  offset = std::min(offset, text.size());
  int line = 1;
  for (size_t i = 0; i < offset; ++i) {
    if (text[i] == '\n') ++line;
  }
  return line;
}

// The line of each element of the top-level array, in order. Runs only over text that parsed
// as JSON, so strings and nesting are well formed.
std::vector<int> elementLines(std::string_view text) {
  std::vector<int> lines;
  int depth = 0;
  int line = 1;
  bool inString = false;
  bool expectElement = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\n') ++line;
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
    if (depth == 1 && expectElement && c != ']') {
      lines.push_back(line);
      expectElement = false;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      ++depth;
      if (depth == 1 && c == '[') expectElement = true;
    } else if (c == ']' || c == '}') {
      --depth;
    } else if (c == ',' && depth == 1) {
      expectElement = true;
    }
  }
  return lines;
}

std::string number(double value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

Result<ScenarioStep> parseStep(const nlohmann::json& item, const fs::path& folder) {
  if (!item.is_object())
    return fail("a step is an object such as {\"at\": 0, \"qr\": \"A\"}");
  ScenarioStep step;
  nlohmann::json control = nlohmann::json::object();
  nlohmann::json fault = nlohmann::json::object();
  std::vector<std::string> what;
  int sources = 0;
  for (const auto& [key, value] : item.items()) {
    if (key == "at") {
      if (!value.is_number() || !(value.get<double>() >= 0 && value.get<double>() <= kMaxAtSeconds))
        return fail("\"at\" must be a number of seconds from 0 to 1000000 (about 11 days)");
      step.at = value.get<double>();
    } else if (key == "after_fetches") {
      if (!value.is_number_integer() || value.get<int64_t>() < 0)
        return fail("\"after_fetches\" must be a whole number of frames from 0");
      step.afterFetches = value.get<uint64_t>();
    } else if (key == "qr") {
      if (!value.is_string() || value.get<std::string>().empty())
        return fail("\"qr\" must be a text that is not empty");
      control["qr"] = value;
      what.push_back("qr \"" + value.get<std::string>() + "\"");
    } else if (key == "image" || key == "dir" || key == "video") {
      if (!value.is_string() || value.get<std::string>().empty())
        return fail("\"" + key + "\" must be a file path as a string");
      fs::path path = value.get<std::string>();
      if (path.is_relative()) path = folder / path;
      std::error_code ec;
      if (!fs::exists(path, ec)) return fail(path.string() + " does not exist");
      control["source"] = {{key, path.string()}};
      what.push_back(key + " " + value.get<std::string>());
      ++sources;
    } else if (key == "camera") {
      if (!value.is_string())
        return fail("\"camera\" must be a camera's name (\"\": the default one)");
      control["source"] = {{"camera", value}};
      const auto name = value.get<std::string>();
      what.push_back(name.empty() ? "the camera" : "camera " + name);
      ++sources;
    } else if (key == "source") {
      if (value != "pattern" && value != "camera")
        return fail("\"source\" in a scenario is \"pattern\" or \"camera\"; use \"image\", "
                    "\"dir\" or \"video\" for files");
      control["source"] = value;
      what.push_back(value == "pattern" ? "the test pattern" : "the camera");
      ++sources;
    } else if (key == "fps") {
      if (!value.is_number() || !(value.get<double>() >= kMinFps && value.get<double>() <= kMaxFps))
        return fail("\"fps\" must be from 0.01 to 120");
      control["fps"] = value;
      what.push_back("fps " + number(value.get<double>()));
    } else if (key == "step") {
      if (!value.is_number_integer() || value.get<int64_t>() < 1 || value.get<int64_t>() > 1000000)
        return fail("\"step\" must be a whole number of frames from 1 to 1000000");
      control["step"] = value;
      what.push_back("step " + std::to_string(value.get<int64_t>()));
    } else if (key == "fault" || key == "seconds" || key == "requests") {
      fault[key] = value;
    } else {
      return fail("unknown key \"" + key +
                  "\": a step has \"at\" or \"after_fetches\", and \"qr\", \"image\", \"dir\", "
                  "\"video\", \"camera\", \"source\", \"fps\", \"step\" or \"fault\"");
    }
  }
  if (step.at && step.afterFetches) return fail("give a step \"at\" or \"after_fetches\", not both");
  if (!step.at && !step.afterFetches)
    return fail("a step needs \"at\" (seconds from the start) or \"after_fetches\"");
  if (sources > 1) return fail("a step switches to one source at most");
  if (!fault.empty()) {
    auto parsed = parseFaultRequest(fault);
    if (!parsed) return parsed.error();
    if (!control.empty()) return fail("a \"fault\" step does nothing else: give it a step of its own");
    control = fault;
    what.push_back("fault " + describe(*parsed));
  }
  if (control.contains("step") && control.size() > 1)
    return fail("a \"step\" step does nothing else: give it a step of its own");
  if (control.empty()) return fail("the step does nothing: give it \"qr\", \"image\", \"fault\", ...");
  step.control = std::move(control);
  for (size_t i = 0; i < what.size(); ++i) step.what += (i ? ", " : "") + what[i];
  return step;
}

}  // namespace

Result<Scenario> parseScenario(std::string_view text, const std::string& name,
                               const fs::path& folder) {
  nlohmann::json doc;
  try {
    doc = nlohmann::json::parse(text);
  } catch (const nlohmann::json::parse_error& e) {
    std::string what = e.what();
    if (size_t tag = what.find("] "); tag != std::string::npos) what.erase(0, tag + 2);
    // The library counts the byte it stopped at from 1.
    return fail(name + ":" + std::to_string(lineAt(text, e.byte ? e.byte - 1 : 0)) +
                ": not valid JSON: " + what);
  } catch (const nlohmann::json::exception& e) {
    return fail(name + ": not valid JSON: " + e.what());
  }
  if (!doc.is_array()) return fail(name + ":1: a scenario is a JSON list of steps: [{...}, ...]");
  if (doc.empty()) return fail(name + ":1: the scenario has no steps");
  std::vector<int> lines = elementLines(text);
  Scenario scenario{name, {}};
  std::optional<std::pair<double, int>> lastAt;
  for (size_t i = 0; i < doc.size(); ++i) {
    int line = i < lines.size() ? lines[i] : 1;
    auto step = parseStep(doc[i], folder);
    if (!step) return fail(name + ":" + std::to_string(line) + ": " + step.error().message);
    step->line = line;
    if (step->at) {
      if (lastAt && *step->at < lastAt->first) {
        return fail(name + ":" + std::to_string(line) + ": \"at\": " + number(*step->at) +
                    " comes before the \"at\": " + number(lastAt->first) + " of line " +
                    std::to_string(lastAt->second) + "; steps play in file order");
      }
      lastAt = {*step->at, line};
    }
    scenario.steps.push_back(std::move(step.value()));
  }
  return scenario;
}

Result<Scenario> loadScenario(const std::string& path) {
  std::error_code ec;
  if (!fs::is_regular_file(path, ec)) return fail(path + ": no such scenario file");
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  if (!in) return fail(path + ": cannot read the scenario file");
  return parseScenario(text.str(), path, fs::path(path).parent_path());
}

ScenarioPlayer::ScenarioPlayer(Server& server, Scenario scenario, Logger log)
    : server_(server), scenario_(std::move(scenario)), log_(std::move(log)) {
  thread_ = std::thread([this] { play(); });
}

ScenarioPlayer::~ScenarioPlayer() { stop(); }

void ScenarioPlayer::requestStop() {
  {
    std::lock_guard lock(mu_);
    stopping_ = true;
  }
  cv_.notify_all();
}

void ScenarioPlayer::stop() {
  requestStop();
  if (thread_.joinable()) thread_.join();
}

bool ScenarioPlayer::waitUntilDone(Clock::time_point deadline) {
  std::unique_lock lock(mu_);
  return cv_.wait_until(lock, deadline, [this] { return done_; });
}

bool ScenarioPlayer::sleepUntil(Clock::time_point until) {
  std::unique_lock lock(mu_);
  return !cv_.wait_until(lock, until, [this] { return stopping_; });
}

void ScenarioPlayer::play() {
  const auto started = Clock::now();
  const size_t count = scenario_.steps.size();
  log_("scenario " + scenario_.name + ": " + counted(count, "step"));
  uint64_t servedAtLastStep = server_.totals().framesServed;
  for (size_t i = 0; i < count; ++i) {
    const ScenarioStep& step = scenario_.steps[i];
    if (step.at) {
      auto when = started + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(*step.at));
      if (!sleepUntil(when)) return;
    } else {
      // A poll is light (an atomic read) and keeps the serving path free of notifications.
      while (server_.totals().framesServed < servedAtLastStep + *step.afterFetches) {
        if (!sleepUntil(Clock::now() + kFetchPoll)) return;
      }
    }
    double at = std::chrono::duration<double>(Clock::now() - started).count();
    char when[32];
    std::snprintf(when, sizeof when, "%.2f", at);
    std::string head = "scenario step " + std::to_string(i + 1) + " of " + std::to_string(count) +
                       " (line " + std::to_string(step.line) + ") at " + when + " s: " + step.what;
    servedAtLastStep = server_.totals().framesServed;
    auto result = server_.control(step.control);
    log_(result ? head : head + ": failed: " + result.error().message);
  }
  log_("scenario " + scenario_.name + " finished");
  {
    std::lock_guard lock(mu_);
    done_ = true;
  }
  cv_.notify_all();
}

}  // namespace zerlan::server
