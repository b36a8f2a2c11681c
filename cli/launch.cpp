// zerlan launch: starts an app in a booted iOS Simulator with ZerlanInject inserted. simctl
// passes SIMCTL_CHILD_-prefixed variables to the launched app, which is how the library gets in
// (DYLD_INSERT_LIBRARIES), how diagnostics are switched on (ZERLAN_DEBUG) and which frame server
// it fetches from (ZERLAN_FRAME_PORT).
//
// `xcrun simctl launch` runs as a child on this terminal, so --console attaches the app to it.
// Its standard error passes through as it comes and is kept too: simctl's own words for a
// failure ("No devices are booted.") do not say what to do next, so a failure it reports is
// followed by a line that does.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cli/command.h"
#include "cli/macho.h"
#include "server/platform.h"

extern char** environ;

namespace zerlan::cli {

namespace {

namespace fs = std::filesystem;

struct LaunchOptions {
  std::string bundleID;
  std::string device = "booted";
  std::string library;
  int port = 0;  // 0: ZERLAN_FRAME_PORT, else 47654, as the other subcommands
  bool debug = false;
  bool console = false;
  std::vector<std::string> appArguments;
};

constexpr std::string_view kBuildLibrary =
    "cmake --preset ios-simulator && cmake --build build-ios --target ZerlanInject";

// The dylib built by the ios-simulator preset in the checkout this binary was built in: the
// binary is BUILD/bin/zerlan (build-macos/ or build/), the dylib build-ios/lib/ beside BUILD.
fs::path defaultLibrary() {
  auto self = platform::executablePath();
  fs::path base = self.empty() ? fs::current_path() : self.parent_path().parent_path().parent_path();
  return base / "build-ios" / "lib" / "libZerlanInject.dylib";
}

// `name` as the shell would find it on PATH, or empty.
fs::path findOnPath(std::string_view name) {
  const char* path = std::getenv("PATH");
  std::string_view dirs = path ? path : "/usr/bin:/bin";
  while (true) {
    auto end = dirs.find(':');
    fs::path dir(dirs.substr(0, end));
    fs::path candidate = (dir.empty() ? fs::path(".") : dir) / name;
    std::error_code error;
    if (fs::is_regular_file(candidate, error) && ::access(candidate.c_str(), X_OK) == 0) return candidate;
    if (end == std::string_view::npos) return {};
    dirs.remove_prefix(end + 1);
  }
}

// What simctl (or xcrun before it) says on the failures a user meets, and what to do about each.
struct KnownFailure {
  std::vector<std::string_view> says;  // any of these in its standard error
  std::string (*nextStep)(const LaunchOptions&, const std::string& library);
};

// `word` as a shell reads it back: double-quoted when it holds anything but a few safe characters.
std::string shellWord(const std::string& word) {
  bool plain = !word.empty() && word.find_first_not_of(
                                    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                    "0123456789._-/+:@") == std::string::npos;
  return plain ? word : "\"" + word + "\"";
}

std::string where(const LaunchOptions& o) {
  return o.device == "booted" ? "the booted Simulator" : "the Simulator " + o.device;
}

const KnownFailure kKnownFailures[] = {
    {{"No devices are booted"},
     [](const LaunchOptions&, const std::string&) -> std::string {
       return "no Simulator is booted. Pick one from 'xcrun simctl list devices available', boot it "
              "with 'xcrun simctl boot \"iPhone 15\"' (its name or UDID; 'open -a Simulator' shows "
              "it), then run this again.";
     }},
    {{"Invalid device", "Unable to find a device matching"},
     [](const LaunchOptions& o, const std::string&) {
       return "there is no Simulator \"" + o.device +
              "\". 'xcrun simctl list devices available' lists their names and UDIDs: pass one with "
              "--device, or leave --device out to use the booted one.";
     }},
    {{"current state: Shutdown"},
     [](const LaunchOptions& o, const std::string&) {
       return where(o) + " is not booted: 'xcrun simctl boot " + shellWord(o.device) +
              "', then run this again.";
     }},
    {{"unable to find utility \"simctl\"", "invalid active developer path"},
     [](const LaunchOptions&, const std::string&) -> std::string {
       return "simctl comes with Xcode, not with the command-line tools alone: install Xcode and "
              "select it with 'sudo xcode-select --switch /Applications/Xcode.app'.";
     }},
    // An app that is not installed: FrontBoard's "not found" code, and the texts that go with it.
    {{"FBSOpenApplicationServiceErrorDomain, code=4", "returned nil for", "is unknown to FrontBoard",
      "not installed"},
     [](const LaunchOptions& o, const std::string&) {
       return o.bundleID + " is not installed on " + where(o) +
              ". Install the app you built for the Simulator with 'xcrun simctl install " +
              shellWord(o.device) +
              " path/to/YourApp.app' (or run it once from Xcode), check its bundle identifier with "
              "'xcrun simctl listapps " +
              shellWord(o.device) + "', then run this again.";
     }},
    {{"FBSOpenApplicationServiceErrorDomain"},
     [](const LaunchOptions& o, const std::string& library) {
       return "the Simulator could not start " + o.bundleID +
              ". If it starts without the library ('xcrun simctl launch " + shellWord(o.device) + " " +
              o.bundleID +
              "'), the library stops it: run this again with --console to see dyld's message, and "
              "check the library's signature with 'codesign --verify " +
              shellWord(library) + "'.";
     }},
};

std::string nextStep(const std::string& said, int status, const LaunchOptions& o,
                     const std::string& library) {
  for (const KnownFailure& failure : kKnownFailures) {
    for (std::string_view text : failure.says) {
      if (said.find(text) != std::string::npos) return failure.nextStep(o, library);
    }
  }
  return "xcrun simctl launch failed (exit " + std::to_string(status) +
         ") with the message above; 'xcrun simctl list devices booted' shows which Simulators run.";
}

// Writes all of `bytes` to standard error.
void passOn(const char* bytes, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(STDERR_FILENO, bytes, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    bytes += n;
    size -= static_cast<size_t>(n);
  }
}

struct Finished {
  int status = -1;  // the exit code, or -1 when it did not exit
  int signal = 0;
  std::string stderrTail;
};

// Runs `argv` on this terminal with its standard error passed on and its last part kept.
// Ctrl-C reaches the child, which decides what it means; this process waits for its answer.
std::optional<Finished> runChild(const fs::path& program, std::vector<std::string> argv) {
  constexpr size_t kKeep = 64 * 1024;
  int err[2];
  if (!platform::openPipe(err)) return std::nullopt;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGQUIT);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

  struct sigaction ignore = {}, oldInt = {}, oldQuit = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGINT, &ignore, &oldInt);
  sigaction(SIGQUIT, &ignore, &oldQuit);

  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  pid_t pid = -1;
  int spawned = posix_spawn(&pid, program.c_str(), &actions, &attributes, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(err[1]);

  std::optional<Finished> finished;
  if (spawned == 0) {
    finished.emplace();
    std::array<char, 4096> buffer;
    while (true) {
      ssize_t n = ::read(err[0], buffer.data(), buffer.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      passOn(buffer.data(), static_cast<size_t>(n));
      finished->stderrTail.append(buffer.data(), static_cast<size_t>(n));
      if (finished->stderrTail.size() > kKeep)
        finished->stderrTail.erase(0, finished->stderrTail.size() - kKeep);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) finished->status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) finished->signal = WTERMSIG(status);
  } else {
    errno = spawned;
  }
  int saved = errno;
  ::close(err[0]);
  sigaction(SIGINT, &oldInt, nullptr);
  sigaction(SIGQUIT, &oldQuit, nullptr);
  errno = saved;
  return finished;
}

int run(const LaunchOptions& options) {
  fs::path xcrun = findOnPath("xcrun");
  if (xcrun.empty()) {
    if (platform::kSystemName == "macOS") {
      std::cerr << "zerlan launch: xcrun is not on PATH: install Xcode and select it with "
                   "'sudo xcode-select --switch /Applications/Xcode.app'.\n";
    } else {
      std::cerr << "zerlan launch: needs macOS with Xcode (xcrun simctl) and a booted Simulator.\n"
                << "On " << platform::kSystemName
                << ", 'zerlan demo' runs a sample app with the library instead.\n";
    }
    return kExitRuntime;
  }

  fs::path library = options.library.empty() ? defaultLibrary() : fs::absolute(options.library);
  std::error_code error;
  if (!fs::exists(library, error)) {
    return usageError("launch", "no library at " + library.string() + ": build it with '" +
                                    std::string(kBuildLibrary) + "' or pass --library");
  }
  if (auto problem = simulatorLibraryProblem(library.string(), hostArchitecture())) {
    return usageError("launch", "the library " + library.string() + " " + *problem +
                                    ": build the Simulator's with '" + std::string(kBuildLibrary) +
                                    "' or pass --library with it");
  }

  int port = libraryFramePort("launch", options.port);
  setenv("SIMCTL_CHILD_DYLD_INSERT_LIBRARIES", library.c_str(), 1);
  setenv("SIMCTL_CHILD_ZERLAN_FRAME_PORT", std::to_string(port).c_str(), 1);
  if (options.debug) setenv("SIMCTL_CHILD_ZERLAN_DEBUG", "1", 1);
  // What Xcode sets for the apps it runs: their log lines, the library's too, go to the console.
  if (options.console) setenv("SIMCTL_CHILD_OS_ACTIVITY_DT_MODE", "YES", 1);

  std::vector<std::string> argv = {"xcrun", "simctl", "launch"};
  if (options.console) argv.push_back("--console-pty");
  argv.push_back("--terminate-running-process");
  argv.push_back(options.device);
  argv.push_back(options.bundleID);
  argv.insert(argv.end(), options.appArguments.begin(), options.appArguments.end());

  std::cerr << "zerlan launch: " << options.bundleID << " on " << options.device << " with "
            << library.string() << ", fetching frames from 127.0.0.1:" << port << "\n";
  auto finished = runChild(xcrun, argv);
  if (!finished) {
    std::cerr << "zerlan launch: could not run " << xcrun.string() << ": " << std::strerror(errno) << "\n";
    return kExitRuntime;
  }
  if (finished->signal == SIGINT) return kExitRuntime;
  if (finished->signal != 0) {
    std::cerr << "zerlan launch: xcrun simctl ended by signal " << finished->signal << "\n";
    return kExitRuntime;
  }
  if (finished->status != 0) {
    std::cerr << "zerlan launch: "
              << nextStep(finished->stderrTail, finished->status, options, library.string()) << "\n";
    return kExitRuntime;
  }
  if (options.debug && !options.console) {
    std::cerr << "zerlan launch: the library's lines, first \"[ZerlanInject] AVFoundation compatibility "
                 "layer loaded\", are in the Simulator's log:\n"
              << "  xcrun simctl spawn " << shellWord(options.device)
              << " log show --last 5m --predicate 'eventMessage CONTAINS \"[ZerlanInject]\"'\n";
  }
  return kExitOk;
}

}  // namespace

Command addLaunch(CLI::App& zerlan) {
  auto options = std::make_shared<LaunchOptions>();
  CLI::App* app = zerlan.add_subcommand(
      "launch", "macOS: start an app in a booted iOS Simulator with ZerlanInject inserted.");
  app->add_option("bundle-id", options->bundleID, "The app's bundle identifier, e.g. com.example.Scanner")
      ->required();
  app->add_option("app-arguments", options->appArguments, "Arguments passed to the app (after --)");
  app->add_option("--device", options->device,
                  "Simulator name or UDID, or 'booted' (default booted); 'xcrun simctl list devices "
                  "available' lists them");
  app->add_option("--library", options->library,
                  "Path to libZerlanInject.dylib (default build-ios/lib/libZerlanInject.dylib beside "
                  "this binary's build folder)");
  app->add_option("--port", options->port,
                  "Port of the frame server the app fetches from (ZERLAN_FRAME_PORT in the app); "
                  "default: ZERLAN_FRAME_PORT here, else 47654, as 'zerlan serve' uses")
      ->check(portNumber());
  app->add_flag("--debug", options->debug,
                "Turn on the library's diagnostic lines (ZERLAN_DEBUG); they go to the Simulator's "
                "log, or with --console to this terminal");
  app->add_flag("--console", options->console,
                "Attach the app's console (standard output and error, log lines) to this terminal "
                "until the app ends or Ctrl-C");
  app->footer(
      "Start 'zerlan serve' first: the app's camera shows what it serves. Install the app "
      "in the Simulator first: 'xcrun simctl install booted YourApp.app', or run it once "
      "from Xcode.");
  return {app, [options] { return run(*options); }};
}

}  // namespace zerlan::cli
