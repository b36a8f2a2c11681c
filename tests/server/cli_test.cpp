// The zerlan binary: `zerlan serve` driven by curl and python3, its standard-input stream, its
// signals and summary, and its exit codes for bad command lines and busy ports.
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>

#include "Process.h"
#include "ScriptedServer.h"
#include "cli/version.h"
#include "server/mjpeg.h"
#include "support.h"

namespace zerlan::test {
namespace {

TEST(Cli, ServesCurlAndPythonThenStopsOnSignal) {
  TempDir dir;
  Child zerlan({"serve", "--port", "0", "--qr", "cli payload"});
  uint16_t port = zerlan.waitForPort(in(10s));
  ASSERT_NE(port, 0) << zerlan.stderrText();
  const std::string base = "http://127.0.0.1:" + std::to_string(port);

  ASSERT_EQ(shell("curl -sS --max-time 5 -D '" + dir.file("headers") + "' -o '" +
                  dir.file("frame.jpg") + "' " + base + "/frame"),
            0);
  std::string headers = readFile(dir.file("headers"));
  std::string frame = readFile(dir.file("frame.jpg"));
  EXPECT_EQ(headers.substr(0, headers.find("\r\n")), "HTTP/1.1 200 OK");
  EXPECT_NE(headers.find("Content-Length: " + std::to_string(frame.size()) + "\r\n"),
            std::string::npos)
      << headers;
  EXPECT_EQ(headers.find("chunked"), std::string::npos);
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
  EXPECT_NE(err.find("stopped (SIGTERM)"), std::string::npos) << err;
  EXPECT_NE(err.find("3 frames served"), std::string::npos) << err;
  EXPECT_NE(err.find("QR payload changed to \"from python\""), std::string::npos) << err;
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
  ASSERT_NE(port, 0) << zerlan.stderrText();
  Reply none = get(port, "/frame");
  EXPECT_EQ(none.status, 503);
  EXPECT_NE(errorReason(none).value_or("").find("no frame yet"), std::string::npos) << none.raw;
  ASSERT_TRUE(zerlan.writeStdin(stream));
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
  ASSERT_NE(zerlan.waitForPort(in(10s)), 0) << zerlan.stderrText();
  zerlan.closeStdin();
  EXPECT_EQ(zerlan.wait(in(10s)), 1);
  const std::string err = zerlan.stderrText();
  EXPECT_NE(err.find("ended before a complete JPEG arrived: there is nothing to serve"), std::string::npos) << err;
  EXPECT_NE(err.find("stopped (nothing to serve)"), std::string::npos) << err;
}

TEST(Cli, BusyPortIsARuntimeErrorThatSaysWhatHoldsIt) {
  Child first({"serve", "--port", "0"});
  uint16_t port = first.waitForPort(in(10s));
  ASSERT_NE(port, 0) << first.stderrText();
  const std::string p = std::to_string(port);
  Child second({"serve", "--port", p});
  EXPECT_EQ(second.wait(in(10s)), 1);
  EXPECT_NE(second.stderrText().find("port " + p + " is in use by another zerlan serve (http://127.0.0.1:" + p +
                                     "/, serving test pattern"),
            std::string::npos)
      << second.stderrText();
  EXPECT_NE(second.stderrText().find("ss -ltnp 'sport = :" + p + "'"), std::string::npos) << second.stderrText();
  EXPECT_EQ(get(port, "/frame").status, 200) << "the first server is unharmed";

  // Any other web server: an HTML page for every path.
  zerlan::testing::ScriptedServer web([](int fd) {
    zerlan::testing::ScriptedServer::readHead(fd);
    zerlan::testing::ScriptedServer::writeAll(
        fd, "HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\n\r\n<html><body>Not Found</body></html>");
    return true;
  });
  Child third({"serve", "--port", std::to_string(web.port())});
  EXPECT_EQ(third.wait(in(10s)), 1);
  const std::string err = third.stderrText();
  EXPECT_NE(err.find("port " + std::to_string(web.port()) +
                     " is in use: another program, not a zerlan frame server, listens on 127.0.0.1:" +
                     std::to_string(web.port()) + " (its GET /status answers HTTP 404)"),
            std::string::npos)
      << err;
  EXPECT_EQ(err.find("zerlan serve ("), std::string::npos) << err;

  Child elsewhere({"serve", "--port", "0", "--host", "192.0.2.1"});
  EXPECT_EQ(elsewhere.wait(in(10s)), 1);
  EXPECT_NE(elsewhere.stderrText().find("is not on this machine"), std::string::npos)
      << elsewhere.stderrText();

  first.signal(SIGINT);
  EXPECT_EQ(first.wait(in(10s)), 0);
}

TEST(Cli, ServePlaysAScenarioAndReportsEachStepAsItFires) {
  TempDir dir;
  const std::string scenario = dir.write(
      "play.json", "[{\"at\": 0, \"qr\": \"first\"},\n {\"after_fetches\": 1, \"qr\": \"second\"}]");
  Child zerlan({"serve", "--port", "0", "--step", "--scenario", scenario});
  uint16_t port = zerlan.waitForPort(in(10s));
  ASSERT_NE(port, 0) << zerlan.stderrText();
  ASSERT_TRUE(zerlan.waitForLine("scenario step 1 of 2 (line 1) at ", in(10s))) << zerlan.stderrText();
  EXPECT_EQ(readQr(get(port, "/frame").body), "first");
  ASSERT_TRUE(zerlan.waitForLine("scenario step 2 of 2 (line 2) at ", in(10s))) << zerlan.stderrText();
  EXPECT_TRUE(zerlan.waitForLine("scenario " + scenario + " finished", in(10s)));
  EXPECT_EQ(readQr(get(port, "/frame").body), "second");
  zerlan.signal(SIGTERM);
  EXPECT_EQ(zerlan.wait(in(10s)), 0);
}

// What a client sends ends up in the terminal's log: a QR payload with a line break cannot
// forge a line of its own, and one with escape sequences cannot drive the terminal.
TEST(Cli, ClientTextInTheLogIsEscaped) {
  Child zerlan({"serve", "--port", "0"});
  uint16_t port = zerlan.waitForPort(in(10s));
  ASSERT_NE(port, 0) << zerlan.stderrText();
  const std::string payload = "evil\nzerlan serve: forged line \x1b[2J\x1b]0;title\x07";
  ASSERT_EQ(post(port, "/control", nlohmann::json{{"qr", payload}}.dump()).status, 200);
  ASSERT_TRUE(zerlan.waitForLine("QR payload changed to", in(5s))) << zerlan.stderrText();
  std::string log = zerlan.stderrText();
  EXPECT_NE(log.find("evil\\x0azerlan serve: forged line \\x1b[2J\\x1b]0;title\\x07"), std::string::npos)
      << log;
  EXPECT_EQ(log.find("\nzerlan serve: forged line"), std::string::npos) << "a forged line of its own";
  EXPECT_EQ(log.find('\x1b'), std::string::npos) << "a raw escape sequence";
  zerlan.signal(SIGINT);
  EXPECT_EQ(zerlan.wait(in(10s)), 0);
}

TEST(Cli, ExitCodesForCommandLines) {
  TempDir dir;
  const std::string text = dir.write("notes.txt", "words");
  struct Case {
    std::vector<std::string> args;
    int code;
    std::string says;
  };
  const Case cases[] = {
      {{"serve", "--help"}, 0, "Exit codes: 0 success"},
      {{"--help"}, 0, "serve"},
      {{}, 2, "serve"},
      {{"serve", "--bogus"}, 2, "--bogus"},
      {{"frobnicate"}, 2, "frobnicate"},
      {{"serve", "--image", dir.file("missing.jpg")}, 2, "missing.jpg does not exist"},
      {{"serve", "--image", text}, 2, "is not an image"},
      {{"serve", "--dir", text}, 2, "is not a folder"},
      {{"serve", "--video", dir.write("still.jpg", solidJpeg(64, 48, {0, 0, 255}))}, 2, "serve it with --image"},
      {{"serve", "--image", text, "--dir", dir.path().string()}, 2, "excludes"},
      {{"serve", "--size", "10x10"}, 2, "out of range"},
      {{"serve", "--size", "big"}, 2, "is not WIDTHxHEIGHT"},
      {{"serve", "--quality", "0"}, 2, "--quality"},
      {{"serve", "--fps", "0"}, 2, "--fps"},
      {{"serve", "--port", "70000"}, 2, "70000 is not a port"},
      {{"serve", "--host", "999.1.1.1"}, 2, "is not an IP address"},
      {{"serve", "--host", "camera.example"}, 2, "is not an IP address"},
      {{"--version"}, 0, ""},
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
      EXPECT_NE(zerlan.stderrText().find(c.says), std::string::npos) << cmd << ":\n"
                                                                     << zerlan.stderrText();
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
  EXPECT_NE(help.out.find("serve"), std::string::npos) << help.out;
  EXPECT_NE(help.out.find("zerlan help COMMAND"), std::string::npos) << help.out;
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
  ASSERT_NE(port, 0) << verbose.stderrText();
  EXPECT_EQ(get(port, "/frame").status, 200);
  EXPECT_EQ(get(port, "/nope").status, 404);
  EXPECT_TRUE(verbose.waitForLine("GET /nope from 127.0.0.1:", in(5s))) << verbose.stderrText();
  const std::string said = verbose.stderrText();
  EXPECT_NE(said.find("GET /frame from 127.0.0.1:"), std::string::npos) << said;
  EXPECT_NE(said.find(": 200, frame index "), std::string::npos) << said;
  EXPECT_NE(said.find(": 404, "), std::string::npos) << said;
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
  EXPECT_NE(busy.err.find("is in use by another zerlan serve"), std::string::npos) << busy.err;
  auto missing = zerlan::testing::runProcess({ZERLAN_BIN, "serve", "--background", "--image", dir.file("none.jpg")});
  EXPECT_EQ(missing.status, 2) << missing.err;

  ::kill(pid, SIGTERM);
  EXPECT_TRUE(eventually([&] { return readFile(log).find("stopped (SIGTERM)") != std::string::npos; }, 10s))
      << readFile(log);
}

}  // namespace
}  // namespace zerlan::test
