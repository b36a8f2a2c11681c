#include "server/server.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <deque>
#include <sstream>
#include <thread>
#include <vector>

#include "server/camera.h"
#include "server/connection.h"
#include "server/http.h"
#include "server/pattern.h"
#include "server/platform.h"
#include "server/uploads.h"

namespace zerlan::server {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// How long a control request waits for the first frame that shows its change.
constexpr auto kControlWait = 3s;
constexpr auto kRateWindow = 5s;
// A flood, for giving memory back: this many clients at once, or this much in control bodies.
constexpr int64_t kFloodClients = 256;
constexpr size_t kFloodBodyBytes = 1u << 20;

Error stoppingError() { return Error{"the server is stopping", 503}; }

std::string dumpJson(const nlohmann::json& j) {
  // A QR payload from the command line need not be UTF-8; never let that throw.
  return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

struct Server::Impl {
  Impl(const ServerOptions& o, const FrameSettings& s, Logger l)
      : options(o),
        log(std::move(l)),
        errorLog(log),
        settings(s),
        producer(store, settings, log, o.nothingToServe),
        faults(log),
        bodies(o.maxPendingBodyBytes),
        uploadBodies(o.maxPendingUploadBytes) {}

  nlohmann::json status() const;
  Result<nlohmann::json> control(const nlohmann::json& request);
  Result<nlohmann::json> controlFault(const nlohmann::json& request);
  Result<nlohmann::json> controlStep(const nlohmann::json& request);
  Result<nlohmann::json> controlBody(std::string_view body);
  Result<nlohmann::json> upload(std::string_view bytes, std::string_view contentType,
                                std::string_view name);
  nlohmann::json cameras() const;
  Result<nlohmann::json> run(const ControlJob& job);
  // Serves `source` from now on; returns once its first frame is served (or at `deadline`).
  void switchTo(std::unique_ptr<Source> source, const std::string& summary,
                Clock::time_point deadline);
  void sampleRate(Clock::time_point now);
  void releaseAfterFlood();
  double requestsPerSecond(Clock::time_point now) const;
  void controlLoop();
  void submitControl(ControlJob job);
  std::string controlResponse(const ControlJob& job, const Result<nlohmann::json>& result);
  void stop();

  ServerOptions options;
  Logger log;
  ErrorLog errorLog;
  FrameStore store;
  LiveSettings settings;
  Producer producer;
  FaultInjector faults;
  FetchTally fetches;

  uint16_t port = 0;
  std::string url;
  Clock::time_point started = Clock::now();
  std::once_flag stopOnce;
  // Before the jobs: they may hold its connections, which must go before their io_context.
  std::unique_ptr<Listener> listener;

  Counter requests;
  Counter framesServed;
  Counter panelFrames;
  Counter errors;
  UploadFolder uploads;
  std::atomic<int64_t> clients{0};
  std::atomic<int64_t> peakClients{0};
  BodyBudget bodies;
  BodyBudget uploadBodies;

  mutable std::mutex rateMu;
  std::deque<std::pair<Clock::time_point, uint64_t>> samples;

  std::mutex controlMu;  // one control change at a time, from HTTP or from the API
  bool stopping = false;  // under controlMu: no change may start a source once stop() began
  std::mutex jobsMu;
  std::condition_variable jobsCv;
  std::deque<ControlJob> jobs;
  bool jobsStop = false;
  std::thread controlThread;
};

namespace {

std::string formatUrl(const std::string& host, uint16_t port) {
  bool v6 = host.find(':') != std::string::npos;
  return "http://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port) + "/";
}

// "2026-11-24T08:15:02.123Z"
std::string utcText(std::chrono::system_clock::time_point at) {
  auto secs = std::chrono::system_clock::to_time_t(at);
  auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count() % 1000;
  std::tm tm{};
  gmtime_r(&secs, &tm);
  char text[40];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                static_cast<int>(millis));
  return text;
}

bool isLoopback(const std::string& host) {
  return host == "localhost" || host.starts_with("127.") || host == "::1";
}

std::string sourceSummary(const Source& source, const FrameSettings& settings) {
  std::ostringstream out;
  out << source.description();
  if (source.kind() == SourceChoice::Kind::Pattern || source.kind() == SourceChoice::Kind::Dir) {
    out << ", " << settings.fps << " fps";
  }
  if (source.kind() == SourceChoice::Kind::Pattern) out << ", QR \"" << settings.qr << "\"";
  return out.str();
}

}  // namespace

void Server::Impl::sampleRate(Clock::time_point now) {
  std::lock_guard lock(rateMu);
  samples.emplace_back(now, requests.get());
  while (samples.size() > 2 && now - samples.front().first > kRateWindow) samples.pop_front();
}

// The allocator keeps what a flood of clients used; once most of them are gone, it goes back to
// the system.
void Server::Impl::releaseAfterFlood() {
  const int64_t now = clients.load(std::memory_order_relaxed);
  const int64_t peak = peakClients.load(std::memory_order_relaxed);
  bool flooded = peak >= kFloodClients && now <= peak / 4;
  for (const BodyBudget* budget : {&bodies, &uploadBodies}) {
    flooded = flooded || (budget->peak() >= kFloodBodyBytes && budget->held() <= budget->peak() / 4);
  }
  if (!flooded) return;
  peakClients.store(now, std::memory_order_relaxed);
  bodies.resetPeak();
  uploadBodies.resetPeak();
  platform::releaseFreeMemory();
}

double Server::Impl::requestsPerSecond(Clock::time_point now) const {
  std::lock_guard lock(rateMu);
  if (samples.empty()) return 0;
  auto [t0, n0] = samples.front();
  double secs = std::chrono::duration<double>(now - t0).count();
  if (secs < 0.2) return 0;
  return static_cast<double>(requests.get() - n0) / secs;
}

nlohmann::json Server::Impl::status() const {
  auto now = Clock::now();
  auto frame = store.current();
  auto s = settings.snapshot();
  auto kind = producer.kind();
  nlohmann::json j;
  j["address"] = url;
  j["source"] = producer.description();
  j["source_kind"] = kind ? std::string(kindName(*kind)) : "none";
  j["qr"] = s.qr;
  j["fps"] = s.fps;
  j["frame"] = frame ? frame->number : 0;
  j["width"] = frame ? frame->width : 0;
  j["height"] = frame ? frame->height : 0;
  j["bytes"] = frame ? frame->jpeg().size() : 0;
  j["mode"] = s.step ? "step" : "live";
  j["frame_index"] = frame ? frame->index : 0;
  if (s.step) j["steps"] = s.steps;
  j["frames_served"] = framesServed.get();
  j["panel_frames"] = panelFrames.get();
  const auto lastAt = fetches.lastAt.load(std::memory_order_acquire);
  if (lastAt == 0) {
    j["last_fetch"] = nullptr;
    j["seconds_since_last_fetch"] = nullptr;
    j["last_served_index"] = nullptr;
  } else {
    const std::chrono::system_clock::time_point at{std::chrono::system_clock::duration(lastAt)};
    j["last_fetch"] = utcText(at);
    j["seconds_since_last_fetch"] =
        std::round(std::chrono::duration<double>(std::chrono::system_clock::now() - at).count() *
                   1000) /
        1000;
    j["last_served_index"] = fetches.lastIndex.load(std::memory_order_relaxed);
  }
  j["fault"] = faults.current();
  j["faults"] = faults.counts();
  j["requests"] = requests.get();
  j["errors"] = errors.get();
  j["clients"] = clients.load(std::memory_order_relaxed);
  j["uptime_seconds"] =
      std::round(std::chrono::duration<double>(now - started).count() * 1000) / 1000;
  j["requests_per_second"] = std::round(requestsPerSecond(now) * 10) / 10;
  j["camera_input"] = s.cameraInput;
  j["uploads"] = uploads.status();
  return j;
}

namespace {

constexpr const char* kSourceHelp =
    "use \"pattern\", \"camera\", {\"image\": PATH}, {\"dir\": PATH}, {\"video\": PATH} or "
    "{\"camera\": NAME}";

Result<SourceChoice> parseSourceChoice(const nlohmann::json& value) {
  if (value.is_string()) {
    auto name = value.get<std::string>();
    if (name == "pattern") return SourceChoice::pattern();
    if (name == "camera") return SourceChoice::camera({});
    if (name == "stdin") {
      return fail(
          "standard input can only be chosen when the server starts (zerlan serve --stdin)");
    }
    return fail("unknown source \"" + name + "\": " + kSourceHelp);
  }
  if (!value.is_object() || value.size() != 1)
    return fail(std::string("bad \"source\": ") + kSourceHelp);
  const std::string key = value.begin().key();
  const nlohmann::json& path = value.begin().value();
  if (key == "pattern") return SourceChoice::pattern();
  if (key == "camera") {
    if (!path.is_string()) {
      return fail("\"camera\" must be a camera's name as a string (\"\": the default one)");
    }
    return SourceChoice::camera(path.get<std::string>());
  }
  if (key != "image" && key != "dir" && key != "video") {
    return fail("unknown source \"" + key + "\": " + kSourceHelp);
  }
  if (!path.is_string() || path.get<std::string>().empty()) {
    return fail("\"" + key + "\" must be a file path as a string");
  }
  auto p = path.get<std::string>();
  if (key == "image") return SourceChoice::image(p);
  if (key == "dir") return SourceChoice::dir(p);
  return SourceChoice::video(p);
}

}  // namespace

Result<nlohmann::json> Server::Impl::control(const nlohmann::json& request) {
  std::lock_guard lock(controlMu);
  if (stopping) return stoppingError();
  if (request.is_object() && request.contains("fault")) return controlFault(request);
  if (request.is_object() && request.contains("step")) return controlStep(request);
  if (!request.is_object() || request.empty()) {
    return fail(
        "the control body must be a JSON object such as {\"qr\": \"hello\"}, "
        "{\"source\": \"pattern\"} or {\"source\": {\"image\": \"/path/photo.jpg\"}}");
  }
  std::optional<std::string> qr;
  std::optional<double> fps;
  std::optional<SourceChoice> choice;
  for (const auto& [key, value] : request.items()) {
    if (key == "qr") {
      if (!value.is_string()) return fail("\"qr\" must be a string");
      qr = value.get<std::string>();
    } else if (key == "fps") {
      if (!value.is_number()) return fail("\"fps\" must be a number");
      double f = value.get<double>();
      // The command line's range: faster burns a core for nothing, and a folder's schedule
      // would overflow on a rate near zero.
      if (!(f >= kMinFps && f <= kMaxFps)) return fail("\"fps\" must be from 0.01 to 120");
      fps = f;
    } else if (key == "source") {
      auto parsed = parseSourceChoice(value);
      if (!parsed) return parsed.error();
      choice = parsed.value();
    } else {
      return fail("unknown key \"" + key +
                  "\": use \"qr\", \"source\", \"fps\", \"step\" or \"fault\"");
    }
  }

  const FrameSettings current = settings.snapshot();
  FrameSettings next = current;
  if (qr) next.qr = *qr;
  if (fps) next.fps = *fps;
  if (qr) {
    if (auto fits = checkQrPayload(*qr, next.size.value_or(kPatternSize)); !fits) {
      return fail("cannot use this QR payload: " + fits.error().message);
    }
  }
  std::unique_ptr<Source> source;
  if (choice) {
    auto opened = openSource(*choice, next);
    if (!opened) return opened.error();
    source = std::move(opened.value());
  }

  // The code is drawn by the test pattern; on a picture, a folder or a video it would change
  // nothing the app sees.
  auto servedKind = choice ? std::optional(choice->kind) : producer.kind();
  if (qr && servedKind != SourceChoice::Kind::Pattern) {
    return conflict("the QR payload is drawn on the test pattern only, and the server is serving " +
                    (source ? sourceSummary(*source, next) : producer.description()) +
                    ": switch to the pattern first ({\"source\": \"pattern\"}), or send both at once");
  }

  // Everything checked: apply it all.
  uint64_t version = settings.update([&](FrameSettings& s) {
    s.qr = next.qr;
    s.fps = next.fps;
  });
  if (qr && *qr != current.qr) log("QR payload changed to \"" + *qr + "\"");
  if (fps && *fps != current.fps) {
    std::ostringstream out;
    out << "frame rate changed to " << *fps << " fps";
    log(out.str());
  }
  const auto deadline = Clock::now() + kControlWait;
  if (source) {
    std::string summary = sourceSummary(*source, next);
    switchTo(std::move(source), summary, deadline);
  } else if (qr && producer.kind() == SourceChoice::Kind::Pattern) {
    store.waitFor([version](const Frame& f) { return f.tag >= version; }, deadline);
  }
  return status();
}

void Server::Impl::switchTo(std::unique_ptr<Source> source, const std::string& summary,
                            Clock::time_point deadline) {
  uint64_t before = producer.start(std::move(source));
  log("source changed to " + summary);
  store.waitNewer(before, deadline);
}

Result<nlohmann::json> Server::Impl::upload(std::string_view bytes, std::string_view contentType,
                                            std::string_view name) {
  // The connection took it by checkUpload already: a picture or a video, within its limit.
  const UploadKind kind = uploadKind(contentType);
  std::lock_guard lock(controlMu);
  auto path = uploads.store(bytes, name);
  if (!path) return path.error();
  const FrameSettings current = settings.snapshot();
  const SourceChoice choice =
      kind == UploadKind::Video ? SourceChoice::video(*path) : SourceChoice::image(*path);
  auto source = openSource(choice, current);
  if (!source) {
    uploads.remove(*path);
    return fail("the dropped " + std::string(uploadNoun(kind)) + " \"" + std::string(name) +
                "\" cannot be served: " + source.error().message);
  }
  std::string summary = sourceSummary(**source, current) + ", uploaded";
  switchTo(std::move(source.value()), summary, Clock::now() + kControlWait);
  return status();
}

nlohmann::json Server::Impl::cameras() const {
  const std::string input = settings.snapshot().cameraInput;
  nlohmann::json j = {{"input", input}, {"cameras", nlohmann::json::array()}};
  if (input == "lavfi") j["default"] = kLavfiDefaultGraph;
  auto found = listCameras(input);
  if (!found) {
    j["note"] = found.error().message;
  } else if (found->empty()) {
    j["note"] = "no camera found: " + noCamera(input);
  }
  for (const auto& c : found ? *found : std::vector<CameraInfo>{}) {
    j["cameras"].push_back({{"name", c.name}, {"description", c.description}});
  }
  return j;
}

Result<nlohmann::json> Server::Impl::run(const ControlJob& job) {
  switch (job.kind) {
    case ControlJob::Kind::Control:
      return controlBody(job.body);
    case ControlJob::Kind::Upload:
      return upload(job.body, job.contentType, job.name);
    case ControlJob::Kind::Cameras:
      return cameras();
  }
  return fail("unknown request");
}

// Faults and steps are requests of their own: they mix with no other key.
Result<nlohmann::json> Server::Impl::controlFault(const nlohmann::json& request) {
  auto fault = parseFaultRequest(request);
  if (!fault) return fault.error();
  faults.set(*fault);
  return status();
}

Result<nlohmann::json> Server::Impl::controlStep(const nlohmann::json& request) {
  if (request.size() != 1) return fail("\"step\" takes no other key: send {\"step\": N} alone");
  const auto& value = request["step"];
  if (!value.is_number_integer() || value.get<int64_t>() < 1 || value.get<int64_t>() > 1000000)
    return fail("\"step\" must be a whole number of frames from 1 to 1000000");
  if (!settings.snapshot().step) {
    return conflict(
        "the server is not in step mode, its frames follow the clock: start it with "
        "zerlan serve --step");
  }
  const auto n = value.get<uint64_t>();
  uint64_t steps = 0;
  uint64_t version = settings.update([&](FrameSettings& s) { steps = s.steps += n; });
  log("stepped " + counted(n, "frame") + " (" + counted(steps, "step") + " so far)");
  store.waitFor([version](const Frame& f) { return f.tag >= version; }, Clock::now() + kControlWait);
  return status();
}

Result<nlohmann::json> Server::Impl::controlBody(std::string_view body) {
  if (body.empty()) return fail("the control body is empty: send JSON such as {\"qr\": \"hello\"}");
  // Any JSON error, not only a syntax error: a number too large for a double is refused with
  // out_of_range, which must not end the server.
  try {
    return control(nlohmann::json::parse(body));
  } catch (const nlohmann::json::exception& e) {
    // what() starts with the library's "[json.exception.parse_error.101] " tag.
    std::string what = e.what();
    size_t tag = what.find("] ");
    if (tag != std::string::npos) what.erase(0, tag + 2);
    return fail("the control body is not valid JSON: " + what);
  }
}

// Runs on a serving thread. Once the control thread has stopped, the job is answered here: its
// reply must reach the connection's thread before the serving threads go.
void Server::Impl::submitControl(ControlJob job) {
  {
    std::lock_guard lock(jobsMu);
    if (!jobsStop) {
      jobs.push_back(std::move(job));
      jobsCv.notify_one();
      return;
    }
  }
  job.reply(controlResponse(job, stoppingError()));
}

std::string Server::Impl::controlResponse(const ControlJob& job,
                                         const Result<nlohmann::json>& result) {
  requests.add();
  if (result) return http::response(200, "application/json", dumpJson(result.value()) + "\n");
  errors.add();
  const int code = result.error().status;
  errorLog(std::to_string(code) + " for " + job.request + ": " + result.error().message);
  return http::errorResponse(code, result.error().message);
}

void Server::Impl::controlLoop() {
  for (;;) {
    ControlJob job;
    {
      std::unique_lock lock(jobsMu);
      jobsCv.wait(lock, [&] { return jobsStop || !jobs.empty(); });
      if (jobsStop) break;
      job = std::move(jobs.front());
      jobs.pop_front();
    }
    job.reply(controlResponse(job, run(job)));
  }
  // What came in too late is answered, so that no connection waits for the stop's close.
  std::deque<ControlJob> late;
  {
    std::lock_guard lock(jobsMu);
    late.swap(jobs);
  }
  for (ControlJob& job : late) job.reply(controlResponse(job, stoppingError()));
}

void Server::Impl::stop() {
  std::call_once(stopOnce, [this] {
    // A change waiting for its frame would hold the stop up for its whole wait.
    store.abandonWaits();
    // The control thread goes first: its answers are handed to the serving threads.
    {
      std::lock_guard lock(jobsMu);
      jobsStop = true;
    }
    jobsCv.notify_all();
    if (controlThread.joinable()) controlThread.join();
    if (listener) listener->stop();
    {
      std::lock_guard lock(controlMu);
      stopping = true;
    }
    producer.stop();
    uploads.removeAll();
  });
}

Result<std::unique_ptr<Server>> Server::start(const ServerOptions& options,
                                              const SourceChoice& choice,
                                              const FrameSettings& settings, Logger log) {
  auto source = openSource(choice, settings);
  if (!source) return source.error();
  return start(options, std::move(source.value()), settings, std::move(log));
}

Result<std::unique_ptr<Server>> Server::start(const ServerOptions& options,
                                              std::unique_ptr<Source> source,
                                              const FrameSettings& settings, Logger log) {
  if (!log) log = [](const std::string&) {};

  auto impl = std::make_unique<Impl>(options, settings, log);
  Impl* p = impl.get();
  ServingContext serving{p->options,
                         p->store,
                         p->errorLog,
                         p->requests,
                         p->framesServed,
                         p->panelFrames,
                         p->errors,
                         p->clients,
                         p->peakClients,
                         p->bodies,
                         p->uploadBodies,
                         [p] { return dumpJson(p->status()) + "\n"; },
                         [p](ControlJob job) { p->submitControl(std::move(job)); },
                         [p] {
                           p->sampleRate(Clock::now());
                           p->releaseAfterFlood();
                         },
                         p->fetches,
                         p->faults,
                         p->log};
  auto listener = Listener::open(serving);
  if (!listener) return listener.error();
  impl->listener = std::move(listener.value());
  impl->port = impl->listener->port();
  impl->url = formatUrl(options.host, impl->port);

  std::string summary = sourceSummary(*source, settings);
  const bool waitForFirst = source->kind() != SourceChoice::Kind::Stdin;
  impl->producer.start(std::move(source));
  // Files and the pattern have their first frame ready in moments: wait, so the first request
  // gets a frame. A stream gives its first frame when its writer pleases.
  if (waitForFirst) impl->store.waitNewer(0, Clock::now() + kControlWait);
  impl->controlThread = std::thread([p = impl.get()] { p->controlLoop(); });
  impl->sampleRate(Clock::now());
  impl->listener->start();

  log("listening on " + impl->url + " (GET /frame), source: " + summary +
      (settings.step ? "; step mode: each frame stays until POST /control {\"step\": N}" : ""));
  if (!isLoopback(options.host)) {
    log("warning: " + options.host +
        " is not a loopback address: other machines can see the feed and use the control API "
        "(POST /control switches the source and can open any file this user may read)");
  }
  return std::unique_ptr<Server>(new Server(std::move(impl)));
}

Server::Server(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Server::~Server() { stop(); }

void Server::stop() { impl_->stop(); }

uint16_t Server::port() const { return impl_->port; }

std::string Server::url() const { return impl_->url; }

nlohmann::json Server::status() const { return impl_->status(); }

Result<nlohmann::json> Server::control(const nlohmann::json& request) {
  return impl_->control(request);
}

Result<nlohmann::json> Server::controlBody(std::string_view body) {
  return impl_->controlBody(body);
}

ServerTotals Server::totals() const {
  ServerTotals t;
  t.framesServed = impl_->framesServed.get();
  t.requests = impl_->requests.get();
  t.errors = impl_->errors.get();
  t.uptimeSeconds = std::chrono::duration<double>(Clock::now() - impl_->started).count();
  return t;
}

const FrameStore& Server::frames() const { return impl_->store; }

}  // namespace zerlan::server
