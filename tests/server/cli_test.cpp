// The zerlan binary: `zerlan serve` driven by curl and python3, its standard-input stream, its
// signals and summary, its exit codes for bad command lines and busy ports, and zerlan probe.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Pictures.h"
#include "Process.h"
#include "cli/version.h"
#include "server/mjpeg.h"
#include "support.h"

namespace zerlan::test {
namespace {

TEST(Cli, ServesCurlAndPythonThenStopsOnSignal) {
  TempDir dir;
  Child zerlan({"serve", "--port", "0", "--qr", "cli payload"});
  uint16_t port = zerlan.waitForPort(in(10s));
  const std::string base = "http://127.0.0.1:" + std::to_string(port);

  ASSERT_EQ(shell("curl -sS --max-time 5 -D '" + dir.file("headers") + "' -o '" +
                  dir.file("frame.jpg") + "' " + base + "/frame"),
            0);
  std::string headers = readFile(dir.file("headers"));
  std::string frame = readFile(dir.file("frame.jpg"));
  EXPECT_EQ(headers.substr(0, headers.find("\r\n")), "HTTP/1.1 200 OK");
  EXPECT_HAS(headers, "Content-Length: " + std::to_string(frame.size()) + "\r\n");
  EXPECT_LACKS(headers, "chunked");
  EXPECT_EQ(readQr(frame), "cli payload");

  const std::string script = dir.write("client.py", R"py(
import http.client, json, sys, urllib.request
host, port, out = sys.argv[1], int(sys.argv[2]), sys.argv[3]
conn = http.client.HTTPConnection(host, port, timeout=5)
conn.request("GET", "/frame", headers={"Connection": "close"})
resp = conn.getresponse()
body = resp.read()
status = json.load(urllib.request.urlopen("http://%s:%d/status" % (host, port), timeout=5))
req = urllib.request.Request("http://%s:%d/control" % (host, port),
                             data=json.dumps({"qr": "from python"}).encode(), method="POST",
                             headers={"Content-Type": "application/json"})
control = json.load(urllib.request.urlopen(req, timeout=5))
json.dump({"status": resp.status, "type": resp.getheader("Content-Type"),
           "length": int(resp.getheader("Content-Length")), "body": len(body),
           "soi": body[:2].hex(), "served": status["frames_served"], "qr": control["qr"]},
          open(out, "w"))
)py");
  ASSERT_EQ(shell("python3 '" + script + "' 127.0.0.1 " + std::to_string(port) + " '" +
                  dir.file("py.json") + "'"),
            0);
  auto py = nlohmann::json::parse(readFile(dir.file("py.json")));
  EXPECT_EQ(py["status"], 200);
  EXPECT_EQ(py["type"], "image/jpeg");
  EXPECT_EQ(py["length"], py["body"]);
  EXPECT_EQ(py["soi"], "ffd8");
  EXPECT_EQ(py["served"], 2) << "curl's frame and python's";
  EXPECT_EQ(py["qr"], "from python");
  EXPECT_EQ(readQr(get(port, "/frame").body), "from python");

  zerlan.signal(SIGTERM);
  EXPECT_EQ(zerlan.wait(in(10s)), 0);
  std::string err = zerlan.stderrText();
  EXPECT_HAS(err, "stopped (SIGTERM)");
  EXPECT_HAS(err, "3 frames served");
  EXPECT_HAS(err, "QR payload changed to \"from python\"");
}

TEST(Cli, StreamsStandardInput) {
  TempDir dir;
  std::string mjpeg = dir.file("stream.mjpeg");
  ASSERT_EQ(shell("ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc=size=160x120:rate=25 "
                  "-frames:v 8 -f mjpeg '" +
                  mjpeg + "'"),
            0);
  std::string stream = readFile(mjpeg);
  server::MjpegSplitter splitter;
  auto images = splitter.feed(stream);
  ASSERT_EQ(images.size(), 8u);

  Child zerlan({"serve", "--port", "0", "--stdin"});
  uint16_t port = zerlan.waitForPort(in(10s));
  Reply none = get(port, "/frame");
  EXPECT_EQ(none.status, 503);
  EXPECT_HAS(errorReason(none).value_or(""), "no frame yet") << none.raw;
  // The first image alone, then the rest: each replaces the one before.
  ASSERT_TRUE(zerlan.writeStdin(images[0]));
  EXPECT_TRUE(eventually([&] { return get(port, "/frame").body == images[0]; }));
  ASSERT_TRUE(zerlan.writeStdin(stream.substr(images[0].size())));
  EXPECT_TRUE(eventually([&] { return get(port, "/frame").body == images.back(); }))
      << "the last image of the stream, byte for byte";
  zerlan.closeStdin();
  EXPECT_TRUE(zerlan.waitForLine("the MJPEG stream ended after 8 frames; serving its last frame until stopped", in(5s)))
      << zerlan.stderrText();
  EXPECT_EQ(get(port, "/frame").body, images.back());
  zerlan.signal(SIGINT);
  EXPECT_EQ(zerlan.wait(in(10s)), 0);
}

// A stream whose writer failed (ffmpeg -i missing.mp4 ... | zerlan serve --stdin) gives nothing,
// ever: a CI job must not wait on it.
TEST(Cli, AStreamThatEndsBeforeItsFirstFrameEndsTheServer) {
  Child zerlan({"serve", "--port", "0", "--stdin"});
  zerlan.waitForPort(in(10s));
  zerlan.closeStdin();
  EXPECT_EQ(zerlan.wait(in(10s)), 1);
  const std::string err = zerlan.stderrText();
  EXPECT_HAS(err, "ended before a complete JPEG arrived: there is nothing to serve");
  EXPECT_HAS(err, "stopped (nothing to serve)");
}

TEST(Cli, BusyPortIsARuntimeErrorThatSaysWhatHoldsIt) {
  Child first({"serve", "--port", "0"});
  uint16_t port = first.waitForPort(in(10s));
  const std::string p = std::to_string(port);
  Child second({"serve", "--port", p});
  EXPECT_EQ(second.wait(in(10s)), 1);
  EXPECT_HAS(second.stderrText(),
             "port " + p + " is in use by another zerlan serve (http://127.0.0.1:" + p + "/, serving test pattern");
  EXPECT_HAS(second.stderrText(), "ss -ltnp 'sport = :" + p + "'");
  EXPECT_EQ(get(port, "/frame").status, 200) << "the first server is unharmed";

  // Any other web server: an HTML page for every path.
  Answering web("HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\n\r\n<html><body>Not Found</body></html>");
  Child third({"serve", "--port", std::to_string(web.port())});
  EXPECT_EQ(third.wait(in(10s)), 1);
  const std::string err = third.stderrText();
  const std::string webPort = std::to_string(web.port());
  EXPECT_HAS(err, "port " + webPort + " is in use: another program, not a zerlan frame server, listens on 127.0.0.1:" +
                      webPort + " (its GET /status answers HTTP 404)");
  EXPECT_LACKS(err, "zerlan serve (");

  Child elsewhere({"serve", "--port", "0", "--host", "192.0.2.1"});
  EXPECT_EQ(elsewhere.wait(in(10s)), 1);
  EXPECT_HAS(elsewhere.stderrText(), "is not on this machine");

  first.signal(SIGINT);
  EXPECT_EQ(first.wait(in(10s)), 0);
}

// What a client sends ends up in the terminal's log: a QR payload with a line break cannot
// forge a line of its own, and one with escape sequences cannot drive the terminal.
void expectClientTextEscaped(Child& zerlan, uint16_t port) {
  const std::string payload = "evil\nzerlan serve: forged line \x1b[2J\x1b]0;title\x07";
  ASSERT_EQ(post(port, "/control", nlohmann::json{{"qr", payload}}.dump()).status, 200);
  ASSERT_TRUE(zerlan.waitForLine("QR payload changed to", in(5s))) << zerlan.stderrText();
  std::string log = zerlan.stderrText();
  EXPECT_HAS(log, "evil\\x0azerlan serve: forged line \\x1b[2J\\x1b]0;title\\x07");
  EXPECT_LACKS(log, "\nzerlan serve: forged line") << "a forged line of its own";
  EXPECT_EQ(log.find('\x1b'), std::string::npos) << "a raw escape sequence";
}

TEST(Cli, ExitCodesForCommandLines) {
  TempDir dir;
  const std::string text = dir.write("notes.txt", "words");
  struct Case { std::vector<std::string> args; int code; std::string says; };
  const Case cases[] = {
      {{"serve", "--help"}, 0, "Exit codes: 0 success"},
      {{"--help"}, 0, "serve"},
      {{}, 2, "serve"},
      {{"frobnicate"}, 2, "frobnicate"},
      {{"serve", "--image", dir.file("missing.jpg")}, 2, "missing.jpg does not exist"},
      {{"serve", "--video", dir.write("still.jpg", solidJpeg(64, 48, {0, 0, 255}))}, 2, "serve it with --image"},
      {{"serve", "--image", text, "--dir", dir.path().string()}, 2, "excludes"},
      {{"serve", "--size", "10x10"}, 2, "out of range"},
      {{"serve", "--size", "big"}, 2, "is not WIDTHxHEIGHT"},
      {{"serve", "--quality", "0"}, 2, "--quality"},
      {{"serve", "--fps", "0"}, 2, "--fps"},
      {{"serve", "--port", "70000"}, 2, "70000 is not a port"},
      {{"serve", "--host", "999.1.1.1"}, 2, "is not an IP address"},
      {{"serve", "--host", "camera.example"}, 2, "is not an IP address"},
      {{"serve", "--qr", ""}, 2, "QR payload is empty"},
      {{"serve", "--scenario", dir.file("none.json")}, 2, "none.json: no such scenario file"},
      {{"serve", "--scenario", dir.write("bad.json", "[{\"at\": 0, \"qr\": \"A\"},\n {\"at\": 1, \"colour\": 1}]")},
       2, "--scenario " + dir.file("bad.json") + ":2: unknown key \"colour\""},
      {{"serve", "--scenario", dir.write("steps.json", "[\n{\"at\": 1, \"step\": 2}]")}, 2,
       "steps.json:2: a \"step\" step needs step mode: add --step"},
      // Slips of the fingers, named with what was meant.
      {{"serv"}, 2, "unknown command \"serv\": did you mean serve?"},
      {{"help", "prob"}, 2, "unknown command \"prob\": did you mean probe?"},
      {{"serve", "--prot", "5"}, 2, "zerlan serve: unknown option --prot: did you mean --port?"},
      {{"serve", "--bogus"}, 2, "zerlan serve: unknown option --bogus\n"},
      {{"ctl", "status", "--jsn"}, 2, "zerlan ctl status: unknown option --jsn: did you mean --json?"},
      {{"ctl", "stauts"}, 2, "unknown action \"stauts\": did you mean status?"},
      {{"probe", "--cont", "3"}, 2, "zerlan probe: unknown option --cont: did you mean --count?"},
      {{"serve", "--port", "abc"}, 2, "--port: abc is not a port (0 to 65535; 0 picks a free one)"},
      {{"ctl", "--port", "abc", "status"}, 2, "--port: abc is not a port (1 to 65535)"},
      {{"probe", "--port", "0"}, 2, "--port: 0 is not a port (1 to 65535)"},
      {{"demo", "--port", "65536"}, 2, "--port: 65536 is not a port (1 to 65535)"},
      {{"serve", "--log", dir.file("missing/serve.log")}, 2, "--log " + dir.file("missing/serve.log")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.says);
    Child zerlan(c.args);
    std::string cmd = "zerlan";
    for (const auto& a : c.args) cmd += " " + a;
    EXPECT_EQ(zerlan.wait(in(10s)), c.code) << cmd;
    // Help goes to standard output, which the test does not capture; errors to standard error.
    if (c.code != 0) {
      EXPECT_HAS(zerlan.stderrText(), c.says) << cmd << ":\n" << zerlan.stderrText();
    }
  }
}

// What people type before they read the help.
TEST(Cli, HelpAndVersionAsPeopleAskForThem) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--version"}, {"-V"}, {"version"}}) {
    auto run = zerlan::testing::runProcess({ZERLAN_BIN, args[0]});
    EXPECT_EQ(run.status, 0) << args[0];
    EXPECT_EQ(run.out, "zerlan " + std::string(ZERLAN_VERSION) + "\n") << args[0];
  }
  auto help = zerlan::testing::runProcess({ZERLAN_BIN, "help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_HAS(help.out, "serve");
  EXPECT_HAS(help.out, "zerlan help COMMAND");
  auto ctlHelp = zerlan::testing::runProcess({ZERLAN_BIN, "help", "ctl"});
  EXPECT_EQ(ctlHelp.status, 0);
  EXPECT_EQ(ctlHelp.out, zerlan::testing::runProcess({ZERLAN_BIN, "ctl", "--help"}).out);
}

// -v for someone following an app's fetches; --background and --log for scripts, which need the
// server serving before they go on and a clear failure when it cannot start.
TEST(Cli, VerboseBackgroundAndLogFile) {
  TempDir dir;
  Child verbose({"serve", "--port", "0", "-v"});
  uint16_t port = verbose.waitForPort(in(10s));
  EXPECT_EQ(get(port, "/frame").status, 200);
  EXPECT_EQ(get(port, "/nope").status, 404);
  EXPECT_TRUE(verbose.waitForLine("GET /nope from 127.0.0.1:", in(5s))) << verbose.stderrText();
  const std::string said = verbose.stderrText();
  EXPECT_HAS(said, "GET /frame from 127.0.0.1:");
  EXPECT_HAS(said, ": 200, frame index ");
  EXPECT_HAS(said, ": 404, ");
  expectClientTextEscaped(verbose, port);
  verbose.signal(SIGTERM);
  EXPECT_EQ(verbose.wait(in(10s)), 0);

  const std::string log = dir.file("serve.log");
  auto started = zerlan::testing::runProcess({ZERLAN_BIN, "serve", "--port", "0", "--background", "--log", log});
  ASSERT_EQ(started.status, 0) << started.err;
  const pid_t pid = std::atoi(started.out.c_str());
  ASSERT_GT(pid, 0) << started.out;
  std::shared_ptr<void> stopper(nullptr, [pid](void*) { ::kill(pid, SIGKILL); });
  EXPECT_EQ(started.out, std::to_string(pid) + "\n") << "the process ID alone, for server=$(...)";
  EXPECT_EQ(started.err, "") << "the log goes to the file";
  const std::string text = readFile(log);
  auto at = text.find("listening on http://127.0.0.1:");
  ASSERT_NE(at, std::string::npos) << "serving before the command returned:\n" << text;
  const auto bgPort = static_cast<uint16_t>(std::stoi(text.substr(at + 30)));
  EXPECT_EQ(get(bgPort, "/frame").status, 200) << "no wait needed";

  // Its own server cannot start: the command says why, at once, and fails as in the foreground.
  auto busy = zerlan::testing::runProcess(
      {ZERLAN_BIN, "serve", "--port", std::to_string(bgPort), "--background", "--log", dir.file("second.log")});
  EXPECT_EQ(busy.status, 1);
  EXPECT_EQ(busy.out, "") << "no process ID";
  EXPECT_HAS(busy.err, "is in use by another zerlan serve");
  auto missing = zerlan::testing::runProcess({ZERLAN_BIN, "serve", "--background", "--image", dir.file("none.jpg")});
  EXPECT_EQ(missing.status, 2) << missing.err;

  ::kill(pid, SIGTERM);
  EXPECT_TRUE(eventually([&] { return readFile(log).find("stopped (SIGTERM)") != std::string::npos; }, 10s))
      << readFile(log);
}

// zerlan probe fetches with the library's own transport and reports each fetch.
std::vector<nlohmann::json> jsonLines(const std::string& out) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
  return lines;
}

zerlan::testing::ProcessResult probe(uint16_t port, std::vector<std::string> extra = {}) {
  std::vector<std::string> argv = {ZERLAN_BIN, "probe", "--json", "--interval-ms", "0", "--port",
                                   std::to_string(port)};
  argv.insert(argv.end(), extra.begin(), extra.end());
  return zerlan::testing::runProcess(argv);
}

// Without --port it fetches where the library would.
TEST(Probe, ReportsEachFrameOfARunningServer) {
  RunningServer running = startServer();
  TempDir dir;
  auto run = zerlan::testing::runProcess(
      {ZERLAN_BIN, "probe", "--json", "--interval-ms", "0", "--count", "3", "--save", dir.file("last.jpg")},
      {{"ZERLAN_FRAME_PORT", std::to_string(running.port())}});
  ASSERT_EQ(0, run.status) << run.err;
  auto lines = jsonLines(run.out);
  ASSERT_EQ(3u, lines.size());
  for (const auto& line : lines) {
    EXPECT_EQ(true, line["frame"]);
    EXPECT_GT(line["bytes"].get<long>(), 1000);
    EXPECT_GE(line["ms"].get<double>(), 0.0);
    EXPECT_EQ(640, line["width"]);
    EXPECT_EQ(480, line["height"]);
    EXPECT_EQ("zerlan", line["qr"]);
  }
  std::string saved = readFile(dir.file("last.jpg"));
  EXPECT_EQ(lines.back()["bytes"].get<size_t>(), saved.size());
  EXPECT_EQ(std::optional<std::string>("zerlan"), readQr(saved));
}

// --json carries the verdicts the text gives, and the exit status follows what the app would get:
// bytes the library drops are no frame.
TEST(Probe, JsonVerdictsAndTheExitStatusFollowWhatTheAppWouldGet) {
  const uint16_t closed = zerlan::testing::closedPort();
  auto down = probe(closed, {"--count", "2"});
  EXPECT_EQ(1, down.status);
  auto lines = jsonLines(down.out);
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(false, lines[0]["frame"]);
  EXPECT_EQ("no server", lines[0]["verdict"]);
  EXPECT_EQ(0, lines[0]["bytes"]);
  EXPECT_TRUE(lines[0]["width"].is_null());
  EXPECT_TRUE(lines[0]["qr"].is_null());
  EXPECT_HAS(down.err, "zerlan probe: 2 of 2 fetches got no frame: nothing listens on 127.0.0.1:" +
                          std::to_string(closed) + " (start the frame server with 'zerlan serve')");

  // A zerlan server with a fault in force: each verdict in turn.
  RunningServer running = startServer();
  ASSERT_EQ(200, post(running.port(), "/control", R"({"fault": "garbage", "requests": 1})").status);
  auto garbage = probe(running.port(), {"--count", "2"});
  EXPECT_EQ(1, garbage.status);
  auto both = jsonLines(garbage.out);
  ASSERT_EQ(2u, both.size());
  EXPECT_EQ("undecodable", both[0]["verdict"]);
  EXPECT_EQ("frame", both[1]["verdict"]);
  EXPECT_EQ(true, both[1]["frame"]);
  EXPECT_HAS(garbage.err, "1 of 2 fetches got bytes that are no JPEG");
  EXPECT_HAS(garbage.err, "a frame server answers on port");
  ASSERT_EQ(200, post(running.port(), "/control", R"({"fault": "http-error", "requests": 1})").status);
  auto refused = probe(running.port());
  EXPECT_EQ(1, refused.status);
  EXPECT_EQ("no frame", jsonLines(refused.out).at(0)["verdict"]);
}

// What the library would drop is no frame (exit 1), and a picture too large for a frame is not
// decoded to say so.
TEST(Probe, EachKindOfAnswerGetsItsVerdictAsJsonAndAsText) {
  const std::string small = solidJpeg(16, 16, {0, 0, 255});
  struct Case {
    const char* name;
    std::string body;
    const char* verdict;
    int width;  // 0: unknown
    std::string problem;
  };
  const Case cases[] = {
      {"JPEG", small, "frame", 16, ""},
      {"PNG", testing::blackPng(640, 480), "frame", 640, ""},
      {"JPEG that claims 30000 x 30000", testing::claimSize(small, 30000, 30000), "too large", 30000,
       "JPEG of 30000x30000, 900 megapixels, more than a camera frame has"},
      {"PNG of 16000 x 16000", testing::blackPng(16000, 16000), "too large", 16000,
       "PNG of 16000x16000, 256 megapixels"},
      {"text", "hello", "undecodable", 0, "neither a JPEG nor a PNG"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Answering server("HTTP/1.1 200 OK\r\nContent-Type: image/jpeg\r\n\r\n" + c.body);
    auto run = probe(server.port());
    const auto line = nlohmann::json::parse(run.out, nullptr, false);
    const bool frame = c.verdict == std::string("frame");
    ASSERT_EQ(frame ? 0 : 1, run.status) << run.out << run.err;
    EXPECT_EQ(frame, line["frame"]);
    EXPECT_EQ(c.verdict, line["verdict"]);
    EXPECT_EQ(c.body.size(), line["bytes"].get<size_t>());
    if (c.width) {
      EXPECT_EQ(c.width, line["width"]);
    } else {
      EXPECT_TRUE(line["width"].is_null());
      EXPECT_TRUE(line["height"].is_null());
    }
    if (c.problem.empty()) EXPECT_TRUE(line["problem"].is_null()) << line["problem"];
    else EXPECT_HAS(line["problem"].get<std::string>(), c.problem);
  }

  const std::tuple<std::string, std::vector<std::string>, std::string> asText[] = {
      {"hello", {"5 bytes in ", "no JPEG the library can decode"},
       "1 of 1 fetches got bytes that are no JPEG, which the library drops"},
      {testing::claimSize(small, 30000, 30000), {"no frame: JPEG of 30000x30000"},
       "1 of 1 fetches got pictures larger than a frame may be (64 megapixels)"},
  };
  for (const auto& [body, says, summary] : asText) {
    Answering server("HTTP/1.0 200 OK\r\n\r\n" + body);
    auto run = zerlan::testing::runProcess({ZERLAN_BIN, "probe", "--port", std::to_string(server.port())});
    EXPECT_EQ(1, run.status) << "the library drops it: no frame for the app";
    for (const std::string& part : says) EXPECT_HAS(run.out, part);
    EXPECT_HAS(run.err, summary);
  }
}

TEST(Probe, SaysWhereTheFrameWentAndSumsUpSeveralFetches) {
  RunningServer running = startServer();
  TempDir dir;
  std::vector<std::string> argv = {ZERLAN_BIN, "probe", "--interval-ms", "0", "--port",
                                   std::to_string(running.port()), "--count", "3", "--save",
                                   dir.file("frame.jpg")};
  auto run = zerlan::testing::runProcess(argv);
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_HAS(run.out, "saved the last frame to " + dir.file("frame.jpg"));
  EXPECT_HAS(run.out, "3 fetches: 3 frames, 0 without");

  // A path that cannot be written is refused before anything is fetched, and nothing is made.
  const std::string badPaths[] = {dir.file(""), dir.file("missing/frame.jpg")};
  for (const std::string& bad : badPaths) {
    argv.back() = bad;
    auto refused = zerlan::testing::runProcess(argv);
    EXPECT_EQ(2, refused.status) << bad;
    EXPECT_HAS(refused.err, "--save " + bad);
    EXPECT_LACKS(refused.out, "fetch 1");
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("missing")));
}

TEST(Probe, TellsNoServerFromAServerThatGaveNoFrame) {
  Answering busy("HTTP/1.1 503 Service Unavailable\r\n\r\nno frame yet");
  auto noFrame = zerlan::testing::runProcess({ZERLAN_BIN, "probe", "--port", std::to_string(busy.port())});
  EXPECT_EQ(1, noFrame.status);
  EXPECT_HAS(noFrame.out, "although a server answers there");
  EXPECT_HAS(noFrame.err, "another program, not a zerlan frame server, listens on 127.0.0.1:" +
                              std::to_string(busy.port()) + " (its GET /status answers HTTP 503)");

  // ZERLAN_FRAME_PORT that names no port is ignored, as the library ignores it, but not silently.
  auto ignored = zerlan::testing::runProcess({ZERLAN_BIN, "probe", "--json", "--port", std::to_string(busy.port())},
                                             {{"ZERLAN_FRAME_PORT", "abc"}});
  EXPECT_LACKS(ignored.err, "ZERLAN_FRAME_PORT") << "--port was given: " << ignored.err;
  // It then fetches from 47654, which is the machine's: in a network of its own.
  const std::string ownNetwork = ZERLAN_SOURCE_DIR "/tests/support/own-network";
  auto fallback = zerlan::testing::runProcess({ownNetwork, ZERLAN_BIN, "probe", "--json"}, {{"ZERLAN_FRAME_PORT", "abc"}});
  if (fallback.status == 77) GTEST_SKIP() << fallback.err;
  EXPECT_EQ(1, fallback.status) << "nothing listens in a network of its own";
  EXPECT_HAS(fallback.err, "zerlan probe: ZERLAN_FRAME_PORT=abc is not a port (1 to 65535), so the library would "
                           "ignore it too: using 47654");
}

}  // namespace
}  // namespace zerlan::test
