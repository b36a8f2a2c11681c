#include "server/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <sstream>
#include <thread>
#include <vector>

#include "server/http.h"
#include "server/pattern.h"
#include "server/status_page.h"

namespace zerlan::server {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// After an error answered before the request was read whole, keep reading (and discarding)
// for a while before closing: closing with unread input makes the kernel send a reset, which
// can destroy the response before the client reads it.
constexpr auto kLingerTime = 2s;
constexpr size_t kLingerMaxBytes = 1 << 20;
// How long a control request waits for the first frame that shows its change.
constexpr auto kControlWait = 3s;
constexpr auto kRateWindow = 5s;

std::string errnoText(int err) { return std::strerror(err); }

std::string dumpJson(const nlohmann::json& j) {
  // A QR payload from the command line need not be UTF-8; never let that throw.
  return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string peerOf(int fd) {
  sockaddr_storage addr{};
  socklen_t len = sizeof addr;
  if (::getpeername(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return "a client";
  char host[INET6_ADDRSTRLEN] = {};
  uint16_t port = 0;
  if (addr.ss_family == AF_INET) {
    auto* in = reinterpret_cast<sockaddr_in*>(&addr);
    ::inet_ntop(AF_INET, &in->sin_addr, host, sizeof host);
    port = ntohs(in->sin_port);
    return std::string(host) + ":" + std::to_string(port);
  }
  auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
  ::inet_ntop(AF_INET6, &in6->sin6_addr, host, sizeof host);
  port = ntohs(in6->sin6_port);
  return "[" + std::string(host) + "]:" + std::to_string(port);
}

// Errors come from clients, and a broken or hostile client can make thousands a second: log
// the first few of every ten seconds and count the rest.
class ErrorLog {
 public:
  explicit ErrorLog(Logger log) : log_(std::move(log)) {}

  void operator()(const std::string& line) {
    std::lock_guard lock(mu_);
    auto now = Clock::now();
    if (now - windowStart_ >= 10s) {
      if (suppressed_ > 0) log_(std::to_string(suppressed_) + " more errors were not logged");
      windowStart_ = now;
      logged_ = 0;
      suppressed_ = 0;
    }
    if (logged_ < 20) {
      ++logged_;
      log_(line);
    } else {
      ++suppressed_;
    }
  }

 private:
  Logger log_;
  std::mutex mu_;
  Clock::time_point windowStart_ = Clock::now();
  int logged_ = 0;
  uint64_t suppressed_ = 0;
};

struct alignas(64) Counter {
  std::atomic<uint64_t> value{0};
  void add() { value.fetch_add(1, std::memory_order_relaxed); }
  uint64_t get() const { return value.load(std::memory_order_relaxed); }
};

struct Conn;

struct Link {
  Conn* prev = nullptr;
  Conn* next = nullptr;
};

enum class Timer : uint8_t { None, Io, Linger };

struct Conn {
  enum class Phase { Reading, Writing, Lingering, Control };

  int fd = -1;
  Phase phase = Phase::Reading;
  std::string in;
  std::shared_ptr<const Frame> frame;  // keeps the bytes being sent alive
  std::string out;
  const char* sendPtr = nullptr;
  size_t sendLeft = 0;
  bool linger = false;
  bool continued = false;  // sent "100 Continue"
  size_t discarded = 0;
  uint32_t events = 0;  // what epoll watches; 0: not registered
  Clock::time_point deadline;
  Timer timer = Timer::None;
  Link liveLink;
  Link timerLink;
  std::string request;  // "GET /path", for log lines
};

// A doubly linked list threaded through the connections themselves: joining and leaving
// allocate nothing, at tens of thousands of connections a second.
template <Link Conn::*L>
class ConnList {
 public:
  bool empty() const { return head_ == nullptr; }
  Conn* front() const { return head_; }

  void pushBack(Conn* c) {
    (c->*L).prev = tail_;
    (c->*L).next = nullptr;
    if (tail_) {
      (tail_->*L).next = c;
    } else {
      head_ = c;
    }
    tail_ = c;
  }

  void remove(Conn* c) {
    Link& link = c->*L;
    if (link.prev) {
      (link.prev->*L).next = link.next;
    } else {
      head_ = link.next;
    }
    if (link.next) {
      (link.next->*L).prev = link.prev;
    } else {
      tail_ = link.prev;
    }
    link = Link{};
  }

 private:
  Conn* head_ = nullptr;
  Conn* tail_ = nullptr;
};

class Worker;

struct ControlJob {
  Worker* worker;
  Conn* conn;
  std::string body;
  bool headOnly;
};

}  // namespace

struct Server::Impl {
  Impl(const ServerOptions& o, const FrameSettings& s, Logger l)
      : options(o), log(std::move(l)), errorLog(log), settings(s), producer(store, settings, log) {}

  nlohmann::json status() const;
  Result<nlohmann::json> control(const nlohmann::json& request);
  void sampleRate(Clock::time_point now);
  double requestsPerSecond(Clock::time_point now) const;
  void controlLoop();
  void submitControl(ControlJob job);
  void stop();

  ServerOptions options;
  Logger log;
  ErrorLog errorLog;
  FrameStore store;
  LiveSettings settings;
  Producer producer;

  int listenFd = -1;
  uint16_t port = 0;
  std::string url;
  Clock::time_point started = Clock::now();
  std::vector<std::unique_ptr<Worker>> workers;
  std::atomic<bool> stopping{false};
  std::once_flag stopOnce;

  Counter requests;
  Counter framesServed;
  Counter errors;
  std::atomic<int64_t> clients{0};

  mutable std::mutex rateMu;
  std::deque<std::pair<Clock::time_point, uint64_t>> samples;

  std::mutex controlMu;  // one control change at a time, from HTTP or from the API
  std::mutex jobsMu;
  std::condition_variable jobsCv;
  std::deque<ControlJob> jobs;
  bool jobsStop = false;
  std::thread controlThread;

  std::mutex spareMu;
  int spareFd = -1;  // given up when out of descriptors, to accept and shed one connection
};

namespace {

class Worker {
 public:
  Worker(Server::Impl& server, int index) : srv_(server), index_(index) {}

  ~Worker() {
    if (thread_.joinable()) thread_.join();
    if (wakeFd_ >= 0) ::close(wakeFd_);
    if (epollFd_ >= 0) ::close(epollFd_);
    for (Conn* c : pool_) delete c;
  }

  Result<void> init() {
    epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (epollFd_ < 0 || wakeFd_ < 0)
      return fail("cannot create a serving thread: " + errnoText(errno));
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLEXCLUSIVE;
    ev.data.ptr = &listenTag_;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, srv_.listenFd, &ev) != 0) {
      return fail("cannot watch the listening socket: " + errnoText(errno));
    }
    ev.events = EPOLLIN;
    ev.data.ptr = &wakeTag_;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &ev) != 0) {
      return fail("cannot watch the wake-up event: " + errnoText(errno));
    }
    return {};
  }

  void start() {
    thread_ = std::thread([this] { loop(); });
  }
  void join() {
    if (thread_.joinable()) thread_.join();
  }

  void wake() {
    uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
  }

  // Called by the control thread: the answer for a connection waiting in the Control phase.
  void completeControl(Conn* conn, std::string response) {
    {
      std::lock_guard lock(doneMu_);
      done_.emplace_back(conn, std::move(response));
    }
    wake();
  }

 private:
  void loop() {
    std::vector<epoll_event> events(256);
    auto lastSample = Clock::now();
    while (!srv_.stopping.load(std::memory_order_acquire)) {
      int timeout = nextTimeout();
      int n = ::epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()), timeout);
      if (n < 0 && errno != EINTR) {
        srv_.errorLog("serving thread stopped: epoll_wait: " + errnoText(errno));
        break;
      }
      for (int i = 0; i < n; ++i) {
        void* tag = events[i].data.ptr;
        if (tag == &listenTag_) {
          acceptReady();
        } else if (tag == &wakeTag_) {
          uint64_t count;
          (void)!::read(wakeFd_, &count, sizeof count);
          drainControlAnswers();
        } else {
          onEvent(static_cast<Conn*>(tag), events[i].events);
        }
      }
      auto now = Clock::now();
      expire(now);
      if (index_ == 0 && now - lastSample >= 1s) {
        srv_.sampleRate(now);
        lastSample = now;
      }
    }
    while (!live_.empty()) closeConn(live_.front());
  }

  int nextTimeout() const {
    int cap = index_ == 0 ? 1000 : -1;
    if (ioTimers_.empty() && lingerTimers_.empty()) return cap;
    auto next = Clock::time_point::max();
    if (!ioTimers_.empty()) next = ioTimers_.front()->deadline;
    if (!lingerTimers_.empty()) next = std::min(next, lingerTimers_.front()->deadline);
    auto ms = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()).count();
    ms = std::max<int64_t>(ms, 0);
    return cap < 0 ? static_cast<int>(std::min<int64_t>(ms, INT32_MAX))
                   : static_cast<int>(std::min<int64_t>(ms, cap));
  }

  void acceptReady() {
    // A bounded batch keeps one thread from taking every connection of a burst.
    for (int i = 0; i < 64; ++i) {
      int fd = ::accept4(srv_.listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno == EMFILE || errno == ENFILE)
          shedOneConnection();
        else if (errno != EAGAIN)
          srv_.errorLog("accept failed: " + errnoText(errno));
        return;
      }
      if (static_cast<size_t>(srv_.clients.load(std::memory_order_relaxed)) >=
          srv_.options.maxClients) {
        static constexpr std::string_view busy =
            "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\nContent-Length: 29\r\n"
            "Connection: close\r\nRetry-After: 1\r\n\r\ntoo many clients; try again\r\n";
        (void)!::send(fd, busy.data(), busy.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        ::close(fd);
        srv_.requests.add();
        srv_.errors.add();
        srv_.errorLog("refused a connection: " + std::to_string(srv_.options.maxClients) +
                      " clients are connected already");
        continue;
      }
      Conn* c = newConn(fd);
      // The request often arrives with the connection: read it now, without a trip
      // through epoll.
      onReadable(c);
    }
  }

  void shedOneConnection() {
    std::lock_guard lock(srv_.spareMu);
    if (srv_.spareFd >= 0) {
      ::close(srv_.spareFd);
      int fd = ::accept4(srv_.listenFd, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) ::close(fd);
      srv_.spareFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    srv_.errors.add();
    srv_.errorLog("out of file descriptors, closed a new connection: raise the limit (ulimit -n)");
  }

  Conn* newConn(int fd) {
    Conn* c;
    if (!pool_.empty()) {
      c = pool_.back();
      pool_.pop_back();
    } else {
      c = new Conn;
    }
    c->fd = fd;
    c->phase = Conn::Phase::Reading;
    live_.pushBack(c);
    srv_.clients.fetch_add(1, std::memory_order_relaxed);
    return c;
  }

  void closeConn(Conn* c) {
    untime(c);
    ::close(c->fd);  // also drops it from epoll
    live_.remove(c);
    srv_.clients.fetch_sub(1, std::memory_order_relaxed);
    c->fd = -1;
    c->in.clear();
    c->frame.reset();
    c->out.clear();
    c->sendPtr = nullptr;
    c->sendLeft = 0;
    c->linger = false;
    c->continued = false;
    c->discarded = 0;
    c->events = 0;
    c->request.clear();
    if (c->in.capacity() > 64 * 1024) std::string().swap(c->in);
    if (c->out.capacity() > 64 * 1024) std::string().swap(c->out);
    if (pool_.size() < 1024) {
      pool_.push_back(c);
    } else {
      delete c;
    }
  }

  void watch(Conn* c, uint32_t events) {
    if (c->events == events) return;
    epoll_event ev{};
    ev.events = events;
    ev.data.ptr = c;
    int op = c->events == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    if (events == 0) {
      ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, c->fd, &ev);
    } else if (::epoll_ctl(epollFd_, op, c->fd, &ev) != 0) {
      srv_.errorLog("epoll_ctl failed: " + errnoText(errno));
    }
    c->events = events;
  }

  // Each list holds deadlines of one length, set from the current time, so appending keeps it
  // sorted and the front is always the next to expire.
  ConnList<&Conn::timerLink>& timerList(Timer t) { return t == Timer::Io ? ioTimers_ : lingerTimers_; }

  void setDeadline(Conn* c, Timer t, Clock::duration after) {
    untime(c);
    c->deadline = Clock::now() + after;
    c->timer = t;
    timerList(t).pushBack(c);
  }

  void untime(Conn* c) {
    if (c->timer != Timer::None) {
      timerList(c->timer).remove(c);
      c->timer = Timer::None;
    }
  }

  void expire(Clock::time_point now) {
    for (auto* list : {&ioTimers_, &lingerTimers_}) {
      while (!list->empty() && list->front()->deadline <= now) {
        Conn* c = list->front();
        untime(c);
        onTimeout(c);
      }
    }
  }

  void onTimeout(Conn* c) {
    auto secs = std::to_string(srv_.options.timeout.count() / 1000.0);
    secs.erase(secs.find_last_not_of('0') + 1);
    if (secs.back() == '.') secs.pop_back();
    switch (c->phase) {
      case Conn::Phase::Reading:
        if (c->in.empty()) {
          // A silent connection is not an error: browsers open spare ones and leave them idle.
          closeConn(c);
          return;
        } else {
          std::string r = http::response(408, "text/plain",
                                         "the request did not arrive in time; send it whole\n");
          (void)!::send(c->fd, r.data(), r.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
          srv_.requests.add();
          srv_.errors.add();
          srv_.errorLog("408 for " + peerOf(c->fd) + ": the request was not complete after " +
                        secs + " s");
        }
        break;
      case Conn::Phase::Writing: {
        srv_.errors.add();
        srv_.errorLog("dropped " + peerOf(c->fd) + ": it stopped reading its response (" +
                      c->request + ") for " + secs + " s");
        // Reset instead of a graceful close: otherwise the kernel keeps the unsent rest of the
        // frame queued for a client that does not read.
        linger abort{1, 0};
        ::setsockopt(c->fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        break;
      }
      case Conn::Phase::Lingering:
      case Conn::Phase::Control:
        break;
    }
    closeConn(c);
  }

  void onEvent(Conn* c, uint32_t events) {
    switch (c->phase) {
      case Conn::Phase::Reading:
        onReadable(c);
        break;
      case Conn::Phase::Writing:
        trySend(c);
        break;
      case Conn::Phase::Lingering:
        drainLinger(c);
        break;
      case Conn::Phase::Control:
        (void)events;
        break;
    }
  }

  void onReadable(Conn* c) {
    for (;;) {
      ssize_t n = ::recv(c->fd, scratch_, sizeof scratch_, 0);
      if (n > 0) {
        c->in.append(scratch_, static_cast<size_t>(n));
        if (parseAndDispatch(c, false)) return;
        continue;
      }
      if (n == 0) {
        if (c->in.empty()) {
          closeConn(c);
        } else if (!parseAndDispatch(c, true)) {
          closeConn(c);
        }
        return;
      }
      if (errno == EINTR) continue;
      if (errno == EAGAIN) {
        watch(c, EPOLLIN);
        // Counted from the first wait, not from each read: a request must arrive whole in time.
        if (c->timer == Timer::None) setDeadline(c, Timer::Io, srv_.options.timeout);
        return;
      }
      closeConn(c);  // reset by the peer
      return;
    }
  }

  // Returns true when the connection moved on (answered, closed or handed over).
  bool parseAndDispatch(Conn* c, bool atEof) {
    const auto& opt = srv_.options;
    http::ParseResult parsed = http::parseRequestHead(c->in, opt.maxHeadBytes);
    if (parsed.state == http::Parse::Error) {
      c->linger = true;
      respondError(c, parsed.status, parsed.reason);
      return true;
    }
    if (parsed.state == http::Parse::Incomplete) {
      if (!atEof) return false;
      respondError(c, 400, "the request ended before its blank line");
      return true;
    }
    const http::Request& req = parsed.request;
    c->request.assign(req.method).append(" ").append(req.path);
    const bool control = req.path == "/control" && req.method == "POST";
    const size_t whole = req.headSize + req.contentLength;
    if (control) {
      if (req.contentLength > opt.maxBodyBytes) {
        c->linger = true;
        respondError(
            c, 413,
            "the control body is larger than " + std::to_string(opt.maxBodyBytes) + " bytes");
        return true;
      }
      if (c->in.size() < whole) {
        if (!atEof) {
          // curl asks first for bodies over 1 KiB and would otherwise wait a second.
          if (req.expectContinue && !c->continued) {
            static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
            (void)!::send(c->fd, kContinue.data(), kContinue.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            c->continued = true;
          }
          return false;
        }
        respondError(c, 400, "the request body ended before its Content-Length");
        return true;
      }
      c->linger = c->in.size() > whole;
    } else {
      c->linger = c->in.size() != req.headSize || req.contentLength > 0;
    }
    dispatch(c, req);
    return true;
  }

  void dispatch(Conn* c, const http::Request& req) {
    const bool head = req.method == "HEAD";
    const bool get = head || req.method == "GET";
    if (req.path == "/frame") {
      if (!get) return respondError(c, 405, "use GET /frame", "Allow: GET, HEAD\r\n");
      auto frame = srv_.store.current();
      if (!frame) {
        // Not the client's fault, and a polling client would flood the log: answer, don't log.
        return respond(c, 503, "text/plain; charset=utf-8",
                       "no frame yet: the source has not produced one; try again\n",
                       "Retry-After: 1\r\n", head);
      }
      srv_.requests.add();
      if (!head) srv_.framesServed.add();
      c->sendPtr = frame->wire.data();
      c->sendLeft = head ? frame->headSize : frame->wire.size();
      c->frame = std::move(frame);
      return trySend(c);
    }
    if (req.path == "/status") {
      if (!get) return respondError(c, 405, "use GET /status", "Allow: GET, HEAD\r\n");
      return respond(c, 200, "application/json", dumpJson(srv_.status()) + "\n",
                     "Cache-Control: no-store\r\n", head);
    }
    if (req.path == "/") {
      if (!get) return respondError(c, 405, "use GET /", "Allow: GET, HEAD\r\n");
      return respond(c, 200, "text/html; charset=utf-8", std::string(statusPageHtml()),
                     "Cache-Control: no-store\r\n", head);
    }
    if (req.path == "/control") {
      if (req.method != "POST") {
        return respondError(c, 405, "use POST /control with a JSON body", "Allow: POST\r\n");
      }
      c->phase = Conn::Phase::Control;
      untime(c);
      watch(c, 0);
      srv_.submitControl(ControlJob{this, c, c->in.substr(req.headSize, req.contentLength), false});
      return;
    }
    respondError(c, 404,
                 "no such page: use GET /frame for frames, GET / or GET /status for the status, "
                 "POST /control to switch");
  }

  void respond(Conn* c, int status, std::string_view type, std::string body,
               std::string_view extraHeaders = {}, bool headOnly = false) {
    srv_.requests.add();
    c->out = http::response(status, type, body, extraHeaders, headOnly);
    c->sendPtr = c->out.data();
    c->sendLeft = c->out.size();
    trySend(c);
  }

  void respondError(Conn* c, int status, const std::string& reason,
                    std::string_view extraHeaders = {}) {
    srv_.errors.add();
    std::string what = c->request.empty() ? "" : " for " + c->request;
    srv_.errorLog(std::to_string(status) + what + " from " + peerOf(c->fd) + ": " + reason);
    respond(c, status, "text/plain; charset=utf-8", reason + "\n", extraHeaders);
  }

  void trySend(Conn* c) {
    while (c->sendLeft > 0) {
      ssize_t n = ::send(c->fd, c->sendPtr, c->sendLeft, MSG_NOSIGNAL);
      if (n > 0) {
        c->sendPtr += n;
        c->sendLeft -= static_cast<size_t>(n);
        if (c->phase == Conn::Phase::Writing) setDeadline(c, Timer::Io, srv_.options.timeout);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) {
        if (c->phase != Conn::Phase::Writing) {
          c->phase = Conn::Phase::Writing;
          setDeadline(c, Timer::Io, srv_.options.timeout);
        }
        watch(c, EPOLLOUT);
        return;
      }
      closeConn(c);  // the client went away
      return;
    }
    finish(c);
  }

  void finish(Conn* c) {
    if (!c->linger) {
      closeConn(c);
      return;
    }
    ::shutdown(c->fd, SHUT_WR);
    c->phase = Conn::Phase::Lingering;
    c->frame.reset();
    setDeadline(c, Timer::Linger, std::min<Clock::duration>(kLingerTime, srv_.options.timeout));
    watch(c, EPOLLIN);
    drainLinger(c);
  }

  void drainLinger(Conn* c) {
    for (;;) {
      ssize_t n = ::recv(c->fd, scratch_, sizeof scratch_, 0);
      if (n > 0) {
        c->discarded += static_cast<size_t>(n);
        if (c->discarded > kLingerMaxBytes) break;
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) return;
      break;
    }
    closeConn(c);
  }

  void drainControlAnswers() {
    std::vector<std::pair<Conn*, std::string>> done;
    {
      std::lock_guard lock(doneMu_);
      done.swap(done_);
    }
    for (auto& [c, response] : done) {
      // Only shutdown closes a connection that waits for control, so `c` is still open.
      if (c->phase != Conn::Phase::Control) continue;
      c->phase = Conn::Phase::Reading;
      c->out = std::move(response);
      c->sendPtr = c->out.data();
      c->sendLeft = c->out.size();
      trySend(c);
    }
  }

  Server::Impl& srv_;
  int index_;
  int epollFd_ = -1;
  int wakeFd_ = -1;
  std::thread thread_;
  char listenTag_ = 0;
  char wakeTag_ = 0;
  ConnList<&Conn::liveLink> live_;
  std::vector<Conn*> pool_;
  ConnList<&Conn::timerLink> ioTimers_;
  ConnList<&Conn::timerLink> lingerTimers_;
  std::mutex doneMu_;
  std::vector<std::pair<Conn*, std::string>> done_;
  char scratch_[16384];
};

Result<int> listenOn(const std::string& host, uint16_t port, uint16_t& boundPort) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  std::string service = std::to_string(port);
  if (int rc = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &found); rc != 0) {
    return fail("cannot use host \"" + host + "\": " + ::gai_strerror(rc) +
                "; give an address such as 127.0.0.1");
  }
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> list(found, &::freeaddrinfo);
  int lastErr = 0;
  for (addrinfo* ai = found; ai; ai = ai->ai_next) {
    int fd =
        ::socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0) {
      lastErr = errno;
      continue;
    }
    int one = 1;
    // Lets a restarted server bind while connections of the previous one sit in TIME_WAIT;
    // it does not let two servers listen on one port.
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(fd, ai->ai_addr, ai->ai_addrlen) != 0 || ::listen(fd, 4096) != 0) {
      lastErr = errno;
      ::close(fd);
      continue;
    }
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    boundPort = addr.ss_family == AF_INET6
                    ? ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port)
                    : ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
    return fd;
  }
  std::string p = std::to_string(port);
  switch (lastErr) {
    case EADDRINUSE:
      return fail("port " + p +
                  " is in use: is another zerlan serve running? Use --port to pick another");
    case EACCES:
      return fail("no permission to listen on port " + p + ": use a port above 1023");
    case EADDRNOTAVAIL:
      return fail("address " + host +
                  " is not on this machine: use --host 127.0.0.1 or one of its addresses");
    default:
      return fail("cannot listen on " + host + " port " + p + ": " + errnoText(lastErr));
  }
}

std::string formatUrl(const std::string& host, uint16_t port) {
  bool v6 = host.find(':') != std::string::npos;
  return "http://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port) + "/";
}

bool isLoopback(const std::string& host) {
  return host == "localhost" || host.starts_with("127.") || host == "::1";
}

std::string sourceSummary(const Source& source, const FrameSettings& settings) {
  std::ostringstream out;
  out << source.description();
  if (source.kind() == SourceChoice::Kind::Pattern || source.kind() == SourceChoice::Kind::Dir) {
    out << ", " << settings.fps << " fps";
  }
  if (source.kind() == SourceChoice::Kind::Pattern) out << ", QR \"" << settings.qr << "\"";
  return out.str();
}

}  // namespace

void Server::Impl::sampleRate(Clock::time_point now) {
  std::lock_guard lock(rateMu);
  samples.emplace_back(now, requests.get());
  while (samples.size() > 2 && now - samples.front().first > kRateWindow) samples.pop_front();
}

double Server::Impl::requestsPerSecond(Clock::time_point now) const {
  std::lock_guard lock(rateMu);
  if (samples.empty()) return 0;
  auto [t0, n0] = samples.front();
  double secs = std::chrono::duration<double>(now - t0).count();
  if (secs < 0.2) return 0;
  return static_cast<double>(requests.get() - n0) / secs;
}

nlohmann::json Server::Impl::status() const {
  auto now = Clock::now();
  auto frame = store.current();
  auto s = settings.snapshot();
  auto kind = producer.kind();
  nlohmann::json j;
  j["address"] = url;
  j["source"] = producer.description();
  j["source_kind"] = kind ? std::string(kindName(*kind)) : "none";
  j["qr"] = s.qr;
  j["fps"] = s.fps;
  j["frame"] = frame ? frame->number : 0;
  j["width"] = frame ? frame->width : 0;
  j["height"] = frame ? frame->height : 0;
  j["bytes"] = frame ? frame->jpeg().size() : 0;
  j["frames_served"] = framesServed.get();
  j["requests"] = requests.get();
  j["errors"] = errors.get();
  j["clients"] = clients.load(std::memory_order_relaxed);
  j["uptime_seconds"] =
      std::round(std::chrono::duration<double>(now - started).count() * 1000) / 1000;
  j["requests_per_second"] = std::round(requestsPerSecond(now) * 10) / 10;
  return j;
}

namespace {

constexpr const char* kSourceHelp =
    "use \"pattern\", {\"image\": PATH}, {\"dir\": PATH} or {\"video\": PATH}";

Result<SourceChoice> parseSourceChoice(const nlohmann::json& value) {
  if (value.is_string()) {
    auto name = value.get<std::string>();
    if (name == "pattern") return SourceChoice::pattern();
    if (name == "stdin") {
      return fail(
          "standard input can only be chosen when the server starts (zerlan serve --stdin)");
    }
    return fail("unknown source \"" + name + "\": " + kSourceHelp);
  }
  if (!value.is_object() || value.size() != 1)
    return fail(std::string("bad \"source\": ") + kSourceHelp);
  const std::string key = value.begin().key();
  const nlohmann::json& path = value.begin().value();
  if (key == "pattern") return SourceChoice::pattern();
  if (key != "image" && key != "dir" && key != "video") {
    return fail("unknown source \"" + key + "\": " + kSourceHelp);
  }
  if (!path.is_string() || path.get<std::string>().empty()) {
    return fail("\"" + key + "\" must be a file path as a string");
  }
  auto p = path.get<std::string>();
  if (key == "image") return SourceChoice::image(p);
  if (key == "dir") return SourceChoice::dir(p);
  return SourceChoice::video(p);
}

}  // namespace

Result<nlohmann::json> Server::Impl::control(const nlohmann::json& request) {
  std::lock_guard lock(controlMu);
  if (!request.is_object() || request.empty()) {
    return fail(
        "the control body must be a JSON object such as {\"qr\": \"hello\"}, "
        "{\"source\": \"pattern\"} or {\"source\": {\"image\": \"/path/photo.jpg\"}}");
  }
  std::optional<std::string> qr;
  std::optional<double> fps;
  std::optional<SourceChoice> choice;
  for (const auto& [key, value] : request.items()) {
    if (key == "qr") {
      if (!value.is_string()) return fail("\"qr\" must be a string");
      qr = value.get<std::string>();
    } else if (key == "fps") {
      if (!value.is_number()) return fail("\"fps\" must be a number");
      double f = value.get<double>();
      if (!(f > 0 && f <= kMaxFps)) return fail("\"fps\" must be more than 0 and at most 120");
      fps = f;
    } else if (key == "source") {
      auto parsed = parseSourceChoice(value);
      if (!parsed) return parsed.error();
      choice = parsed.value();
    } else {
      return fail("unknown key \"" + key + "\": use \"qr\", \"source\" or \"fps\"");
    }
  }

  const FrameSettings current = settings.snapshot();
  FrameSettings next = current;
  if (qr) next.qr = *qr;
  if (fps) next.fps = *fps;
  if (qr) {
    if (auto fits = checkQrPayload(*qr, next.size.value_or(kPatternSize)); !fits) {
      return fail("cannot use this QR payload: " + fits.error().message);
    }
  }
  std::unique_ptr<Source> source;
  if (choice) {
    auto opened = openSource(*choice, next);
    if (!opened) return opened.error();
    source = std::move(opened.value());
  }

  // Everything checked: apply it all.
  uint64_t version = settings.update([&](FrameSettings& s) {
    s.qr = next.qr;
    s.fps = next.fps;
  });
  if (qr && *qr != current.qr) log("QR payload changed to \"" + *qr + "\"");
  if (fps && *fps != current.fps) {
    std::ostringstream out;
    out << "frame rate changed to " << *fps << " fps";
    log(out.str());
  }
  const auto deadline = Clock::now() + kControlWait;
  if (source) {
    std::string summary = sourceSummary(*source, next);
    uint64_t before = producer.start(std::move(source));
    log("source changed to " + summary);
    store.waitNewer(before, deadline);
  } else if (qr && producer.kind() == SourceChoice::Kind::Pattern) {
    store.waitFor([version](const Frame& f) { return f.tag >= version; }, deadline);
  }
  return status();
}

void Server::Impl::submitControl(ControlJob job) {
  {
    std::lock_guard lock(jobsMu);
    jobs.push_back(std::move(job));
  }
  jobsCv.notify_one();
}

void Server::Impl::controlLoop() {
  for (;;) {
    ControlJob job;
    {
      std::unique_lock lock(jobsMu);
      jobsCv.wait(lock, [&] { return jobsStop || !jobs.empty(); });
      if (jobsStop) return;
      job = std::move(jobs.front());
      jobs.pop_front();
    }
    std::string response;
    nlohmann::json body = nlohmann::json::parse(job.body, nullptr, false);
    Result<nlohmann::json> result = fail("");
    if (job.body.empty()) {
      result = fail("the control body is empty: send JSON such as {\"qr\": \"hello\"}");
    } else if (body.is_discarded()) {
      try {
        (void)nlohmann::json::parse(job.body);
        result = fail("the control body is not valid JSON");
      } catch (const nlohmann::json::parse_error& e) {
        // what() starts with the library's "[json.exception.parse_error.101] " tag.
        std::string what = e.what();
        size_t tag = what.find("] ");
        if (tag != std::string::npos) what.erase(0, tag + 2);
        result = fail("the control body is not valid JSON: " + what);
      }
    } else {
      result = control(body);
    }
    if (result) {
      requests.add();
      response = http::response(200, "application/json", dumpJson(*result) + "\n");
    } else {
      requests.add();
      errors.add();
      errorLog("400 for POST /control: " + result.error().message);
      response = http::response(400, "application/json",
                                dumpJson({{"error", result.error().message}}) + "\n");
    }
    job.worker->completeControl(job.conn, std::move(response));
  }
}

void Server::Impl::stop() {
  std::call_once(stopOnce, [this] {
    stopping.store(true, std::memory_order_release);
    for (auto& w : workers) w->wake();
    for (auto& w : workers) w->join();
    {
      std::lock_guard lock(jobsMu);
      jobsStop = true;
    }
    jobsCv.notify_all();
    if (controlThread.joinable()) controlThread.join();
    producer.stop();
    if (listenFd >= 0) ::close(listenFd);
    listenFd = -1;
    if (spareFd >= 0) ::close(spareFd);
    spareFd = -1;
  });
}

Result<std::unique_ptr<Server>> Server::start(const ServerOptions& options,
                                              const SourceChoice& choice,
                                              const FrameSettings& settings, Logger log) {
  auto source = openSource(choice, settings);
  if (!source) return source.error();
  return start(options, std::move(source.value()), settings, std::move(log));
}

Result<std::unique_ptr<Server>> Server::start(const ServerOptions& options,
                                              std::unique_ptr<Source> source,
                                              const FrameSettings& settings, Logger log) {
  if (!log) log = [](const std::string&) {};

  auto impl = std::make_unique<Impl>(options, settings, log);
  auto fd = listenOn(options.host, options.port, impl->port);
  if (!fd) return fd.error();
  impl->listenFd = fd.value();
  impl->url = formatUrl(options.host, impl->port);
  impl->spareFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);

  unsigned threads = options.threads ? options.threads : std::thread::hardware_concurrency();
  threads = std::clamp(threads, 1u, 64u);
  for (unsigned i = 0; i < threads; ++i) {
    auto worker = std::make_unique<Worker>(*impl, static_cast<int>(i));
    if (auto ok = worker->init(); !ok) {
      ::close(impl->listenFd);
      return ok.error();
    }
    impl->workers.push_back(std::move(worker));
  }

  std::string summary = sourceSummary(*source, settings);
  const bool waitForFirst = source->kind() != SourceChoice::Kind::Stdin;
  impl->producer.start(std::move(source));
  // Files and the pattern have their first frame ready in moments: wait, so the first request
  // gets a frame. A stream gives its first frame when its writer pleases.
  if (waitForFirst) impl->store.waitNewer(0, Clock::now() + kControlWait);
  impl->controlThread = std::thread([p = impl.get()] { p->controlLoop(); });
  impl->sampleRate(Clock::now());
  for (auto& w : impl->workers) w->start();

  log("listening on " + impl->url + " (GET /frame), source: " + summary);
  if (!isLoopback(options.host)) {
    log("warning: " + options.host + " is not a loopback address: other machines can see the feed");
  }
  return std::unique_ptr<Server>(new Server(std::move(impl)));
}

Server::Server(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Server::~Server() { stop(); }

void Server::stop() { impl_->stop(); }

uint16_t Server::port() const { return impl_->port; }

std::string Server::url() const { return impl_->url; }

nlohmann::json Server::status() const { return impl_->status(); }

Result<nlohmann::json> Server::control(const nlohmann::json& request) {
  return impl_->control(request);
}

ServerTotals Server::totals() const {
  ServerTotals t;
  t.framesServed = impl_->framesServed.get();
  t.requests = impl_->requests.get();
  t.errors = impl_->errors.get();
  t.uptimeSeconds = std::chrono::duration<double>(Clock::now() - impl_->started).count();
  return t;
}

const FrameStore& Server::frames() const { return impl_->store; }

}  // namespace zerlan::server
