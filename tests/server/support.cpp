#define ZX_USE_UTF8 1
#include "support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "server/qr_reader.h"

extern char** environ;

namespace zerlan::test {

namespace fs = std::filesystem;

int connectTo(uint16_t port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

namespace {
// A write to a closed pipe (a server that went away) must fail the test, not kill it.
const bool kIgnoreSigpipe = [] { return ::signal(SIGPIPE, SIG_IGN) != SIG_ERR; }();
}  // namespace

bool sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) n = ::write(fd, bytes.data(), bytes.size());
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

nlohmann::json statusOf(uint16_t port) {
  Reply r = get(port, "/status");
  EXPECT_EQ(r.status, 200) << r.body;
  return nlohmann::json::parse(r.body, nullptr, false);
}

bool readUntil(int fd, Clock::time_point deadline, std::string& got,
               const std::function<bool(const std::string&)>& done) {
  char buf[65536];
  while (!done || !done(got)) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return true;
    got.append(buf, static_cast<size_t>(n));
  }
  return false;
}

std::string readInterim(int fd, Clock::time_point deadline) {
  std::string interim;
  readUntil(fd, deadline, interim, [](const std::string& got) { return got.find("\r\n\r\n") != std::string::npos; });
  return interim;
}

bool waitForClose(int fd, Clock::time_point deadline, std::string* received) {
  std::string ignored;
  return readUntil(fd, deadline, received ? *received : ignored);
}

Reply readReply(int fd, Clock::time_point deadline) {
  Reply r;
  r.closedByServer = waitForClose(fd, deadline, &r.raw);
  size_t end = r.raw.find("\r\n\r\n");
  if (end == std::string::npos) return r;
  std::istringstream head(r.raw.substr(0, end));
  std::string line;
  std::getline(head, line);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  r.statusLine = line;
  if (line.rfind("HTTP/1.", 0) != 0 || line.size() < 12) return r;
  r.status = std::atoi(line.c_str() + 9);
  r.ok = true;
  while (std::getline(head, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(' '));
    r.headers[name] = value;
  }
  r.body = r.raw.substr(end + 4);
  return r;
}

Reply roundTrip(uint16_t port, std::string_view raw, Clock::duration limit) {
  int fd = connectTo(port);
  if (fd < 0) {
    ADD_FAILURE() << "cannot connect to port " << port;
    return {};
  }
  sendAll(fd, raw);
  Reply r = readReply(fd, in(limit));
  ::close(fd);
  return r;
}

::testing::AssertionResult hasPart(const char* textExpr, const char* partExpr, std::string_view text,
                                   std::string_view part) {
  if (text.find(part) != std::string_view::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "no " << partExpr << " (\"" << part << "\") in " << textExpr
                                       << ":\n" << text;
}

::testing::AssertionResult lacksPart(const char* textExpr, const char* partExpr, std::string_view text,
                                     std::string_view part) {
  if (text.find(part) == std::string_view::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << partExpr << " (\"" << part << "\") in " << textExpr << ":\n"
                                       << text;
}

std::optional<std::string> errorReason(const Reply& reply) {
  if (reply.headers.count("content-type") == 0 || reply.headers.at("content-type") != "application/json") return {};
  auto body = nlohmann::json::parse(reply.body, nullptr, false);
  if (!body.is_object() || !body.contains("error") || !body["error"].is_string()) return {};
  auto reason = body["error"].get<std::string>();
  if (reason.empty()) return {};
  return reason;
}

Reply post(uint16_t port, const std::string& path, const std::string& body) {
  return roundTrip(port, "POST " + path +
                             " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: "
                             "application/json\r\nContent-Length: " +
                             std::to_string(body.size()) + "\r\n\r\n" + body);
}

std::string solidJpeg(int width, int height, Rgb color, int quality) {
  server::RgbImage image(width, height);
  for (size_t i = 0; i < image.pixels.size(); i += 3) {
    image.pixels[i] = static_cast<uint8_t>(color.r);
    image.pixels[i + 1] = static_cast<uint8_t>(color.g);
    image.pixels[i + 2] = static_cast<uint8_t>(color.b);
  }
  server::JpegEncoder encoder;
  auto jpeg = encoder.encode(image, quality);
  EXPECT_TRUE(jpeg.ok());
  return jpeg.ok() ? jpeg.value() : std::string();
}

Rgb centreColour(std::string_view jpeg) {
  auto image = server::decodeJpeg(jpeg);
  if (!image) {
    ADD_FAILURE() << "not a JPEG: " << image.error().message;
    return {-1, -1, -1};
  }
  int cx = image->width / 2, cy = image->height / 2;
  long sum[3] = {0, 0, 0};
  int n = 0;
  for (int y = std::max(0, cy - 2); y <= std::min(image->height - 1, cy + 2); ++y) {
    for (int x = std::max(0, cx - 2); x <= std::min(image->width - 1, cx + 2); ++x) {
      const uint8_t* p = image->row(y) + x * 3;
      for (int k = 0; k < 3; ++k) sum[k] += p[k];
      ++n;
    }
  }
  return {static_cast<int>(sum[0] / n), static_cast<int>(sum[1] / n), static_cast<int>(sum[2] / n)};
}

size_t nearest(Rgb c, const std::vector<Rgb>& palette) {
  size_t best = 0;
  long bestDistance = -1;
  for (size_t i = 0; i < palette.size(); ++i) {
    long dr = c.r - palette[i].r, dg = c.g - palette[i].g, db = c.b - palette[i].b;
    long d = dr * dr + dg * dg + db * db;
    if (bestDistance < 0 || d < bestDistance) {
      best = i;
      bestDistance = d;
    }
  }
  return best;
}

server::Size jpegSizeOf(std::string_view jpeg) {
  auto size = server::jpegSize(jpeg);
  return size ? size.value() : server::Size{};
}

std::optional<std::string> readQr(std::string_view jpeg) {
  auto image = server::decodeJpeg(jpeg);
  if (!image) return std::nullopt;
  return server::readQrCode(*image);
}

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "zerlan-test.XXXXXX").string();
  char* made = ::mkdtemp(pattern.data());
  if (!made) ADD_FAILURE() << "mkdtemp failed";
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

std::string TempDir::write(const std::string& name, std::string_view bytes) const {
  std::string p = file(name);
  std::ofstream out(p, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return p;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

int shell(const std::string& command) {
  int rc = std::system(command.c_str());
  if (rc == -1) ADD_FAILURE() << "cannot run: " << command;
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

namespace {

std::string hex(Rgb c) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%02X%02X%02X", c.r, c.g, c.b);
  return buf;
}

}  // namespace

std::string makePng(const TempDir& dir, const std::string& name, int width, int height, Rgb color) {
  std::string out = dir.file(name);
  int rc = shell("ffmpeg -nostdin -loglevel error -y -f lavfi -i color=c=" + hex(color) +
                 ":s=" + std::to_string(width) + "x" + std::to_string(height) + " -frames:v 1 '" +
                 out + "'");
  EXPECT_EQ(rc, 0) << "ffmpeg could not make " << out;
  return out;
}

std::string makeVideo(const TempDir& dir, const std::string& name, const std::vector<Rgb>& colors,
                      int fps, int width, int height, const std::string& codec) {
  for (size_t i = 0; i < colors.size(); ++i) {
    dir.write("vframe" + std::to_string(i) + ".jpg", solidJpeg(width, height, colors[i], 95));
  }
  std::string out = dir.file(name);
  int rc = shell("ffmpeg -nostdin -loglevel error -y -framerate " + std::to_string(fps) + " -i '" +
                 dir.file("vframe%d.jpg") + "' " + codec + " -pix_fmt yuv420p '" + out + "'");
  EXPECT_EQ(rc, 0) << "ffmpeg could not make " << out;
  for (size_t i = 0; i < colors.size(); ++i)
    fs::remove(dir.file("vframe" + std::to_string(i) + ".jpg"));
  return out;
}

server::Logger LogRecorder::logger() {
  return [this](const std::string& line) {
    {
      std::lock_guard lock(mu_);
      lines_.push_back(line);
    }
    cv_.notify_all();
  };
}

std::vector<std::string> LogRecorder::lines() const {
  std::lock_guard lock(mu_);
  return lines_;
}

bool LogRecorder::contains(const std::string& part) const { return count(part) > 0; }

size_t LogRecorder::count(const std::string& part) const {
  std::lock_guard lock(mu_);
  size_t n = 0;
  for (const auto& l : lines_) n += l.find(part) != std::string::npos;
  return n;
}

bool LogRecorder::waitFor(const std::string& part, Clock::time_point deadline) const {
  std::unique_lock lock(mu_);
  return cv_.wait_until(lock, deadline, [&] {
    for (const auto& l : lines_) {
      if (l.find(part) != std::string::npos) return true;
    }
    return false;
  });
}

RunningServer startServer(const server::SourceChoice& choice, server::FrameSettings settings,
                          server::ServerOptions options) {
  RunningServer running;
  options.host = "127.0.0.1";
  options.port = 0;
  auto started = server::Server::start(options, choice, settings, running.log->logger());
  // Thrown rather than returned: GoogleTest fails the test with the message, and no test goes
  // on to use a server that is not there.
  if (!started) throw std::runtime_error("server did not start: " + started.error().message);
  running.server = std::move(started.value());
  return running;
}

Child::Child(const std::string& program, const std::vector<std::string>& args) {
  int in[2], err[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe failed";
    return;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  std::vector<std::string> all = {program};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  int rc = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(err[1]);
  stdinFd_ = in[1];
  stderrFd_ = err[0];
  if (rc != 0) {
    ADD_FAILURE() << "cannot start " << program;
    pid_ = -1;
  }
  reader_ = std::thread([this] {
    char buf[4096];
    for (;;) {
      ssize_t n = ::read(stderrFd_, buf, sizeof buf);
      std::lock_guard lock(mu_);
      if (n <= 0) {
        eof_ = true;
        cv_.notify_all();
        return;
      }
      err_.append(buf, static_cast<size_t>(n));
      cv_.notify_all();
    }
  });
}

Child::~Child() {
  if (pid_ > 0 && !status_) {
    ::kill(pid_, SIGKILL);
    int st;
    ::waitpid(pid_, &st, 0);
  }
  closeStdin();
  if (reader_.joinable()) reader_.join();
  if (stderrFd_ >= 0) ::close(stderrFd_);
}

std::optional<std::string> Child::waitForLine(const std::string& part, Clock::time_point deadline) {
  std::unique_lock lock(mu_);
  std::optional<std::string> found;
  cv_.wait_until(lock, deadline, [&] {
    size_t at = err_.find(part);
    if (at != std::string::npos) {
      size_t start = err_.rfind('\n', at);
      start = start == std::string::npos ? 0 : start + 1;
      size_t end = err_.find('\n', at);
      if (end == std::string::npos) return false;  // wait for the whole line
      found = err_.substr(start, end - start);
      return true;
    }
    return eof_;
  });
  return found;
}

std::string Child::stderrText() const {
  std::lock_guard lock(mu_);
  return err_;
}

uint16_t Child::waitForPort(Clock::time_point deadline) {
  auto line = waitForLine("listening on http://127.0.0.1:", deadline);
  if (!line) throw std::runtime_error("it did not start serving:\n" + stderrText());
  size_t at = line->find("127.0.0.1:") + 10;
  return static_cast<uint16_t>(std::atoi(line->c_str() + at));
}

bool Child::writeStdin(std::string_view bytes) { return stdinFd_ >= 0 && sendAll(stdinFd_, bytes); }

void Child::closeStdin() {
  if (stdinFd_ >= 0) ::close(stdinFd_);
  stdinFd_ = -1;
}

void Child::signal(int signo) {
  if (pid_ > 0) ::kill(pid_, signo);
}

std::optional<int> Child::wait(Clock::time_point deadline) {
  if (status_ || pid_ <= 0) return status_;
  // A pidfd turns "has the child exited?" into something poll can wait for with a deadline.
  int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
  if (pidfd >= 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd p{pidfd, POLLIN, 0};
    ::poll(&p, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
    ::close(pidfd);
  }
  int st = 0;
  if (::waitpid(pid_, &st, WNOHANG) != pid_) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &st, 0);
    pid_ = -1;
    return std::nullopt;
  }
  status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  if (reader_.joinable()) reader_.join();
  return status_;
}

}  // namespace zerlan::test
