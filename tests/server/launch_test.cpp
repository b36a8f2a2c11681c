// zerlan launch, run for real against a stand-in xcrun (tests/support/fake-xcrun) first on PATH,
// which records what simctl would have been given and answers as simctl does: what reaches the
// app, what reaches the user when simctl fails, and which libraries it refuses before asking.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Process.h"
#include "support.h"

namespace zerlan::test {
namespace {

namespace fs = std::filesystem;

constexpr uint32_t kArm64 = 0x0100000c, kX86_64 = 0x01000007;
constexpr uint32_t kDylib = 6, kExecutable = 2;
constexpr uint32_t kIOSSimulator = 7, kIOS = 2, kMacOS = 1;

struct Slice { uint32_t cpuType; uint32_t fileType = kDylib; uint32_t platform = kIOSSimulator; };

void little(std::string& out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out += static_cast<char>(value >> (8 * i) & 0xff);
}

void big(std::string& out, uint32_t value) {
  for (int i = 3; i >= 0; --i) out += static_cast<char>(value >> (8 * i) & 0xff);
}

// A Mach-O header with one LC_BUILD_VERSION: as much of a library as zerlan launch reads.
std::string thin(const Slice& s) {
  std::string out;
  for (uint32_t field : {0xfeedfacfu, s.cpuType, 0u, s.fileType, 1u, 24u, 0u, 0u}) little(out, field);
  for (uint32_t field : {0x32u, 24u, s.platform, 0x110000u, 0x110000u, 0u}) little(out, field);
  return out;
}

// A universal file, each slice 4 KiB aligned.
std::string universal(const std::vector<Slice>& slices) {
  std::string out;
  big(out, 0xcafebabe);
  big(out, static_cast<uint32_t>(slices.size()));
  for (size_t i = 0; i < slices.size(); ++i) {
    for (uint32_t field : {slices[i].cpuType, 0u, static_cast<uint32_t>(4096 * (i + 1)), 56u, 12u})
      big(out, field);
  }
  for (const Slice& s : slices) {
    out.resize(4096 * (&s - slices.data() + 1), '\0');
    out += thin(s);
  }
  return out;
}

// The architecture this machine would run the Simulator on, and the other one.
uint32_t hostCpu() {
  utsname name{};
  uname(&name);
  return std::string_view(name.machine) == "x86_64" ? kX86_64 : kArm64;
}
uint32_t otherCpu() { return hostCpu() == kX86_64 ? kArm64 : kX86_64; }

// This process's standard input comes from `path` while it lives, so that a child's can be told.
class StandardInputFrom {
 public:
  explicit StandardInputFrom(const std::string& path) : saved_(::dup(STDIN_FILENO)) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ::dup2(fd, STDIN_FILENO);
    ::close(fd);
  }
  ~StandardInputFrom() {
    ::dup2(saved_, STDIN_FILENO);
    ::close(saved_);
  }

 private:
  int saved_;
};

// What the stand-in xcrun was given.
struct Recorded {
  bool ran = false;
  std::vector<std::string> args;
  std::map<std::string, std::string> env;  // the SIMCTL_CHILD_ variables
  std::string stdinIs;
};

class Launch : public ::testing::Test {
 protected:
  Launch() {
    fs::create_directories(dir.path() / "bin");
    fs::create_symlink(FAKE_XCRUN, dir.path() / "bin" / "xcrun");
    library = dir.write("libZerlanInject.dylib", universal({{kArm64}, {kX86_64}}));
  }

  zerlan::testing::ProcessResult launch(const std::vector<std::string>& args,
                                        const std::string& answer = "launched",
                                        std::map<std::string, std::string> env = {},
                                        const std::string& program = ZERLAN_BIN) {
    std::vector<std::string> argv = {program, "launch"};
    argv.insert(argv.end(), args.begin(), args.end());
    env.emplace("PATH", dir.file("bin") + ":/usr/bin:/bin");
    env.emplace("FAKE_XCRUN_LOG", dir.file("xcrun.log"));
    env.emplace("FAKE_XCRUN_ANSWER", answer);
    env.emplace("ZERLAN_FRAME_PORT", zerlan::testing::kUnset);
    fs::remove(dir.file("xcrun.log"));
    return zerlan::testing::runProcess(argv, env);
  }

  // A checkout as a Mac has it, with the command from the macos preset and the library from
  // ios-simulator; returns the command.
  fs::path checkout() {
    fs::path root = dir.path() / "zerlan";
    fs::create_directories(root / "build-macos" / "bin");
    fs::create_directories(root / "build-ios" / "lib");
    fs::copy_file(ZERLAN_BIN, root / "build-macos" / "bin" / "zerlan");
    fs::copy_file(library, root / "build-ios" / "lib" / "libZerlanInject.dylib");
    return root / "build-macos" / "bin" / "zerlan";
  }

  Recorded recorded() const {
    Recorded r;
    r.ran = fs::exists(dir.file("xcrun.log"));
    std::istringstream lines(readFile(dir.file("xcrun.log")));
    for (std::string line; std::getline(lines, line);) {
      std::string kind = line.substr(0, line.find(' ')), rest = line.substr(line.find(' ') + 1);
      if (kind == "arg") r.args.push_back(rest);
      if (kind == "env") r.env[rest.substr(0, rest.find('='))] = rest.substr(rest.find('=') + 1);
      if (kind == "stdin") r.stdinIs = rest;
    }
    return r;
  }

  TempDir dir;
  std::string library;
};

TEST_F(Launch, FindsTheLibraryOfItsCheckoutAndHandsTheAppOverToSimctl) {
  fs::path zerlan = checkout();
  fs::path built = dir.path() / "zerlan" / "build-ios" / "lib" / "libZerlanInject.dylib";

  // Standard input stands for the terminal that --console shares with the app.
  StandardInputFrom terminal(dir.write("terminal", ""));
  auto run = launch({"com.example.YourApp"}, "launched", {}, zerlan.string());
  EXPECT_EQ(0, run.status) << run.err;
  auto r = recorded();
  EXPECT_EQ((std::vector<std::string>{"simctl", "launch", "--terminate-running-process", "booted",
                                      "com.example.YourApp"}),
            r.args);
  EXPECT_EQ((std::map<std::string, std::string>{{"SIMCTL_CHILD_DYLD_INSERT_LIBRARIES", built.string()},
                                                {"SIMCTL_CHILD_ZERLAN_FRAME_PORT", "47654"}}),
            r.env);
  EXPECT_EQ(dir.file("terminal"), r.stdinIs) << "simctl shares launch's terminal";
  EXPECT_HAS(run.out, "com.example.YourApp: 4242") << "simctl's answer reaches stdout";
  EXPECT_HAS(run.err, "with " + built.string());
  EXPECT_LACKS(run.err, "log show") << "no hint about diagnostics without --debug";
}

TEST_F(Launch, TheReadmesLaunchCommandsRunAsWritten) {
  std::istringstream readme(readFile(ZERLAN_SOURCE_DIR "/README.md"));
  fs::path zerlan = checkout();
  int found = 0;
  for (std::string line; std::getline(readme, line);) {
    const std::string command = "build-macos/bin/zerlan launch ";
    if (line.rfind(command, 0) != 0) continue;
    SCOPED_TRACE(line);
    ++found;
    std::istringstream words(line.substr(command.size(), line.find(" #") - command.size()));
    std::vector<std::string> args;
    for (std::string word; words >> word;) args.push_back(word);
    auto run = launch(args, "launched", {}, zerlan.string());
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("com.example.YourApp", recorded().args.at(recorded().args.size() - 1));
  }
  EXPECT_GE(found, 2) << "the README's Mac section starts an app with zerlan launch";
}

TEST_F(Launch, PassesItsOptionsToSimctlAndTheApp) {
  auto run = launch({"--device", "5A1E0C3B-0000-4000-8000-00000000CAFE", "--port", "48001", "--debug",
                     "--console", "--library", library, "com.example.YourApp", "--", "-UITestMode", "fast"});
  EXPECT_EQ(0, run.status) << run.err;
  auto r = recorded();
  EXPECT_EQ((std::vector<std::string>{"simctl", "launch", "--console-pty", "--terminate-running-process",
                                      "5A1E0C3B-0000-4000-8000-00000000CAFE", "com.example.YourApp",
                                      "-UITestMode", "fast"}),
            r.args);
  EXPECT_EQ((std::map<std::string, std::string>{{"SIMCTL_CHILD_DYLD_INSERT_LIBRARIES", library},
                                                {"SIMCTL_CHILD_ZERLAN_FRAME_PORT", "48001"},
                                                {"SIMCTL_CHILD_ZERLAN_DEBUG", "1"},
                                                {"SIMCTL_CHILD_OS_ACTIVITY_DT_MODE", "YES"}}),
            r.env);

  // Without --port the app fetches where zerlan ctl and probe talk; without --console the
  // library's lines are in the Simulator's log, and launch says how to read them.
  run = launch({"--debug", "--library", library, "com.example.YourApp"}, "launched",
               {{"ZERLAN_FRAME_PORT", "48002"}});
  EXPECT_EQ(0, run.status) << run.err;
  r = recorded();
  EXPECT_EQ("48002", r.env["SIMCTL_CHILD_ZERLAN_FRAME_PORT"]);
  EXPECT_EQ("1", r.env["SIMCTL_CHILD_ZERLAN_DEBUG"]);
  EXPECT_EQ(0u, r.env.count("SIMCTL_CHILD_OS_ACTIVITY_DT_MODE"));
  EXPECT_HAS(run.err, "xcrun simctl spawn booted log show --last 5m --predicate 'eventMessage CONTAINS "
                      "\"[ZerlanInject]\"'");
  EXPECT_HAS(run.err, "\"[ZerlanInject] AVFoundation compatibility layer loaded\"");
}

TEST_F(Launch, EachSimctlFailureReachesTheUserWithWhatToDoNext) {
  struct Case { std::string answer; std::string device; std::string simctlSays; std::string nextStep; };
  const Case cases[] = {
      {"none-booted", "booted", "No devices are booted.",
       "no Simulator is booted. Pick one from 'xcrun simctl list devices available', boot it with 'xcrun "
       "simctl boot"},
      {"no-such-device", "iPhone 99", "Invalid device: iPhone 99",
       "there is no Simulator \"iPhone 99\". 'xcrun simctl list devices available'"},
      {"shut-down", "iPhone 15", "Unable to lookup in current state: Shutdown",
       "the Simulator iPhone 15 is not booted: 'xcrun simctl boot \"iPhone 15\"'"},
      {"not-installed", "booted", "FBSApplicationLibrary) returned nil for \"com.example.YourApp\"",
       "com.example.YourApp is not installed on the booted Simulator. Install the app you built for the "
       "Simulator with 'xcrun simctl install booted path/to/YourApp.app'"},
      {"refused", "booted", "The request was denied by service delegate",
       "the Simulator could not start com.example.YourApp. If it starts without the library"},
      {"no-simctl", "booted", "unable to find utility \"simctl\"",
       "simctl comes with Xcode, not with the command-line tools alone: install Xcode and select it with "
       "'sudo xcode-select --switch /Applications/Xcode.app'"},
      {"unknown", "booted", "something it has never said before",
       "xcrun simctl launch failed (exit 3) with the message above"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer);
    auto run = launch({"--device", c.device, "--library", library, "com.example.YourApp"}, c.answer);
    EXPECT_EQ(1, run.status);
    EXPECT_TRUE(recorded().ran);
    auto said = run.err.find(c.simctlSays), advised = run.err.find("zerlan launch: " + c.nextStep);
    EXPECT_NE(std::string::npos, said) << "simctl's own words are kept:\n" << run.err;
    EXPECT_NE(std::string::npos, advised) << run.err;
    EXPECT_LT(said, advised) << "the next step follows simctl's words";
  }
}

TEST_F(Launch, RefusesALibraryTheSimulatorCannotLoadBeforeAskingIt) {
  std::string host = hostCpu() == kArm64 ? "arm64" : "x86_64",
              other = otherCpu() == kArm64 ? "arm64" : "x86_64";
  struct Case { std::string name; std::string bytes; std::string problem; };
  const Case cases[] = {
      {"linux", std::string(1, '\x7f') + "ELF" + std::string(60, '\1'),
       "is an ELF library (a Linux build's .so)"},
      {"text", "not a library at all\n", "is not a Mach-O library"},
      {"empty", "", "is too short to be a library"},
      {"other-arch", thin({otherCpu()}),
       "holds " + other + " code only, and this Mac runs the Simulator as " + host},
      {"other-arch-universal", universal({{otherCpu()}, {12}}), "holds " + other + " and arm code only"},
      {"device", universal({{kArm64, kDylib, kIOS}, {kX86_64, kDylib, kIOS}}),
       "is built for iOS devices, not for the iOS Simulator"},
      {"macos", thin({hostCpu(), kDylib, kMacOS}), "is built for macOS, not for the iOS Simulator"},
      {"executable", thin({hostCpu(), kExecutable}), "is a Mach-O file but not a dynamic library"},
      {"huge-commands", thin({hostCpu()}).replace(20, 4, "\xff\xff\xff\x7f"),
       "is a damaged Mach-O file (its load commands are cut short)"},
      {"cut-table", universal({{kArm64}, {kX86_64}}).substr(0, 20),
       "is a damaged universal file (its table of architectures is cut short)"},
      {"cut-slice", universal({{kArm64}, {kX86_64}}).substr(0, 4096 + 10),
       "is a damaged Mach-O file (its " + host + " part does not start where its table says)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string path = dir.write(c.name + ".dylib", c.bytes);
    auto run = launch({"--library", path, "com.example.YourApp"});
    EXPECT_EQ(2, run.status);
    EXPECT_FALSE(recorded().ran) << "simctl is not asked to insert it";
    EXPECT_HAS(run.err, "the library " + path + " " + c.problem);
    EXPECT_HAS(run.err, "cmake --preset ios-simulator");
  }
  // The host's slice alone is enough, thin or universal.
  EXPECT_EQ(0,
            launch({"--library", dir.write("thin.dylib", thin({hostCpu()})), "com.example.YourApp"}).status);
  auto missing = launch({"--library", dir.file("nowhere.dylib"), "com.example.YourApp"});
  EXPECT_EQ(2, missing.status);
  EXPECT_HAS(missing.err, "no library at " + dir.file("nowhere.dylib"));
}

TEST_F(Launch, WithoutXcrunItSaysWhatToUseInstead) {
  fs::remove(dir.path() / "bin" / "xcrun");
  auto run = launch({"--library", library, "com.example.Scanner"}, "launched", {{"PATH", dir.file("bin")}});
  EXPECT_EQ(1, run.status);
  EXPECT_HAS(run.err, "needs macOS with Xcode");
  EXPECT_HAS(run.err, "zerlan demo");
  EXPECT_EQ(2, launch({}).status) << "the bundle ID is required";
  EXPECT_EQ(2, launch({"--port", "0", "com.example.Scanner"}).status) << "a port is 1 to 65535";
  EXPECT_FALSE(recorded().ran);
}

}  // namespace
}  // namespace zerlan::test
