#include <fcntl.h>
#include <malloc/malloc.h>
#include <mach-o/dyld.h>
#include <objc/message.h>
#include <objc/runtime.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "server/platform.h"

// AVFoundation's media type of video (AVMediaFormat.h).
extern "C" id const AVMediaTypeVideo;

namespace zerlan::platform {

const std::string_view kSystemName = "macOS";
const std::string_view kCameraInput = "avfoundation";
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

CameraAccess cameraAccess() {
  // AVAuthorizationStatus (AVCaptureDevice.h): NotDetermined 0, Restricted 1, Denied 2,
  // Authorized 3.
  Class device = objc_getClass("AVCaptureDevice");
  if (!device) return CameraAccess::Granted;  // AVFoundation is not loaded: FFmpeg will say so
  using StatusFn = long (*)(Class, SEL, id);
  auto status = [&] {
    return reinterpret_cast<StatusFn>(objc_msgSend)(
        device, sel_registerName("authorizationStatusForMediaType:"), AVMediaTypeVideo);
  };
  long now = status();
  if (now == 0) {
    // The first use: macOS shows its prompt and answers on a queue of its own.
    struct Answer {
      std::mutex mu;
      std::condition_variable cv;
      bool given = false;
    };
    auto answer = std::make_shared<Answer>();
    using RequestFn = void (*)(Class, SEL, id, void (^)(BOOL));
    reinterpret_cast<RequestFn>(objc_msgSend)(
        device, sel_registerName("requestAccessForMediaType:completionHandler:"), AVMediaTypeVideo,
        ^(BOOL) {
          std::lock_guard lock(answer->mu);
          answer->given = true;
          answer->cv.notify_all();
        });
    std::unique_lock lock(answer->mu);
    answer->cv.wait_for(lock, std::chrono::minutes(1), [&] { return answer->given; });
    now = status();
  }
  switch (now) {
    case 3:
      return CameraAccess::Granted;
    case 2:
      return CameraAccess::Denied;
    case 1:
      return CameraAccess::Restricted;
    default:
      return CameraAccess::Undecided;
  }
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

// Every zone, as much as it can (a goal of 0).
void releaseFreeMemory() { ::malloc_zone_pressure_relief(nullptr, 0); }

}  // namespace zerlan::platform
