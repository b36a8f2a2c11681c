// The zerlan binary: `zerlan serve` driven by curl and python3, its standard-input stream, its
// signals and summary, and its exit codes for bad command lines and busy ports.
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>

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
  EXPECT_EQ(get(port, "/frame").status, 503);
  ASSERT_TRUE(zerlan.writeStdin(stream));
  EXPECT_TRUE(eventually([&] { return get(port, "/frame").body == images.back(); }))
      << "the last image of the stream, byte for byte";
  zerlan.closeStdin();
  EXPECT_TRUE(zerlan.waitForLine("keeping the last frame", in(5s)));
  EXPECT_EQ(get(port, "/frame").body, images.back());
  zerlan.signal(SIGINT);
  EXPECT_EQ(zerlan.wait(in(10s)), 0);
}

TEST(Cli, BusyPortIsARuntimeError) {
  Child first({"serve", "--port", "0"});
  uint16_t port = first.waitForPort(in(10s));
  ASSERT_NE(port, 0) << first.stderrText();
  Child second({"serve", "--port", std::to_string(port)});
  EXPECT_EQ(second.wait(in(10s)), 1);
  EXPECT_NE(second.stderrText().find("port " + std::to_string(port) +
                                     " is in use (is another zerlan serve running? try --port)"),
            std::string::npos)
      << second.stderrText();
  EXPECT_EQ(get(port, "/frame").status, 200) << "the first server is unharmed";

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
      {{"serve", "--port", "70000"}, 2, "not in range 0 to 65535"},
      {{"serve", "--host", "999.1.1.1"}, 2, "is not an IP address"},
      {{"serve", "--host", "camera.example"}, 2, "is not an IP address"},
      {{"--version"}, 0, ""},
      {{"serve", "--qr", ""}, 2, "QR payload is empty"},
      {{"serve", "--scenario", dir.file("none.json")}, 2, "none.json: no such scenario file"},
      {{"serve", "--scenario", dir.write("bad.json", "[{\"at\": 0, \"qr\": \"A\"},\n {\"at\": 1, \"colour\": 1}]")},
       2, "--scenario " + dir.file("bad.json") + ":2: unknown key \"colour\""},
      {{"serve", "--scenario", dir.write("steps.json", "[\n{\"at\": 1, \"step\": 2}]")}, 2,
       "steps.json:2: a \"step\" step needs step mode: add --step"},
  };
  for (const Case& c : cases) {
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

}  // namespace
}  // namespace zerlan::test
