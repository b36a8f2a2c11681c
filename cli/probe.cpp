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
#include <map>
#include <thread>
#include <vector>

#include "cli/command.h"
#include "cli/loopback.h"
#include "server/image.h"
#include "server/log.h"
#include "server/platform.h"
#include "server/qr_reader.h"
#include "transport/FetchJPEG.h"

namespace zerlan::cli {

namespace {

struct ProbeOptions {
  int count = 1;
  int intervalMs = 100;
  int port = 0;  // 0: where the library in an app started from here would fetch
  std::string save;
  bool json = false;
};

// What a body is to the library: a picture's size and kind from its header, a JPEG's QR code,
// and why the library would drop it, when it would.
struct Decoded {
  int width = 0;  // 0: no picture header
  int height = 0;
  std::string_view format;  // JPEG or PNG
  std::optional<std::string> qr;
  std::string problem;
};

// Whether anything accepts connections on 127.0.0.1:port: tells "no server" from "a server
// that gave no frame".
bool somethingListens(int port) {
  int fd = platform::openSocket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in addr = transport::loopbackEndpoint(static_cast<uint16_t>(port));
  bool listening = transport::connectLoopback(fd, addr);
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

// What one fetch came to, as the app would see it. Only Frame reaches the app: the library drops
// bytes that do not decode, and no camera frame is larger than a frame may be.
enum class Verdict { Frame, Undecodable, TooLarge, NoFrame, NoServer };

constexpr const char* verdictName(Verdict v) {
  switch (v) {
    case Verdict::Frame:
      return "frame";
    case Verdict::Undecodable:
      return "undecodable";
    case Verdict::TooLarge:
      return "too large";
    case Verdict::NoFrame:
      return "no frame";
    case Verdict::NoServer:
      return "no server";
  }
  return "?";
}

struct Fetch {
  Verdict verdict = Verdict::NoFrame;
  std::string bytes;
  double ms = 0;
  std::optional<Decoded> decoded;
};

// The size comes from the header, before anything is decoded: a picture larger than a frame may
// be is reported, not decoded. A PNG is a frame too (the library decodes it); codes are read from
// JPEGs only.
Verdict decode(const std::string& bytes, Decoded& out) {
  auto header = server::readPictureHeader(bytes);
  if (!header) {
    out.problem = header.error().message;
    return Verdict::Undecodable;
  }
  out.width = header->size.width;
  out.height = header->size.height;
  out.format = server::formatName(header->format);
  if (auto fits = server::checkPictureSize(header->size, out.format); !fits) {
    out.problem = fits.error().message;
    return Verdict::TooLarge;
  }
  if (header->format != server::PictureFormat::Jpeg) return Verdict::Frame;
  auto image = server::decodeJpeg(bytes);
  if (!image) {
    out.problem = image.error().message;
    return Verdict::Undecodable;
  }
  out.qr = server::readQrCode(*image);
  return Verdict::Frame;
}

Fetch fetchOnce(const sockaddr_in& endpoint, int port) {
  using Clock = std::chrono::steady_clock;
  objc::AutoreleasePool pool;
  Fetch f;
  auto start = Clock::now();
  objc::Strong<> frame = transport::fetchJPEG(endpoint);
  f.ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  if (!frame) {
    f.verdict = somethingListens(port) ? Verdict::NoFrame : Verdict::NoServer;
    return f;
  }
  auto* data = objc::send<const char*>(frame, objc::sel<"bytes">());
  f.bytes.assign(data, objc::send<unsigned long>(frame, objc::sel<"length">()));
  f.decoded.emplace();
  f.verdict = decode(f.bytes, *f.decoded);
  return f;
}

void printFetch(int number, const Fetch& f, int port, bool json) {
  if (json) {
    // Fields in the order people read them, not sorted.
    const auto& d = f.decoded;
    const bool sized = d && d->width > 0;
    nlohmann::ordered_json line = {{"frame", f.verdict == Verdict::Frame},
                                   {"verdict", verdictName(f.verdict)},
                                   {"bytes", f.bytes.size()},
                                   {"ms", std::round(f.ms * 1000) / 1000},
                                   {"width", sized ? nlohmann::ordered_json(d->width) : nullptr},
                                   {"height", sized ? nlohmann::ordered_json(d->height) : nullptr},
                                   {"qr", d && d->qr ? nlohmann::ordered_json(*d->qr) : nullptr},
                                   {"problem", d && !d->problem.empty() ? nlohmann::ordered_json(d->problem) : nullptr}};
    std::printf("%s\n", line.dump().c_str());
    return;
  }
  switch (f.verdict) {
    case Verdict::Frame: {
      const Decoded& d = *f.decoded;
      std::printf("fetch %d: %zu bytes in %.1f ms, %dx%d %.*s", number, f.bytes.size(), f.ms, d.width, d.height,
                  static_cast<int>(d.format.size()), d.format.data());
      if (d.format == "JPEG") std::printf(d.qr ? ", QR \"%s\"" : ", no QR code", d.qr ? d.qr->c_str() : "");
      std::printf("\n");
      break;
    }
    case Verdict::Undecodable:
      std::printf("fetch %d: %zu bytes in %.1f ms, but no JPEG the library can decode (%s): it drops them, no frame\n",
                  number, f.bytes.size(), f.ms, f.decoded->problem.c_str());
      break;
    case Verdict::TooLarge:
      std::printf("fetch %d: %zu bytes in %.1f ms, no frame: %s\n", number, f.bytes.size(), f.ms,
                  f.decoded->problem.c_str());
      break;
    case Verdict::NoFrame:
      std::printf("fetch %d: no frame from 127.0.0.1:%d after %.1f ms, although a server answers there\n", number,
                  port, f.ms);
      break;
    case Verdict::NoServer:
      std::printf("fetch %d: no frame after %.1f ms: nothing listens on 127.0.0.1:%d\n", number, f.ms, port);
      break;
  }
}

int run(const ProbeOptions& options) {
  if (!options.save.empty()) {
    if (auto problem = checkSavePath(options.save)) return usageError("probe", *problem);
  }
  const int port = libraryFramePort("probe", options.port);
  sockaddr_in endpoint = transport::loopbackEndpoint(static_cast<uint16_t>(port));
  std::map<Verdict, int> tally;
  std::vector<double> times;
  std::string saveError;
  bool saved = false;
  for (int i = 0; i < options.count; ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(options.intervalMs));
    Fetch f = fetchOnce(endpoint, port);
    ++tally[f.verdict];
    if (f.verdict == Verdict::Frame) {
      times.push_back(f.ms);
      if (!options.save.empty()) {
        std::ofstream file(options.save, std::ios::binary | std::ios::trunc);
        file << f.bytes;
        saved = static_cast<bool>(file);
        if (!saved) saveError = "cannot write " + options.save;
      }
    }
    printFetch(i + 1, f, port, options.json);
    std::fflush(stdout);
  }
  const int frames = tally[Verdict::Frame];
  if (!options.json) {
    if (saved) std::printf("saved the last frame to %s\n", options.save.c_str());
    if (options.count > 1) {
      std::printf("%s: %s, %d without", server::counted(static_cast<uint64_t>(options.count), "fetch", "fetches").c_str(),
                  server::counted(static_cast<uint64_t>(frames), "frame").c_str(), options.count - frames);
      if (!times.empty()) {
        std::sort(times.begin(), times.end());
        std::printf("; time min %.1f ms, median %.1f ms, max %.1f ms", times.front(), times[times.size() / 2],
                    times.back());
      }
      std::printf("\n");
    }
  }
  if (!saveError.empty()) std::fprintf(stderr, "zerlan probe: %s\n", saveError.c_str());
  // The verdicts, on standard error whatever the output format.
  const std::string of = " of " + std::to_string(options.count) + " fetches got ";
  if (int n = tally[Verdict::NoServer]) {
    std::fprintf(stderr, "zerlan probe: %d%sno frame: nothing listens on 127.0.0.1:%d (start the frame server with "
                 "'zerlan serve')\n", n, of.c_str(), port);
  }
  const int noFrame = tally[Verdict::NoFrame], undecodable = tally[Verdict::Undecodable],
            tooLarge = tally[Verdict::TooLarge];
  if (noFrame || undecodable || tooLarge) {
    std::string what;
    auto add = [&](int n, const std::string& got) {
      if (n) what += (what.empty() ? std::to_string(n) + of : " and " + std::to_string(n) + " got ") + got;
    };
    add(noFrame, "no frame");
    add(undecodable, "bytes that are no JPEG, which the library drops");
    add(tooLarge, "pictures larger than a frame may be (" +
                      std::to_string(server::kMaxPicturePixels / 1'000'000) + " megapixels)");
    PortHolder holder = whoListens(static_cast<uint16_t>(port));
    std::string why = holder.kind == PortHolder::Kind::Other
                          ? foreignListenerText(static_cast<uint16_t>(port), holder) +
                                ", or name the frame server's port with --port"
                          : "a frame server answers on port " + std::to_string(port) +
                                ": see its log, or the fault in force at http://127.0.0.1:" + std::to_string(port) +
                                "/status";
    std::fprintf(stderr, "zerlan probe: %s: %s\n", what.c_str(), why.c_str());
  }
  return frames == options.count && saveError.empty() ? kExitOk : kExitRuntime;
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
      ->check(portNumber());
  app->add_option("--save", options->save, "Write the last frame to this file (its folder must exist)")
      ->type_name("FILE");
  app->add_flag("--json", options->json,
                "One JSON object per fetch: frame (whether the app would get one), verdict (frame, undecodable, "
                "too large, no frame, no server), bytes, ms, width, height (from the picture's header), qr (null "
                "when not read), problem (why the library would drop the bytes)");
  app->footer("A fetch gives the app a frame only when a server answers with a JPEG that decodes, or a PNG, of at\n"
              "most " + std::to_string(server::kMaxPicturePixels / 1'000'000) +
              " megapixels (read from its header before anything is decoded): the library drops other bytes.\n"
              "Exit status 0 when every fetch gave a frame (and --save wrote it), 1 otherwise (the reasons go\n"
              "to standard error, with --json too), 2 for a bad command line (a --save path that is a folder or\n"
              "in a missing folder included).");
  return {app, [options] { return run(*options); }};
}

}  // namespace zerlan::cli
