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

TEST(Probe, MissingServerAndNonImageBodies) {
  auto down = probe(zerlan::testing::closedPort(), {"--count", "2"});
  EXPECT_EQ(1, down.status);
  auto lines = jsonLines(down.out);
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(false, lines[0]["frame"]);
  EXPECT_EQ(0, lines[0]["bytes"]);
  EXPECT_TRUE(lines[0]["width"].is_null());
  EXPECT_TRUE(lines[0]["qr"].is_null());

  zerlan::testing::ScriptedServer text([](int fd) {
    zerlan::testing::ScriptedServer::readHead(fd);
    zerlan::testing::ScriptedServer::writeAll(fd, "HTTP/1.0 200 OK\r\n\r\nhello");
    return true;
  });
  auto notImage = probe(text.port());
  EXPECT_EQ(0, notImage.status) << "a frame came back, whatever it is";
  auto line = jsonLines(notImage.out).at(0);
  EXPECT_EQ(true, line["frame"]);
  EXPECT_EQ(5, line["bytes"]);
  EXPECT_TRUE(line["width"].is_null());
  EXPECT_TRUE(line["height"].is_null());
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
  EXPECT_NE(std::string::npos, noFrame.err.find("although a server answers")) << noFrame.err;
}

}  // namespace
}  // namespace zerlan::test
