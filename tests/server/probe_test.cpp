// zerlan probe fetches with the library's own transport and reports each fetch.
#include <nlohmann/json.hpp>

#include <filesystem>
#include <sstream>

#include "Process.h"
#include "ScriptedServer.h"
#include "support.h"

namespace zerlan::test {
namespace {

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

TEST(Probe, ReportsEachFrameOfARunningServer) {
  RunningServer running = startServer();
  TempDir dir;
  auto run = probe(running.port(), {"--count", "3", "--save", dir.file("last.jpg")});
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

TEST(Probe, WithoutAPortItFetchesWhereTheLibraryWould) {
  RunningServer running = startServer();
  auto run = zerlan::testing::runProcess({ZERLAN_BIN, "probe", "--json"},
                                         {{"ZERLAN_FRAME_PORT", std::to_string(running.port())}});
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ(true, jsonLines(run.out).at(0)["frame"]);
}

// --json carries the verdicts the text gives, and the exit status follows what the app would get:
// bytes the library drops are no frame.
TEST(Probe, JsonVerdictsAndTheExitStatusFollowWhatTheAppWouldGet) {
  auto down = probe(zerlan::testing::closedPort(), {"--count", "2"});
  EXPECT_EQ(1, down.status);
  auto lines = jsonLines(down.out);
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(false, lines[0]["frame"]);
  EXPECT_EQ("no server", lines[0]["verdict"]);
  EXPECT_EQ(0, lines[0]["bytes"]);
  EXPECT_TRUE(lines[0]["width"].is_null());
  EXPECT_TRUE(lines[0]["qr"].is_null());
  EXPECT_NE(std::string::npos, down.err.find("2 of 2 fetches got no frame: nothing listens")) << down.err;

  zerlan::testing::ScriptedServer text([](int fd) {
    zerlan::testing::ScriptedServer::readHead(fd);
    zerlan::testing::ScriptedServer::writeAll(fd, "HTTP/1.0 200 OK\r\n\r\nhello");
    return true;
  });
  auto notImage = probe(text.port());
  EXPECT_EQ(1, notImage.status) << "the library drops what does not decode: no frame for the app";
  auto line = jsonLines(notImage.out).at(0);
  EXPECT_EQ(false, line["frame"]);
  EXPECT_EQ("undecodable", line["verdict"]);
  EXPECT_EQ(5, line["bytes"]);
  EXPECT_TRUE(line["width"].is_null());
  EXPECT_TRUE(line["height"].is_null());
  EXPECT_NE(std::string::npos, notImage.err.find("bytes that are no JPEG, which the library drops")) << notImage.err;
  auto asText = zerlan::testing::runProcess({ZERLAN_BIN, "probe", "--port", std::to_string(text.port())});
  EXPECT_EQ(1, asText.status);
  EXPECT_NE(std::string::npos, asText.out.find("5 bytes in ")) << asText.out;
  EXPECT_NE(std::string::npos, asText.out.find("no JPEG the library can decode")) << asText.out;

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
  EXPECT_NE(std::string::npos, garbage.err.find("1 of 2 fetches got bytes that are no JPEG")) << garbage.err;
  EXPECT_NE(std::string::npos, garbage.err.find("a frame server answers on port")) << garbage.err;
  ASSERT_EQ(200, post(running.port(), "/control", R"({"fault": "http-error", "requests": 1})").status);
  auto refused = probe(running.port());
  EXPECT_EQ(1, refused.status);
  EXPECT_EQ("no frame", jsonLines(refused.out).at(0)["verdict"]);
}

TEST(Probe, SaysWhereTheFrameWentAndSumsUpSeveralFetches) {
  RunningServer running = startServer();
  TempDir dir;
  std::vector<std::string> argv = {ZERLAN_BIN, "probe", "--interval-ms", "0", "--port",
                                   std::to_string(running.port()), "--count", "3", "--save",
                                   dir.file("frame.jpg")};
  auto run = zerlan::testing::runProcess(argv);
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find("saved the last frame to " + dir.file("frame.jpg"))) << run.out;
  EXPECT_NE(std::string::npos, run.out.find("3 fetches: 3 frames, 0 without")) << run.out;

  // A path that cannot be written is refused before anything is fetched, and nothing is made.
  const std::string badPaths[] = {dir.file(""), dir.file("missing/frame.jpg")};
  for (const std::string& bad : badPaths) {
    argv.back() = bad;
    auto refused = zerlan::testing::runProcess(argv);
    EXPECT_EQ(2, refused.status) << bad;
    EXPECT_NE(std::string::npos, refused.err.find("--save " + bad)) << refused.err;
    EXPECT_EQ(std::string::npos, refused.out.find("fetch 1")) << refused.out;
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("missing")));
}

TEST(Probe, TellsNoServerFromAServerThatGaveNoFrame) {
  auto none = zerlan::testing::runProcess(
      {ZERLAN_BIN, "probe", "--port", std::to_string(zerlan::testing::closedPort())});
  EXPECT_EQ(1, none.status);
  EXPECT_NE(std::string::npos, none.err.find("nothing listens")) << none.err;
  EXPECT_NE(std::string::npos, none.err.find("zerlan serve")) << none.err;

  zerlan::testing::ScriptedServer busy([](int fd) {
    zerlan::testing::ScriptedServer::readHead(fd);
    zerlan::testing::ScriptedServer::writeAll(fd, "HTTP/1.1 503 Service Unavailable\r\n\r\nno frame yet");
    return true;
  });
  auto noFrame = zerlan::testing::runProcess({ZERLAN_BIN, "probe", "--port", std::to_string(busy.port())});
  EXPECT_EQ(1, noFrame.status);
  EXPECT_NE(std::string::npos, noFrame.out.find("although a server answers there")) << noFrame.out;
  EXPECT_NE(std::string::npos, noFrame.err.find("another program, not a zerlan frame server, listens on 127.0.0.1:" +
                                                std::to_string(busy.port()) + " (its GET /status answers HTTP 503)"))
      << noFrame.err;

  // ZERLAN_FRAME_PORT that names no port is ignored, as the library ignores it, but not silently.
  auto ignored = zerlan::testing::runProcess({ZERLAN_BIN, "probe", "--json", "--port", std::to_string(busy.port())},
                                             {{"ZERLAN_FRAME_PORT", "abc"}});
  EXPECT_EQ(std::string::npos, ignored.err.find("ZERLAN_FRAME_PORT")) << "--port was given: " << ignored.err;
  // It then fetches from 47654, which is the machine's: in a network of its own.
  const std::string ownNetwork = ZERLAN_SOURCE_DIR "/tests/support/own-network";
  auto fallback = zerlan::testing::runProcess({ownNetwork, ZERLAN_BIN, "probe", "--json"}, {{"ZERLAN_FRAME_PORT", "abc"}});
  if (fallback.status == 77) GTEST_SKIP() << fallback.err;
  EXPECT_EQ(1, fallback.status) << "nothing listens in a network of its own";
  EXPECT_NE(std::string::npos,
            fallback.err.find("zerlan probe: ZERLAN_FRAME_PORT=abc is not a port (1 to 65535), so the library would "
                              "ignore it too: using 47654"))
      << fallback.err;
}

}  // namespace
}  // namespace zerlan::test
