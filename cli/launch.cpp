// zerlan launch: starts an app in a booted iOS Simulator with ZerlanInject inserted. simctl
// passes SIMCTL_CHILD_-prefixed variables to the launched app, which is how the library gets in
// (DYLD_INSERT_LIBRARIES) and how diagnostics are switched on (ZERLAN_DEBUG).
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli/command.h"
#include "server/platform.h"

namespace zerlan::cli {

namespace {

struct LaunchOptions {
  std::string bundleID;
  std::string device = "booted";
  std::string library;
  int port = 0;  // 0: the library's default, 47654
  bool debug = false;
  bool console = false;
  std::vector<std::string> appArguments;
};

// The dylib built by the ios-simulator preset in the checkout this binary was built in: the
// binary is BUILD/bin/zerlan (build-macos/ or build/), the dylib build-ios/lib/ beside BUILD.
std::string defaultLibrary() {
  auto self = platform::executablePath();
  std::filesystem::path base =
      self.empty() ? std::filesystem::current_path() : self.parent_path().parent_path().parent_path();
  return (base / "build-ios" / "lib" / "libZerlanInject.dylib").string();
}

bool onMacOS() {
  return platform::kSystemName == "macOS" && std::filesystem::exists("/usr/bin/xcrun");
}

int run(const LaunchOptions& options) {
  if (!onMacOS()) {
    std::cerr << "zerlan launch: needs macOS with Xcode (xcrun simctl) and a booted Simulator.\n"
              << "On Linux, 'zerlan demo' runs a sample app with the library instead.\n";
    return kExitRuntime;
  }
  std::string library = options.library.empty() ? defaultLibrary() : options.library;
  if (!std::filesystem::exists(library)) {
    return usageError("launch", "no library at " + library +
                                    ": build it with 'cmake --preset ios-simulator && cmake --build build-ios' "
                                    "or pass --library");
  }
  setenv("SIMCTL_CHILD_DYLD_INSERT_LIBRARIES", std::filesystem::absolute(library).c_str(), 1);
  if (options.debug) setenv("SIMCTL_CHILD_ZERLAN_DEBUG", "1", 1);
  if (options.port != 0) setenv("SIMCTL_CHILD_ZERLAN_FRAME_PORT", std::to_string(options.port).c_str(), 1);

  std::vector<std::string> argv = {"xcrun", "simctl", "launch"};
  if (options.console) argv.push_back("--console-pty");
  argv.push_back("--terminate-running-process");
  argv.push_back(options.device);
  argv.push_back(options.bundleID);
  argv.insert(argv.end(), options.appArguments.begin(), options.appArguments.end());
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  std::cerr << "zerlan launch: " << options.bundleID << " on " << options.device << " with " << library << "\n";
  execvp("xcrun", args.data());
  std::cerr << "zerlan launch: could not run xcrun: " << std::strerror(errno) << "\n";
  return kExitRuntime;
}

}  // namespace

Command addLaunch(CLI::App& zerlan) {
  auto options = std::make_shared<LaunchOptions>();
  CLI::App* app = zerlan.add_subcommand(
      "launch", "macOS: start an app in a booted iOS Simulator with ZerlanInject inserted.");
  app->add_option("bundle-id", options->bundleID, "The app's bundle identifier, e.g. com.example.Scanner")
      ->required();
  app->add_option("app-arguments", options->appArguments, "Arguments passed to the app (after --)");
  app->add_option("--device", options->device, "Simulator UDID or 'booted' (default booted)");
  app->add_option("--library", options->library,
                  "Path to libZerlanInject.dylib (default build-ios/lib/libZerlanInject.dylib)");
  app->add_option("--port", options->port,
                  "Port of the frame server the app fetches from (ZERLAN_FRAME_PORT); default 47654, "
                  "as 'zerlan serve' uses")
      ->check(CLI::Range(1, 65535));
  app->add_flag("--debug", options->debug, "Turn on the library's diagnostic lines (ZERLAN_DEBUG)");
  app->add_flag("--console", options->console, "Attach the app's console to this terminal");
  app->footer("Start 'zerlan serve' first: the app's camera shows what it serves.");
  return {app, [options] { return run(*options); }};
}

}  // namespace zerlan::cli
