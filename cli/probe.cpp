// zerlan probe: fetches frames exactly as the injected library does (its own transport code) and
// reports what came back, so a server can be checked before an app is pointed at it.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <filesystem>
#include <thread>
#include <vector>

#include "cli/command.h"
#include "server/image.h"
#include "server/platform.h"
#include "server/qr_reader.h"
#include "transport/FetchJPEG.h"
#include "transport/FramePort.h"

namespace zerlan::cli {

namespace {

struct ProbeOptions {
  int count = 1;
  int intervalMs = 100;
  int port = ZerlanFramePort();  // where the library in an app started from here would fetch
  std::string save;
  bool json = false;
};

struct Decoded {
  int width = 0;
  int height = 0;
  std::optional<std::string> qr;
};

std::optional<Decoded> decode(const std::string& bytes) {
  auto image = server::decodeJpeg(bytes);
  if (!image) return std::nullopt;
  Decoded out{image->width, image->height, std::nullopt};
  out.qr = server::readQrCode(*image);
  return out;
}

// Whether anything accepts connections on 127.0.0.1:port: tells "no server" from "a server
// that gave no frame".
bool somethingListens(int port) {
  int fd = platform::openSocket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in addr = transport::loopbackEndpoint(static_cast<uint16_t>(port));
  bool listening = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return listening;
}

// Refuses a --save path that cannot be written before anything is fetched.
std::optional<std::string> checkSavePath(const std::string& save) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (fs::is_directory(save, ec)) return "--save " + save + " is a folder: give a file name, such as " +
                                         (fs::path(save) / "frame.jpg").string();
  fs::path parent = fs::path(save).parent_path();
  if (!parent.empty() && !fs::is_directory(parent, ec))
    return "--save " + save + ": the folder " + parent.string() + " does not exist";
  return std::nullopt;
}

int run(const ProbeOptions& options) {
  using Clock = std::chrono::steady_clock;
  if (!options.save.empty()) {
    if (auto problem = checkSavePath(options.save)) return usageError("probe", *problem);
  }
  sockaddr_in endpoint = transport::loopbackEndpoint(static_cast<uint16_t>(options.port));
  int failures = 0;
  std::vector<double> times;
  std::string saveError;
  bool saved = false;
  for (int i = 0; i < options.count; ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(options.intervalMs));
    objc::AutoreleasePool pool;
    auto start = Clock::now();
    objc::Strong<> frame = transport::fetchJPEG(endpoint);
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    std::string bytes;
    if (frame) {
      auto* data = objc::send<const char*>(frame, objc::sel<"bytes">());
      bytes.assign(data, objc::send<unsigned long>(frame, objc::sel<"length">()));
    } else {
      ++failures;
    }
    std::optional<Decoded> decoded = frame ? decode(bytes) : std::nullopt;
    if (frame) times.push_back(ms);
    if (frame && !options.save.empty()) {
      std::ofstream file(options.save, std::ios::binary | std::ios::trunc);
      file << bytes;
      saved = static_cast<bool>(file);
      if (!saved) saveError = "cannot write " + options.save;
    }
    if (options.json) {
      // Fields in the order people read them, not sorted.
      nlohmann::ordered_json line = {{"frame", static_cast<bool>(frame)},
                             {"bytes", bytes.size()},
                             {"ms", std::round(ms * 1000) / 1000},
                             {"width", decoded ? nlohmann::ordered_json(decoded->width) : nullptr},
                             {"height", decoded ? nlohmann::ordered_json(decoded->height) : nullptr},
                             {"qr", decoded && decoded->qr ? nlohmann::ordered_json(*decoded->qr) : nullptr}};
      std::printf("%s\n", line.dump().c_str());
    } else if (!frame) {
      std::printf("fetch %d: no frame from 127.0.0.1:%d after %.1f ms\n", i + 1, options.port, ms);
    } else {
      std::printf("fetch %d: %zu bytes in %.1f ms", i + 1, bytes.size(), ms);
      if (decoded) {
        std::printf(", %dx%d JPEG", decoded->width, decoded->height);
        std::printf(decoded->qr ? ", QR \"%s\"" : ", no QR code", decoded->qr ? decoded->qr->c_str() : "");
      } else {
        std::printf(", not a decodable JPEG");
      }
      std::printf("\n");
    }
    std::fflush(stdout);
  }
  if (!options.json) {
    if (saved) std::printf("saved the last frame to %s\n", options.save.c_str());
    if (options.count > 1 && !times.empty()) {
      std::sort(times.begin(), times.end());
      std::printf("%d fetches: %zu frames, %d without; time min %.1f ms, median %.1f ms, max %.1f ms\n",
                  options.count, times.size(), failures, times.front(), times[times.size() / 2], times.back());
    }
  }
  if (!saveError.empty()) std::fprintf(stderr, "zerlan probe: %s\n", saveError.c_str());
  if (failures > 0 && !options.json) {
    if (somethingListens(options.port))
      std::fprintf(stderr,
                   "zerlan probe: %d of %d fetches got no frame, although a server answers on port %d: "
                   "see its log, or its status at http://127.0.0.1:%d/status\n",
                   failures, options.count, options.port, options.port);
    else
      std::fprintf(stderr,
                   "zerlan probe: %d of %d fetches got no frame: nothing listens on 127.0.0.1:%d "
                   "(start the frame server with 'zerlan serve')\n",
                   failures, options.count, options.port);
  }
  return failures == 0 && saveError.empty() ? kExitOk : kExitRuntime;
}

}  // namespace

Command addProbe(CLI::App& zerlan) {
  auto options = std::make_shared<ProbeOptions>();
  CLI::App* app = zerlan.add_subcommand(
      "probe", "Fetch frames the way the injected library does and report what came back.");
  app->add_option("--count", options->count, "Number of fetches (default 1)")->check(CLI::Range(1, 1000000));
  app->add_option("--interval-ms", options->intervalMs, "Pause between fetches in milliseconds (default 100)")
      ->check(CLI::Range(0, 3600000));
  app->add_option("--port", options->port, "Frame server port on 127.0.0.1 (default: ZERLAN_FRAME_PORT, else 47654)")
      ->check(CLI::Range(1, 65535));
  app->add_option("--save", options->save, "Write the last frame received to this file (its folder must exist)")
      ->type_name("FILE");
  app->add_flag("--json", options->json,
                "One JSON object per fetch: frame, bytes, ms, width, height, qr (null when not decodable)");
  app->footer("Exit status 0 when every fetch returned a frame (and --save wrote it), 1 otherwise, 2 for a bad\n"
              "command line (a --save path that is a folder or in a missing folder included).");
  return {app, [options] { return run(*options); }};
}

}  // namespace zerlan::cli
