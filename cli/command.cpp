#include "cli/command.h"

#include <signal.h>

#include <algorithm>
#include <cctype>
#include <iostream>

#include "transport/FramePort.h"

namespace zerlan::cli {

int usageError(const std::string& name, const std::string& message) {
  std::cerr << "zerlan " << name << ": " << message << "\n"
            << "Run 'zerlan " << name << " --help' for the options.\n";
  return kExitUsage;
}

CLI::Validator portNumber(bool zeroPicksFree) {
  return CLI::Validator(
      [zeroPicksFree](std::string& value) -> std::string {
        if (zeroPicksFree && value == "0") return {};
        if (transport::parseFramePort(value.c_str())) return {};
        return value + " is not a port (" + (zeroPicksFree ? "0 to 65535; 0 picks a free one" : "1 to 65535") + ")";
      },
      "");
}

uint16_t libraryFramePort(const std::string& name, int given) {
  if (given != 0) return static_cast<uint16_t>(given);
  const uint16_t port = ZerlanFramePort();
  if (const char* ignored = transport::ignoredFramePort()) {
    std::cerr << "zerlan " << name << ": ZERLAN_FRAME_PORT=" << ignored
              << " is not a port (1 to 65535), so the library would ignore it too: using " << port << "\n";
  }
  return port;
}

std::string signalName(int signo) {
  switch (signo) {
    case SIGINT:
      return "SIGINT";
    case SIGTERM:
      return "SIGTERM";
    case SIGHUP:
      return "SIGHUP";
    default:
      return "signal " + std::to_string(signo);
  }
}

namespace {

// Damerau-Levenshtein distance with adjacent transpositions ("--prot" is one slip from "--port").
size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

std::vector<std::string> optionNames(const CLI::App* app) {
  std::vector<std::string> names;
  for (; app; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
      for (const std::string& name : option->get_snames()) names.push_back("-" + name);
    }
  }
  return names;
}

}  // namespace

std::string unknownOptions(const CLI::App* app, const std::vector<std::string>& args) {
  std::string text;
  const std::vector<std::string> known = optionNames(app);
  for (const std::string& arg : args) {
    if (arg.size() < 2 || arg[0] != '-' || std::isdigit(static_cast<unsigned char>(arg[1]))) continue;
    std::string name = arg.substr(0, arg.find('='));
    text += (text.empty() ? "unknown option " : "; unknown option ") + name;
    if (auto near = closestTo(name, known)) text += ": did you mean " + *near + "?";
  }
  return text;
}

std::optional<std::string> closestTo(const std::string& word, const std::vector<std::string>& candidates) {
  std::optional<std::string> best;
  size_t bestDistance = 0;
  for (const std::string& candidate : candidates) {
    size_t distance = editDistance(word, candidate);
    // Short names are a slip apart from many words: allow fewer slips, never a whole rewrite.
    size_t allowed = std::min<size_t>(2, std::max<size_t>(1, candidate.size() / 3));
    if (distance > allowed || distance == 0) continue;
    if (!best || distance < bestDistance) {
      best = candidate;
      bestDistance = distance;
    }
  }
  return best;
}

}  // namespace zerlan::cli
