// The serving loop over real loopback connections: response framing, bad requests and limits,
// slow and silent clients, many clients at once, and counters.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <random>

#include "support.h"

namespace zerlan::test {
namespace {

using server::FrameSettings;
using server::ServerOptions;
using server::SourceChoice;

const std::string kLibraryRequest =
    "GET /frame HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";

class ImageServer : public ::testing::Test {
 protected:
  void SetUp() override {
    jpeg_ = solidJpeg(640, 480, {200, 40, 40});
    path_ = dir_.write("frame.jpg", jpeg_);
  }
  RunningServer start(ServerOptions options = {}) {
    return startServer(SourceChoice::image(path_), {}, options);
  }

  TempDir dir_;
  std::string jpeg_;
  std::string path_;
};

TEST_F(ImageServer, FrameResponseIsExactlyWhatTheLibraryExpects) {
  auto s = start();

  Reply r = roundTrip(s.port(), kLibraryRequest);
  EXPECT_EQ(r.statusLine, "HTTP/1.1 200 OK");
  EXPECT_TRUE(r.closedByServer) << "the body ends only at the close";
  const std::map<std::string, std::string> headers = {
      {"content-type", "image/jpeg"},
      {"content-length", std::to_string(jpeg_.size())},
      {"connection", "close"},
  };
  EXPECT_EQ(r.headers, headers);
  EXPECT_EQ(r.body, jpeg_);

  Reply head = roundTrip(s.port(), "HEAD /frame HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.headers["content-length"], std::to_string(jpeg_.size()));
  EXPECT_TRUE(head.body.empty());

  // Two requests in one write: one connection, one answer.
  Reply pipelined = roundTrip(s.port(), kLibraryRequest + kLibraryRequest);
  EXPECT_EQ(pipelined.status, 200);
  EXPECT_EQ(pipelined.body, jpeg_);
}

TEST_F(ImageServer, BadRequestsGetTheRightStatus) {
  auto s = start();
  struct Case { std::string request; int status; std::string allow; };
  const Case cases[] = {
      {"GET /nope HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n", 404, ""},
      {"GET /frames HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n", 404, ""},
      {"POST /frame HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\n\r\n", 405, "GET, HEAD"},
      {"DELETE /status HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n", 405, "GET, HEAD"},
      {"PUT / HTTP/1.0\r\nContent-Length: 0\r\n\r\n", 405, "GET, HEAD"},
      {"GET /control HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n", 405, "POST"},
      {"get /frame HTTP/1.0\r\n\r\n", 405, "GET, HEAD"},  // methods are case-sensitive
      {"GARBAGE\r\n\r\n", 400, ""},
      {"GET /frame HTTP/2.0\r\n\r\n", 505, ""},
      {"POST /control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 70000\r\n\r\n", 413, ""},
      {"POST /control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Type: text/plain\r\n"
       "Content-Length: 2\r\n\r\n{}",
       400, ""},
  };
  for (const Case& c : cases) {
    Reply r = roundTrip(s.port(), c.request);
    EXPECT_EQ(r.status, c.status) << c.request;
    EXPECT_TRUE(r.closedByServer) << c.request;
    EXPECT_TRUE(errorReason(r)) << "an error says what is wrong, as JSON: " << c.request << r.raw;
    if (!c.allow.empty()) EXPECT_EQ(r.headers["allow"], c.allow) << c.request;
  }
  // A TLS client is told at once, without waiting for a blank line that never comes.
  int fd = connectTo(s.port());
  sendAll(fd, std::string("\x16\x03\x01\x00\xa5\x01\x00\x00", 8));
  Reply tls = readReply(fd, in(3s));
  ::close(fd);
  EXPECT_EQ(tls.status, 400);
  EXPECT_HAS(tls.body, "https");

  // A request cut short by the client's half-close.
  fd = connectTo(s.port());
  sendAll(fd, "GET /frame HTTP/1.1\r\nHost: x\r\n");
  ::shutdown(fd, SHUT_WR);
  Reply cut = readReply(fd, in(3s));
  ::close(fd);
  EXPECT_EQ(cut.status, 400);

  auto status = statusOf(s.port());
  EXPECT_EQ(status["errors"], std::size(cases) + 2);
  EXPECT_EQ(status["frames_served"], 0);
  EXPECT_EQ(get(s.port(), "/frame").body, jpeg_) << "still serving";
  EXPECT_TRUE(s.log->contains("404 for GET /nope from 127.0.0.1:")) << "errors are logged";
}

// The limit on the request head, over the wire: exactly at the limit passes, one byte over is
// 431, and a client that keeps sending a huge head still reads its 431 (no reset).
TEST_F(ImageServer, HeadLimitBoundaryOverTheWire) {
  ServerOptions options;
  options.maxHeadBytes = 1024;
  auto s = start(options);
  auto headOf = [](size_t total) {
    std::string start = "GET /frame HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Pad: ";
    return start + std::string(total - start.size() - 4, 'p') + "\r\n\r\n";
  };
  EXPECT_EQ(roundTrip(s.port(), headOf(1024)).status, 200);
  EXPECT_EQ(roundTrip(s.port(), headOf(1025)).status, 431);

  Reply blast = roundTrip(s.port(), headOf(200 * 1024));
  EXPECT_EQ(blast.status, 431);
  EXPECT_HAS(blast.body, "1024 bytes");
}

TEST_F(ImageServer, ConcurrentClientsGetTheSameBytes) {
  auto s = start();
  constexpr int kThreads = 32;
  constexpr int kEach = 25;
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        Reply r = roundTrip(s.port(), kLibraryRequest);
        if (r.status == 200 && r.body == jpeg_) ++good;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(good.load(), kThreads * kEach);
  auto status = statusOf(s.port());
  EXPECT_EQ(status["frames_served"], kThreads * kEach);
  EXPECT_EQ(status["errors"], 0);
}

TEST(ServeHttp, ManyOpenConnectionsAreAllAnswered) {
  auto s = startServer();
  constexpr int kClients = 200;
  std::vector<int> fds;
  for (int i = 0; i < kClients; ++i) {
    int fd = connectTo(s.port());
    ASSERT_GE(fd, 0);
    fds.push_back(fd);
  }
  EXPECT_TRUE(eventually([&] { return s.server->status()["clients"] == kClients; }))
      << s.server->status();
  for (int fd : fds) sendAll(fd, kLibraryRequest);
  int jpegs = 0;
  for (int fd : fds) {
    Reply r = readReply(fd, in(5s));
    ::close(fd);
    jpegs += r.status == 200 && jpegSizeOf(r.body) == server::Size{640, 480};
  }
  EXPECT_EQ(jpegs, kClients);
  EXPECT_TRUE(eventually([&] { return s.server->status()["clients"] == 0; }));
}

// Noise compresses badly: a frame far larger than the socket buffers.
const std::string& bigFrame() {
  static const std::string big = [] {
    server::RgbImage noise(2000, 2000);
    std::mt19937 rng(3);
    for (auto& p : noise.pixels) p = static_cast<uint8_t>(rng());
    server::JpegEncoder encoder;
    return encoder.encode(noise, 100).value();
  }();
  return big;
}

TEST(ServeHttp, ClientsBeyondTheLimitAreTurnedAway) {
  ServerOptions options;
  options.maxClients = 3;
  auto s = startServer(SourceChoice::pattern(), {}, options);
  std::vector<int> held;
  for (int i = 0; i < 2; ++i) held.push_back(connectTo(s.port()));
  ASSERT_TRUE(eventually([&] { return s.server->status()["clients"] == 2; }));
  // The third fills the limit and is served; while it is open a fourth is turned away.
  int third = connectTo(s.port());
  ASSERT_TRUE(eventually([&] { return s.server->status()["clients"] == 3; }));
  Reply over = roundTrip(s.port(), kLibraryRequest);
  EXPECT_EQ(over.status, 503);
  EXPECT_EQ(over.headers["retry-after"], "1");
  EXPECT_TRUE(errorReason(over)) << over.raw;
  sendAll(third, kLibraryRequest);
  EXPECT_EQ(readReply(third, in(5s)).status, 200);
  ::close(third);
  for (int fd : held) ::close(fd);
  EXPECT_TRUE(eventually([&] { return s.server->status()["clients"] == 0; }));
  EXPECT_EQ(roundTrip(s.port(), kLibraryRequest).status, 200) << "room again";
}

// Closing a socket with unread input makes the kernel send a reset and throw away what it has
// not sent yet: a large answer to a request with an unread body must still arrive whole.
TEST(ServeHttp, LargeAnswerToARequestWithABodyArrivesWhole) {
  TempDir dir;
  const std::string& big = bigFrame();
  auto s = startServer(SourceChoice::image(dir.write("noise.jpg", big)));
  for (int i = 0; i < 3; ++i) {
    Reply r = roundTrip(s.port(), "GET /frame HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 100000\r\n\r\n" +
                                      std::string(100000, 'b'));
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.body.size(), big.size());
  }
}

TEST(ServeHttp, SlowClientsAreDroppedWithoutHoldingUpOthers) {
  TempDir dir;
  const std::string& big = bigFrame();
  ASSERT_GT(big.size(), 6u << 20);
  ServerOptions options;
  options.timeout = 400ms;
  auto s = startServer(SourceChoice::image(dir.write("noise.jpg", big)), {}, options);

  int silent = connectTo(s.port());
  int trickle = connectTo(s.port());
  // Keeps trickling a header in, a byte per 100 ms, until the server answers: the time-out
  // counts from the connection, so steady progress must not keep a request alive.
  bool cutOffWhileSending = false;
  std::thread trickler([&] {
    sendAll(trickle, "GET /frame HTTP/1.1\r\n");
    auto giveUp = in(3s);
    pollfd answer{trickle, POLLIN, 0};
    while (Clock::now() < giveUp) {
      if (::poll(&answer, 1, 100) == 1) {
        cutOffWhileSending = true;
        return;
      }
      sendAll(trickle, "X");
    }
  });
  int reader = ::socket(AF_INET, SOCK_STREAM, 0);
  int small = 4096;
  ::setsockopt(reader, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(s.port());
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(reader, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  sendAll(reader, kLibraryRequest);

  // While all three hang on, an ordinary client is served, and the silent one is still open.
  Reply normal = roundTrip(s.port(), kLibraryRequest);
  EXPECT_EQ(normal.status, 200);
  EXPECT_EQ(normal.body.size(), big.size());
  pollfd p{silent, POLLIN, 0};
  EXPECT_EQ(::poll(&p, 1, 0), 0) << "the silent client was dropped before its time";

  EXPECT_TRUE(waitForClose(silent, in(5s))) << "a silent client is closed after the time-out";
  trickler.join();
  EXPECT_TRUE(cutOffWhileSending);
  Reply slow = readReply(trickle, in(5s));
  EXPECT_EQ(slow.status, 408) << "a request trickling in is cut off: " << slow.raw;
  EXPECT_TRUE(errorReason(slow)) << slow.raw;
  EXPECT_TRUE(s.log->waitFor("stopped reading its response", in(5s)));
  std::string got;
  EXPECT_TRUE(waitForClose(reader, in(5s), &got)) << "a client that stops reading is dropped";
  EXPECT_LT(got.size(), big.size());
  for (int fd : {silent, trickle, reader}) ::close(fd);

  EXPECT_TRUE(eventually([&] { return s.server->status()["clients"] == 0; }));
  // Two errors: the 408 and the dropped reader. A silent connection is not one.
  EXPECT_EQ(s.server->status()["errors"], 2);
}

TEST(ServeHttp, SurvivesGarbage) {
  auto s = startServer();
  std::mt19937 rng(1234);
  const std::vector<std::string> starts = {"", "GET ", "GET /frame HTTP/1.1\r\n",
                                           "POST /control HTTP/1.1\r\n"};
  std::atomic<int> answered{0};
  std::vector<std::thread> threads;
  constexpr int kThreads = 4, kEach = 60;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, seed = rng()] {
      std::mt19937 local(seed);
      for (int i = 0; i < kEach; ++i) {
        std::string bytes = starts[local() % starts.size()];
        size_t n = 1 + local() % 3000;
        for (size_t k = 0; k < n; ++k) bytes.push_back(static_cast<char>(local()));
        int fd = connectTo(s.port());
        sendAll(fd, bytes);
        ::shutdown(fd, SHUT_WR);
        Reply r = readReply(fd, in(5s));
        ::close(fd);
        // Garbage may end in a blank line that makes a valid (if odd) request; anything else
        // must get a 4xx or 5xx, and always a close.
        if (r.closedByServer && (r.ok || r.raw.empty())) ++answered;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(answered.load(), kThreads * kEach);
  Reply after = get(s.port(), "/frame");
  EXPECT_EQ(after.status, 200);
  EXPECT_TRUE(readQr(after.body).has_value());
}

TEST(ServeHttp, StatusCountsEveryRequest) {
  auto s = startServer();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(get(s.port(), "/frame").status, 200);
  EXPECT_EQ(roundTrip(s.port(), "HEAD /frame HTTP/1.0\r\n\r\n").status, 200);
  EXPECT_EQ(get(s.port(), "/missing").status, 404);

  auto status = statusOf(s.port());
  EXPECT_EQ(status["requests"], 5);
  EXPECT_EQ(status["frames_served"], 3) << "HEAD sends no frame";
  EXPECT_EQ(status["errors"], 1);
  EXPECT_EQ(status["source_kind"], "pattern");
  EXPECT_EQ(status["qr"], "zerlan");
  EXPECT_EQ(status["width"], 640);
  EXPECT_EQ(status["height"], 480);
  EXPECT_GT(status["frame"].get<int>(), 0);
  EXPECT_GT(status["bytes"].get<int>(), 1000);
  EXPECT_EQ(status["address"], s.server->url());
  for (const char* key : {"uptime_seconds", "requests_per_second", "clients", "source", "fps"}) {
    EXPECT_TRUE(status.contains(key)) << key;
  }

  Reply page = get(s.port(), "/");
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.headers["content-type"], "text/html; charset=utf-8");
  for (const char* uses : {"\"/frame?view=panel&n=\"", "\"/status\"", "\"/control\"", "\"/upload?name=\""}) {
    EXPECT_HAS(page.body, uses) << "the page polls " << uses;
  }
}

}  // namespace
}  // namespace zerlan::test
