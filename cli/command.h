// The subcommands of `zerlan`, one file each. A file defines one function that adds its
// subcommand (name, options, help) to the top-level app and returns what runs it after parsing.
// Adding a subcommand: write cli/NAME.cpp with `Command addName(CLI::App&)`, declare it below,
// add its row to kCommands in main.cpp and its file to cli/CMakeLists.txt.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

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

Command addServe(CLI::App& zerlan);
Command addProbe(CLI::App& zerlan);
Command addDemo(CLI::App& zerlan);
Command addLaunch(CLI::App& zerlan);
Command addCtl(CLI::App& zerlan);

}  // namespace zerlan::cli
