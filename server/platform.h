// What the host command does differently on Linux and on macOS, behind one interface:
// platform_linux.cpp and platform_darwin.cpp implement it, and the build picks one. Everything
// else in server/ and cli/ is written against POSIX and Asio alone.
//
// Descriptors made here are close-on-exec (`zerlan demo` and the tests start other programs,
// which must not hold a client's connection open) and never raise SIGPIPE when written to
// after the peer went away.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <string_view>

namespace zerlan::platform {

// "Linux" or "macOS", for messages that say where a command runs.
extern const std::string_view kSystemName;

// The libavdevice input that reads the host's cameras: "avfoundation" on macOS, "v4l2" on Linux.
extern const std::string_view kCameraInput;

// Whether the system lets this process use a camera. macOS asks the person the first time (its
// prompt names the terminal the command runs in) and this waits up to a minute for the answer
// (Undecided when none came); on Linux there is no such permission (the device file's mode
// decides, and opening the device says so), so it is Granted.
enum class CameraAccess { Granted, Denied, Restricted, Undecided };
CameraAccess cameraAccess();

// The running program's own file, symlinks resolved; empty when the system cannot tell.
std::filesystem::path executablePath();

// socket(2) with close-on-exec set. Returns -1 with errno set on failure.
int openSocket(int family, int type, int protocol);

// accept(2) on `listenFd`: the new connection is non-blocking and close-on-exec. Returns -1
// with errno set (EAGAIN when no connection waits, EMFILE when out of descriptors).
int acceptConnection(int listenFd);

// pipe(2) with close-on-exec on both ends. Returns false with errno set on failure.
bool openPipe(int fds[2]);

// send(2) that never blocks and never raises SIGPIPE, on a socket from openSocket or
// acceptConnection. Returns what send returns.
ssize_t sendNow(int fd, const void* data, size_t size);

// send(2) flags for a blocking send that must not raise SIGPIPE on such a socket.
extern const int kSendNoSignal;

// Hands memory that the allocator keeps after frees back to the system: after a flood of
// clients, which would otherwise leave the process as large as at its peak.
void releaseFreeMemory();

}  // namespace zerlan::platform
