// The loopback connect that every fetch and the zerlan command's requests go through.
#include "ScriptedServer.h"
#include "transport/FetchJPEG.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <cstring>
#include <unistd.h>

// Where nothing listens, a connect may be given the port it asks for as its own (here forced by
// binding it first) and connect to itself. The server that starts next must still get its port.
TEST(ConnectLoopback, AConnectionToItselfIsRefusedAndLeavesThePortFree)
{
    const sockaddr_in endpoint = zerlan::transport::loopbackEndpoint(zerlan::testing::closedPort());
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
