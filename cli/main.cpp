#include <cstdio>
#include <iostream>

#include "cli/command.h"
#include "cli/version.h"

namespace zerlan::cli {

int usageError(const std::string& name, const std::string& message) {
  std::cerr << "zerlan " << name << ": " << message << "\n"
            << "Run 'zerlan " << name << " --help' for the options.\n";
  return kExitUsage;
}

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

}  // namespace

}  // namespace zerlan::cli

int main(int argc, char** argv) {
  using namespace zerlan::cli;
  CLI::App app{
      "zerlan: a working back camera for apps in the iOS Simulator, fed with frames "
      "from a server on this machine."};
  app.name("zerlan");
  app.set_version_flag("--version", "zerlan " ZERLAN_VERSION);
  app.require_subcommand(1, 1);
  app.footer(kExitCodesHelp);

  std::vector<Command> commands;
  for (AddCommand add : kCommands) commands.push_back(add(app));

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) {  // --help
      app.exit(e);
      return kExitOk;
    }
    if (argc == 1) {
      std::cerr << app.help();
      return kExitUsage;
    }
    std::string where = "zerlan";
    for (const Command& c : commands) {
      if (!c.app->parsed()) continue;
      where += " " + c.app->get_name();
      // ctl's actions are subcommands of their own: name the one that failed.
      for (const CLI::App* action : c.app->get_subcommands()) where += " " + action->get_name();
    }
    if (where == "zerlan" && argv[1][0] != '-') {
      std::string names;
      for (const Command& c : commands) names += (names.empty() ? "" : ", ") + c.app->get_name();
      std::cerr << "zerlan: unknown command \"" << argv[1] << "\": use one of " << names << "\n"
                << "Run 'zerlan --help' for the commands.\n";
      return kExitUsage;
    }
    std::cerr << where << ": " << e.what() << "\n"
              << "Run '" << where << " --help' for the options.\n";
    return kExitUsage;
  }
  for (const Command& c : commands) {
    if (c.app->parsed()) return c.run();
  }
  std::cerr << app.help();
  return kExitUsage;
}
