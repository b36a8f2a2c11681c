#include <fcntl.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include "server/platform.h"

namespace zerlan::platform {

const std::string_view kSystemName = "Linux";
const std::string_view kCameraInput = "v4l2";
const int kSendNoSignal = MSG_NOSIGNAL;

std::filesystem::path executablePath() {
  std::error_code error;
  auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::path() : self;
}

int openSocket(int family, int type, int protocol) {
  return ::socket(family, type | SOCK_CLOEXEC, protocol);
}

int acceptConnection(int listenFd) {
  return ::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
}

CameraAccess cameraAccess() { return CameraAccess::Granted; }

bool openPipe(int fds[2]) { return ::pipe2(fds, O_CLOEXEC) == 0; }

ssize_t sendNow(int fd, const void* data, size_t size) {
  return ::send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// glibc keeps freed memory in its arenas; trimming returns their free pages, not only the top.
void releaseFreeMemory() { ::malloc_trim(0); }

}  // namespace zerlan::platform
