// zerlan ctl, the binary, against no server, against servers that refuse a value, and doing
// its work: each exit code a script relies on, with the message beside it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <future>
#include <nlohmann/json.hpp>

#include "Process.h"
#include "support.h"

namespace zerlan::test {
namespace {

using nlohmann::json;
using server::SourceChoice;
using testing::ProcessResult;
using testing::runProcess;

ProcessResult ctl(uint16_t port, std::vector<std::string> args,
                  std::map<std::string, std::string> env = {{"ZERLAN_FRAME_PORT", testing::kUnset}}) {
  std::vector<std::string> argv = {ZERLAN_BIN, "ctl"};
  if (port) argv.insert(argv.end(), {"--port", std::to_string(port)});
  argv.insert(argv.end(), args.begin(), args.end());
  return runProcess(argv, env);
}

std::string line(const std::vector<std::string>& args) {
  std::string text = "zerlan ctl";
  for (const auto& a : args) text += " " + a;
  return text;
}

TEST(Ctl, WithoutAServerEveryActionSaysSoAndExits1) {
  const uint16_t port = testing::closedPort();
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"status"}, {"status", "--json"}, {"qr", "A"}, {"step", "2"},
        {"fault", "stall", "--seconds", "1"}, {"source", "pattern"},
        {"wait", "--fetches", "1", "--timeout", "5"}}) {
    ProcessResult r = ctl(port, args);
    EXPECT_EQ(r.status, 1) << line(args) << "\n" << r.err;
    EXPECT_HAS(r.err, "no frame server answers on 127.0.0.1:" + std::to_string(port) +
                          ": start one with 'zerlan serve'")
        << line(args) << "\n" << r.err;
    EXPECT_EQ(r.out, "") << line(args);
  }
}

TEST(Ctl, GoodValuesApplyAndRefusedOnesExit3WithTheServersReason) {
  TempDir dir;
  const std::string photo = dir.write("photo.jpg", solidJpeg(64, 48, {0, 0, 255}));
  std::filesystem::create_directory(dir.file("shots"));
  dir.write("shots/1.jpg", solidJpeg(64, 48, {255, 0, 0}));
  auto s = startServer();
  const uint16_t port = s.port();

  struct Case {
    std::vector<std::string> args;
    int code;
    std::string out;  // in standard output (0) or standard error (otherwise)
    std::function<void()> then;
  };
  const std::vector<Case> cases = {
      {{"qr", "HELLO"}, 0, "qr \"HELLO\" on the test pattern",
       [&] { EXPECT_EQ(readQr(get(port, "/frame").body), "HELLO"); }},
      {{"qr", ""}, 3, "the server refused it (HTTP 400): cannot use this QR payload",
       [&] { EXPECT_EQ(statusOf(port)["qr"], "HELLO"); }},
      {{"step"}, 3, "(HTTP 409): the server is not in step mode", nullptr},
      {{"image", dir.file("missing.jpg")}, 3, "missing.jpg does not exist",
       [&] { EXPECT_EQ(statusOf(port)["source_kind"], "pattern"); }},
      {{"image", photo}, 0, "serving image " + photo,
       [&] { EXPECT_EQ(get(port, "/frame").body, readFile(photo)); }},
      {{"qr", "B"}, 3, "(HTTP 409): the QR payload is drawn on the test pattern only", nullptr},
      {{"source", "dir", dir.file("shots")}, 0, "serving folder " + dir.file("shots"),
       [&] { EXPECT_EQ(statusOf(port)["source_kind"], "dir"); }},
      {{"source", "pattern"}, 0, "serving test pattern",
       [&] { EXPECT_EQ(statusOf(port)["source_kind"], "pattern"); }},
      {{"source", "video"}, 2, "video takes one path", nullptr},
      {{"source", "webcam"}, 2, "unknown source \"webcam\"", nullptr},
      {{"fault", "stall", "--seconds", "30"}, 0, "fault stall on GET /frame, ",
       [&] { EXPECT_EQ(statusOf(port)["fault"]["kind"], "stall"); }},
      {{"fault", "none"}, 0, "no fault: GET /frame serves frames",
       [&] { EXPECT_TRUE(statusOf(port)["fault"].is_null()); }},
      {{"fault", "http-error", "--requests", "1"}, 0, "1 request left",
       [&] { EXPECT_TRUE(statusOf(port)["fault"]["requests_left"] == 1); }},
      {{"fault", "http-error", "--requests", "2"}, 0, "2 requests left",
       [&] {
         Reply injected = get(port, "/frame");
         EXPECT_EQ(injected.status, 503);
         EXPECT_HAS(errorReason(injected).value_or(""), "http-error") << injected.raw;
         EXPECT_EQ(get(port, "/frame").status, 503);
         EXPECT_EQ(get(port, "/frame").status, 200);
       }},
      {{"fault", "melt"}, 2, "zerlan ctl fault: KIND: melt", nullptr},
      {{"fault", "stall", "--seconds", "1", "--requests", "1"}, 2, "excludes", nullptr},
      {{"fault", "stall", "--requests", "0"}, 2, "--requests", nullptr},
      {{"step", "0"}, 2, "N", nullptr},
      {{"frobnicate"}, 2, "unknown action \"frobnicate\" (use qr, image", nullptr},
      {{}, 2, "name an action", nullptr},
      {{"status"}, 0, "mode           live", nullptr},
  };
  for (const Case& c : cases) {
    ProcessResult r = ctl(port, c.args);
    EXPECT_EQ(r.status, c.code) << line(c.args) << "\n" << r.out << r.err;
    const std::string& text = c.code == 0 ? r.out : r.err;
    EXPECT_HAS(text, c.out) << line(c.args) << " said:\n" << r.out << r.err;
    if (c.then) {
      SCOPED_TRACE(line(c.args));
      c.then();
    }
  }

  ProcessResult asJson = ctl(port, {"status", "--json"});
  EXPECT_EQ(asJson.status, 0);
  json parsed = json::parse(asJson.out, nullptr, false);
  ASSERT_TRUE(parsed.is_object()) << asJson.out;
  EXPECT_EQ(parsed["address"], s.server->url());

  ProcessResult portAfter = ctl(0, {"status", "--port", std::to_string(port)});
  EXPECT_EQ(portAfter.status, 0) << "--port may follow the action: " << portAfter.err;

  // Without --port, the port the library would use.
  ProcessResult byEnvironment =
      ctl(0, {"status", "--json"}, {{"ZERLAN_FRAME_PORT", std::to_string(port)}});
  EXPECT_EQ(byEnvironment.status, 0) << byEnvironment.err;
}

// A port held by another program is not a zerlan server that refused: ctl says which it is, with
// the way to find it, and does not dump its page.
TEST(Ctl, AnotherProgramOnThePortIsToldFromAFrameServer) {
  struct Program { std::string answer; std::string says; };
  const Program programs[] = {
      {"HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\n\r\n<html><body><h1>Not Found</h1></body></html>",
       "(its GET /status answers HTTP 404)"},
      {"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n{\"error\": \"who?\"}",
       "(its GET /status answers HTTP 200 with no zerlan status)"},
      {"SSH-2.0-OpenSSH_9.2\r\n", "(it does not answer HTTP)"},
  };
  for (const Program& program : programs) {
    Answering other(program.answer);
    const std::string port = std::to_string(other.port());
    for (const std::vector<std::string>& args : {std::vector<std::string>{"status"}, {"qr", "A"}}) {
      ProcessResult r = ctl(other.port(), args);
      EXPECT_EQ(r.status, 1) << line(args) << "\n" << r.err;
      EXPECT_HAS(r.err, "another program, not a zerlan frame server, listens on 127.0.0.1:" + port + " " +
                            program.says + ": find it with ss -ltnp 'sport = :" + port + "'")
          << line(args) << "\n" << r.err;
      EXPECT_LACKS(r.err, "<html>");
      EXPECT_LACKS(r.err, "refused");
    }
  }
}

// Counted one by one, a million frames of a video took minutes and held the control thread and
// the stop for all of them.
TEST(Ctl, AMillionStepsOfAVideoKeepTheServerAnsweringAndStoppable) {
  TempDir dir;
  const std::string video =
      makeVideo(dir, "clip.mp4", {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}}, 25, 64, 48);
  Child serve({"serve", "--step", "--video", video, "--port", "0"});
  const uint16_t port = serve.waitForPort(in(20s));

  ProcessResult one = ctl(port, {"step"});
  EXPECT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(one.out, "frame index 1 after 1 step\n");
  ProcessResult step = ctl(port, {"step", "999999"});
  EXPECT_EQ(step.status, 0) << step.err;
  EXPECT_EQ(step.out, "frame index 1000000 after 1000000 steps\n");

  // One more, not waited for: a switch of source, and then a stop, come while it is taken.
  const std::string request = "POST /control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: "
                              "application/json\r\nContent-Length: 17\r\n\r\n{\"step\": 1000000}";
  int pending = connectTo(port);
  ASSERT_TRUE(sendAll(pending, request));
  ProcessResult source = ctl(port, {"source", "video", video});
  EXPECT_EQ(source.status, 0) << source.err;
  ::close(pending);

  pending = connectTo(port);
  ASSERT_TRUE(sendAll(pending, request));
  ASSERT_TRUE(serve.waitForLine("(3000000 steps so far)", in(20s))) << serve.stderrText();
  serve.signal(SIGTERM);
  EXPECT_EQ(serve.wait(in(10s)), 0) << "stopped in moments, mid-step: " << serve.stderrText();
  ::close(pending);
}

TEST(Ctl, WaitReturnsOnceTheFramesAreFetchedAndExits1WhenTheyAreNot) {
  auto s = startServer();
  ProcessResult idle = ctl(s.port(), {"wait", "--fetches", "2", "--timeout", "0.3"});
  EXPECT_EQ(idle.status, 1);
  EXPECT_HAS(idle.err, "only 0 of 2 frames fetched in 0.3 s");

  const uint64_t requestsBefore = s.server->totals().requests;
  auto waited = std::async(std::launch::async, [&] {
    return ctl(s.port(), {"wait", "--fetches", "3", "--timeout", "60"});
  });
  // ctl counts from its first look at /status: let it take that look before fetching.
  auto deadline = in(30s);
  while (s.server->totals().requests == requestsBefore && Clock::now() < deadline)
    std::this_thread::sleep_for(5ms);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(get(s.port(), "/frame").status, 200);
  EXPECT_EQ(waited.wait_for(500ms), std::future_status::timeout) << "two frames are not three";
  EXPECT_EQ(get(s.port(), "/frame").status, 200);
  ASSERT_EQ(waited.wait_for(30s), std::future_status::ready);
  ProcessResult done = waited.get();
  EXPECT_EQ(done.status, 0) << done.err;
  ProcessResult nothing = ctl(s.port(), {"wait", "--fetches", "0", "--timeout", "0"});
  EXPECT_EQ(nothing.status, 0) << "no frames to wait for";
}

}  // namespace
}  // namespace zerlan::test
