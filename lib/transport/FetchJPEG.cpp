#include "transport/FetchJPEG.h"

#include "objc/Frameworks.h"
#include "transport/FrameLimit.h"
#include "transport/FramePort.h"
#include "transport/SocketOptions.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

using namespace zerlan::objc;

namespace zerlan::transport {

namespace {

constexpr char kRequest[] = "GET /frame HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
constexpr size_t kRequestLength = sizeof kRequest - 1;
static_assert(kRequestLength == 59);
constexpr size_t kChunk = 32768;
// Bounds beyond the per-recv time-out: a server that trickles a byte just inside each time-out
// would otherwise hold the caller (a photo capture on the app's main thread) without end, and one
// that streams without end would grow the app without end. Past either, no frame.
constexpr auto kDeadline = std::chrono::seconds(2);
using Clock = std::chrono::steady_clock;
const unsigned char kSeparator[4] = {'\r', '\n', '\r', '\n'};

// Closes the socket exactly once, on every path.
class Socket {
public:
    Socket() : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {}
    ~Socket()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

bool sendRequest(int fd)
{
    size_t sent = 0;
    while (sent < kRequestLength) {
        ssize_t n = ::send(fd, kRequest + sent, kRequestLength - sent, sendFlags());
        if (n < 1)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

// Reads until the peer closes, fails or stays silent past the receive time-out; whatever
// arrived is the response. Nothing when the deadline passes first or the body outgrows the cap.
Strong<> receiveAll(int fd, Clock::time_point deadline)
{
    Strong<> response = allocInit<"init">("NSMutableData");
    unsigned char chunk[kChunk];
    unsigned long received = 0;
    unsigned long headerEnd = 0; // found once the response outgrows the cap
    for (;;) {
        auto left = std::chrono::ceil<std::chrono::microseconds>(deadline - Clock::now());
        if (left <= std::chrono::microseconds(0))
            return nullptr;
        bool lastStretch = left < std::chrono::seconds(1);
        if (lastStretch) {
            // The last stretch waits only until the deadline; a zero timeval would mean forever.
            timeval shorter{0, static_cast<suseconds_t>(left.count())};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &shorter, sizeof shorter);
        }
        ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n == 0)
            return response;
        if (n < 0)
            return lastStretch && (errno == EAGAIN || errno == EWOULDBLOCK) ? nullptr : response;
        send<void>(response, sel<"appendBytes:length:">(), static_cast<const void *>(chunk), static_cast<unsigned long>(n));
        received += static_cast<unsigned long>(n);
        if (received > kMaxFrameBytes) {
            if (headerEnd == 0) {
                auto *bytes = static_cast<const unsigned char *>(send<const void *>(response, sel<"bytes">()));
                auto *end = bytes + received;
                auto *found = std::search(bytes, end, kSeparator, kSeparator + sizeof kSeparator);
                if (found == end)
                    return nullptr; // no header end within 32 MiB: no answer of ours
                headerEnd = static_cast<unsigned long>(found - bytes) + sizeof kSeparator;
            }
            if (received - headerEnd > kMaxFrameBytes)
                return nullptr;
        }
    }
}

struct ByteRange {
    unsigned long location;
    unsigned long length;
};

Strong<> bodyOf(id response)
{
    AutoreleasePool pool;
    unsigned long length = send<unsigned long>(response, sel<"length">());
    id separator = send<id>(cls("NSData"), sel<"dataWithBytes:length:">(), static_cast<const void *>(kSeparator),
                            sizeof kSeparator);
    auto found = send<ByteRange>(response, sel<"rangeOfData:options:range:">(), separator, 0UL, ByteRange{0, length});
    constexpr unsigned long kNotFound = static_cast<unsigned long>(LONG_MAX);
    if (found.location == kNotFound)
        return nullptr;
    unsigned long headerEnd = found.location + sizeof kSeparator;
    if (!(headerEnd < length))
        return nullptr;

    id headerBytes = send<id>(response, sel<"subdataWithRange:">(), ByteRange{0, found.location});
    constexpr unsigned long kUTF8 = 4;
    Strong<> header = allocInit<"initWithData:encoding:">("NSString", headerBytes, kUTF8);
    if (!header)
        return nullptr;
    if (!send<BOOL>(header, sel<"hasPrefix:">(), string("HTTP/1.1 200")) &&
        !send<BOOL>(header, sel<"hasPrefix:">(), string("HTTP/1.0 200")))
        return nullptr;
    return Strong<>::retain(
        send<id>(response, sel<"subdataWithRange:">(), ByteRange{headerEnd, length - headerEnd}));
}

// BSD socket addresses carry their own length; Linux's have no such field.
template <typename Address>
void setLengthField(Address &address)
{
    if constexpr (requires { address.sin_len; })
        address.sin_len = sizeof address;
}

} // namespace

sockaddr_in loopbackEndpoint(uint16_t port)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    setLengthField(address);
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    return address;
}

bool connectLoopback(int fd, const sockaddr_in &endpoint)
{
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&endpoint), sizeof endpoint) != 0)
        return false;
    sockaddr_in self;
    socklen_t length = sizeof self;
    if (::getsockname(fd, reinterpret_cast<sockaddr *>(&self), &length) != 0)
        return false;
    if (self.sin_port != endpoint.sin_port || self.sin_addr.s_addr != endpoint.sin_addr.s_addr)
        return true;
    // Closed with a reset rather than a FIN, so that no TIME_WAIT keeps the port.
    linger reset{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    return false;
}

Strong<> fetchJPEG(const sockaddr_in &endpoint)
{
    const auto deadline = Clock::now() + kDeadline;
    Strong<> response;
    {
        Socket socket;
        if (socket.fd() < 0)
            return nullptr;
        timeval timeout{1, 0};
        setsockopt(socket.fd(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        setsockopt(socket.fd(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        preventSigPipe(socket.fd());
        if (!connectLoopback(socket.fd(), endpoint))
            return nullptr;
        if (!sendRequest(socket.fd()))
            return nullptr;
        response = receiveAll(socket.fd(), deadline);
    }
    if (!response)
        return nullptr;
    return bodyOf(response);
}

} // namespace zerlan::transport

Strong<> ZerlanFetchJPEG()
{
    return zerlan::transport::fetchJPEG(zerlan::transport::loopbackEndpoint(ZerlanFramePort()));
}
