// The library's frame fetch against a server that answers with the fuzzer's bytes: whatever
// arrives, the fetch returns a frame or nothing, and a frame is exactly the bytes after the
// first blank line of a 200 answer.
#include "transport/FetchJPEG.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

using namespace zerlan::objc;

namespace {

// One loopback listener for the whole run; each accepted connection gets the current answer.
struct Answerer {
    int listener = -1;
    uint16_t port = 0;
    std::mutex lock;
    std::string answer;

    Answerer()
    {
        listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = zerlan::transport::loopbackEndpoint(0);
        socklen_t length = sizeof address;
        if (::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || ::listen(listener, 16) != 0 ||
            ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0)
            std::abort();
        port = ntohs(address.sin_port);
        std::thread([this] { serve(); }).detach();
    }

    void serve()
    {
        for (;;) {
            int fd = ::accept(listener, nullptr, nullptr);
            if (fd < 0)
                continue;
            char request[256];
            (void)!::recv(fd, request, sizeof request, 0);
            std::string bytes;
            {
                std::lock_guard guard(lock);
                bytes = answer;
            }
            for (size_t sent = 0; sent < bytes.size();) {
                ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
                if (n <= 0)
                    break;
                sent += size_t(n);
            }
            ::close(fd);
        }
    }
};

Answerer &answerer()
{
    static Answerer *instance = new Answerer;
    return *instance;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Answerer &server = answerer();
    std::string bytes(reinterpret_cast<const char *>(data), size);
    {
        std::lock_guard guard(server.lock);
        server.answer = bytes;
    }
    AutoreleasePool pool;
    Strong<> frame = zerlan::transport::fetchJPEG(zerlan::transport::loopbackEndpoint(server.port));
    size_t blank = bytes.find("\r\n\r\n");
    bool ok = blank != std::string::npos && blank + 4 < bytes.size() &&
              (bytes.rfind("HTTP/1.1 200", 0) == 0 || bytes.rfind("HTTP/1.0 200", 0) == 0);
    if (frame) {
        auto length = send<unsigned long>(frame.get(), sel<"length">());
        auto *body = static_cast<const char *>(send<const void *>(frame.get(), sel<"bytes">()));
        if (!ok || std::string(body, length) != bytes.substr(blank + 4))
            std::abort();
    }
    return 0;
}
