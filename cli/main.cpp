#include <cstdio>
#include <cstring>
#include <iostream>

#include "cli/command.h"
#include "cli/version.h"

namespace zerlan::cli {

namespace {

using AddCommand = Command (*)(CLI::App&);

// probe, demo and launch join here, in the order `zerlan --help` lists them.
constexpr AddCommand kCommands[] = {
    addServe,
    addCtl,
    addProbe,
    addDemo,
    addLaunch,
};

// What people type to ask for help or the version, besides the options.
constexpr const char* kHelpWord = "help";
constexpr const char* kVersionWord = "version";

}  // namespace

}  // namespace zerlan::cli

int main(int argc, char** argv) {
  using namespace zerlan::cli;
  CLI::App app{
      "zerlan: a working back camera for apps in the iOS Simulator, fed with frames "
      "from a server on this machine."};
  app.name("zerlan");
  app.set_version_flag("-V,--version", "zerlan " ZERLAN_VERSION);
  app.require_subcommand(1, 1);
  app.footer("'zerlan help COMMAND' or 'zerlan COMMAND --help' shows a command's options.\n\n" +
             std::string(kExitCodesHelp));

  std::vector<Command> commands;
  for (AddCommand add : kCommands) commands.push_back(add(app));

  // `zerlan help [COMMAND]` and `zerlan version`, as people try them before the options.
  if (argc == 2 && std::strcmp(argv[1], kVersionWord) == 0) {
    std::cout << "zerlan " ZERLAN_VERSION "\n";
    return kExitOk;
  }
  if (argc == 2 && std::strcmp(argv[1], kHelpWord) == 0) {
    std::cout << app.help();
    return kExitOk;
  }
  // `zerlan help COMMAND [...]` is `zerlan COMMAND --help`, so the help names the command the
  // same way.
  char helpFlag[] = "--help";
  char* helpOf[] = {argv[0], argc >= 3 ? argv[2] : nullptr, helpFlag, nullptr};
  if (argc >= 3 && std::strcmp(argv[1], kHelpWord) == 0) {
    for (const Command& c : commands) {
      if (c.app->get_name() == argv[2]) {
        argc = 3;
        argv = helpOf;
      }
    }
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) {  // --help, --version
      app.exit(e);
      return kExitOk;
    }
    if (argc == 1) {
      std::cerr << app.help();
      return kExitUsage;
    }
    std::string where = "zerlan";
    const CLI::App* failed = &app;
    for (const Command& c : commands) {
      if (!c.app->parsed()) continue;
      where += " " + c.app->get_name();
      failed = c.app;
      // ctl's actions are subcommands of their own: name the one that failed.
      for (const CLI::App* action : c.app->get_subcommands()) {
        where += " " + action->get_name();
        failed = action;
      }
    }
    const bool helpWord = std::strcmp(argv[1], kHelpWord) == 0;
    if (where == "zerlan" && (argv[1][0] != '-' || helpWord)) {
      std::vector<std::string> names;
      std::string list;
      for (const Command& c : commands) {
        names.push_back(c.app->get_name());
        list += (list.empty() ? "" : ", ") + c.app->get_name();
      }
      const std::string word = helpWord ? argv[2] : argv[1];
      names.insert(names.end(), {kHelpWord, kVersionWord});
      std::cerr << "zerlan: unknown command \"" << word << "\"";
      if (auto near = closestTo(word, names)) std::cerr << ": did you mean " << *near << "?";
      std::cerr << "\nThe commands: " << list << ". Run 'zerlan --help' for what each does.\n";
      return kExitUsage;
    }
    std::string message = e.what();
    if (dynamic_cast<const CLI::ExtrasError*>(&e)) {
      if (std::string unknown = unknownOptions(failed, failed->remaining()); !unknown.empty()) message = unknown;
    }
    std::cerr << where << ": " << message << "\n"
              << "Run '" << where << " --help' for the options.\n";
    return kExitUsage;
  }
  for (const Command& c : commands) {
    if (c.app->parsed()) return c.run();
  }
  std::cerr << app.help();
  return kExitUsage;
}
