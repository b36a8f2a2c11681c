#include "server/connection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <cstring>
#include <span>
#include <thread>
#include <vector>

#include "server/http.h"
#include "server/platform.h"
#include "server/status_page.h"
#include "server/uploads.h"

namespace zerlan::server {

namespace {

using Clock = std::chrono::steady_clock;
using tcp = asio::ip::tcp;
using namespace std::chrono_literals;

// After an error answered before the request was read whole, keep reading (and discarding)
// for a while before closing: closing with unread input makes the kernel send a reset, which
// can destroy the response before the client reads it.
constexpr auto kLingerTime = 2s;
constexpr size_t kLingerMaxBytes = 1 << 20;
// A bounded batch keeps one thread from taking every connection of a burst.
constexpr int kAcceptBatch = 64;
// The slow fault sends a frame in this many pieces, one per period: about a second, late but
// well inside the library's 2 s for a frame even on a loaded machine, with gaps short enough
// that a client's read time-out (the library's is one second) never fires.
constexpr size_t kSlowPieces = 10;
constexpr auto kSlowPeriod = 100ms;
constexpr std::string_view kNoFrameYet = "no frame yet: the source has not produced one; try again";

std::string errnoText(int err) { return std::strerror(err); }

std::string addressText(const sockaddr_storage& addr, uint16_t* port) {
  char host[INET6_ADDRSTRLEN] = {};
  if (addr.ss_family == AF_INET) {
    auto* in = reinterpret_cast<const sockaddr_in*>(&addr);
    ::inet_ntop(AF_INET, &in->sin_addr, host, sizeof host);
    if (port) *port = ntohs(in->sin_port);
    return host;
  }
  auto* in6 = reinterpret_cast<const sockaddr_in6*>(&addr);
  ::inet_ntop(AF_INET6, &in6->sin6_addr, host, sizeof host);
  if (port) *port = ntohs(in6->sin6_port);
  return "[" + std::string(host) + "]";
}

std::string peerOf(int fd) {
  sockaddr_storage addr{};
  socklen_t len = sizeof addr;
  if (::getpeername(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return "a client";
  uint16_t port = 0;
  std::string host = addressText(addr, &port);
  return host + ":" + std::to_string(port);
}

// The address a client reached, as a Host header writes it ("10.0.0.5", "[fe80::1]").
std::string localAddressOf(int fd) {
  sockaddr_storage addr{};
  socklen_t len = sizeof addr;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return {};
  return addressText(addr, nullptr);
}

bool iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

// "application/json", with or without parameters such as "; charset=utf-8".
bool isJson(std::string_view contentType) {
  std::string_view type = contentType.substr(0, contentType.find(';'));
  while (!type.empty() && (type.back() == ' ' || type.back() == '\t')) type.remove_suffix(1);
  return iequals(type, "application/json");
}

std::string shortened(std::string_view text) {
  return text.size() <= 80 ? std::string(text) : std::string(text.substr(0, 80)) + "...";
}

class Worker;
class Connection;

struct Link {
  Connection* prev = nullptr;
  Connection* next = nullptr;
};

enum class Timer : uint8_t { None, Io, Linger };

// A doubly linked list threaded through the connections themselves: joining and leaving
// allocate nothing, at tens of thousands of connections a second.
template <Link Connection::*L>
class ConnectionList {
 public:
  bool empty() const { return head_ == nullptr; }
  Connection* front() const { return head_; }
  void pushBack(Connection* c);
  void remove(Connection* c);

 private:
  Connection* head_ = nullptr;
  Connection* tail_ = nullptr;
};

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(Worker& worker, tcp::socket socket);

  // Reads the request and answers it.
  void start();
  // Closes the socket and leaves the worker's lists. Idempotent; on the worker's thread.
  void close();
  // Its deadline passed.
  void expire();

  Link liveLink;
  Link timerLink;
  Clock::time_point deadline;
  Timer timer = Timer::None;

 private:
  enum class Phase { Reading, Writing, Lingering, Control, Stalled, Closed };

  // Reads what has arrived, then waits for more while the connection still reads.
  void read();
  // Takes `data` (empty at the end of the stream or on `failed`); true to read on.
  bool onRead(std::string_view data, bool failed);
  // Returns true when the connection moved on (answered, closed or handed over).
  bool parseAndDispatch(bool atEof);
  void dispatch(const http::Request& req);
  void respond(int status, std::string_view type, std::string body,
               std::string_view extraHeaders = {}, bool headOnly = false);
  void injectFault(FaultKind fault, std::shared_ptr<const Frame> frame);
  void trickle();
  void respondError(int status, const std::string& reason, std::string_view extraHeaders = {});
  void respondUnavailable(std::string_view reason, bool headOnly = false);
  // Sends a complete response, counted as a request.
  void answer(std::string response, int status);
  // zerlan serve -v: one line per answer, for someone following an app's fetches. `what` makes
  // the answer's part of the line, only when the line is written.
  template <typename What>
  void logAnswer(const What& what) {
    if (ctx_.options.logRequests) writeLogLine(what());
  }
  void writeLogLine(const std::string& what);
  void send(const char* data, size_t size);
  void write();
  void onWritten(const asio::error_code& error, size_t n);
  void finish();
  void drain();
  void releaseBody();
  void onControlAnswer(std::string response);
  bool checkAddressing(const http::Request& req);

  Worker& worker_;
  const ServingContext& ctx_;
  tcp::socket socket_;
  Phase phase_ = Phase::Reading;
  std::string in_;
  std::string out_;
  std::shared_ptr<const Frame> frame_;  // keeps the bytes being sent alive
  const char* sendPtr_ = nullptr;
  size_t sendLeft_ = 0;
  bool linger_ = false;
  bool continued_ = false;  // sent "100 Continue"
  size_t discarded_ = 0;
  std::string request_;  // "GET /path", for log lines
  FaultKind fault_ = FaultKind::None;  // the fault this GET /frame got
  Clock::time_point started_ = Clock::now();
  BodyBudget* budget_ = nullptr;  // what its body took from, and how much
  size_t budgeted_ = 0;
  std::unique_ptr<asio::steady_timer> slowTimer_;  // only while the slow fault sends
};

template <Link Connection::*L>
void ConnectionList<L>::pushBack(Connection* c) {
  (c->*L).prev = tail_;
  (c->*L).next = nullptr;
  if (tail_) {
    (tail_->*L).next = c;
  } else {
    head_ = c;
  }
  tail_ = c;
}

template <Link Connection::*L>
void ConnectionList<L>::remove(Connection* c) {
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

// One serving thread: its io_context, its view of the listening socket, its connections and
// their deadlines.
class Worker {
 public:
  Worker(Listener::Impl& listener, int listenFd, tcp protocol, bool ticks);

  Result<void> init();
  void start() {
    thread_ = std::thread([this] { io_.run(); });
  }
  void stop() {
    asio::post(io_, [this] { shutdown(); });
  }
  void join() {
    if (thread_.joinable()) thread_.join();
  }

  asio::io_context& io() { return io_; }
  std::span<char> readBuffer() { return readBuffer_; }
  const ServingContext& context() const;
  uint16_t port() const;
  const std::string& host() const;

  void adopt(Connection* c) { live_.pushBack(c); }
  void forget(Connection* c) { live_.remove(c); }

  // Each list holds deadlines of one length, set from the current time, so appending keeps it
  // sorted and the front is always the next to expire.
  void setDeadline(Connection* c, Timer t, Clock::duration after) {
    untime(c);
    c->deadline = Clock::now() + after;
    c->timer = t;
    timerList(t).pushBack(c);
    if (!armed_ || c->deadline < armedFor_) arm(c->deadline);
  }
  void untime(Connection* c) {
    if (c->timer != Timer::None) {
      timerList(c->timer).remove(c);
      c->timer = Timer::None;
    }
  }

 private:
  ConnectionList<&Connection::timerLink>& timerList(Timer t) {
    return t == Timer::Io ? ioTimers_ : lingerTimers_;
  }

  void arm(Clock::time_point when) {
    armed_ = true;
    armedFor_ = when;
    timer_.expires_at(when);
    timer_.async_wait([this](const asio::error_code& error) {
      // A re-arm cancels the wait it replaces; that wait must leave the new one alone.
      if (error == asio::error::operation_aborted) return;
      armed_ = false;
      expire();
    });
  }

  void expire() {
    auto now = Clock::now();
    for (auto* list : {&ioTimers_, &lingerTimers_}) {
      while (!list->empty() && list->front()->deadline <= now) {
        Connection* c = list->front();
        untime(c);
        auto keep = c->shared_from_this();
        c->expire();
      }
    }
    auto next = Clock::time_point::max();
    if (!ioTimers_.empty()) next = ioTimers_.front()->deadline;
    if (!lingerTimers_.empty()) next = std::min(next, lingerTimers_.front()->deadline);
    if (next != Clock::time_point::max()) arm(next);
  }

  void tick() {
    tick_.expires_after(1s);
    tick_.async_wait([this](const asio::error_code& error) {
      if (error || closing_) return;
      context().everySecond();
      tick();
    });
  }

  void waitForClients() {
    acceptor_.async_wait(tcp::acceptor::wait_read, [this](const asio::error_code& error) {
      if (error || closing_) return;
      acceptReady();
    });
  }

  void retryAcceptSoon() {
    retry_.expires_after(100ms);
    retry_.async_wait([this](const asio::error_code& error) {
      if (error || closing_) return;
      acceptReady();
    });
  }

  void acceptReady();
  bool shedOneConnection();
  void refuseBusy(int fd);
  void shutdown();

  Listener::Impl& listener_;
  asio::io_context io_{1};
  tcp::acceptor acceptor_{io_};
  int listenFd_;
  tcp protocol_;
  bool ticks_;
  bool closing_ = false;
  asio::steady_timer timer_{io_};
  asio::steady_timer tick_{io_};
  asio::steady_timer retry_{io_};
  bool armed_ = false;
  Clock::time_point armedFor_;
  ConnectionList<&Connection::liveLink> live_;
  ConnectionList<&Connection::timerLink> ioTimers_;
  ConnectionList<&Connection::timerLink> lingerTimers_;
  std::thread thread_;
  std::array<char, 16384> readBuffer_;  // what every connection of this thread reads into
};

}  // namespace

struct Listener::Impl {
  explicit Impl(const ServingContext& c) : context(c) {}

  ServingContext context;
  int listenFd = -1;
  uint16_t port = 0;
  tcp protocol = tcp::v4();
  std::vector<std::unique_ptr<Worker>> workers;
  bool started = false;
  std::once_flag stopOnce;

  std::mutex spareMu;
  int spareFd = -1;  // given up when out of descriptors, to accept and shed one connection
};

namespace {

const ServingContext& Worker::context() const { return listener_.context; }
uint16_t Worker::port() const { return listener_.port; }
const std::string& Worker::host() const { return listener_.context.options.host; }

Worker::Worker(Listener::Impl& listener, int listenFd, tcp protocol, bool ticks)
    : listener_(listener), listenFd_(listenFd), protocol_(protocol), ticks_(ticks) {}

Result<void> Worker::init() {
  // Each thread watches its own descriptor of the one listening socket: every reactor
  // registers it, and whichever thread accepts first takes the connection.
  int fd = ::fcntl(listenFd_, F_DUPFD_CLOEXEC, 0);
  if (fd < 0) return fail("cannot start a serving thread: " + errnoText(errno));
  asio::error_code error;
  acceptor_.assign(protocol_, fd, error);
  if (error) {
    ::close(fd);
    return fail("cannot start a serving thread: " + error.message());
  }
  listenFd_ = fd;
  waitForClients();
  if (ticks_) tick();
  return {};
}

void Worker::acceptReady() {
  const ServingContext& ctx = context();
  for (int i = 0; i < kAcceptBatch; ++i) {
    int fd = platform::acceptConnection(listenFd_);
    if (fd < 0) {
      const int err = errno;  // shedding makes calls of its own
      if (err == EINTR || err == ECONNABORTED) continue;
      if (err == EAGAIN || err == EWOULDBLOCK) {
        // The reactor reports edges: wait only once the backlog is empty.
        waitForClients();
        return;
      }
      if (err == EMFILE || err == ENFILE) {
        if (shedOneConnection()) continue;
      } else {
        ctx.errorLog("accept failed: " + errnoText(err));
      }
      retryAcceptSoon();
      return;
    }
    if (static_cast<size_t>(ctx.clients.load(std::memory_order_relaxed)) >=
        ctx.options.maxClients) {
      refuseBusy(fd);
      continue;
    }
    asio::error_code error;
    tcp::socket socket(io_);
    socket.assign(protocol_, fd, error);
    if (error) {
      ::close(fd);
      ctx.errorLog("cannot serve a connection: " + error.message());
      continue;
    }
    std::make_shared<Connection>(*this, std::move(socket))->start();
  }
  // A full batch: let this thread's connections move on before taking more.
  asio::post(io_, [this] {
    if (!closing_) acceptReady();
  });
}

bool Worker::shedOneConnection() {
  const ServingContext& ctx = context();
  bool shed = false;
  {
    std::lock_guard lock(listener_.spareMu);
    if (listener_.spareFd >= 0) {
      ::close(listener_.spareFd);
      int fd = platform::acceptConnection(listenFd_);
      if (fd >= 0) {
        ::close(fd);
        shed = true;
      }
      listener_.spareFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
  }
  // Out of descriptors, accept fails even when nobody is waiting: then nothing was shed.
  if (!shed) return false;
  ctx.errors.add();
  ctx.errorLog("out of file descriptors, closed a new connection: raise the limit (ulimit -n)");
  return true;
}

void Worker::refuseBusy(int fd) {
  const ServingContext& ctx = context();
  static const std::string busy =
      http::errorResponse(503, "too many clients; try again", "Retry-After: 1\r\n");
  (void)!platform::sendNow(fd, busy.data(), busy.size());
  ::close(fd);
  ctx.requests.add();
  ctx.errors.add();
  ctx.errorLog("refused a connection: " + std::to_string(ctx.options.maxClients) +
               " clients are connected already");
}

void Worker::shutdown() {
  closing_ = true;
  asio::error_code ignored;
  acceptor_.close(ignored);
  timer_.cancel();
  tick_.cancel();
  retry_.cancel();
  while (!live_.empty()) {
    auto keep = live_.front()->shared_from_this();
    keep->close();
  }
}

Connection::Connection(Worker& worker, tcp::socket socket)
    : worker_(worker), ctx_(worker.context()), socket_(std::move(socket)) {
  worker_.adopt(this);
  raisePeak(ctx_.peakClients, ctx_.clients.fetch_add(1, std::memory_order_relaxed) + 1);
}

void Connection::start() {
  // The request must arrive whole within the time-out of the connection's start.
  worker_.setDeadline(this, Timer::Io, ctx_.options.timeout);
  read();
}

void Connection::close() {
  if (phase_ == Phase::Closed) return;
  phase_ = Phase::Closed;
  worker_.untime(this);
  worker_.forget(this);
  ctx_.clients.fetch_sub(1, std::memory_order_relaxed);
  frame_.reset();
  releaseBody();
  if (slowTimer_) slowTimer_->cancel();
  asio::error_code ignored;
  socket_.close(ignored);
}

void Connection::releaseBody() {
  if (budget_) budget_->give(budgeted_);
  budget_ = nullptr;
  budgeted_ = 0;
}

// The bytes go through the worker's buffer, so a connection that waits for its request holds
// no buffer of its own: thousands of idle clients cost little. Reading until the socket has no
// more also suits the reactor, which wakes a waiter only for bytes that arrive after it waits.
void Connection::read() {
  std::span<char> buffer = worker_.readBuffer();
  for (;;) {
    ssize_t n = ::recv(socket_.native_handle(), buffer.data(), buffer.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      socket_.async_wait(tcp::socket::wait_read,
                         [self = shared_from_this()](const asio::error_code& error) {
                           if (self->phase_ == Phase::Closed) return;
                           if (error) return self->close();
                           self->read();
                         });
      return;
    }
    std::string_view data = n > 0 ? std::string_view(buffer.data(), static_cast<size_t>(n)) : "";
    if (!onRead(data, n < 0)) return;
  }
}

bool Connection::onRead(std::string_view data, bool failed) {
  auto readsOn = [this] {
    return phase_ == Phase::Reading || phase_ == Phase::Lingering || phase_ == Phase::Stalled;
  };
  if (phase_ == Phase::Lingering || phase_ == Phase::Stalled) {
    discarded_ += data.size();
    if (data.empty() || discarded_ > kLingerMaxBytes) close();
    return readsOn();
  }
  if (phase_ != Phase::Reading) return false;
  if (failed) {
    close();  // reset by the peer
  } else if (data.empty()) {
    if (in_.empty() || !parseAndDispatch(true)) close();
  } else {
    in_.append(data);
    parseAndDispatch(false);
  }
  // Answered, handed over or closed: the request's bytes are done with, however long the
  // answer or the linger takes (a body handed over is in its job: an upload is held once).
  if (phase_ != Phase::Reading) std::string().swap(in_);
  return readsOn();
}

bool Connection::checkAddressing(const http::Request& req) {
  const uint16_t port = worker_.port();
  // Only the slow path needs the address the client reached.
  auto names = [&](std::string_view authority, bool portRequired) {
    return namesThisServer(authority, port, worker_.host(), {}, portRequired) ||
           namesThisServer(authority, port, worker_.host(),
                           localAddressOf(socket_.native_handle()), portRequired);
  };
  // A request without Host (HTTP/1.0) cannot have come through a name that points here from
  // elsewhere; one with a foreign name may have (DNS rebinding), so it gets nothing. An absolute
  // target names its server too, and is held to the same rule.
  auto misdirected = [&](const std::string& what) {
    linger_ = true;
    respondError(421, "this server answers requests for 127.0.0.1:" + std::to_string(port) +
                          ", localhost:" + std::to_string(port) + " or [::1]:" +
                          std::to_string(port) + ", not for " + what);
    return false;
  };
  if (req.absolute && !names(req.authority, false)) {
    return misdirected("the target " + shortened(req.target));
  }
  if (req.hasHost && !names(req.host, false)) {
    return misdirected("Host \"" + shortened(req.host) + "\"");
  }
  // Browsers name the page that made a request in Origin: only our own status page may use
  // this server from a browser.
  if (req.hasOrigin) {
    std::string_view origin = req.origin;
    bool own = origin.starts_with("http://") &&
               names(origin.substr(7), port != 80);
    if (!own) {
      linger_ = true;
      respondError(403, "requests from other web pages are refused (Origin \"" +
                            shortened(origin) + "\" is not this server)");
      return false;
    }
  }
  return true;
}

bool Connection::parseAndDispatch(bool atEof) {
  const auto& opt = ctx_.options;
  http::ParseResult parsed = http::parseRequestHead(in_, opt.maxHeadBytes);
  if (parsed.state == http::Parse::Error) {
    linger_ = true;
    respondError(parsed.status, parsed.reason);
    return true;
  }
  if (parsed.state == http::Parse::Incomplete) {
    if (!atEof) return false;
    respondError(400, "the request ended before its blank line");
    return true;
  }
  const http::Request& req = parsed.request;
  request_.assign(req.method).append(" ").append(req.path);
  if (!checkAddressing(req)) return true;
  const bool control = req.path == "/control" && req.method == "POST";
  const bool upload = req.path == "/upload" && req.method == "POST";
  const size_t whole = req.headSize + req.contentLength;
  if (control || upload) {
    if (control && req.contentLength > opt.maxBodyBytes) {
      linger_ = true;
      respondError(413, "the control body is larger than " + std::to_string(opt.maxBodyBytes) +
                            " bytes");
      return true;
    }
    // A web page can send a cross-site form or text/plain POST without asking first; JSON, a
    // picture or a video it cannot.
    if (control && !isJson(req.contentType)) {
      linger_ = true;
      respondError(415,
                   "send the control body as JSON with Content-Type: application/json (curl: "
                   "-H 'Content-Type: application/json', or --json)");
      return true;
    }
    if (upload) {
      if (auto taken = checkUpload(uploadKind(req.contentType), req.contentLength); !taken) {
        linger_ = true;
        respondError(taken.error().status, taken.error().message);
        return true;
      }
    }
    if (!budget_ && req.contentLength > 0) {
      BodyBudget& budget = upload ? ctx_.uploads : ctx_.bodies;
      if (!budget.take(req.contentLength)) {
        linger_ = true;
        respondError(503,
                     std::string("too many ") + (upload ? "uploads" : "control requests") +
                         " are arriving at once: try again in a moment",
                     "Retry-After: 1\r\n");
        return true;
      }
      budget_ = &budget;
      budgeted_ = req.contentLength;
      // Exactly what it needs, not what doubling as the bytes come in would give it.
      in_.reserve(whole);
    }
    if (in_.size() < whole) {
      if (!atEof) {
        // curl asks first for bodies over 1 KiB and would otherwise wait a second.
        if (req.expectContinue && !continued_) {
          static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
          (void)!platform::sendNow(socket_.native_handle(), kContinue.data(), kContinue.size());
          continued_ = true;
        }
        return false;
      }
      respondError(400, "the request body ended before its Content-Length");
      return true;
    }
    linger_ = in_.size() > whole;
  } else {
    linger_ = in_.size() != req.headSize || req.contentLength > 0;
  }
  dispatch(req);
  return true;
}

void Connection::dispatch(const http::Request& req) {
  const bool head = req.method == "HEAD";
  const bool get = head || req.method == "GET";
  if (req.path == "/frame") {
    if (!get) return respondError(405, "use GET /frame", "Allow: GET, HEAD\r\n");
    auto frame = ctx_.store.current();
    // The status page's live view: neither an app's fetch nor one that a fault is meant for.
    const bool panel = http::queryParam(req.target, "view") == "panel";
    if (!head && !panel) {
      if (FaultKind fault = ctx_.faults.take(); fault != FaultKind::None)
        return injectFault(fault, std::move(frame));
    }
    if (!frame) {
      // Not the client's fault, and a polling client would flood the log: answer, don't log.
      return respondUnavailable(kNoFrameYet, head);
    }
    ctx_.requests.add();
    if (!head && panel) ctx_.panelFrames.add();
    if (!head && !panel) {
      ctx_.framesServed.add();
      ctx_.fetches.record(frame->index);
    }
    frame_ = std::move(frame);
    logAnswer([&] {
      return "200, frame index " + std::to_string(frame_->index) + ", " +
             counted(frame_->jpeg().size(), "byte") + " of JPEG";
    });
    return send(frame_->wire.data(), head ? frame_->headSize : frame_->wire.size());
  }
  if (req.path == "/status") {
    if (!get) return respondError(405, "use GET /status", "Allow: GET, HEAD\r\n");
    return respond(200, "application/json", ctx_.statusJson(), "Cache-Control: no-store\r\n",
                   head);
  }
  if (req.path == "/") {
    if (!get) return respondError(405, "use GET /", "Allow: GET, HEAD\r\n");
    return respond(200, "text/html; charset=utf-8", std::string(statusPageHtml()),
                   "Cache-Control: no-store\r\n", head);
  }
  ControlJob job;
  if (req.path == "/control") {
    if (req.method != "POST") {
      return respondError(405, "use POST /control with a JSON body", "Allow: POST\r\n");
    }
    job.kind = ControlJob::Kind::Control;
  } else if (req.path == "/upload") {
    if (req.method != "POST") {
      return respondError(405, "use POST /upload with a picture or a video as the body",
                          "Allow: POST\r\n");
    }
    job.kind = ControlJob::Kind::Upload;
    job.contentType = std::string(req.contentType);
    job.name = http::queryParam(req.target, "name").value_or("");
  } else if (req.path == "/cameras") {
    if (req.method != "GET") return respondError(405, "use GET /cameras", "Allow: GET\r\n");
    job.kind = ControlJob::Kind::Cameras;
  } else {
    return respondError(404,
                        "no such page: use GET /frame for frames, GET / for the control panel, "
                        "GET /status for the figures, POST /control to switch");
  }
  phase_ = Phase::Control;
  worker_.untime(this);
  job.request = request_;
  // The body moves into the job, so that an upload is held once; `req` points into `in_` and is
  // not read after this.
  in_.erase(0, req.headSize);
  in_.resize(req.contentLength);
  job.body = std::move(in_);
  // The reply moves its reference to the connection into the posted handler, so the control
  // thread never holds the last one: the connection is always destroyed on its own thread.
  job.reply = [self = shared_from_this()](std::string response) mutable {
    auto& io = self->worker_.io();
    asio::post(io, [self = std::move(self), response = std::move(response)]() mutable {
      self->onControlAnswer(std::move(response));
    });
  };
  ctx_.submitControl(std::move(job));
}

// Faults are what the test asked for, not the client's doing: counted by the injector and in
// the requests, never as errors, and not logged one by one.
void Connection::injectFault(FaultKind fault, std::shared_ptr<const Frame> frame) {
  fault_ = fault;
  const bool needsFrame = fault == FaultKind::Slow || fault == FaultKind::Truncate;
  if (needsFrame && !frame) {
    return respondUnavailable(kNoFrameYet);
  }
  switch (fault) {
    case FaultKind::None:
      return;
    case FaultKind::Refuse: {
      ctx_.requests.add();
      logAnswer([] { return std::string("reset"); });
      // A zero linger time makes the close a reset, as a camera process that died would.
      linger abort{1, 0};
      ::setsockopt(socket_.native_handle(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
      return close();
    }
    case FaultKind::Stall:
      // Held open, silent, until the server's time-out closes it (see expire) or the client
      // goes. The read that dispatched the request reads on (and discards), which keeps the
      // connection alive meanwhile.
      ctx_.requests.add();
      logAnswer([] { return std::string("nothing sent"); });
      phase_ = Phase::Stalled;
      worker_.setDeadline(this, Timer::Io, ctx_.options.timeout);
      return;
    case FaultKind::Slow:
      ctx_.requests.add();
      ctx_.framesServed.add();
      ctx_.fetches.record(frame->index);
      frame_ = std::move(frame);
      logAnswer([&] { return "200, frame index " + std::to_string(frame_->index) + ", sent piece by piece"; });
      sendPtr_ = frame_->wire.data();
      sendLeft_ = frame_->wire.size();
      slowTimer_ = std::make_unique<asio::steady_timer>(worker_.io());
      return trickle();
    case FaultKind::Garbage: {
      std::string body;
      while (body.size() < 4096) body += "zerlan fault \"garbage\": these bytes are no image. ";
      return respond(200, "image/jpeg", std::move(body));
    }
    case FaultKind::Truncate:
      // The head promises the whole JPEG; half of it comes before the close.
      ctx_.requests.add();
      frame_ = std::move(frame);
      logAnswer([&] { return "200, frame index " + std::to_string(frame_->index) + ", cut at half its JPEG"; });
      return send(frame_->wire.data(), frame_->headSize + frame_->jpeg().size() / 2);
    case FaultKind::HttpError:
      return respondUnavailable(
          "fault \"http-error\" injected on GET /frame (POST /control {\"fault\": \"none\"} clears it)");
  }
}

void Connection::trickle() {
  phase_ = Phase::Writing;
  worker_.setDeadline(this, Timer::Io, ctx_.options.timeout);
  const size_t piece = std::min(sendLeft_, (frame_->wire.size() + kSlowPieces - 1) / kSlowPieces);
  asio::async_write(
      socket_, asio::buffer(sendPtr_, piece),
      [self = shared_from_this()](const asio::error_code& error, size_t n) {
        if (self->phase_ != Phase::Writing) return;
        if (error) return self->close();
        self->sendPtr_ += n;
        self->sendLeft_ -= n;
        if (self->sendLeft_ == 0) return self->finish();
        self->slowTimer_->expires_after(kSlowPeriod);
        self->slowTimer_->async_wait([self](const asio::error_code& waited) {
          if (waited || self->phase_ != Phase::Writing) return;
          self->trickle();
        });
      });
}

void Connection::onControlAnswer(std::string response) {
  if (phase_ != Phase::Control) return;  // closed while the control thread worked
  out_ = std::move(response);
  logAnswer([&] {
    int status = 0;
    std::sscanf(out_.c_str(), "HTTP/1.1 %d", &status);
    return std::to_string(status) + ", " + counted(out_.size(), "byte");
  });
  send(out_.data(), out_.size());
}

void Connection::respond(int status, std::string_view type, std::string body,
                         std::string_view extraHeaders, bool headOnly) {
  answer(http::response(status, type, body, extraHeaders, headOnly), status);
}

void Connection::answer(std::string response, int status) {
  ctx_.requests.add();
  out_ = std::move(response);
  logAnswer([&] { return std::to_string(status) + ", " + counted(out_.size(), "byte"); });
  send(out_.data(), out_.size());
}

void Connection::respondError(int status, const std::string& reason,
                              std::string_view extraHeaders) {
  ctx_.errors.add();
  std::string what = request_.empty() ? "" : " for " + request_;
  ctx_.errorLog(std::to_string(status) + what + " from " + peerOf(socket_.native_handle()) +
                ": " + reason);
  answer(http::errorResponse(status, reason, extraHeaders), status);
}

void Connection::respondUnavailable(std::string_view reason, bool headOnly) {
  answer(http::errorResponse(503, reason, "Retry-After: 1\r\n", headOnly), 503);
}

void Connection::writeLogLine(const std::string& what) {
  char ms[32];
  std::snprintf(ms, sizeof ms, "%.1f",
                std::chrono::duration<double, std::milli>(Clock::now() - started_).count());
  ctx_.log((request_.empty() ? std::string("a request") : request_) + " from " +
           peerOf(socket_.native_handle()) + ": " + what +
           (fault_ == FaultKind::None ? "" : " (fault " + std::string(faultName(fault_)) + ")") +
           ", " + ms + " ms after it connected");
}

void Connection::send(const char* data, size_t size) {
  phase_ = Phase::Writing;
  sendPtr_ = data;
  sendLeft_ = size;
  worker_.setDeadline(this, Timer::Io, ctx_.options.timeout);
  write();
}

void Connection::write() {
  socket_.async_write_some(asio::buffer(sendPtr_, sendLeft_),
                           [self = shared_from_this()](const asio::error_code& error, size_t n) {
                             self->onWritten(error, n);
                           });
}

void Connection::onWritten(const asio::error_code& error, size_t n) {
  if (phase_ != Phase::Writing) return;
  if (error) return close();  // the client went away
  sendPtr_ += n;
  sendLeft_ -= n;
  if (sendLeft_ == 0) return finish();
  // The client must keep reading: the time-out counts from its last progress.
  worker_.setDeadline(this, Timer::Io, ctx_.options.timeout);
  write();
}

void Connection::finish() {
  if (!linger_) return close();
  asio::error_code ignored;
  socket_.shutdown(tcp::socket::shutdown_send, ignored);
  phase_ = Phase::Lingering;
  frame_.reset();
  worker_.setDeadline(this, Timer::Linger,
                      std::min<Clock::duration>(kLingerTime, ctx_.options.timeout));
  drain();
}

void Connection::drain() { read(); }

void Connection::expire() {
  auto secs = std::to_string(ctx_.options.timeout.count() / 1000.0);
  secs.erase(secs.find_last_not_of('0') + 1);
  if (secs.back() == '.') secs.pop_back();
  const int fd = socket_.native_handle();
  switch (phase_) {
    case Phase::Reading:
      // A silent connection is not an error: browsers open spare ones and leave them idle.
      if (!in_.empty()) {
        std::string r = http::errorResponse(408, "the request did not arrive in time; send it whole");
        (void)!platform::sendNow(fd, r.data(), r.size());
        ctx_.requests.add();
        ctx_.errors.add();
        ctx_.errorLog("408 for " + peerOf(fd) + ": the request was not complete after " + secs +
                      " s");
      }
      break;
    case Phase::Writing: {
      ctx_.errors.add();
      ctx_.errorLog("dropped " + peerOf(fd) + ": it stopped reading its response (" + request_ +
                    ") for " + secs + " s");
      // Reset instead of a graceful close: otherwise the kernel keeps the unsent rest of the
      // frame queued for a client that does not read.
      linger abort{1, 0};
      ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
      break;
    }
    case Phase::Stalled:
    case Phase::Lingering:
    case Phase::Control:
    case Phase::Closed:
      break;
  }
  close();
}

// Whether a server accepts connections at this address (the wildcard address reached through
// loopback). A port can be in use without one: a client's connection bound to it, open or in
// TIME_WAIT, blocks a bind on Linux even with SO_REUSEADDR.
bool somethingListens(const addrinfo* ai) {
  sockaddr_storage target{};
  std::memcpy(&target, ai->ai_addr, std::min<size_t>(ai->ai_addrlen, sizeof target));
  if (target.ss_family == AF_INET) {
    auto* v4 = reinterpret_cast<sockaddr_in*>(&target);
    if (v4->sin_addr.s_addr == htonl(INADDR_ANY)) v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  } else if (target.ss_family == AF_INET6) {
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&target);
    if (IN6_IS_ADDR_UNSPECIFIED(&v6->sin6_addr)) v6->sin6_addr = in6addr_loopback;
  }
  int fd = platform::openSocket(ai->ai_family, ai->ai_socktype, ai->ai_protocol);
  if (fd < 0) return false;
  bool accepted = ::connect(fd, reinterpret_cast<sockaddr*>(&target), ai->ai_addrlen) == 0;
  ::close(fd);
  return accepted;
}

Result<int> listenOn(const std::string& host, uint16_t port, uint16_t& boundPort, tcp& protocol) {
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
  const addrinfo* busy = nullptr;
  for (addrinfo* ai = found; ai; ai = ai->ai_next) {
    int fd = platform::openSocket(ai->ai_family, ai->ai_socktype, ai->ai_protocol);
    if (fd < 0) {
      lastErr = errno;
      continue;
    }
    int one = 1;
    // Lets a restarted server bind while connections of the previous one sit in TIME_WAIT;
    // it does not let two servers listen on one port.
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0 ||
        ::bind(fd, ai->ai_addr, ai->ai_addrlen) != 0 || ::listen(fd, 4096) != 0) {
      lastErr = errno;
      if (lastErr == EADDRINUSE) busy = ai;
      ::close(fd);
      continue;
    }
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    addressText(addr, &boundPort);
    protocol = addr.ss_family == AF_INET6 ? tcp::v6() : tcp::v4();
    return fd;
  }
  std::string p = std::to_string(port);
  switch (lastErr) {
    case EADDRINUSE:
      if (busy && !somethingListens(busy)) {
        return fail("port " + p +
                    " is held by a connection, not by a server (a client socket bound to it, "
                    "open or closing in TIME_WAIT): wait a minute for it to go, or try --port");
      }
      return Error{"port " + p + " is in use by another server: stop it, or try --port", 400, EADDRINUSE};
    case EACCES:
      return fail("no permission to listen on port " + p +
                  " (ports below 1024 need root): try --port with a port above 1023");
    case EADDRNOTAVAIL:
      return fail("address " + host +
                  " is not on this machine: use --host 127.0.0.1 or one of its addresses");
    default:
      return fail("cannot listen on " + host + " port " + p + ": " + errnoText(lastErr));
  }
}

}  // namespace

bool BodyBudget::take(size_t bytes) {
  size_t seen = held_.load(std::memory_order_relaxed);
  do {
    if (bytes > limit_ - seen) return false;
  } while (!held_.compare_exchange_weak(seen, seen + bytes, std::memory_order_relaxed));
  raisePeak(peak_, seen + bytes);
  return true;
}

void BodyBudget::give(size_t bytes) { held_.fetch_sub(bytes, std::memory_order_relaxed); }

void ErrorLog::operator()(const std::string& line) {
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

bool namesThisServer(std::string_view authority, uint16_t port, std::string_view configuredHost,
                     std::string_view localAddress, bool portRequired) {
  std::string_view name = authority;
  std::string_view portText;
  if (name.starts_with("[")) {
    size_t close = name.find(']');
    if (close == std::string_view::npos) return false;
    portText = name.substr(close + 1);
    name = name.substr(0, close + 1);
    if (!portText.empty()) {
      if (portText.front() != ':') return false;
      portText.remove_prefix(1);
      if (portText.empty()) return false;
    }
  } else if (size_t colon = name.find(':'); colon != std::string_view::npos) {
    portText = name.substr(colon + 1);
    name = name.substr(0, colon);
    if (portText.empty()) return false;
  }
  if (portText.empty()) {
    if (portRequired) return false;
  } else if (portText != std::to_string(port)) {
    return false;
  }
  if (name.empty()) return false;
  for (std::string_view known : {std::string_view("127.0.0.1"), std::string_view("localhost"),
                                 std::string_view("[::1]")}) {
    if (iequals(name, known)) return true;
  }
  if (!localAddress.empty() && iequals(name, localAddress)) return true;
  if (configuredHost.empty()) return false;
  // The configured host as a Host header writes it: IPv6 literals in brackets.
  if (configuredHost.find(':') != std::string_view::npos) {
    return name.size() == configuredHost.size() + 2 && name.front() == '[' &&
           iequals(name.substr(1, configuredHost.size()), configuredHost);
  }
  return iequals(name, configuredHost);
}

Listener::Listener(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Listener::~Listener() { stop(); }

Result<std::unique_ptr<Listener>> Listener::open(const ServingContext& context) {
  auto impl = std::make_unique<Impl>(context);
  auto fd = listenOn(context.options.host, context.options.port, impl->port, impl->protocol);
  if (!fd) return fd.error();
  impl->listenFd = fd.value();
  impl->spareFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);

  unsigned threads =
      context.options.threads ? context.options.threads : std::thread::hardware_concurrency();
  threads = std::clamp(threads, 1u, 64u);
  for (unsigned i = 0; i < threads; ++i) {
    auto worker = std::make_unique<Worker>(*impl, impl->listenFd, impl->protocol, i == 0);
    if (auto ok = worker->init(); !ok) return ok.error();
    impl->workers.push_back(std::move(worker));
  }
  return std::unique_ptr<Listener>(new Listener(std::move(impl)));
}

uint16_t Listener::port() const { return impl_->port; }

void Listener::start() {
  impl_->started = true;
  for (auto& w : impl_->workers) w->start();
}

void Listener::stop() {
  std::call_once(impl_->stopOnce, [this] {
    for (auto& w : impl_->workers) w->stop();
    for (auto& w : impl_->workers) w->join();
    // Handlers still queued (a control answer that came too late) go with their io_context.
    impl_->workers.clear();
    if (impl_->listenFd >= 0) ::close(impl_->listenFd);
    impl_->listenFd = -1;
    if (impl_->spareFd >= 0) ::close(impl_->spareFd);
    impl_->spareFd = -1;
  });
}

}  // namespace zerlan::server
