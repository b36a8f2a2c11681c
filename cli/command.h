// The subcommands of `zerlan`, one file each. A file defines one function that adds its
// subcommand (name, options, help) to the top-level app and returns what runs it after parsing.
// Adding a subcommand: write cli/NAME.cpp with `Command addName(CLI::App&)`, declare it below,
// add its row to kCommands in main.cpp and its file to cli/CMakeLists.txt.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zerlan::cli {

// Exit codes shared by every subcommand (and listed in `zerlan --help`).
inline constexpr int kExitOk = 0;
inline constexpr int kExitRuntime = 1;  // it could not do its work: port in use, server gone
inline constexpr int kExitUsage = 2;    // the command line is wrong: bad option, value or file

inline constexpr const char* kExitCodesHelp =
    "Exit codes: 0 success; 1 runtime error (for example the port is in use); "
    "2 usage error (unknown option, bad value, missing or unreadable file).";

struct Command {
  CLI::App* app;
  std::function<int()> run;  // returns the exit code
};

// Prints "zerlan NAME: MESSAGE" and a pointer to the help to standard error; returns kExitUsage.
int usageError(const std::string& name, const std::string& message);

// Checks a --port value as the library reads ZERLAN_FRAME_PORT: decimal digits, 1 to 65535, or
// 0 too when `zeroPicksFree`. Its error reads "abc is not a port (1 to 65535)".
CLI::Validator portNumber(bool zeroPicksFree = false);

// `given` (a --port) when it is not 0, else the port that the library, loaded into an app
// started from here, would fetch from: ZERLAN_FRAME_PORT, else 47654. A value that names no port
// is ignored, as the library ignores it, and `zerlan NAME` says so on standard error.
uint16_t libraryFramePort(const std::string& name, int given);

// "SIGINT", "SIGTERM", "SIGHUP" for the signals that stop a command; "signal N" for others.
std::string signalName(int signo);

// Of `candidates`, the one `word` is most likely a slip of the fingers for, if any.
std::optional<std::string> closestTo(const std::string& word, const std::vector<std::string>& candidates);

// "unknown option --prot: did you mean --port?" for the options among `args`, arguments that
// `app` did not take, each with the nearest option of `app` or of a command above it; empty
// when none of them is an option.
std::string unknownOptions(const CLI::App* app, const std::vector<std::string>& args);

Command addServe(CLI::App& zerlan);
Command addProbe(CLI::App& zerlan);
Command addDemo(CLI::App& zerlan);
Command addLaunch(CLI::App& zerlan);
Command addCtl(CLI::App& zerlan);

}  // namespace zerlan::cli
