// zerlan serve: runs the frame server until SIGINT, SIGTERM or SIGHUP, or until its stream ends
// before it gave a frame.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>

#include "cli/command.h"
#include "cli/loopback.h"
#include "lib/transport/FrameLimit.h"
#include "server/camera.h"
#include "server/image.h"
#include "server/platform.h"
#include "server/scenario.h"
#include "server/server.h"

namespace zerlan::cli {

namespace {

struct ServeOptions {
  std::string host = "127.0.0.1";
  int port = server::kDefaultPort;
  std::string image;
  std::string dir;
  std::string video;
  bool stdinStream = false;
  std::string camera;  // a name, or empty for the default camera (with --camera given)
  std::string cameraInput{platform::kCameraInput};
  bool listCameras = false;
  std::string qr = "zerlan";
  double fps = 10;
  std::string size;
  int quality = 85;
  double timeout = 5;
  unsigned threads = 0;
  bool step = false;
  std::string scenario;
  std::string logFile;
  bool verbose = false;
  bool background = false;
  CLI::Option* fpsOption = nullptr;
  CLI::Option* sizeOption = nullptr;
  CLI::Option* cameraOption = nullptr;
};

// An address to listen on is an IP address (or localhost); a name that resolves elsewhere, or
// a malformed number, is a mistake on the command line, not a runtime failure.
bool isListenAddress(const std::string& host) {
  unsigned char buffer[sizeof(in6_addr)];
  return host == "localhost" || inet_pton(AF_INET, host.c_str(), buffer) == 1 ||
         inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

// Many clients at once need many descriptors; the soft limit is often a low 1024.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

int listCameras(const std::string& input) {
  auto cameras = server::listCameras(input);
  if (!cameras) {
    std::cerr << "zerlan serve: " << cameras.error().message << "\n";
    return kExitRuntime;
  }
  if (cameras->empty()) {
    std::cerr << "zerlan serve: no camera found: " << server::noCamera(input) << "\n";
    return kExitRuntime;
  }
  for (const auto& c : *cameras) {
    std::cout << c.name << (c.description.empty() ? "" : "\t" + c.description) << "\n";
  }
  return kExitOk;
}

// --background: this process returns at once to the caller, once the server in a child process
// serves (with the child's process ID on standard output), or with the child's exit code when
// it cannot start. The child gets the descriptor to report "serving" on; nothing in the parent.
// Before any thread exists: a child forked later would lack them.
struct Detached {
  std::optional<int> parentExit;  // set in the process that returns to the caller
  int readyFd = -1;               // in the server process
};

Detached detach() {
  int ready[2];
  if (!platform::openPipe(ready)) {
    std::cerr << "zerlan serve: --background: pipe: " << std::strerror(errno) << "\n";
    return {kExitRuntime};
  }
  pid_t child = fork();
  if (child < 0) {
    std::cerr << "zerlan serve: --background: fork: " << std::strerror(errno) << "\n";
    return {kExitRuntime};
  }
  if (child == 0) {
    close(ready[0]);
    return {std::nullopt, ready[1]};
  }
  close(ready[1]);
  char byte = 0;
  ssize_t n;
  do n = read(ready[0], &byte, 1);
  while (n < 0 && errno == EINTR);
  close(ready[0]);
  if (n == 1) {
    std::cout << child << std::endl;
    return {kExitOk};
  }
  // The child said why on the standard error it shares with this process.
  int raw = 0;
  while (waitpid(child, &raw, 0) < 0 && errno == EINTR) {
  }
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : kExitRuntime};
}

// Tells the caller of --background that the server serves, and lets go of its terminal and
// pipes: a shell's $(...) that reads the process ID waits for every writer to close.
void reportServing(int readyFd, bool keepStdin, bool keepStderr) {
  int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null >= 0) {
    dup2(null, STDOUT_FILENO);
    if (!keepStdin) dup2(null, STDIN_FILENO);
    if (!keepStderr) dup2(null, STDERR_FILENO);
    close(null);
  }
  char byte = 1;
  (void)!write(readyFd, &byte, 1);
  close(readyFd);
}

// Set by the source, on a thread of the server's, when the stream ended before its first frame.
std::atomic<bool> gNothingToServe{false};

int runServe(const ServeOptions& o) {
  if (o.listCameras) return listCameras(o.cameraInput);
  if (!isListenAddress(o.host))
    return usageError("serve", "--host " + o.host +
                                   " is not an IP address: use 127.0.0.1 (the default), ::1, or 0.0.0.0 "
                                   "for every interface");
  int logFd = STDERR_FILENO;
  if (!o.logFile.empty()) {
    logFd = open(o.logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (logFd < 0) return usageError("serve", "--log " + o.logFile + ": " + std::strerror(errno));
  }
  Detached detached;
  if (o.background) {
    detached = detach();
    if (detached.parentExit) return *detached.parentExit;
  }
  server::FrameSettings settings;
  settings.qr = o.qr;
  settings.fps = o.fps;
  settings.quality = o.quality;
  settings.step = o.step;
  settings.cameraInput = o.cameraInput;
  if (!o.size.empty()) {
    auto size = server::parseSize(o.size);
    if (!size) return usageError("serve", "--size: " + size.error().message);
    settings.size = *size;
  }

  server::SourceChoice choice = server::SourceChoice::pattern();
  if (!o.image.empty()) choice = server::SourceChoice::image(o.image);
  if (!o.dir.empty()) choice = server::SourceChoice::dir(o.dir);
  if (!o.video.empty()) choice = server::SourceChoice::video(o.video);
  if (o.stdinStream) choice = server::SourceChoice::stream(0);
  if (o.cameraOption->count() > 0) choice = server::SourceChoice::camera(o.camera);

  auto log = server::descriptorLogger(logFd, "zerlan serve: ");
  if (o.fpsOption->count() > 0 && choice.kind != server::SourceChoice::Kind::Pattern &&
      choice.kind != server::SourceChoice::Kind::Dir) {
    log("note: --fps paces the pattern and --dir; this source keeps its own pace");
  }
  if (o.sizeOption->count() > 0 &&
      (choice.kind == server::SourceChoice::Kind::Image || choice.kind == server::SourceChoice::Kind::Dir)) {
    log("note: --size applies to pictures that are converted (PNG and others); JPEG files are served "
        "unchanged, at their own size");
  }

  auto source = server::openSource(choice, settings);
  if (!source) return usageError("serve", source.error().message);
  std::optional<server::Scenario> scenario;
  if (!o.scenario.empty()) {
    auto loaded = server::loadScenario(o.scenario);
    if (!loaded) return usageError("serve", "--scenario " + loaded.error().message);
    for (const auto& step : loaded->steps) {
      if (!o.step && step.control.contains("step")) {
        return usageError("serve", "--scenario " + o.scenario + ":" + std::to_string(step.line) +
                                       ": a \"step\" step needs step mode: add --step");
      }
    }
    scenario = std::move(loaded.value());
  }

  server::ServerOptions options;
  options.host = o.host;
  options.port = static_cast<uint16_t>(o.port);
  options.threads = o.threads;
  options.timeout = std::chrono::milliseconds(static_cast<int64_t>(std::llround(o.timeout * 1000)));
  options.logRequests = o.verbose;
  // The source tells this thread, waiting in sigwait below, with a signal of the process's own.
  options.nothingToServe = [] {
    gNothingToServe.store(true);
    kill(getpid(), SIGUSR1);
  };

  // Signals are taken by sigwait below; every thread the server starts inherits the mask. A
  // parent may have left them ignored (an ignored signal is discarded, never pending), so the
  // default disposition comes back first.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  for (int signo : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) {
    signal(signo, SIG_DFL);
    sigaddset(&stopSignals, signo);
  }
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  raiseDescriptorLimit();

  auto started = server::Server::start(options, std::move(source.value()), settings, log);
  if (!started) {
    const auto& error = started.error();
    std::cerr << "zerlan serve: "
              << (error.systemError == EADDRINUSE ? portTakenText(options.port) + ", or give this server another --port"
                                                  : error.message)
              << "\n";
    return kExitRuntime;
  }
  auto& srv = *started.value();
  std::unique_ptr<server::ScenarioPlayer> player;
  if (scenario) player = std::make_unique<server::ScenarioPlayer>(srv, std::move(*scenario), log);
  if (detached.readyFd >= 0) reportServing(detached.readyFd, o.stdinStream, logFd == STDERR_FILENO);

  int signo = 0;
  do sigwait(&stopSignals, &signo);
  while (signo == SIGUSR1 && !gNothingToServe.load());
  // The player's step may be waiting for its frame, which the server's stop ends.
  if (player) player->requestStop();
  srv.stop();
  player.reset();
  auto t = srv.totals();
  std::ostringstream summary;
  summary.precision(1);
  summary << std::fixed << "stopped ("
          << (signo == SIGUSR1 ? "nothing to serve" : signalName(signo))
          << ") after " << t.uptimeSeconds << " s: " << server::counted(t.framesServed, "frame") << " served, "
          << server::counted(t.requests, "request") << ", " << server::counted(t.errors, "error");
  log(summary.str());
  return signo == SIGUSR1 ? kExitRuntime : kExitOk;
}

}  // namespace

Command addServe(CLI::App& zerlan) {
  auto o = std::make_shared<ServeOptions>();
  CLI::App* cmd = zerlan.add_subcommand(
      "serve",
      "Serve camera frames: GET /frame answers the current JPEG. Without a source option it "
      "serves an animated test pattern with a QR code. Stop it with Ctrl-C.");

  cmd->add_option("--host", o->host,
                  "Address to listen on. Anything but a loopback address shows the feed, and "
                  "opens the control API, to other machines.")
      ->capture_default_str();
  cmd->add_option("--port", o->port,
                  "Port to listen on, 0 to 65535; the injected library uses 47654 unless the app "
                  "was started with ZERLAN_FRAME_PORT. 0 picks a free port and prints it in the "
                  "start line.")
      ->capture_default_str()
      ->check(portNumber(true));

  auto* image = cmd->add_option("--image", o->image,
                                "Serve one picture: a JPEG byte for byte; PNG and other "
                                "formats are converted to JPEG once. A picture (here, in --dir "
                                "or named by a control request) may have at most " +
                                    std::to_string(server::kMaxPicturePixels / 1'000'000) +
                                    " megapixels, read from its header, and as a JPEG at most " +
                                    std::to_string(transport::kMaxFrameBytes >> 20) +
                                    " MiB, what the library takes for one frame.")
                    ->type_name("FILE");
  auto* dir = cmd->add_option("--dir", o->dir,
                              "Serve the pictures of a folder in name order, one per 1/fps "
                              "seconds, looping.")
                  ->type_name("DIR");
  auto* video =
      cmd->add_option("--video", o->video, "Play a video file at its own frame rate, looping.")
          ->type_name("FILE");
  auto* stream = cmd->add_flag("--stdin", o->stdinStream,
                               "Serve an MJPEG stream (concatenated JPEGs) read from standard "
                               "input, each frame replacing the last, for example: ffmpeg -i "
                               "input.mp4 -f mjpeg - | zerlan serve --stdin");
  o->cameraOption =
      cmd->add_option("--camera", o->camera,
                      "Serve a camera of this machine, its frames cropped and scaled to --size "
                      "(640x480 by default): the default camera, or the one NAME names (see "
                      "--list-cameras). On macOS the first use asks whether the terminal may use "
                      "the camera.")
          ->expected(0, 1)
          ->type_name("[NAME]");
  cmd->add_option("--camera-input", o->cameraInput,
                  "The libavdevice input that reads --camera: avfoundation (macOS), v4l2 "
                  "(Linux), or lavfi, whose camera is a generated video: NAME is a chain of "
                  "FFmpeg filters, " +
                      std::string(server::kLavfiDefaultGraph) +
                      " unless given, played in real time (for demos and tests without a camera).")
      ->capture_default_str()
      ->check(CLI::IsMember({"avfoundation", "v4l2", "lavfi"}));
  cmd->add_flag("--list-cameras", o->listCameras,
                "List the cameras --camera can name (one a line: the name, a tab and what the "
                "system calls it) and exit.");
  const std::vector<CLI::Option*> sources = {image, dir, video, stream, o->cameraOption};
  for (auto* a : sources) {
    for (auto* b : sources) {
      if (a != b) a->excludes(b);
    }
  }

  cmd->add_option("--qr", o->qr, "Text of the QR code on the test pattern.")->capture_default_str();
  o->fpsOption =
      cmd->add_option("--fps", o->fps, "Frames per second of the test pattern and of --dir.")
          ->capture_default_str()
          ->check(CLI::Range(server::kMinFps, server::kMaxFps));
  o->sizeOption = cmd->add_option("--size", o->size,
                  "Size of generated frames as WIDTHxHEIGHT: the pattern (default 640x480), "
                  "video frames and converted pictures (default: their own size). JPEG files "
                  "are served unchanged.")
      ->type_name("WxH");
  cmd->add_option("--quality", o->quality, "JPEG quality of generated frames, 1 to 100.")
      ->capture_default_str()
      ->check(CLI::Range(1, 100));
  cmd->add_option("--timeout", o->timeout,
                  "Seconds a client may take to send its request, or pause while reading the "
                  "answer, before it is dropped.")
      ->capture_default_str()
      ->check(CLI::Range(0.05, 3600.0));
  cmd->add_option("--threads", o->threads, "Serving threads (default: one per core).")
      ->check(CLI::Range(1, 64));
  cmd->add_flag("--step", o->step,
                "Step mode, for automated tests: the current frame stays until POST /control "
                "{\"step\": N} (or zerlan ctl step N) advances N frames, and the test pattern "
                "draws no clock, so a step gives the same JPEG bytes on every run.");
  cmd->add_option("--scenario", o->scenario,
                  "Play a JSON list of timed steps, for example [{\"at\": 0, \"qr\": \"A\"}, "
                  "{\"at\": 4, \"fault\": \"stall\", \"seconds\": 1}, "
                  "{\"after_fetches\": 20, \"qr\": \"B\"}]; each step is logged as it fires.")
      ->type_name("FILE");
  cmd->add_flag("-v,--verbose", o->verbose,
                "Log every answer: the request, the client, the status, the frame and its size, "
                "for following what an app fetches.");
  cmd->add_option("--log", o->logFile,
                  "Write the log to FILE (replaced) instead of standard error; errors that keep "
                  "the server from starting still go to standard error.")
      ->type_name("FILE");
  cmd->add_flag("--background", o->background,
                "Return once the server serves, printing its process ID, for scripts: "
                "server=$(zerlan serve --background --log serve.log). Exits as it would in the "
                "foreground when it cannot start.");

  cmd->footer(
      "Pages: GET /frame (the JPEG), GET / (the control panel), GET /status (JSON), GET /cameras "
      "(JSON), POST /upload (a picture or video as the body, as the panel sends a dropped file), "
      "POST /control with JSON: {\"qr\": \"TEXT\"}, {\"source\": \"pattern\"}, "
      "{\"source\": {\"image\": PATH}}, {\"source\": {\"dir\": PATH}}, "
      "{\"source\": {\"video\": PATH}}, {\"source\": \"camera\"}, "
      "{\"source\": {\"camera\": NAME}}, {\"fps\": N}, {\"step\": N} (--step), "
      "{\"fault\": KIND, \"seconds\": S} or {\"fault\": KIND, \"requests\": N} (KIND: refuse, "
      "stall, slow, garbage, truncate, http-error; \"none\" clears); relative paths start from the "
      "folder zerlan serve was started in.\n\n"
      "Examples:\n"
      "  zerlan serve                          test pattern with the QR code \"zerlan\"\n"
      "  zerlan serve --qr 'https://example.com'\n"
      "  zerlan serve --image photo.png --size 640x480\n"
      "  zerlan serve --video clip.mp4\n"
      "  zerlan serve --camera                 the default camera of this machine\n"
      "  zerlan serve --camera-input lavfi --camera 'smptebars=size=640x480'\n"
      "  curl -H 'Content-Type: application/json' -d '{\"qr\": \"LOGIN-42\"}' "
      "http://127.0.0.1:47654/control\n\n"
      "The server answers only requests addressed to it (Host 127.0.0.1, localhost, [::1] or "
      "--host) and no other web page's; POST /control needs Content-Type: application/json.\n\n" +
      std::string(kExitCodesHelp));

  return Command{cmd, [o] { return runServe(*o); }};
}

}  // namespace zerlan::cli
