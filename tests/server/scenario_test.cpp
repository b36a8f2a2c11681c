// Camera scenarios for automated tests: faults on GET /frame as the library's own fetch sees
// them, step mode's repeatable frames and each source's frame index, what /status tells of the
// fetches, and scenario files, checked at start and played in order.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "server/scenario.h"
#include "support.h"
#include "transport/FetchJPEG.h"

namespace zerlan::test {
namespace {

using nlohmann::json;
using server::SourceChoice;

Reply head(uint16_t port, const std::string& path) {
  return roundTrip(port,
                   "HEAD " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
}

json control(uint16_t port, const json& body, int expect = 200) {
  Reply r = post(port, "/control", body.dump());
  EXPECT_EQ(r.status, expect) << body << " -> " << r.body;
  return json::parse(r.body, nullptr, false);
}

// What the library's fetch returns from this server, as bytes; nothing for its null result.
std::optional<std::string> libraryFetch(uint16_t port) {
  objc::AutoreleasePool pool;
  objc::Strong<> data = transport::fetchJPEG(transport::loopbackEndpoint(port));
  if (!data) return std::nullopt;
  auto* bytes = objc::send<const char*>(data, objc::sel<"bytes">());
  return std::string(bytes, objc::send<unsigned long>(data, objc::sel<"length">()));
}

server::FrameSettings stepMode() {
  server::FrameSettings settings;
  settings.step = true;
  return settings;
}

TEST(Faults, EachKindAsTheLibrarysFetchSeesItAndTheFrameAfterIt) {
  auto s = startServer(SourceChoice::pattern(), stepMode());
  const std::string frame = get(s.port(), "/frame").body;  // step mode: the same on every fetch
  ASSERT_TRUE(server::decodeJpeg(frame).ok());

  struct Case {
    const char* kind;
    std::function<void(const std::optional<std::string>&, Clock::duration took)> check;
  };
  const std::vector<Case> cases = {
      {"refuse", [](auto& got, auto) { EXPECT_FALSE(got) << "a reset connection gives nothing"; }},
      {"stall",
       [](auto& got, auto took) {
         EXPECT_FALSE(got) << "nothing arrives";
         EXPECT_GE(took, 900ms) << "the fetch waits out its one-second receive time-out";
       }},
      {"slow",
       [&](auto& got, auto took) {
         EXPECT_EQ(got, frame) << "a slow frame still arrives whole";
         // Ten pieces, nine gaps of 100 ms: a second, well inside the library's two.
         EXPECT_GE(took, 890ms) << "it trickles out over about a second";
       }},
      {"garbage",
       [](auto& got, auto) {
         ASSERT_TRUE(got) << "a 200 with a body passes the fetch";
         EXPECT_FALSE(server::decodeJpeg(*got).ok()) << "but it is no image";
         EXPECT_NE(got->substr(0, 2), "\xff\xd8");
       }},
      {"truncate",
       [&](auto& got, auto) {
         ASSERT_TRUE(got);
         EXPECT_EQ(got->size(), frame.size() / 2);
         EXPECT_EQ(*got, frame.substr(0, frame.size() / 2)) << "the first half of the frame";
       }},
      {"http-error", [](auto& got, auto) { EXPECT_FALSE(got) << "a 503 gives nothing"; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.kind);
    json answer = control(s.port(), {{"fault", c.kind}, {"requests", 1}});
    EXPECT_EQ(answer["fault"]["kind"], c.kind);
    EXPECT_EQ(answer["fault"]["requests_left"], 1);
    auto start = Clock::now();
    auto got = libraryFetch(s.port());
    c.check(got, Clock::now() - start);
    EXPECT_EQ(libraryFetch(s.port()), frame) << "the fault was for one request";
    EXPECT_TRUE(s.log->contains(std::string("fault on GET /frame: ") + c.kind + " for 1 request"));
  }
  json after = statusOf(s.port());
  EXPECT_TRUE(after["fault"].is_null());
  for (const Case& c : cases) EXPECT_EQ(after["faults"][c.kind], 1) << c.kind;
  EXPECT_EQ(after["errors"], 0) << "a fault asked for is not a client's error";

  // The slow fault must stay well inside the library's 2 s for a frame on a loaded machine: its
  // pieces arrive a tenth of a second apart, and there are few enough of them.
  control(s.port(), {{"fault", "slow"}, {"requests", 1}});
  int fd = connectTo(s.port());
  ASSERT_TRUE(sendAll(fd, "GET /frame HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
  std::string received;
  int arrivals = 0;  // bursts of bytes after a pause; a piece may be read in more than one recv
  auto last = Clock::now() - 1s;
  for (char buffer[65536];;) {
    ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    if (Clock::now() - last > 50ms) ++arrivals;
    last = Clock::now();
    received.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  EXPECT_EQ(received.substr(received.find("\r\n\r\n") + 4), frame);
  EXPECT_GE(arrivals, 2) << "it trickles";
  EXPECT_LE(arrivals, 10) << "ten pieces at most: nine pauses of 0.1 s";
}

TEST(Faults, LastUntilClearedOrTheirTimeAndLeaveTheOtherPagesAlone) {
  auto s = startServer(SourceChoice::pattern(), stepMode());
  const std::string frame = get(s.port(), "/frame").body;

  control(s.port(), {{"fault", "http-error"}});
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(libraryFetch(s.port())) << "until cleared: " << i;
  EXPECT_EQ(get(s.port(), "/status").status, 200);
  EXPECT_EQ(get(s.port(), "/").status, 200);
  EXPECT_EQ(head(s.port(), "/frame").status, 200) << "HEAD is no fetch";
  json cleared = control(s.port(), {{"fault", "none"}});
  EXPECT_TRUE(cleared["fault"].is_null());
  EXPECT_EQ(cleared["faults"]["http-error"], 3);
  EXPECT_EQ(libraryFetch(s.port()), frame);
  EXPECT_TRUE(s.log->contains("fault http-error ended (3 GET /frame requests got it)"));

  auto set = Clock::now();
  control(s.port(), {{"fault", "refuse"}, {"seconds", 0.3}});
  std::optional<std::string> got;
  ASSERT_TRUE(eventually([&] { return (got = libraryFetch(s.port())).has_value(); }));
  EXPECT_GE(Clock::now() - set, 300ms) << "no frame before the fault's time is up";
  EXPECT_EQ(got, frame);
  EXPECT_TRUE(statusOf(s.port())["fault"].is_null());
  EXPECT_TRUE(s.log->contains("fault refuse ended after its time"));

  // Refused whole: nothing changes.
  for (const json& bad : {json{{"fault", "melt"}}, json{{"fault", "stall"}, {"seconds", 0}},
                          json{{"fault", "stall"}, {"requests", 0}},
                          json{{"fault", "stall"}, {"requests", 1.5}},
                          json{{"fault", "stall"}, {"seconds", 1}, {"requests", 1}},
                          json{{"fault", "none"}, {"seconds", 1}},
                          json{{"fault", "stall"}, {"qr", "x"}}, json{{"fault", 3}}}) {
    json answer = control(s.port(), bad, 400);
    EXPECT_TRUE(answer["error"].is_string()) << bad;
  }
  EXPECT_TRUE(statusOf(s.port())["fault"].is_null());
  EXPECT_EQ(libraryFetch(s.port()), frame);
}

TEST(StepMode, TheSameBytesWithinAStepOnEveryRunAndNewOnesAfter) {
  auto first = startServer(SourceChoice::pattern(), stepMode());
  auto second = startServer(SourceChoice::pattern(), stepMode());
  const std::string step0 = get(first.port(), "/frame").body;
  std::this_thread::sleep_for(1100ms);  // a clock on the frame would have moved on by now
  EXPECT_EQ(get(first.port(), "/frame").body, step0);
  EXPECT_EQ(get(second.port(), "/frame").body, step0) << "another server, the same step";
  EXPECT_EQ(statusOf(first.port())["frame_index"], 0);
  EXPECT_EQ(statusOf(first.port())["mode"], "step");

  json stepped = control(first.port(), {{"step", 3}});
  EXPECT_EQ(stepped["frame_index"], 3);
  EXPECT_EQ(stepped["steps"], 3);
  const std::string step3 = get(first.port(), "/frame").body;
  EXPECT_NE(step3, step0);
  EXPECT_TRUE(server::decodeJpeg(step3).ok());
  EXPECT_EQ(get(first.port(), "/frame").body, step3);
  for (int i = 0; i < 3; ++i) control(second.port(), {{"step", 1}});
  EXPECT_EQ(get(second.port(), "/frame").body, step3) << "three steps of one are a step of three";

  // A new payload redraws the current step.
  control(first.port(), {{"qr", "B"}});
  const std::string withB = get(first.port(), "/frame").body;
  EXPECT_EQ(readQr(withB), "B");
  EXPECT_EQ(statusOf(first.port())["frame_index"], 3);

  for (const json& bad : {json{{"step", 0}}, json{{"step", -1}}, json{{"step", 1.5}},
                          json{{"step", "1"}}, json{{"step", 1}, {"qr", "x"}}}) {
    control(first.port(), bad, 400);
  }
  EXPECT_EQ(get(first.port(), "/frame").body, withB) << "a refused step changes nothing";

  auto live = startServer();
  json refused = control(live.port(), {{"step", 1}}, 409);
  EXPECT_HAS(refused["error"].get<std::string>(), "zerlan serve --step");
  EXPECT_EQ(statusOf(live.port())["mode"], "live");
}

TEST(StepMode, EverySourceStepsThroughItsFramesInOrder) {
  TempDir dir;
  const std::vector<Rgb> palette = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
  std::filesystem::create_directory(dir.file("shots"));
  for (size_t i = 0; i < palette.size(); ++i)
    dir.write("shots/" + std::to_string(i) + ".jpg", solidJpeg(64, 48, palette[i]));
  const std::string photo = dir.write("photo.jpg", solidJpeg(64, 48, {0, 0, 255}));
  const std::string video = makeVideo(dir, "clip.mp4", palette, 10, 96, 64);
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  for (const Rgb& c : palette) ASSERT_TRUE(sendAll(fds[1], solidJpeg(64, 48, c)));
  ::close(fds[1]);

  struct Case {
    SourceChoice choice;
    std::vector<size_t> colours;  // the palette entry of frames 0, 1, 2, ...
  };
  const std::vector<Case> cases = {
      {SourceChoice::dir(dir.file("shots")), {0, 1, 2, 0}},
      {SourceChoice::video(video), {0, 1, 2}},
      {SourceChoice::image(photo), {2, 2, 2}},
      {SourceChoice::stream(fds[0]), {0, 1, 2}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.choice.path);
    auto s = startServer(c.choice, stepMode());
    ASSERT_TRUE(eventually([&] { return get(s.port(), "/frame").status == 200; })) << "a stream's first frame";
    for (size_t i = 0; i < c.colours.size(); ++i) {
      if (i > 0) EXPECT_EQ(control(s.port(), {{"step", 1}})["frame_index"], i);
      Reply frame = get(s.port(), "/frame");
      EXPECT_EQ(nearest(centreColour(frame.body), palette), c.colours[i]) << "frame " << i;
      EXPECT_EQ(get(s.port(), "/frame").body, frame.body) << "frame " << i << " holds";
      EXPECT_EQ(statusOf(s.port())["last_served_index"], i);
      EXPECT_EQ(statusOf(s.port())["frame_index"], i);
    }
  }
  ::close(fds[0]);
}

// A step of a million frames lands where counting one by one would: on its place in the loop,
// through keyframes and B-frames, and in the answer to the step itself.
TEST(StepMode, AVideoTakesAMillionFramesAsItsPlaceInTheLoop) {
  TempDir dir;
  std::vector<Rgb> palette;  // 63 frames, each a colour far from every other
  for (int i = 0; i < 63; ++i) palette.push_back({i % 4 * 85, i / 4 % 4 * 85, i / 16 * 85});
  for (const std::string& codec : {std::string("-c:v mpeg4 -q:v 2"),
                                   std::string("-c:v libx264 -g 8 -bf 2 -crf 10")}) {
    SCOPED_TRACE(codec);
    const std::string video = makeVideo(dir, "clip.mp4", palette, 25, 64, 48, codec);
    auto s = startServer(SourceChoice::video(video), stepMode());
    uint64_t total = 0;
    for (uint64_t n : {1000000, 1, 20, 62, 63 * 5 + 7, 999999, 3}) {
      total += n;
      EXPECT_EQ(control(s.port(), {{"step", n}})["frame_index"], total) << "a step of " << n;
      EXPECT_EQ(nearest(centreColour(get(s.port(), "/frame").body), palette), total % 63)
          << "frame " << total << ", after a step of " << n;
    }
  }
}

TEST(Fetches, StatusCountsTheFramesServedAndTellsWhichAndWhen) {
  auto s = startServer(SourceChoice::pattern(), stepMode());
  json before = statusOf(s.port());
  EXPECT_EQ(before["frames_served"], 0);
  EXPECT_TRUE(before["last_fetch"].is_null());
  EXPECT_TRUE(before["last_served_index"].is_null());

  get(s.port(), "/frame");
  control(s.port(), {{"step", 2}});
  head(s.port(), "/frame");
  EXPECT_EQ(statusOf(s.port())["frames_served"], 1) << "HEAD serves no frame";
  get(s.port(), "/frame");
  control(s.port(), {{"fault", "http-error"}, {"requests", 1}});
  get(s.port(), "/frame");
  json after = statusOf(s.port());
  EXPECT_EQ(after["frames_served"], 2) << "a faulted fetch serves no frame";
  EXPECT_EQ(after["last_served_index"], 2);
  EXPECT_EQ(after["frame_index"], 2);
  ASSERT_TRUE(after["last_fetch"].is_string());
  EXPECT_EQ(after["last_fetch"].get<std::string>().size(), 24u) << after["last_fetch"];
  EXPECT_GE(after["seconds_since_last_fetch"].get<double>(), 0);
  EXPECT_LT(after["seconds_since_last_fetch"].get<double>(), 60);

  auto live = startServer();
  uint64_t first = statusOf(live.port())["frame_index"];
  ASSERT_TRUE(eventually([&] { return statusOf(live.port())["frame_index"] > first; }))
      << "the live pattern counts its frames";
}

// ---- scenarios ---------------------------------------------------------------------------

TEST(ScenarioFile, IsRefusedWithTheLineAndTheReason) {
  TempDir dir;
  dir.write("card.jpg", solidJpeg(64, 48, {0, 0, 255}));
  struct Case { std::string text; std::string error; };
  const std::vector<Case> cases = {
      {"[\n  {\"at\": 0, \"qr\": \"A\"},\n  {\"at\": 1, \"qr\": \"B\"\n]", "s.json:4: not valid JSON"},
      {"{\"at\": 0}", "s.json:1: a scenario is a JSON list of steps"},
      {"[]", "s.json:1: the scenario has no steps"},
      {"[\n {\"at\": 0, \"qr\": \"A\"},\n\n {\"at\": 1, \"colour\": \"red\"}\n]",
       "s.json:4: unknown key \"colour\""},
      {"[{\"at\": 2, \"qr\": \"A\"},\n {\"at\": 1, \"qr\": \"B\"}]",
       "s.json:2: \"at\": 1 comes before the \"at\": 2 of line 1"},
      {"[{\"qr\": \"A\"}]", "s.json:1: a step needs \"at\""},
      {"[{\"at\": 1, \"after_fetches\": 2, \"qr\": \"A\"}]", "not both"},
      {"[{\"at\": -1, \"qr\": \"A\"}]", "\"at\" must be a number of seconds from 0"},
      // Past the limit, and where seconds would overflow the clock and fire at once.
      {"[{\"at\": 0, \"qr\": \"A\"},\n {\"at\": 1000000.5, \"qr\": \"B\"}]", "s.json:2: \"at\" must be"},
      {"[{\"at\": 1e10, \"qr\": \"A\"}]", "s.json:1: \"at\" must be a number of seconds from 0 to 1000000"},
      {"[{\"after_fetches\": 1.5, \"qr\": \"A\"}]", "\"after_fetches\" must be a whole number"},
      {"[{\"at\": 0}]", "s.json:1: the step does nothing"},
      {"[\n{\"at\": 0,\n \"image\": \"missing.jpg\"}]", "s.json:2: " + dir.file("missing.jpg") + " does not exist"},
      {"[{\"at\": 0, \"fault\": \"melt\"}]", "unknown fault \"melt\""},
      {"[{\"at\": 0, \"fault\": \"stall\", \"qr\": \"A\"}]", "a \"fault\" step does nothing else"},
      {"[{\"at\": 0, \"image\": \"card.jpg\", \"dir\": \".\"}]", "one source at most"},
      {"[{\"at\": 0, \"step\": 0}]", "\"step\" must be a whole number"},
  };
  for (const Case& c : cases) {
    auto parsed = server::parseScenario(c.text, "s.json", dir.path());
    ASSERT_FALSE(parsed) << c.text;
    EXPECT_HAS(parsed.error().message, c.error) << c.text << "\n -> " << parsed.error().message;
  }
  auto good = server::parseScenario(
      "[{\"at\": 0, \"qr\": \"A\"},\n {\"at\": 2.5, \"image\": \"card.jpg\"},\n"
      " {\"at\": 4, \"fault\": \"stall\", \"seconds\": 1},\n {\"after_fetches\": 20, \"qr\": \"B\"},\n"
      " {\"at\": 1000000, \"qr\": \"C\"}]",
      "s.json", dir.path());
  ASSERT_TRUE(good) << good.error().message;
  ASSERT_EQ(good->steps.size(), 5u);
  EXPECT_EQ(good->steps[2].line, 3);
  EXPECT_EQ(good->steps[1].control, json({{"source", {{"image", dir.file("card.jpg")}}}}))
      << "paths start from the file's folder";
  EXPECT_EQ(good->steps[2].what, "fault stall for 1 s");
  EXPECT_EQ(good->steps[3].afterFetches, 20u);
  EXPECT_FALSE(server::loadScenario(dir.file("none.json")));
}

TEST(ScenarioPlayer, FiresTimedStepsInOrderNoEarlierThanTheirTimes) {
  auto s = startServer();
  auto scenario = server::parseScenario(
      R"([{"at": 0, "qr": "A"},
          {"at": 0.4, "qr": "B"},
          {"at": 0.8, "fault": "http-error", "requests": 1},
          {"at": 0.8, "qr": "C"}])",
      "timed.json", ".");
  ASSERT_TRUE(scenario) << scenario.error().message;
  const auto started = Clock::now();
  server::ScenarioPlayer player(*s.server, std::move(scenario.value()), s.log->logger());
  const std::vector<std::pair<std::string, Clock::duration>> fired = {
      {"scenario step 1 of 4 (line 1) at ", 0ms},
      {"scenario step 2 of 4 (line 2) at ", 400ms},
      {"scenario step 3 of 4 (line 3) at ", 800ms},
      {"scenario step 4 of 4 (line 4) at ", 800ms}};
  for (const auto& [line, notBefore] : fired) {
    ASSERT_TRUE(s.log->waitFor(line, in(10s))) << line;
    EXPECT_GE(Clock::now() - started, notBefore) << line;
  }
  ASSERT_TRUE(player.waitUntilDone(in(10s)));
  std::vector<std::string> steps;
  for (const auto& l : s.log->lines()) {
    if (l.starts_with("scenario step")) steps.push_back(l);
  }
  ASSERT_EQ(steps.size(), 4u);
  for (size_t i = 0; i < steps.size(); ++i) EXPECT_TRUE(steps[i].starts_with(fired[i].first)) << steps[i];
  EXPECT_TRUE(steps[1].ends_with(": qr \"B\""));
  EXPECT_TRUE(steps[2].ends_with(": fault http-error for 1 request"));
  EXPECT_TRUE(s.log->contains("scenario timed.json finished"));
  EXPECT_EQ(get(s.port(), "/frame").status, 503) << "the fault's one request";
  EXPECT_EQ(readQr(get(s.port(), "/frame").body), "C");
}

TEST(ScenarioPlayer, AfterFetchesWaitsForThatManyFramesSinceTheStepBefore) {
  auto s = startServer();
  auto scenario = server::parseScenario(
      R"([{"at": 0, "qr": "A"}, {"after_fetches": 3, "qr": "B"}, {"at": 0, "source": "pattern", "qr": "C"}])",
      "fetches.json", ".");
  ASSERT_TRUE(scenario) << scenario.error().message;
  server::ScenarioPlayer player(*s.server, std::move(scenario.value()), s.log->logger());
  ASSERT_TRUE(s.log->waitFor("scenario step 1 of 3", in(10s)));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(readQr(get(s.port(), "/frame").body), "A");
  std::this_thread::sleep_for(300ms);  // ample for a step that fired too early to show
  EXPECT_FALSE(s.log->contains("scenario step 2 of 3")) << "two frames are not three";
  EXPECT_EQ(readQr(get(s.port(), "/frame").body), "A");
  ASSERT_TRUE(s.log->waitFor("scenario step 2 of 3 (line 1)", in(10s)));
  ASSERT_TRUE(player.waitUntilDone(in(10s)));
  EXPECT_EQ(readQr(get(s.port(), "/frame").body), "C") << "a time already past fires at once";
}

TEST(ScenarioPlayer, AStepTheServerRefusesIsReportedAndThePlayGoesOn) {
  TempDir dir;
  const std::string photo = dir.write("photo.jpg", solidJpeg(64, 48, {0, 0, 255}));
  auto s = startServer();
  auto scenario = server::parseScenario(
      "[{\"at\": 0, \"image\": \"photo.jpg\"},\n {\"at\": 0, \"qr\": \"A\"},\n {\"at\": 0, \"step\": 1}]",
      "refused.json", dir.path());
  ASSERT_TRUE(scenario) << scenario.error().message;
  server::ScenarioPlayer player(*s.server, std::move(scenario.value()), s.log->logger());
  ASSERT_TRUE(player.waitUntilDone(in(10s)));
  EXPECT_TRUE(s.log->contains("scenario step 2 of 3 (line 2)"));
  EXPECT_TRUE(s.log->contains(": qr \"A\": failed: the QR payload is drawn on the test pattern only"));
  EXPECT_TRUE(s.log->contains(": step 1: failed: the server is not in step mode"));
  EXPECT_EQ(statusOf(s.port())["source_kind"], "image");
}

}  // namespace
}  // namespace zerlan::test
