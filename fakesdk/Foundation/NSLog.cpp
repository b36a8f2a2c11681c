// NSLog: Apple's line format "YYYY-MM-DD HH:MM:SS.mmm process[pid:tid] message" (local time, the
// thread id in hex), written to standard error with one write(2) so that lines from concurrent
// threads never interleave.
#include "CoreFoundation/cfinternal.h"

#include <fakesdk/foundation_np.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::mutex gCaptureLock;
bool gCapturing = false;
std::string *gCaptured = nullptr;

std::string linePrefix()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char prefix[256];
    std::snprintf(prefix, sizeof prefix, "%s.%03ld %s[%d:%lx] ", stamp, now.tv_nsec / 1000000,
                  program_invocation_short_name, static_cast<int>(getpid()),
                  static_cast<unsigned long>(syscall(SYS_gettid)));
    return prefix;
}

void emit(const std::string &line)
{
    {
        std::lock_guard<std::mutex> guard(gCaptureLock);
        if (gCapturing) {
            gCaptured->append(line);
            return;
        }
    }
    const char *p = line.data();
    size_t left = line.size();
    while (left) {
        ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

} // namespace

extern "C" {

void NSLogv(id format, va_list args)
{
    std::string message = fakecf::formatV(fakecf::utf8Of(format).c_str(), args);
    std::string line = linePrefix() + message;
    if (line.empty() || line.back() != '\n')
        line.push_back('\n');
    emit(line);
}

void NSLog(id format, ...)
{
    va_list args;
    va_start(args, format);
    NSLogv(format, args);
    va_end(args);
}

void NSLogCapture_np(bool on)
{
    std::lock_guard<std::mutex> guard(gCaptureLock);
    gCapturing = on;
    if (!gCaptured)
        gCaptured = new std::string();
    gCaptured->clear();
}

char *NSLogCopyCaptured_np(void)
{
    std::lock_guard<std::mutex> guard(gCaptureLock);
    return strdup(gCaptured ? gCaptured->c_str() : "");
}

} // extern "C"
