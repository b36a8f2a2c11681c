// zerlan ctl: the control interface of a running `zerlan serve` from the shell, for scripts and
// UI tests: what the camera shows, steps, faults, and waiting until the app has fetched frames.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "cli/command.h"
#include "cli/loopback.h"
#include "server/log.h"

namespace zerlan::cli {

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

// Exit codes of ctl beyond the shared ones: the server answered, and said no.
constexpr int kExitRefused = 3;

constexpr const char* kCtlExitCodes =
    "Exit codes: 0 done (wait: the frames were fetched); 1 no frame server answers on the port "
    "(nothing listens, or another program does), or wait timed out; 2 bad command line; 3 the "
    "server refused the request (its reason is printed).";

// How long a control request may take: switching to a large video opens and decodes it.
constexpr int kAnswerSeconds = 30;
constexpr auto kWaitPoll = std::chrono::milliseconds(50);

struct CtlOptions {
  int port = 0;  // 0: ZERLAN_FRAME_PORT, else 47654
  std::string text;
  std::vector<std::string> source;
  int step = 1;
  std::string fault;
  double seconds = 0;
  int64_t requests = 0;
  CLI::Option* secondsOption = nullptr;
  CLI::Option* requestsOption = nullptr;
  bool json = false;
  int64_t fetches = 0;
  double timeout = 30;
};

// The port from the command line, or the one the library uses (ZERLAN_FRAME_PORT, 47654).
int portOf(const CtlOptions& o) { return libraryFramePort("ctl", o.port); }

int runtimeError(const std::string& name, const std::string& message) {
  std::cerr << "zerlan ctl " << name << ": " << message << "\n";
  return kExitRuntime;
}

// The server's JSON answer, or the exit code that ends the command. Every answer of a zerlan
// server to GET /status and to an accepted POST /control is its status; any other answer is a
// refusal only when a zerlan server gave it.
std::variant<json, int> ask(const std::string& name, int port, const std::string& method,
                            const std::string& path, const std::string& body = {}) {
  auto answer = loopbackRequest(static_cast<uint16_t>(port), method, path, body,
                                std::chrono::seconds(kAnswerSeconds));
  const std::string noServer = "no frame server answers on 127.0.0.1:" + std::to_string(port) +
                               ": start one with 'zerlan serve' (or name its port with --port)";
  if (!answer) return runtimeError(name, noServer);
  if (answer->silent) {
    return runtimeError(name, "the server on 127.0.0.1:" + std::to_string(port) +
                                  " took the request but gave no answer in " +
                                  std::to_string(kAnswerSeconds) +
                                  " s: it may be busy, or suspended (Ctrl-Z); see its log, then try again");
  }
  json parsed = json::parse(answer->body, nullptr, false);
  if (answer->status == 200 && isZerlanStatus(parsed)) return parsed;
  PortHolder holder = whoListens(static_cast<uint16_t>(port));
  if (holder.kind == PortHolder::Kind::Nothing) return runtimeError(name, noServer);
  if (holder.kind == PortHolder::Kind::Other) {
    return runtimeError(name, foreignListenerText(static_cast<uint16_t>(port), holder) +
                                  ", or name the frame server's port with --port");
  }
  std::string reason = parsed.is_object() && parsed.contains("error") && parsed["error"].is_string()
                           ? parsed["error"].get<std::string>()
                           : answer->body;
  while (!reason.empty() && reason.back() == '\n') reason.pop_back();
  std::cerr << "zerlan ctl " << name << ": the server refused it (HTTP " << answer->status
            << "): " << reason << "\n";
  return kExitRefused;
}

int control(const std::string& name, int port, const json& request,
            const std::function<std::string(const json&)>& report) {
  auto result = ask(name, port, "POST", "/control", request.dump());
  if (auto* code = std::get_if<int>(&result)) return *code;
  std::cout << report(std::get<json>(result)) << "\n";
  return kExitOk;
}

std::string absolute(const std::string& path) {
  std::error_code ec;
  auto full = std::filesystem::absolute(path, ec);
  return ec ? path : full.lexically_normal().string();
}

std::string sourceLine(const json& s) {
  return "serving " + s.value("source", std::string("?")) + " (frame index " +
         std::to_string(s.value("frame_index", 0)) + ")";
}

int runSource(const CtlOptions& o) {
  const auto& args = o.source;
  const std::string usage =
      "use 'source pattern', 'source image FILE', 'source dir DIR', 'source video FILE' or "
      "'source camera [NAME]'";
  if (args.empty()) return usageError("ctl source", usage);
  const std::string& kind = args[0];
  json choice;
  if (kind == "pattern") {
    if (args.size() != 1) return usageError("ctl source", "pattern takes no path: " + usage);
    choice = "pattern";
  } else if (kind == "camera") {
    if (args.size() > 2) return usageError("ctl source", "camera takes one name at most: " + usage);
    choice = args.size() == 2 ? json{{"camera", args[1]}} : json("camera");
  } else if (kind == "image" || kind == "dir" || kind == "video") {
    if (args.size() != 2) return usageError("ctl source", kind + " takes one path: " + usage);
    choice = {{kind, absolute(args[1])}};
  } else {
    return usageError("ctl source", "unknown source \"" + kind + "\": " + usage);
  }
  return control("source", portOf(o), {{"source", choice}}, sourceLine);
}

std::string faultText(const json& f) {
  if (f.is_null()) return "no fault: GET /frame serves frames";
  std::string text = "fault " + f.value("kind", std::string("?")) + " on GET /frame";
  if (f.contains("seconds_left") && f["seconds_left"].is_number()) {
    char left[32];
    std::snprintf(left, sizeof left, "%.1f", f["seconds_left"].get<double>());
    text += std::string(", ") + left + " s left";
  } else if (f.contains("requests_left") && f["requests_left"].is_number()) {
    text += ", " + server::counted(f["requests_left"].get<uint64_t>(), "request") + " left";
  } else {
    text += " until cleared";
  }
  return text;
}

int runFault(const CtlOptions& o) {
  json request = {{"fault", o.fault}};
  if (o.secondsOption->count() > 0) request["seconds"] = o.seconds;
  if (o.requestsOption->count() > 0) request["requests"] = o.requests;
  return control("fault", portOf(o), request, [](const json& s) { return faultText(s["fault"]); });
}

int runStatus(const CtlOptions& o) {
  auto result = ask("status", portOf(o), "GET", "/status");
  if (auto* code = std::get_if<int>(&result)) return *code;
  const json& s = std::get<json>(result);
  if (o.json) {
    std::cout << s.dump() << "\n";
    return kExitOk;
  }
  auto field = [&](const char* key) {
    return s.contains(key) ? (s[key].is_string() ? s[key].get<std::string>() : s[key].dump()) : "?";
  };
  std::cout << "address        " << field("address") << "\n"
            << "mode           " << field("mode") << "\n"
            << "source         " << field("source") << "\n";
  if (field("source_kind") == "pattern") std::cout << "qr             " << field("qr") << "\n";
  std::cout << "frame index    " << field("frame_index") << "\n"
            << "frames served  " << field("frames_served") << "\n"
            << "last fetch     "
            << (s.value("last_fetch", json()).is_null()
                    ? std::string("none yet")
                    : field("last_fetch") + " (frame index " + field("last_served_index") + ")")
            << "\n"
            << "fault          " << faultText(s.value("fault", json())) << "\n"
            << "faults so far  " << field("faults") << "\n";
  return kExitOk;
}

int runWait(const CtlOptions& o) {
  const int port = portOf(o);
  auto served = [&]() -> std::variant<int64_t, int> {
    auto result = ask("wait", port, "GET", "/status");
    if (auto* code = std::get_if<int>(&result)) return *code;
    return std::get<json>(result).value("frames_served", int64_t{0});
  };
  auto first = served();
  if (auto* code = std::get_if<int>(&first)) return *code;
  const int64_t start = std::get<int64_t>(first);
  const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(o.timeout));
  for (;;) {
    auto now = served();
    if (auto* code = std::get_if<int>(&now)) return *code;
    const int64_t fetched = std::get<int64_t>(now) - start;
    if (fetched >= o.fetches) return kExitOk;
    if (Clock::now() >= deadline) {
      std::cerr << "zerlan ctl wait: only " << fetched << " of " << server::counted(o.fetches, "frame")
                << " fetched in " << o.timeout
                << " s: is the app running, and fetching from port " << port << "?\n";
      return kExitRuntime;
    }
    std::this_thread::sleep_for(kWaitPoll);
  }
}

}  // namespace

Command addCtl(CLI::App& zerlan) {
  auto o = std::make_shared<CtlOptions>();
  CLI::App* ctl = zerlan.add_subcommand(
      "ctl",
      "Drive a running zerlan serve from the shell: what the camera shows, steps, faults, and "
      "waiting until the app has fetched frames.");
  // An unknown action is left over, and named in the error below.
  ctl->require_subcommand(0, 1);
  ctl->allow_extras();
  ctl->add_option("--port", o->port,
                  "Port of the frame server on 127.0.0.1 (default: ZERLAN_FRAME_PORT, else 47654)")
      ->check(portNumber());
  ctl->footer(std::string(
                  "Examples:\n"
                  "  zerlan ctl qr 'LOGIN-42'             show a new QR code on the test pattern\n"
                  "  zerlan ctl wait --fetches 2          until the app has fetched two more frames\n"
                  "  zerlan ctl fault stall --seconds 1   the camera feed hangs for a second\n"
                  "  zerlan ctl step 5                    five frames on (zerlan serve --step)\n\n") +
              kCtlExitCodes);

  std::vector<std::pair<CLI::App*, std::function<int()>>> runs;
  auto* qr = ctl->add_subcommand("qr", "Show TEXT as the QR code of the test pattern.");
  qr->add_option("TEXT", o->text, "The payload")->required();
  runs.emplace_back(qr, [o] {
    return control("qr", portOf(*o), {{"qr", o->text}},
                   [](const json& s) { return "qr \"" + s.value("qr", std::string()) + "\" on the test pattern"; });
  });

  auto* image = ctl->add_subcommand("image", "Serve one picture (a path on this machine).");
  image->add_option("FILE", o->text, "JPEG, PNG or another picture")->required();
  runs.emplace_back(image, [o] {
    return control("image", portOf(*o), {{"source", {{"image", absolute(o->text)}}}}, sourceLine);
  });

  auto* source = ctl->add_subcommand(
      "source",
      "Switch the source: pattern, image FILE, dir DIR, video FILE, or camera [NAME] (the default "
      "camera, or the one named; the server's --camera-input reads it).");
  source
      ->add_option("KIND_AND_PATH", o->source,
                   "pattern | image FILE | dir DIR | video FILE | camera [NAME]")
      ->required();
  runs.emplace_back(source, [o] { return runSource(*o); });

  auto* step = ctl->add_subcommand("step", "Advance N frames (default 1); the server runs with --step.");
  step->add_option("N", o->step, "Frames to advance")->check(CLI::Range(1, 1000000));
  runs.emplace_back(step, [o] {
    return control("step", portOf(*o), {{"step", o->step}}, [](const json& s) {
      return "frame index " + std::to_string(s.value("frame_index", 0)) + " after " +
             server::counted(s.value("steps", uint64_t{0}), "step");
    });
  });

  auto* fault = ctl->add_subcommand(
      "fault",
      "Make GET /frame fail: refuse (reset), stall (send nothing), slow (about 1 s per frame), "
      "garbage (no image), truncate (half a JPEG), http-error (503); none clears.");
  fault->add_option("KIND", o->fault, "refuse, stall, slow, garbage, truncate, http-error or none")
      ->required()
      ->check(CLI::IsMember({"refuse", "stall", "slow", "garbage", "truncate", "http-error", "none"}));
  o->secondsOption = fault->add_option("--seconds", o->seconds, "For this many seconds")
                         ->check(CLI::Range(0.001, 86400.0));
  o->requestsOption = fault->add_option("--requests", o->requests, "For this many GET /frame requests")
                          ->check(CLI::Range(int64_t{1}, int64_t{1000000000}));
  o->secondsOption->excludes(o->requestsOption);
  runs.emplace_back(fault, [o] { return runFault(*o); });

  auto* status = ctl->add_subcommand("status", "Show the server's mode, source, fault and counters.");
  status->add_flag("--json", o->json, "The server's /status JSON, on one line");
  runs.emplace_back(status, [o] { return runStatus(*o); });

  auto* wait = ctl->add_subcommand(
      "wait", "Block until N more frames have been fetched from the server (exit 1 on time-out).");
  wait->add_option("--fetches", o->fetches, "Frames to wait for")->required()->check(CLI::Range(int64_t{0}, int64_t{1000000000}));
  wait->add_option("--timeout", o->timeout, "Seconds to wait at most (default 30)")->check(CLI::Range(0.0, 86400.0));
  runs.emplace_back(wait, [o] { return runWait(*o); });

  for (auto& [sub, run] : runs) {
    sub->fallthrough();  // --port may come after the action too
    sub->footer(kCtlExitCodes);
  }
  return Command{ctl, [ctl, runs] {
                   std::vector<std::string> names;
                   for (const auto& [sub, run] : runs) {
                     // ctl takes what its action leaves over, so an action's mistyped option
                     // lands here.
                     if (sub->parsed()) {
                       const auto extra = ctl->remaining();
                       if (extra.empty()) return run();
                       std::string unknown = unknownOptions(sub, extra);
                       return usageError("ctl " + sub->get_name(),
                                         unknown.empty() ? "unexpected " + extra.front() : unknown);
                     }
                     names.push_back(sub->get_name());
                   }
                   const std::string actions =
                       "use qr, image, source, step, fault, status or wait";
                   auto extra = ctl->remaining();
                   if (extra.empty()) return usageError("ctl", "name an action: " + actions);
                   std::string near;
                   if (auto guess = closestTo(extra.front(), names)) near = ": did you mean " + *guess + "?";
                   return usageError("ctl", "unknown action \"" + extra.front() + "\"" + near + " (" + actions + ")");
                 }};
}

}  // namespace zerlan::cli
