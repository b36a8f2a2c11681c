// The loopback connect that every fetch and the zerlan command's requests go through.
#include "transport/FetchJPEG.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <cstring>
#include <unistd.h>

namespace {

// A port nothing uses right now: one the system gave a listener that is closed again.
uint16_t freePort()
{
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = zerlan::transport::loopbackEndpoint(0);
    socklen_t length = sizeof address;
    EXPECT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address));
    EXPECT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length));
    ::close(fd);
    return ntohs(address.sin_port);
}

} // namespace

// Where nothing listens, a connect may be given the port it asks for as its own (here forced by
// binding it first) and connect to itself. The server that starts next must still get its port.
TEST(ConnectLoopback, AConnectionToItselfIsRefusedAndLeavesThePortFree)
{
    const sockaddr_in endpoint = zerlan::transport::loopbackEndpoint(freePort());
    int client = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(0, ::bind(client, reinterpret_cast<const sockaddr *>(&endpoint), sizeof endpoint));
    EXPECT_FALSE(zerlan::transport::connectLoopback(client, endpoint));
    ::close(client);

    int server = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(server, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    EXPECT_EQ(0, ::bind(server, reinterpret_cast<const sockaddr *>(&endpoint), sizeof endpoint))
        << "the port is still held after the connection to itself: " << std::strerror(errno);
    EXPECT_EQ(0, ::listen(server, 1));

    int other = ::socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_TRUE(zerlan::transport::connectLoopback(other, endpoint)) << "a real server is connected to";
    ::close(other);
    ::close(server);
}
