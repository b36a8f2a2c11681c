// zerlan demo: on Linux, runs `zerlan serve` (this same binary) on the test pattern and the sample
// apps on fakesdk with ZerlanInject preloaded: capture-app (the QR payload switches half way
// through), then picker-app (an automated photo, and a recording during which the payload changes
// again). It leaves what the apps received (photo.jpg, result.json, picker-photo.jpg,
// picker-video.mp4) in a folder.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cli/command.h"
#include "cli/loopback.h"
#include "server/log.h"
#include "server/media.h"
#include "server/server.h"
#include "server/platform.h"

extern char** environ;

namespace zerlan::cli {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kFirstPayload = "zerlan";
constexpr const char* kSecondPayload = "zerlan-demo-2";
constexpr const char* kPickerPayload = "zerlan-picker";

struct DemoOptions {
  double seconds = 6;
  std::string out = "zerlan-demo";
  std::string library;
  int port = server::kDefaultPort;
};

// SIGTERM, SIGINT or SIGHUP: an IDE's stop button, a CI job's cancel, Ctrl-C, a closed terminal.
// The handler only records it; the demo's waits notice (their system calls return early) and
// throw Interrupted, and unwinding stops every child on the way out.
volatile sig_atomic_t gInterruptedBy = 0;

void onInterrupt(int signo) { gInterruptedBy = signo; }

struct Interrupted {
  int signo;
  std::vector<std::string> stopped;  // the programs that were still running
};

// The children running now, by name, for the report of an interruption.
std::vector<std::string>& runningChildren() {
  static std::vector<std::string> names;
  return names;
}

void throwIfInterrupted() {
  if (gInterruptedBy) throw Interrupted{gInterruptedBy, runningChildren()};
}

void catchInterruptions() {
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: a wait in poll or recv returns at once
  for (int signo : {SIGTERM, SIGINT, SIGHUP}) sigaction(signo, &action, nullptr);
}

// A child process of the demo; stopped (SIGTERM, then SIGKILL) when it goes out of scope.
class Child {
 public:
  Child() = default;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() { stop(); }

  // `name` is what the demo calls it in its messages; argv[0] is a path. stdoutFd/stderrFd become
  // the child's descriptors 1 and 2; extraEnv entries ("NAME=value") are added to this process's
  // environment.
  bool spawn(const std::string& name, const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv, int stdoutFd,
             int stderrFd, std::string& error) {
    auto nameOf = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) {
      bool replaced = false;
      for (const std::string& extra : extraEnv) replaced = replaced || nameOf(extra) == nameOf(*e);
      if (!replaced) envStrings.push_back(*e);
    }
    envStrings.insert(envStrings.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> envp, args;
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> argCopy = argv;
    for (auto& s : argCopy) args.push_back(s.data());
    args.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, stdoutFd, 1);
    posix_spawn_file_actions_adddup2(&actions, stderrFd, 2);
    // The handlers of the demo's signals do not pass the exec: the child has the defaults.
    int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
      pid_ = -1;
      error = "cannot start " + argv[0] + ": " + std::strerror(rc);
      return false;
    }
    name_ = name;
    runningChildren().push_back(name_);
    return true;
  }

  // Whether the child has ended; if so its exit code (or -1 for a signal) is in status().
  bool exited() {
    if (pid_ < 0) return true;
    int raw = 0;
    if (waitpid(pid_, &raw, WNOHANG) != pid_) return false;
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    signal_ = WIFSIGNALED(raw) ? WTERMSIG(raw) : 0;
    ended();
    return true;
  }

  int status() const { return status_; }
  int signal() const { return signal_; }

  void stop() {
    if (pid_ < 0) return;
    ::kill(pid_, SIGTERM);
    auto deadline = Clock::now() + std::chrono::seconds(3);
    while (!exited() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (pid_ >= 0) {
      ::kill(pid_, SIGKILL);
      int raw = 0;
      while (waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
      }
      ended();
    }
  }

 private:
  void ended() {
    pid_ = -1;
    auto& names = runningChildren();
    if (auto it = std::find(names.begin(), names.end(), name_); it != names.end()) names.erase(it);
  }

  pid_t pid_ = -1;
  std::string name_;
  int status_ = -1;
  int signal_ = 0;
};

// Whether something already listens on 127.0.0.1:port. SO_REUSEADDR, as the server sets it, so
// that connections of an earlier run lingering in TIME_WAIT do not count.
bool portInUse(uint16_t port) {
  int fd = platform::openSocket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool inUse = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 && errno == EADDRINUSE;
  close(fd);
  return inUse;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string lastLines(const std::string& text, int count) {
  size_t pos = text.size();
  while (pos > 0 && count >= 0) {
    pos = text.rfind('\n', pos - 1);
    if (pos == std::string::npos) return text;
    --count;
  }
  return text.substr(pos + 1);
}

std::string formatBytes(uint64_t bytes) {
  char text[32];
  if (bytes >= 1024 * 1024)
    std::snprintf(text, sizeof text, "%.1f MB", bytes / (1024.0 * 1024.0));
  else if (bytes >= 1024)
    std::snprintf(text, sizeof text, "%.1f KB", bytes / 1024.0);
  else
    std::snprintf(text, sizeof text, "%llu bytes", static_cast<unsigned long long>(bytes));
  return text;
}

int fail(const std::string& message) {
  std::cerr << "zerlan demo: " << message << "\n";
  return kExitRuntime;
}

// The status of one request to the frame server, or 0 when there was no answer.
int httpStatus(uint16_t port, const std::string& method, const std::string& path, const std::string& body = {}) {
  auto answer = loopbackRequest(port, method, path, body, std::chrono::seconds(2));
  return answer ? answer->status : 0;
}

// What a sample app printed (its one JSON line) and how it ended. `error` says why there is no
// result at all.
struct AppRun {
  nlohmann::ordered_json result;
  int status = -1;
  std::string error;
};

// Where the sample apps run: the programs, the library they get and the frame server's port.
struct Setup {
  fs::path binDir;
  fs::path library;
  fs::path out;
  uint16_t port;
};

// Runs a sample app with the library preloaded, fetching from the demo's server, its standard
// error into `log`, until it exits or `timeoutSeconds` pass. `tick` runs about ten times a second
// with the seconds elapsed and may return a progress text, printed once a second while it is
// given. Throws Interrupted when the demo is.
AppRun runSampleApp(const Setup& setup, const std::string& name, const std::vector<std::string>& args,
                    const fs::path& log, double timeoutSeconds, const std::function<const char*(double)>& tick) {
  throwIfInterrupted();
  const fs::path app = setup.binDir / name;
  AppRun run;
  int appOut[2];
  if (!platform::openPipe(appOut)) {
    run.error = std::string("pipe: ") + std::strerror(errno);
    return run;
  }
  int logFd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (logFd < 0) {
    close(appOut[0]);
    close(appOut[1]);
    run.error = "cannot write " + log.string() + ": " + std::strerror(errno);
    return run;
  }
  std::vector<std::string> argv{app.string()};
  argv.insert(argv.end(), args.begin(), args.end());
  Child child;
  bool spawned = child.spawn(name, argv,
                             {"LD_PRELOAD=" + setup.library.string(), "ZERLAN_FRAME_PORT=" + std::to_string(setup.port)},
                             appOut[1], logFd, run.error);
  close(appOut[1]);
  close(logFd);
  if (!spawned) {
    close(appOut[0]);
    return run;
  }

  // The app's whole output is one JSON line, read as it comes so that a pipe never fills.
  std::string output;
  auto started = Clock::now();
  int reported = 0;
  for (bool done = false; !done;) {
    if (gInterruptedBy) {
      close(appOut[0]);
      throwIfInterrupted();
    }
    pollfd fd{appOut[0], POLLIN, 0};
    if (poll(&fd, 1, 100) > 0) {
      char buffer[4096];
      ssize_t n = read(appOut[0], buffer, sizeof buffer);
      if (n > 0) output.append(buffer, static_cast<size_t>(n));
    }
    done = child.exited();
    double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    const char* progress = tick(elapsed);
    if (!done && progress && static_cast<int>(elapsed) > reported) {
      reported = static_cast<int>(elapsed);
      std::printf("%s %ds\n", progress, reported);
    }
    std::fflush(stdout);
    if (!done && elapsed > timeoutSeconds) {
      child.stop();
      close(appOut[0]);
      run.error = name + " did not finish within " + std::to_string(static_cast<int>(timeoutSeconds)) +
                  " s; its log is in " + log.string();
      return run;
    }
  }
  char buffer[4096];
  for (ssize_t n; (n = read(appOut[0], buffer, sizeof buffer)) > 0;) output.append(buffer, static_cast<size_t>(n));
  close(appOut[0]);
  run.status = child.status();
  try {
    run.result = nlohmann::ordered_json::parse(output);
  } catch (const nlohmann::json::exception&) {
    std::string how = child.signal() ? "was killed by signal " + std::to_string(child.signal())
                                     : "exited with status " + std::to_string(child.status());
    run.error = name + " " + how + " without a result; the end of its log (" + log.string() + "):\n" +
                lastLines(readFile(log), 10);
  }
  return run;
}

void switchPayload(uint16_t port, const char* payload) {
  int status = httpStatus(port, "POST", "/control", nlohmann::json{{"qr", payload}}.dump());
  if (status == 200)
    std::printf("switched the QR payload to \"%s\" (POST /control)\n", payload);
  else
    std::printf("could not switch the QR payload: %s\n",
                status ? ("HTTP " + std::to_string(status)).c_str() : "no answer from the frame server");
}

// What a movie holds, read back with libavformat: "h264 640x480, 2.90 s, 30 frames", or why it
// cannot be read. The length is the one the file records, as a player shows it.
std::string describeMovie(const fs::path& movie) {
  auto reader = server::MediaReader::open(movie.string());
  if (!reader) return "unreadable: " + reader.error().message;
  server::Size size = (*reader)->size();
  std::string codec = (*reader)->codecName();
  uint64_t frames = 0;
  for (;;) {
    auto frame = (*reader)->next(std::nullopt);
    if (!frame || !*frame) break;
    ++frames;
  }
  char text[128];
  std::snprintf(text, sizeof text, "%s %dx%d, %.2f s, ", codec.c_str(), size.width, size.height,
                (*reader)->duration());
  return text + server::counted(frames, "frame");
}

// The image picker half of the demo: picker-app takes a photo by itself (the automated-capture
// setting), then records three seconds while the QR payload changes. Prints what came back;
// false when something is missing.
bool runPickerDemo(const Setup& setup) {
  const fs::path& out = setup.out;
  fs::path photo = out / "picker-photo.jpg", movie = out / "picker-video.mp4";
  std::error_code ec;
  fs::remove(photo, ec);
  fs::remove(movie, ec);

  std::printf("\nrunning picker-app: an automated photo through UIImagePickerController\n");
  std::fflush(stdout);
  AppRun shot = runSampleApp(setup, "picker-app", {"--action", "auto", "--media", "photo", "--save", photo.string()},
                             out / "picker-photo.log", 30, [](double) { return nullptr; });
  std::printf("running picker-app: a 3 s recording\n");
  std::fflush(stdout);
  bool switched = false;
  AppRun recording = runSampleApp(
      setup, "picker-app", {"--action", "record", "--media", "both", "--record-seconds", "3", "--save", movie.string()},
      out / "picker-video.log", 40, [&](double elapsed) {
        // Half way through the recording: picker-app needs a moment for its first frame.
        if (!switched && elapsed >= 2) {
          switched = true;
          switchPayload(setup.port, kPickerPayload);
        }
        return "recording with picker-app...";
      });

  std::printf("\npicker-app received, through UIImagePickerController with ZerlanInject preloaded:\n");
  bool ok = true;
  auto report = [&](const char* label, const AppRun& run, const fs::path& file, const std::string& what) {
    if (!run.error.empty()) {
      std::printf("  %s  none: %s\n", label, run.error.c_str());
      ok = false;
    } else if (run.status != 0 || !fs::exists(file)) {
      std::string why = run.result["error"].is_string() ? run.result["error"].get<std::string>() : "no file";
      std::printf("  %s  none: %s\n", label, why.c_str());
      ok = false;
    } else {
      std::printf("  %s  %s, saved to %s\n", label, what.c_str(), file.c_str());
    }
  };
  auto size = [](const AppRun& run) {
    const auto& r = run.result;
    if (!r.is_object() || !r["imageWidth"].is_number()) return std::string("?");
    return std::to_string(r["imageWidth"].get<int>()) + "x" + std::to_string(r["imageHeight"].get<int>()) + " JPEG";
  };
  report("photo       ", shot, photo, size(shot));
  report("video       ", recording, movie, fs::exists(movie) ? describeMovie(movie) : "");
  std::fflush(stdout);
  if (!ok) fail("picker-app did not get everything (logs: " + (out / "picker-photo.log").string() + ", " +
                (out / "picker-video.log").string() + ")");
  return ok;
}

int runDemo(const DemoOptions& o) {
  std::error_code ec;
  fs::path self = platform::executablePath();
  if (platform::kSystemName != "Linux" || self.empty())
    return fail("runs on Linux only: it starts capture-app on fakesdk (on macOS use 'zerlan launch')");
  fs::path binDir = self.parent_path();
  fs::path library = o.library.empty() ? binDir.parent_path() / "lib" / "libZerlanInject.so" : fs::path(o.library);
  for (const char* app : {"capture-app", "picker-app"})
    if (!fs::exists(binDir / app))
      return fail((binDir / app).string() + " not found: build it with 'cmake --build build --target " + app + "'");
  if (!o.library.empty() && !fs::is_regular_file(library))
    return usageError("demo", "--library " + o.library + ": no such file");
  if (!fs::exists(library))
    return fail(library.string() + " not found: build it with 'cmake --build build --target ZerlanInject' or pass --library");
  const uint16_t port = static_cast<uint16_t>(o.port);
  const Setup setup{binDir, fs::absolute(library), o.out, port};

  fs::path out = o.out;
  fs::create_directories(out, ec);
  if (ec) return fail("cannot create " + out.string() + ": " + ec.message());
  fs::path photoPath = out / "photo.jpg";
  fs::path resultPath = out / "result.json";
  fs::path serveLog = out / "serve.log";
  fs::path appLog = out / "capture-app.log";
  fs::remove(photoPath, ec);
  fs::remove(resultPath, ec);

  if (portInUse(port)) return fail(portTakenText(port) + ", or give the demo another --port");

  int serveLogFd = open(serveLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (serveLogFd < 0) return fail("cannot write " + serveLog.string() + ": " + std::strerror(errno));
  Child server;
  std::string error;
  bool spawned = server.spawn("the frame server", {self.string(), "serve", "--port", std::to_string(port), "--qr", kFirstPayload},
                              {}, serveLogFd, serveLogFd, error);
  close(serveLogFd);
  if (!spawned) return fail(error);

  auto deadline = Clock::now() + std::chrono::seconds(10);
  // It answers /frame with 200 once its first frame exists, so the app gets frames at once.
  while (httpStatus(port, "GET", "/frame") != 200) {
    throwIfInterrupted();
    if (server.exited())
      return fail("the frame server stopped at start:\n" + lastLines(readFile(serveLog), 5));
    if (Clock::now() > deadline)
      return fail("the frame server did not answer on 127.0.0.1:" + std::to_string(port) + " within 10 s");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::printf("frame server: zerlan serve on http://127.0.0.1:%u (test pattern, QR \"%s\")\n", port, kFirstPayload);
  std::fflush(stdout);

  char secondsText[32];
  std::snprintf(secondsText, sizeof secondsText, "%g", o.seconds);
  long photoAfterMs = std::lround(o.seconds * 250);
  bool switched = false;
  AppRun capture = runSampleApp(
      setup, "capture-app",
      {"--seconds", secondsText, "--photo-after-ms", std::to_string(photoAfterMs), "--save-photo", photoPath.string()},
      appLog, o.seconds + 15, [&](double elapsed) {
        if (!switched && elapsed >= o.seconds / 2) {
          switched = true;
          switchPayload(port, kSecondPayload);
        }
        return elapsed <= o.seconds + 0.5 ? "running capture-app with ZerlanInject..." : nullptr;
      });
  if (!capture.error.empty()) return fail(capture.error);
  const nlohmann::ordered_json& result = capture.result;
  std::ofstream(resultPath) << result.dump(2) << "\n";

  auto number = [&](const char* key) { return result[key].is_number() ? result[key].get<double>() : 0.0; };
  long frames = std::lround(number("videoFrames"));
  long photoBytes = std::lround(number("photoBytes"));
  std::vector<std::string> codes;
  if (result["qr"].is_array())
    for (const auto& code : result["qr"])
      if (code.is_string()) codes.push_back(code.get<std::string>());

  std::printf("\ncapture-app received, with ZerlanInject preloaded:\n");
  if (frames > 0) {
    std::printf("  video frames  %ld in %g s (%.1f fps), %gx%g %s\n", frames, o.seconds, number("videoFps"),
                number("bufferWidth"), number("bufferHeight"),
                result["pixelFormat"].is_string() ? result["pixelFormat"].get<std::string>().c_str() : "?");
  } else {
    std::printf("  video frames  none\n");
  }
  std::string codeList;
  for (const std::string& code : codes) codeList += (codeList.empty() ? "\"" : ", \"") + code + "\"";
  std::printf("  QR codes      %s\n", codes.empty() ? "none" : codeList.c_str());
  if (photoBytes > 0) {
    std::printf("  photo         %gx%g JPEG, %s, saved to %s\n", number("photoWidth"), number("photoHeight"),
                formatBytes(static_cast<uint64_t>(photoBytes)).c_str(), photoPath.c_str());
  } else {
    std::printf("  photo         none\n");
  }
  std::printf("  all results   %s\n", resultPath.c_str());
  if (result["error"].is_string()) std::printf("  app error     %s\n", result["error"].get<std::string>().c_str());
  std::fflush(stdout);

  std::vector<std::string> missing;
  if (frames <= 0) missing.push_back("no video frames");
  if (codes.empty()) missing.push_back("no QR code");
  if (photoBytes <= 0) missing.push_back("no photo");
  if (!missing.empty()) {
    std::string what;
    for (const std::string& m : missing) what += (what.empty() ? "" : ", ") + m;
    return fail("the app did not get everything: " + what + " (logs: " + appLog.string() + ", " +
                serveLog.string() + ")");
  }
  if (capture.status != 0) return fail("capture-app exited with status " + std::to_string(capture.status));
  if (!runPickerDemo(setup)) return kExitRuntime;
  std::printf("\ndemo complete: the apps saw the camera\n");
  return kExitOk;
}

// The demo, stopped cleanly by an interruption: its children are stopped while Interrupted
// unwinds, and what they left is named.
int runInterruptibly(const DemoOptions& o) {
  catchInterruptions();
  try {
    return runDemo(o);
  } catch (const Interrupted& interrupted) {
    std::string stopped;
    for (size_t i = 0; i < interrupted.stopped.size(); ++i) {
      stopped += (i == 0 ? "" : i + 1 == interrupted.stopped.size() ? " and " : ", ") + interrupted.stopped[i];
    }
    std::vector<std::string> files;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(o.out, ec)) files.push_back(entry.path().filename().string());
    std::sort(files.begin(), files.end());
    std::string left;
    for (const std::string& file : files) left += (left.empty() ? "" : ", ") + file;
    std::cerr << "zerlan demo: interrupted (" << signalName(interrupted.signo) << ")"
              << (stopped.empty() ? "" : ": stopped " + stopped) << "; "
              << (left.empty() ? "it left nothing in " + o.out : "it left in " + o.out + "/: " + left) << "\n";
    return 128 + interrupted.signo;
  }
}

}  // namespace

Command addDemo(CLI::App& zerlan) {
  auto o = std::make_shared<DemoOptions>();
  CLI::App* cmd = zerlan.add_subcommand(
      "demo",
      "Linux: run the frame server and the sample apps with ZerlanInject preloaded: capture-app "
      "(video, QR codes, a photo; the QR payload switches half way through), then picker-app (an "
      "automated photo and a 3 s recording through UIImagePickerController), and save what they "
      "received.");
  cmd->add_option("--seconds", o->seconds, "How long capture-app runs.")
      ->capture_default_str()
      ->check(CLI::Range(1.0, 3600.0));
  cmd->add_option("--out", o->out, "Folder for photo.jpg, result.json, picker-photo.jpg, picker-video.mp4 and the logs.")
      ->capture_default_str()
      ->type_name("DIR");
  cmd->add_option("--library", o->library,
                  "The library to preload (default: ../lib/libZerlanInject.so next to this binary).")
      ->type_name("FILE");
  cmd->footer("SIGTERM, SIGINT (Ctrl-C) or SIGHUP stop the demo and the programs it started, "
              "and it exits with 128 plus the signal's number.\n\n" +
              std::string(kExitCodesHelp));
  cmd->add_option("--port", o->port,
                  "Port of the demo's frame server on 127.0.0.1 (the sample apps fetch from it); it must "
                  "be free.")
      ->capture_default_str()
      ->check(portNumber());
  return Command{cmd, [o] { return runInterruptibly(*o); }};
}

}  // namespace zerlan::cli
