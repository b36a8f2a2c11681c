// The one-shot fetch against real servers that misbehave in each way the frame server might.
#include "ScriptedServer.h"
#include "transport/FetchJPEG.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <dlfcn.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>

using zerlan::testing::ScriptedServer;
using namespace zerlan::objc;

namespace {
std::atomic<bool> gHoldAfterConnect{false};
}

// The fetch's connect, as the library calls it, with a pause after it that a test can ask for: it
// stands for the fetching thread being descheduled between connecting and sending, during which
// the peer goes away. The pause lasts until the peer's reset has arrived (or 10 s).
extern "C" int connect(int fd, const sockaddr *address, socklen_t length)
{
    using Connect = int (*)(int, const sockaddr *, socklen_t);
    static Connect real = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "connect"));
    int result = real(fd, address, length);
    if (result == 0 && gHoldAfterConnect) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        pollfd watch{fd, 0, 0};
        while (!(watch.revents & (POLLHUP | POLLERR)) && std::chrono::steady_clock::now() < deadline)
            ::poll(&watch, 1, 100);
    }
    return result;
}

namespace {

std::string bytesOf(id data)
{
    auto *bytes = send<const char *>(data, sel<"bytes">());
    return std::string(bytes, send<unsigned long>(data, sel<"length">()));
}

int openDescriptors()
{
    int count = 0;
    if (DIR *dir = opendir("/proc/self/fd")) {
        while (readdir(dir))
            ++count;
        closedir(dir);
    }
    return count;
}

Strong<> fetchFrom(const ScriptedServer &server)
{
    return zerlan::transport::fetchJPEG(zerlan::transport::loopbackEndpoint(server.port()));
}

class FetchTest : public ::testing::Test {
protected:
    void SetUp() override { descriptorsBefore_ = openDescriptors(); }
    void TearDown() override { EXPECT_EQ(descriptorsBefore_, openDescriptors()) << "a socket leaked"; }

    AutoreleasePool pool_;
    int descriptorsBefore_ = 0;
};

TEST_F(FetchTest, BodyIsEverythingAfterTheFirstBlankLineOfA200)
{
    struct Case {
        const char *what;
        std::string response;
        const char *body; // nullptr: no frame
    };
    const Case cases[] = {
        {"length header ignored", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n1234567", "1234567"},
        {"HTTP/1.0 with no headers", "HTTP/1.0 200 OK\r\n\r\nx", "x"},
        {"bare status, no reason", "HTTP/1.1 200\r\n\r\nab", "ab"},
        {"prefix test only", "HTTP/1.1 2001 Odd\r\n\r\nab", "ab"},
        {"separators inside the body kept", "HTTP/1.1 200 OK\r\n\r\na\r\n\r\nb", "a\r\n\r\nb"},
        {"no body byte", "HTTP/1.0 200 OK\r\n\r\n", nullptr},
        {"404 with a body", "HTTP/1.1 404 Not Found\r\n\r\nx", nullptr},
        {"HTTP/2", "HTTP/2 200\r\n\r\nx", nullptr},
        {"lower-case protocol", "http/1.1 200 OK\r\n\r\nx", nullptr},
        {"byte before the protocol", " HTTP/1.1 200 OK\r\n\r\nx", nullptr},
        {"no separator", "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nx", nullptr},
        {"empty response", "", nullptr},
        {"invalid UTF-8 in the header", std::string("HTTP/1.1 200 OK\r\nX: \xff\r\n\r\nx"), nullptr},
    };
    for (const Case &c : cases) {
        ScriptedServer server(ScriptedServer::answering(c.response));
        Strong<> frame = fetchFrom(server);
        if (c.body) {
            ASSERT_TRUE(frame) << c.what;
            EXPECT_EQ(c.body, bytesOf(frame)) << c.what;
        } else {
            EXPECT_FALSE(frame) << c.what;
        }
    }
}

TEST_F(FetchTest, SendsTheFixedRequestOnAFreshConnectionEachTime)
{
    std::string seen;
    ScriptedServer server([&](int fd) {
        seen = ScriptedServer::readHead(fd);
        ScriptedServer::writeAll(fd, "HTTP/1.1 200 OK\r\n\r\nj");
        return true;
    });
    ASSERT_TRUE(fetchFrom(server));
    ASSERT_TRUE(fetchFrom(server));
    EXPECT_EQ("GET /frame HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n", seen);
    EXPECT_EQ(2, server.connections());
}

TEST_F(FetchTest, AStalledServerYieldsWhatArrivedBeforeTheSilence)
{
    // One second of silence ends the fetch. The server waits 1.5 s for the client to give up and
    // close; a client still listening by then is sent more, and would return it within the
    // fetch's 2 s deadline.
    ScriptedServer server([](int fd) {
        ScriptedServer::readHead(fd);
        ScriptedServer::writeAll(fd, "HTTP/1.1 200 OK\r\n\r\nab");
        pollfd closed{fd, POLLIN, 0};
        if (::poll(&closed, 1, 1500) == 0)
            ScriptedServer::writeAll(fd, "cd");
        return true;
    });
    auto start = std::chrono::steady_clock::now();
    Strong<> frame = fetchFrom(server);
    auto elapsed = std::chrono::steady_clock::now() - start;
    ASSERT_TRUE(frame);
    EXPECT_EQ("ab", bytesOf(frame)) << "the client waited past its 1 s time-out";
    EXPECT_GE(elapsed, std::chrono::milliseconds(950)) << "gave up before 1 s of silence";
}

TEST_F(FetchTest, NoServerOrAPeerThatResetsOrClosesEarlyGivesNothingAtOnceAndNoSignal)
{
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(zerlan::transport::fetchJPEG(zerlan::transport::loopbackEndpoint(zerlan::testing::closedPort())));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900)) << "refused, not timed out";

    // A reset before the request is read makes the send or the receive fail; either way there
    // is no frame, and SIGPIPE must not end the process.
    auto previous = std::signal(SIGPIPE, SIG_DFL);
    for (int round = 0; round < 20; ++round) {
        ScriptedServer server([](int fd) {
            ScriptedServer::reset(fd);
            return false;
        });
        EXPECT_FALSE(fetchFrom(server));
    }
    ScriptedServer silent([](int fd) { return true; });
    EXPECT_FALSE(fetchFrom(silent)) << "closed without a byte";
    std::signal(SIGPIPE, previous);
}

TEST_F(FetchTest, AResetAfterAWholeAnswerKeepsTheAnswer)
{
    // The reset ends the response as a close would: what arrived counts. The server resets only
    // once the answer has been acknowledged, since a reset drops whatever is still unsent.
    ScriptedServer answeredThenReset([](int fd) {
        ScriptedServer::readHead(fd);
        ScriptedServer::writeAll(fd, "HTTP/1.1 200 OK\r\n\r\nframe");
        int unacknowledged = 1;
        for (int i = 0; i < 1000 && ioctl(fd, SIOCOUTQ, &unacknowledged) == 0 && unacknowledged > 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ScriptedServer::reset(fd);
        return false;
    });
    Strong<> frame = fetchFrom(answeredThenReset);
    ASSERT_TRUE(frame) << "the answer was complete before the reset";
    EXPECT_EQ("frame", bytesOf(frame));
}

TEST(FetchSignalTest, APeerGoneBeforeTheRequestIsSentRaisesNoSignal)
{
    // The server half-closes and then resets before the client sends a byte, so the send itself
    // fails with a broken pipe: without protection SIGPIPE would end the app. Run in a child of
    // its own so that such a death is reported as a failure here.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::signal(SIGPIPE, SIG_DFL);
            ScriptedServer server([](int fd) {
                ::shutdown(fd, SHUT_WR);
                ScriptedServer::reset(fd);
                return false;
            });
            gHoldAfterConnect = true;
            bool fetched = bool(fetchFrom(server));
            std::exit(fetched ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "")
        << "no frame, and no SIGPIPE";
}

// A server that trickles a complete answer a byte every 0.5 s would take about 10 s; the fetch
// gives up at its 2 s deadline with nothing, as a photo capture on the main thread must not wait.
TEST_F(FetchTest, ATricklingServerGetsNoFrameAfterTheDeadline)
{
    const std::string response = "HTTP/1.1 200 OK\r\n\r\nab";
    ScriptedServer server([&](int fd) {
        ScriptedServer::readHead(fd);
        for (char c : response) {
            if (::send(fd, &c, 1, MSG_NOSIGNAL) != 1)
                break; // the client has gone
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
        return true;
    });
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(fetchFrom(server));
    auto took = std::chrono::steady_clock::now() - start;
    // The socket's time-out may end a few milliseconds short of the deadline (kernel ticks); a
    // late wake-up on a busy machine adds to it, but not a whole second.
    EXPECT_GE(took, std::chrono::milliseconds(1950)) << "each gap is under the 1 s silence";
    EXPECT_LT(took, std::chrono::seconds(3)) << "the deadline is 2 s";
}

// The cap is on the body: exactly 32 MiB arrives whole and in order, one byte more is no frame,
// and a server that streams zeros without end is cut off near the cap instead of growing the caller.
TEST_F(FetchTest, LargeBodiesArriveWholeUpTo32MiB)
{
    constexpr size_t kCap = 32u << 20;
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: image/jpeg\r\n\r\n";
    for (size_t size : {kCap, kCap + 1}) {
        std::string body(size, '\0');
        for (size_t i = 0; i < size; ++i) // no period a dropped or repeated chunk could hide in
            body[i] = static_cast<char>((i * 2654435761u) >> 24);
        ScriptedServer server(ScriptedServer::answering(head + body));
        Strong<> frame = fetchFrom(server);
        if (size == kCap) {
            ASSERT_TRUE(frame) << "exactly the cap";
            // Compared whole, not printed: a diff of 32 MiB would outlast the test's time.
            std::string got = bytesOf(frame);
            EXPECT_TRUE(got == body) << got.size() << " bytes, the first wrong one at "
                                     << std::mismatch(got.begin(), got.end(), body.begin(), body.end()).first - got.begin();
        } else {
            EXPECT_FALSE(frame) << "one byte over the cap";
        }
    }

    std::atomic<size_t> streamed{0};
    {
        ScriptedServer endless([&](int fd) {
            ScriptedServer::readHead(fd);
            ScriptedServer::writeAll(fd, head);
            const std::string zeros(65536, '\0');
            for (;;) {
                ssize_t n = ::send(fd, zeros.data(), zeros.size(), MSG_NOSIGNAL);
                if (n <= 0)
                    break;
                streamed += size_t(n);
            }
            return true;
        });
        EXPECT_FALSE(fetchFrom(endless));
    } // waits until the server's sends fail on the closed connection
    // What the server got into the kernel before the client closed: the cap plus socket buffers.
    EXPECT_GE(streamed.load(), kCap);
    EXPECT_LT(streamed.load(), kCap + (16u << 20)) << "the client read on past the cap";
}

} // namespace
