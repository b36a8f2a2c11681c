#include <fcntl.h>
#include <mach-o/dyld.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "server/platform.h"

namespace zerlan::platform {

const std::string_view kSystemName = "macOS";
// Darwin has no per-call flag that all its versions honour: SO_NOSIGPIPE is set on every
// socket made here instead.
const int kSendNoSignal = 0;

namespace {

// Darwin has no SOCK_CLOEXEC, accept4 or pipe2: the flags are set right after the call. A
// child started in between could inherit the descriptor; nothing here starts one concurrently.
bool setCloseOnExec(int fd) { return ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0; }

bool setNoSigPipe(int fd) {
  int one = 1;
  return ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof one) == 0;
}

int closeKeepingErrno(int fd) {
  int saved = errno;
  ::close(fd);
  errno = saved;
  return -1;
}

}  // namespace

std::filesystem::path executablePath() {
  uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::string path(size, '\0');
  if (_NSGetExecutablePath(path.data(), &size) != 0) return {};
  path.resize(path.find('\0') == std::string::npos ? path.size() : path.find('\0'));
  std::error_code error;
  auto resolved = std::filesystem::canonical(path, error);
  return error ? std::filesystem::path(path) : resolved;
}

int openSocket(int family, int type, int protocol) {
  int fd = ::socket(family, type, protocol);
  if (fd < 0) return -1;
  if (!setCloseOnExec(fd) || !setNoSigPipe(fd)) return closeKeepingErrno(fd);
  return fd;
}

int acceptConnection(int listenFd) {
  int fd = ::accept(listenFd, nullptr, nullptr);
  if (fd < 0) return -1;
  int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0 || !setCloseOnExec(fd) ||
      !setNoSigPipe(fd)) {
    return closeKeepingErrno(fd);
  }
  return fd;
}

bool openPipe(int fds[2]) {
  if (::pipe(fds) != 0) return false;
  if (setCloseOnExec(fds[0]) && setCloseOnExec(fds[1])) return true;
  closeKeepingErrno(fds[0]);
  closeKeepingErrno(fds[1]);
  return false;
}

ssize_t sendNow(int fd, const void* data, size_t size) {
  return ::send(fd, data, size, MSG_DONTWAIT);
}

}  // namespace zerlan::platform
