// A loopback TCP server on an ephemeral port that plays one scripted behaviour per connection,
// for testing clients against servers that misbehave in exact ways.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace zerlan::testing {

class ScriptedServer {
public:
    // The script gets the accepted connection's descriptor; the server closes it afterwards
    // unless the script returns false (it closed or reset it itself).
    using Script = std::function<bool(int fd)>;

    // Port 0 picks a free one. A fixed port may be taken by another process: see listening().
    explicit ScriptedServer(Script script, uint16_t port = 0) : script_(std::move(script))
    {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        int on = 1;
        setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        listening_ = ::bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                     ::listen(listener_, 16) == 0;
        socklen_t length = sizeof address;
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }

    ~ScriptedServer()
    {
        stopping_ = true;
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        thread_.join();
    }

    bool listening() const { return listening_; }
    uint16_t port() const { return port_; }
    int connections() const { return connections_; }

    // Reads the request head (up to the blank line) so that a script answers after it.
    static std::string readHead(int fd)
    {
        std::string head;
        char c;
        while (head.find("\r\n\r\n") == std::string::npos && ::recv(fd, &c, 1, 0) == 1)
            head += c;
        return head;
    }

    // A script that answers the request with the bytes.
    static Script answering(std::string response)
    {
        return [response](int fd) {
            readHead(fd);
            writeAll(fd, response);
            return true;
        };
    }

    static void writeAll(int fd, const std::string &bytes)
    {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0)
                return;
            done += static_cast<size_t>(n);
        }
    }

    // Closes with an RST instead of a FIN.
    static void reset(int fd)
    {
        linger hard{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        ::close(fd);
    }

private:
    void serve()
    {
        for (;;) {
            int fd = ::accept(listener_, nullptr, nullptr);
            if (fd < 0)
                return;
            if (stopping_) {
                ::close(fd);
                return;
            }
            ++connections_;
            if (script_(fd))
                ::close(fd);
        }
    }

    Script script_;
    int listener_ = -1;
    bool listening_ = false;
    uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> connections_{0};
    std::thread thread_;
};

// A port on which nothing listens (bound and closed again, so the kernel refuses connections).
inline uint16_t closedPort()
{
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

} // namespace zerlan::testing
