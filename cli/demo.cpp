// zerlan demo: on Linux, runs `zerlan serve` (this same binary) on the test pattern and the sample
// app capture-app on fakesdk with ZerlanInject preloaded, switches the QR payload half way
// through, and leaves what the app received (photo.jpg, result.json) in a folder.
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

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cli/command.h"
#include "server/platform.h"

extern char** environ;

namespace zerlan::cli {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uint16_t kPort = 47654;
constexpr const char* kFirstPayload = "zerlan";
constexpr const char* kSecondPayload = "zerlan-demo-2";

struct DemoOptions {
  double seconds = 6;
  std::string out = "zerlan-demo";
  std::string library;
};

// A child process of the demo; stopped (SIGTERM, then SIGKILL) when it goes out of scope.
class Child {
 public:
  Child() = default;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() { stop(); }

  // argv[0] is a path. stdoutFd/stderrFd become the child's descriptors 1 and 2; extraEnv entries
  // ("NAME=value") are added to this process's environment.
  bool spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv, int stdoutFd,
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
    int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
      pid_ = -1;
      error = "cannot start " + argv[0] + ": " + std::strerror(rc);
      return false;
    }
    return true;
  }

  // Whether the child has ended; if so its exit code (or -1 for a signal) is in status().
  bool exited() {
    if (pid_ < 0) return true;
    int raw = 0;
    if (waitpid(pid_, &raw, WNOHANG) != pid_) return false;
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    signal_ = WIFSIGNALED(raw) ? WTERMSIG(raw) : 0;
    pid_ = -1;
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
      waitpid(pid_, &raw, 0);
      pid_ = -1;
    }
  }

 private:
  pid_t pid_ = -1;
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

// One HTTP/1.1 exchange with the frame server on loopback, Connection: close. Returns the status
// code, or 0 when there was no answer.
int httpStatus(uint16_t port, const std::string& method, const std::string& path, const std::string& body = {}) {
  int fd = platform::openSocket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return 0;
  timeval timeout{2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return 0;
  }
  std::string request = method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
  if (!body.empty())
    request += "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
  request += "\r\n" + body;
  std::string answer;
  if (send(fd, request.data(), request.size(), platform::kSendNoSignal) == static_cast<ssize_t>(request.size())) {
    char buffer[4096];
    for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) answer.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  int status = 0;
  if (std::sscanf(answer.c_str(), "HTTP/1.%*d %d", &status) != 1) return 0;
  return status;
}

int runDemo(const DemoOptions& o) {
  std::error_code ec;
  fs::path self = platform::executablePath();
  if (platform::kSystemName != "Linux" || self.empty())
    return fail("runs on Linux only: it starts capture-app on fakesdk (on macOS use 'zerlan launch')");
  fs::path binDir = self.parent_path();
  fs::path app = binDir / "capture-app";
  fs::path library = o.library.empty() ? binDir.parent_path() / "lib" / "libZerlanInject.so" : fs::path(o.library);
  if (!fs::exists(app))
    return fail(app.string() + " not found: build it with 'cmake --build build --target capture-app'");
  if (!fs::exists(library))
    return fail(library.string() + " not found: build it with 'cmake --build build --target ZerlanInject' or pass --library");
  library = fs::absolute(library);

  fs::path out = o.out;
  fs::create_directories(out, ec);
  if (ec) return fail("cannot create " + out.string() + ": " + ec.message());
  fs::path photoPath = out / "photo.jpg";
  fs::path resultPath = out / "result.json";
  fs::path serveLog = out / "serve.log";
  fs::path appLog = out / "capture-app.log";
  fs::remove(photoPath, ec);
  fs::remove(resultPath, ec);

  if (portInUse(kPort)) return fail("port 47654 is in use: stop the other frame server (is 'zerlan serve' running?)");

  int serveLogFd = open(serveLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (serveLogFd < 0) return fail("cannot write " + serveLog.string() + ": " + std::strerror(errno));
  Child server;
  std::string error;
  bool spawned = server.spawn({self.string(), "serve", "--port", std::to_string(kPort), "--qr", kFirstPayload}, {},
                              serveLogFd, serveLogFd, error);
  close(serveLogFd);
  if (!spawned) return fail(error);

  auto deadline = Clock::now() + std::chrono::seconds(10);
  // It answers /frame with 200 once its first frame exists, so the app gets frames at once.
  while (httpStatus(kPort, "GET", "/frame") != 200) {
    if (server.exited())
      return fail("the frame server stopped at start:\n" + lastLines(readFile(serveLog), 5));
    if (Clock::now() > deadline) return fail("the frame server did not answer on 127.0.0.1:47654 within 10 s");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::printf("frame server: zerlan serve on http://127.0.0.1:%u (test pattern, QR \"%s\")\n", kPort, kFirstPayload);
  std::fflush(stdout);

  int appOut[2];
  if (!platform::openPipe(appOut)) return fail(std::string("pipe: ") + std::strerror(errno));
  int appLogFd = open(appLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (appLogFd < 0) return fail("cannot write " + appLog.string() + ": " + std::strerror(errno));
  char secondsText[32];
  std::snprintf(secondsText, sizeof secondsText, "%g", o.seconds);
  long photoAfterMs = std::lround(o.seconds * 250);
  Child capture;
  spawned = capture.spawn({app.string(), "--seconds", secondsText, "--photo-after-ms", std::to_string(photoAfterMs),
                           "--save-photo", photoPath.string()},
                          {"LD_PRELOAD=" + library.string()}, appOut[1], appLogFd, error);
  close(appOut[1]);
  close(appLogFd);
  if (!spawned) {
    close(appOut[0]);
    return fail(error);
  }

  // The app's whole output is one JSON line, read as it comes so that a pipe never fills.
  std::string appOutput;
  auto started = Clock::now();
  auto appDeadline = started + std::chrono::duration<double>(o.seconds + 15);
  int reported = 0;
  bool switched = false;
  bool appDone = false;
  while (!appDone) {
    pollfd fd{appOut[0], POLLIN, 0};
    if (poll(&fd, 1, 100) > 0) {
      char buffer[4096];
      ssize_t n = read(appOut[0], buffer, sizeof buffer);
      if (n > 0) appOutput.append(buffer, static_cast<size_t>(n));
    }
    appDone = capture.exited();
    double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    if (!switched && elapsed >= o.seconds / 2) {
      switched = true;
      int status = httpStatus(kPort, "POST", "/control", nlohmann::json{{"qr", kSecondPayload}}.dump());
      if (status == 200)
        std::printf("switched the QR payload to \"%s\" (POST /control)\n", kSecondPayload);
      else
        std::printf("could not switch the QR payload: %s\n",
                    status ? ("HTTP " + std::to_string(status)).c_str() : "no answer from the frame server");
    }
    if (!appDone && static_cast<int>(elapsed) > reported && elapsed <= o.seconds + 0.5) {
      reported = static_cast<int>(elapsed);
      std::printf("running capture-app with ZerlanInject... %ds\n", reported);
    }
    std::fflush(stdout);
    if (!appDone && Clock::now() > appDeadline) {
      capture.stop();
      close(appOut[0]);
      return fail("capture-app did not finish within " + std::to_string(static_cast<int>(o.seconds + 15)) +
                  " s; its log is in " + appLog.string());
    }
  }
  {
    char buffer[4096];
    ssize_t n;
    while ((n = read(appOut[0], buffer, sizeof buffer)) > 0) appOutput.append(buffer, static_cast<size_t>(n));
  }
  close(appOut[0]);
  server.stop();

  nlohmann::ordered_json result;
  try {
    result = nlohmann::ordered_json::parse(appOutput);
  } catch (const nlohmann::json::exception&) {
    std::string how = capture.signal() ? "was killed by signal " + std::to_string(capture.signal())
                                       : "exited with status " + std::to_string(capture.status());
    return fail("capture-app " + how + " without a result; the end of its log (" + appLog.string() + "):\n" +
                lastLines(readFile(appLog), 10));
  }
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
  if (capture.status() != 0) return fail("capture-app exited with status " + std::to_string(capture.status()));
  std::printf("\ndemo complete: the app saw the camera\n");
  return kExitOk;
}

}  // namespace

Command addDemo(CLI::App& zerlan) {
  auto o = std::make_shared<DemoOptions>();
  CLI::App* cmd = zerlan.add_subcommand(
      "demo",
      "Linux: run the frame server and the sample app capture-app with ZerlanInject preloaded, "
      "switch the QR payload half way through, and save what the app received.");
  cmd->add_option("--seconds", o->seconds, "How long the app runs.")
      ->capture_default_str()
      ->check(CLI::Range(1.0, 3600.0));
  cmd->add_option("--out", o->out, "Folder for photo.jpg, result.json and the logs.")
      ->capture_default_str()
      ->type_name("DIR");
  cmd->add_option("--library", o->library,
                  "The library to preload (default: ../lib/libZerlanInject.so next to this binary).")
      ->type_name("FILE");
  cmd->footer("The frame server listens on 127.0.0.1:47654, which must be free.\n\n" +
              std::string(kExitCodesHelp));
  return Command{cmd, [o] { return runDemo(*o); }};
}

}  // namespace zerlan::cli
