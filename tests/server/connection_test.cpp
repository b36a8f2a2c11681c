// The connection layer against hostile input and hostile set-ups: requests addressed to another
// name (DNS rebinding), requests from other web pages, control bodies a form could send, a
// restart next to connections in TIME_WAIT, exposure beyond loopback, running out of
// descriptors; and the platform pair and the stop signal under it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>

#include "server/connection.h"
#include "server/platform.h"
#include "server/sources.h"
#include "server/stop.h"
#include "support.h"

namespace zerlan::test {
namespace {

using server::ServerOptions;
using server::SourceChoice;

// Binds `fd` to a free loopback port and listens on it; returns the port.
uint16_t listenOnLoopback(int fd) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof addr;
  EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  EXPECT_EQ(::listen(fd, 4), 0);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length);
  return ntohs(addr.sin_port);
}

std::string frameRequest(const std::string& headers) {
  return "GET /frame HTTP/1.1\r\n" + headers + "Connection: close\r\n\r\n";
}

TEST(Addressing, OnlyRequestsForThisServerAreAnswered) {
  auto s = startServer();
  const std::string port = std::to_string(s.port());
  const std::string other = std::to_string(s.port() == 65535 ? 1 : s.port() + 1);
  struct Case { std::string headers; int status; };
  const Case cases[] = {
      // What the library, probe, curl, python and browsers send.
      {"Host: 127.0.0.1\r\n", 200},
      {"Host: 127.0.0.1:" + port + "\r\n", 200},
      {"Host: localhost:" + port + "\r\n", 200},
      {"Host: LocalHost\r\n", 200},
      {"Host: [::1]\r\n", 200},
      {"Host: [::1]:" + port + "\r\n", 200},
      {"", 400},  // HTTP/1.1 must name the server (HTTP/1.0 need not: below)
      // Names that point here from elsewhere, and malformed ones.
      {"Host: attacker.example\r\n", 421},
      {"Host: attacker.example:" + port + "\r\n", 421},
      {"Host: localhost.attacker.example\r\n", 421},
      {"Host: 127.0.0.1:" + other + "\r\n", 421},
      {"Host: 127.0.0.1:\r\n", 421},
      {"Host: [::1\r\n", 421},
      {"Host: [::1]" + port + "\r\n", 421},
      {"Host: \r\n", 421},
      {"Host: 127.0.0.1\r\nHost: attacker.example\r\n", 400},
      // Browsers name the page that asks; only this server's own pages pass.
      {"Host: 127.0.0.1:" + port + "\r\nOrigin: http://127.0.0.1:" + port + "\r\n", 200},
      {"Host: 127.0.0.1:" + port + "\r\nOrigin: http://localhost:" + port + "\r\n", 200},
      {"Host: 127.0.0.1:" + port + "\r\nOrigin: http://attacker.example\r\n", 403},
      {"Host: 127.0.0.1:" + port + "\r\nOrigin: null\r\n", 403},
      {"Host: 127.0.0.1:" + port + "\r\nOrigin: https://127.0.0.1:" + port + "\r\n", 403},
      {"Host: 127.0.0.1:" + port + "\r\nOrigin: http://127.0.0.1\r\n", 403},
      {"Host: 127.0.0.1:" + port + "\r\nOrigin: http://127.0.0.1:" + other + "\r\n", 403},
  };
  for (const Case& c : cases) {
    Reply r = roundTrip(s.port(), frameRequest(c.headers));
    EXPECT_EQ(r.status, c.status) << c.headers;
    EXPECT_TRUE(r.closedByServer) << c.headers;
    if (c.status != 200) EXPECT_TRUE(errorReason(r)) << "refused, as JSON: " << r.raw;
    if (c.status == 421) {
      EXPECT_HAS(r.body, "127.0.0.1:" + port) << "says which names work: " << r.body;
    }
    if (c.status == 403) EXPECT_HAS(r.body, "Origin");
  }
  // An absolute target names its server as Host does, and is held to the same rule; so is a
  // Host beside it.
  struct Raw { std::string request; int status; };
  const Raw raws[] = {
      {"GET /frame HTTP/1.0\r\n\r\n", 200},
      {"GET http://127.0.0.1:" + port + "/frame HTTP/1.1\r\nHost: 127.0.0.1:" + port + "\r\n\r\n", 200},
      {"GET http://localhost/frame?x=1 HTTP/1.0\r\n\r\n", 200},
      {"GET http://evil.example/frame HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n", 421},
      {"GET http://evil.example/frame HTTP/1.0\r\n\r\n", 421},
      {"GET http://127.0.0.1@evil.example/frame HTTP/1.0\r\n\r\n", 421},
      {"GET http:///frame HTTP/1.0\r\n\r\n", 421},
      {"GET http://127.0.0.1/frame HTTP/1.1\r\nHost: evil.example\r\n\r\n", 421},
  };
  for (const Raw& raw : raws) {
    Reply r = roundTrip(s.port(), raw.request);
    EXPECT_EQ(r.status, raw.status) << raw.request;
    if (raw.status == 421) EXPECT_HAS(r.body, "not for ");
    if (raw.status == 200) EXPECT_EQ(r.headers["content-type"], "image/jpeg") << raw.request;
  }
  EXPECT_EQ(s.server->totals().framesServed, 11u);
  // A refused control request changes nothing.
  Reply control = roundTrip(
      s.port(), "POST /control HTTP/1.1\r\nHost: attacker.example\r\nContent-Type: "
                "application/json\r\nContent-Length: 12\r\n\r\n{\"qr\": \"x\"}");
  EXPECT_EQ(control.status, 421);
  EXPECT_EQ(s.server->status()["qr"], "zerlan");
}

TEST(Addressing, ControlTakesOnlyJson) {
  auto s = startServer();
  auto postAs = [&](const std::string& typeHeader, const std::string& qr) {
    std::string body = nlohmann::json{{"qr", qr}}.dump();
    return roundTrip(s.port(), "POST /control HTTP/1.1\r\nHost: 127.0.0.1\r\n" + typeHeader +
                                   "Content-Length: " + std::to_string(body.size()) +
                                   "\r\n\r\n" + body);
  };
  // What a cross-site form or a no-preflight fetch can send is refused, with a way out.
  for (const char* type : {"", "Content-Type: text/plain\r\n",
                           "Content-Type: application/x-www-form-urlencoded\r\n",
                           "Content-Type: application/jsonp\r\n"}) {
    Reply r = postAs(type, "form");
    EXPECT_EQ(r.status, 415) << type;
    EXPECT_HAS(errorReason(r).value_or(""), "Content-Type: application/json") << r.raw;
  }
  EXPECT_EQ(s.server->status()["qr"], "zerlan");
  EXPECT_EQ(postAs("Content-Type: Application/JSON\r\n", "one").status, 200);
  EXPECT_EQ(postAs("Content-Type: application/json; charset=utf-8\r\n", "two").status, 200);
  EXPECT_EQ(s.server->status()["qr"], "two");
}

TEST(Addressing, NamesThisServer) {
  using server::namesThisServer;
  struct Case {
    std::string_view authority;
    std::string_view configured;
    std::string_view local;
    bool portRequired;
    bool names;
  };
  const Case cases[] = {
      {"10.1.2.3:4000", "10.1.2.3", "", false, true},    // --host 10.1.2.3
      {"10.1.2.3:4000", "0.0.0.0", "10.1.2.3", false, true},  // reached through 0.0.0.0
      {"10.1.2.4:4000", "0.0.0.0", "10.1.2.3", false, false},
      {"0.0.0.0:4000", "0.0.0.0", "10.1.2.3", false, true},
      {"[fe80::1]:4000", "fe80::1", "", false, true},
      {"fe80::1", "fe80::1", "", false, false},  // IPv6 only in brackets
      {"[FE80::1]", "", "[fe80::1]", false, true},
      {"localhost", "", "", true, false},  // an origin without the port is another origin
      {"localhost:4000", "", "", true, true},
      {"localhost:04000", "", "", false, false},
      {"localhost:4000x", "", "", false, false},
      {"", "", "", false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(namesThisServer(c.authority, 4000, c.configured, c.local, c.portRequired), c.names)
        << c.authority << " configured " << c.configured << " local " << c.local;
  }
}

TEST(Listening, RestartsBesideConnectionsInTimeWait) {
  uint16_t port = 0;
  {
    auto first = startServer();
    port = first.port();
    // The server closes first, so its side of the connection stays in TIME_WAIT.
    EXPECT_EQ(get(port, "/frame").status, 200);
  }
  ServerOptions options;
  options.port = port;
  auto second = server::Server::start(options, SourceChoice::pattern(), {}, {});
  ASSERT_TRUE(second.ok()) << second.error().message;
  EXPECT_EQ(get(port, "/frame").status, 200);
}

// A port held only by a client's connection in TIME_WAIT (Linux refuses the bind even with
// SO_REUSEADDR when that client did not set it) is not "another zerlan serve": the error says
// what holds it. With a real server on the port the error still points at it.
TEST(Listening, APortHeldByAClosingClientIsNotCalledAServer) {
  int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  int client = connectTo(listenOnLoopback(listener));
  ASSERT_GE(client, 0);
  int accepted = ::accept(listener, nullptr, nullptr);
  sockaddr_in local{};
  socklen_t length = sizeof local;
  ASSERT_EQ(::getsockname(client, reinterpret_cast<sockaddr*>(&local), &length), 0);
  uint16_t held = ntohs(local.sin_port);
  ::close(client);  // the client closes first, so its side waits in TIME_WAIT
  ASSERT_TRUE(waitForClose(accepted, in(5s)));
  ::close(accepted);
  ::close(listener);

  ServerOptions options;
  options.port = held;
  auto s = server::Server::start(options, SourceChoice::pattern(), {}, {});
  if (s.ok()) {
    // BSD systems let SO_REUSEADDR bind beside a TIME_WAIT connection.
    EXPECT_EQ(get(held, "/frame").status, 200);
  } else {
    const std::string& message = s.error().message;
    EXPECT_LACKS(message, "another zerlan serve");
    EXPECT_HAS(message, "port " + std::to_string(held) + " is held by a connection, not by a server");
  }
}

TEST(Listening, ExposureBeyondLoopbackIsSpelledOut) {
  LogRecorder log;
  ServerOptions options;
  options.host = "0.0.0.0";
  options.port = 0;
  auto s = server::Server::start(options, SourceChoice::pattern(), {}, log.logger());
  ASSERT_TRUE(s.ok()) << s.error().message;
  EXPECT_TRUE(log.contains("other machines can see the feed and use the control API"));
  // Reached through loopback, it still answers its own names.
  EXPECT_EQ(get(s.value()->port(), "/frame").status, 200);

  LogRecorder quiet;
  auto local = server::Server::start({}, SourceChoice::pattern(), {}, quiet.logger());
  if (local.ok()) EXPECT_FALSE(quiet.contains("warning")) << "loopback is not exposed";
}

// With few descriptors left, connections beyond them are accepted and closed at once rather
// than left in the backlog, the thread keeps serving, and the cause is logged.
TEST(Listening, ShedsConnectionsWhenOutOfDescriptors) {
#if ZERLAN_UBSAN_VPTR
  // UBSan's runtime checks a vtable through a pipe it opens; out of descriptors it cannot, and
  // reports every virtual member call (error_code comparisons included) as a bad type.
  GTEST_SKIP() << "UndefinedBehaviorSanitizer's vptr check needs free descriptors";
#endif
  Child zerlan("/bin/sh", {"-c", "ulimit -n 48 && exec \"$0\" serve --port 0 --threads 1",
                           ZERLAN_BIN});
  uint16_t port = zerlan.waitForPort(in(10s));
  std::vector<int> held;
  for (int i = 0; i < 80; ++i) held.push_back(connectTo(port));
  ASSERT_TRUE(zerlan.waitForLine("out of file descriptors", in(5s))) << zerlan.stderrText();
  int shed = 0;
  int served = 0;
  for (int fd : held) {
    if (fd < 0) continue;
    sendAll(fd, frameRequest("Host: 127.0.0.1\r\n"));
    Reply r = readReply(fd, in(5s));
    ::close(fd);
    if (r.status == 200) ++served;
    if (!r.ok && r.closedByServer) ++shed;
  }
  EXPECT_GT(shed, 0);
  EXPECT_GT(served, 0);
  EXPECT_EQ(get(port, "/frame").status, 200) << "serving again once descriptors are free";
  // An empty backlog at the limit is no failure and sheds nothing.
  EXPECT_LACKS(zerlan.stderrText(), "accept failed");
  zerlan.signal(SIGTERM);
  EXPECT_EQ(zerlan.wait(in(10s)), 0) << zerlan.stderrText();
}

TEST(Platform, DescriptorsAreNotInheritedAndOwnPathIsKnown) {
  auto closeOnExec = [](int fd) { return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; };
  int fds[2];
  ASSERT_TRUE(platform::openPipe(fds));
  EXPECT_TRUE(closeOnExec(fds[0]));
  EXPECT_TRUE(closeOnExec(fds[1]));

  int listener = platform::openSocket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  EXPECT_TRUE(closeOnExec(listener));
  const uint16_t port = listenOnLoopback(listener);
  ::fcntl(listener, F_SETFL, ::fcntl(listener, F_GETFL) | O_NONBLOCK);
  EXPECT_EQ(platform::acceptConnection(listener), -1);
  EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK) << "nothing waits yet";

  int client = connectTo(port);
  ASSERT_GE(client, 0);
  int accepted = -1;
  ASSERT_TRUE(eventually([&] { return (accepted = platform::acceptConnection(listener)) >= 0; }));
  EXPECT_TRUE(closeOnExec(accepted));
  EXPECT_NE(::fcntl(accepted, F_GETFL) & O_NONBLOCK, 0);
  char byte;
  EXPECT_EQ(::recv(accepted, &byte, 1, 0), -1) << "non-blocking: no data yet";
  // The client is gone; a write must fail with an error, not kill the process with SIGPIPE.
  ::close(client);
  std::string chunk(1 << 16, 'x');
  ssize_t sent = 0;
  ASSERT_TRUE(eventually([&] {
    sent = platform::sendNow(accepted, chunk.data(), chunk.size());
    return sent < 0 && errno != EAGAIN;
  }));
  for (int fd : {fds[0], fds[1], listener, accepted}) ::close(fd);
}

TEST(StopSignal, WakesWaitersWhereverTheyWait) {
  server::StopSignal stop;
  int woken = 0;
  {
    server::StopSignal::OnStop first(stop, [&] { ++woken; });
    EXPECT_EQ(woken, 0);
    server::LiveSettings settings({});
    std::thread sleeper([&] {
      auto start = Clock::now();
      EXPECT_FALSE(settings.sleepUntil(start + 10s, stop, settings.version()))
          << "a stopped sleep says so";
      EXPECT_LT(Clock::now() - start, 5s) << "woken by the stop, not by the time";
    });
    std::this_thread::sleep_for(20ms);
    stop.request();
    stop.request();
    sleeper.join();
    EXPECT_EQ(woken, 1) << "once, however often it is requested";
  }
  server::StopSignal::OnStop late(stop, [&] { ++woken; });
  EXPECT_EQ(woken, 2) << "registered after the request: runs at once";
  EXPECT_TRUE(stop.requested());
}

// Control bodies being received or waiting share one budget, and uploads one of their own:
// exactly full is taken, one byte over is turned away with 503 until a body is done.
TEST(Memory, BodiesShareABudget) {
  ServerOptions options;
  options.maxPendingBodyBytes = 100;
  options.maxPendingUploadBytes = 100;
  auto s = startServer(SourceChoice::pattern(), {}, options);
  auto head = [](size_t length, const std::string& more = "") {
    return "POST /control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n" + more +
           "Content-Length: " + std::to_string(length) + "\r\n\r\n";
  };
  auto bodyOf = [](size_t length, const std::string& qr) {  // {"qr": "<qr>"} padded with spaces
    std::string body = R"({"qr": ")" + qr + "\"}";
    return body + std::string(length - body.size(), ' ');
  };
  // The server takes the budget for a body before it tells the client to go on with it.
  auto holdBody = [&](const std::string& request) {
    int fd = connectTo(s.port());
    EXPECT_TRUE(sendAll(fd, request));
    EXPECT_EQ(readInterim(fd, in(5s)), "HTTP/1.1 100 Continue\r\n\r\n");
    return fd;
  };
  const std::string firstBody = bodyOf(60, "first");
  int first = holdBody(head(60, "Expect: 100-continue\r\n"));
  ASSERT_TRUE(sendAll(first, firstBody.substr(0, 10)));

  Reply over = roundTrip(s.port(), head(41) + bodyOf(41, "over"));
  EXPECT_EQ(over.status, 503) << over.raw;
  EXPECT_EQ(over.headers["retry-after"], "1");
  EXPECT_HAS(over.body, "too many control requests");
  Reply full = roundTrip(s.port(), head(40) + bodyOf(40, "full"));
  EXPECT_EQ(full.status, 200) << "60 + 40 bytes fill the budget exactly: " << full.body;

  auto upload = [](size_t length, const std::string& more = "") {
    return "POST /upload?name=a.jpg HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: image/jpeg\r\n" +
           more + "Content-Length: " + std::to_string(length) + "\r\n\r\n";
  };
  int held = holdBody(upload(60, "Expect: 100-continue\r\n"));
  Reply uploadOver = roundTrip(s.port(), upload(41) + std::string(41, 'x'));
  EXPECT_EQ(uploadOver.status, 503) << uploadOver.raw;
  EXPECT_HAS(uploadOver.body, "too many uploads");
  ::close(held);

  ASSERT_TRUE(sendAll(first, firstBody.substr(10)));
  Reply answer = readReply(first, in(5s));
  ::close(first);
  EXPECT_EQ(answer.status, 200) << answer.raw;
  EXPECT_EQ(s.server->status()["qr"], "first");
  Reply again = roundTrip(s.port(), head(100) + bodyOf(100, "again"));
  EXPECT_EQ(again.status, 200) << "the budget came back: " << again.body;
}

// Resident and peak resident memory of a process, in KiB, from /proc/<pid>/status.
struct Memory { long rss = 0; long peak = 0; };
Memory memoryOf(pid_t pid) {
  Memory m;
  std::istringstream status(readFile("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) m.rss = std::stol(line.substr(6));
    if (line.starts_with("VmHWM:")) m.peak = std::stol(line.substr(6));
  }
  return m;
}

// Thousands of clients that hold a control body, or nothing at all, cost the server a bounded
// amount of memory while they are there, and it gives the memory back when they go.
TEST(Memory, FloodsOfHeldBodiesAndIdleClientsAreBoundedAndGivenBack) {
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  GTEST_SKIP() << "a sanitizer's allocator and shadow memory decide the resident size here";
#endif
#endif
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur != RLIM_INFINITY && files.rlim_cur < 4200)
    GTEST_SKIP() << "4000 clients need more descriptors than the limit of " << files.rlim_cur;
  TempDir dir;
  const std::string photo = dir.write("photo.jpg", solidJpeg(64, 48, {0, 0, 255}));
  Child serve({"serve", "--image", photo, "--port", "0", "--timeout", "60"});
  const uint16_t port = serve.waitForPort(in(20s));
  for (int i = 0; i < 20; ++i) ASSERT_EQ(get(port, "/status").status, 200);
  const Memory before = memoryOf(serve.pid());
  ASSERT_GT(before.rss, 0);

  // Opens `clients` connections, sends each `each`, and once the server has taken them all
  // (`taken` of its /status), reads its memory and lets them go.
  auto flood = [&](int clients, const std::string& each, auto taken) {
    std::vector<int> fds;
    for (int i = 0; i < clients; ++i) {
      int fd = connectTo(port);
      if (fd < 0) break;
      fds.push_back(fd);
      if (!each.empty()) sendAll(fd, each);
    }
    EXPECT_EQ(fds.size(), static_cast<size_t>(clients));
    EXPECT_TRUE(eventually([&] { return taken(nlohmann::json::parse(get(port, "/status").body)); }, 20s));
    const Memory during = memoryOf(serve.pid());
    for (int fd : fds) ::close(fd);
    return during;
  };
  auto settles = [&](long bound) {
    return eventually([&] { return memoryOf(serve.pid()).rss - before.rss < bound; }, 10s);
  };

  // Idle clients first: freed memory that the bodies left behind would hide theirs.
  Memory during = flood(4000, "", [](const nlohmann::json& s) { return s["clients"] >= 4000; });
  EXPECT_LT(during.rss - before.rss, 12 * 1024) << "KiB with 4000 idle clients";
  EXPECT_TRUE(settles(8 * 1024)) << "KiB kept after them: " << memoryOf(serve.pid()).rss - before.rss;

  // Bodies of 65,000 bytes held 5,000 short of the end: a few hold the budget of 8 MiB, the
  // rest are turned away.
  const std::string held = "POST /control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n"
                           "Content-Length: 65000\r\n\r\n" + std::string(60000, ' ');
  during = flood(2000, held, [](const nlohmann::json& s) { return s["errors"] >= 2000 - 130; });
  EXPECT_LT(during.peak - before.rss, 32 * 1024) << "KiB at the peak of 2000 held bodies";
  EXPECT_TRUE(settles(8 * 1024)) << "KiB kept after them: " << memoryOf(serve.pid()).rss - before.rss;
  EXPECT_TRUE(serve.waitForLine("503 for POST /control", in(5s)));

  serve.signal(SIGTERM);
  EXPECT_EQ(serve.wait(in(10s)), 0);
}

}  // namespace
}  // namespace zerlan::test
