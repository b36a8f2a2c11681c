// The frame client polling a frame server on 127.0.0.1:47654, as an app's running session sees
// it: one poll chain however often it is started, every frame to every registered receiver, the
// last good frame kept when the server goes away, and bytes that are no image reaching nobody.
#include "CaptureTestSupport.h"

#include "frames/FrameClient.h"

#include <fakesdk/media_np.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>

using namespace capture_test;

namespace {

// Answers every request on the library's port with a 200 whose body is not an image.
class GarbageServer {
public:
    GarbageServer()
    {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        int on = 1;
        setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(47654);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bound_ = ::bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                 ::listen(listener_, 16) == 0;
        thread_ = std::thread([this] {
            for (;;) {
                int fd = ::accept(listener_, nullptr, nullptr);
                if (fd < 0)
                    return;
                char buffer[512];
                ::recv(fd, buffer, sizeof buffer, 0);
                const char answer[] = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nthis is not a picture";
                ::send(fd, answer, sizeof answer - 1, MSG_NOSIGNAL);
                ::close(fd);
                ++served_;
            }
        });
    }
    ~GarbageServer()
    {
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        thread_.join();
    }
    bool bound() const { return bound_; }
    int served() const { return served_; }

private:
    int listener_;
    bool bound_ = false;
    std::atomic<int> served_{0};
    std::thread thread_;
};

class PollTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        output_ = app_.add("AVCaptureVideoDataOutput");
        send<void>(output_.get(), sel<"setSampleBufferDelegate:queue:">(), video_.get(),
                   reinterpret_cast<dispatch_queue_t>(queue_.get()));
        metadataOutput_ = app_.add("AVCaptureMetadataOutput");
        send<void>(metadataOutput_.get(), sel<"setMetadataObjectsDelegate:queue:">(), metadata_.get(),
                   static_cast<dispatch_queue_t>(nullptr));
        send<void>(layer_.get(), sel<"setSession:">(), app_.session.get());
    }

    AutoreleasePool pool_;
    Recorder video_, metadata_;
    Strong<> queue_ = Strong<>::adopt(reinterpret_cast<id>(dispatch_queue_create("test.poll", nullptr)));
    AppSession app_;
    Strong<> output_, metadataOutput_;
    Strong<> layer_ = allocInit<"init">("AVCaptureVideoPreviewLayer");
};

// Declared first: a frame that decodes must not have been seen earlier in this process.
TEST_F(PollTest, BytesThatAreNoImageReachNobody)
{
    GarbageServer server;
    ASSERT_TRUE(server.bound()) << "port 47654 is busy";
    send<void>(app_.session.get(), sel<"startRunning">());
    ASSERT_TRUE(runMainUntil(10, [&] { return server.served() >= 3; })) << "polling goes on after a bad frame";
    ASSERT_TRUE(drainMainQueue());
    EXPECT_FALSE(ZerlanFrameClient::shared().latestJPEG());
    EXPECT_EQ(0u, video_->size(&Recording::samples));
    EXPECT_EQ(0u, metadata_->size(&Recording::metadata));
    EXPECT_EQ(0, CALayerContentsSetCount_np(layer_));
}

TEST_F(PollTest, PollingNeedsNothingFromTheMainThread)
{
    // A fetch blocks for as long as the server takes: on the main queue it would freeze the app.
    // This thread stands for a busy main thread and never runs its loop, yet polling goes on.
    GarbageServer server;
    ASSERT_TRUE(server.bound()) << "port 47654 is busy";
    send<void>(app_.session.get(), sel<"startRunning">());
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (server.served() < 3 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GE(server.served(), 3) << "poll cycles, and the pauses between them, ran without the main queue";
}

TEST_F(PollTest, OneChainFeedsEveryReceiverAndKeepsTheLastGoodFrame)
{
    std::string payload = "poll-" + std::to_string(getpid());
    Canvas canvas(640, 480);
    canvas.qr(payload, 180, 100);
    std::vector<uint8_t> jpeg = canvas.jpeg();
    FrameServer server(jpeg);
    ASSERT_TRUE(server.waitUntilServing()) << "127.0.0.1:47654 is taken by another server";

    // Started from two threads at once and again through the session: still one poll chain.
    std::thread other([] { ZerlanFrameClient::shared().start(); });
    send<void>(app_.session.get(), sel<"startRunning">());
    send<void>(app_.session.get(), sel<"startRunning">());
    other.join();

    ASSERT_TRUE(runMainUntil(10, [&] {
        return video_->size(&Recording::samples) >= 4 && metadata_->size(&Recording::metadata) >= 1 &&
               CALayerContentsSetCount_np(layer_) >= 1;
    }));
    std::vector<Call> samples = video_->copy(&Recording::samples);
    for (size_t i = 1; i < samples.size(); ++i) {
        CMTime gap = CMTimeSubtract(CMSampleBufferGetPresentationTimeStamp(samples[i].buffer()),
                                    CMSampleBufferGetPresentationTimeStamp(samples[i - 1].buffer()));
        EXPECT_GE(CMTimeGetSeconds(gap), 0.1) << "one cycle at a time, 100 ms after the end of the last";
    }
    EXPECT_EQ("test.poll", samples[0].queue);
    EXPECT_EQ(output_.get(), samples[0].output);
    EXPECT_TRUE(CALayerContentsLastSetOnMainThread_np(layer_));
    EXPECT_EQ(1u, metadata_->size(&Recording::metadata)) << "the same code in every frame is reported once";
    EXPECT_EQ(payload, text(send<id>(objectAtIndex(metadata_->copy(&Recording::metadata)[0].object, 0),
                                     sel<"stringValue">())));

    Strong<> latest = ZerlanFrameClient::shared().latestJPEG();
    ASSERT_TRUE(latest);
    EXPECT_EQ(jpeg, bytesOf(latest)) << "kept as received, not re-encoded";

    // The server goes away: no more frames, and the last good one stays.
    server.stop();
    size_t delivered = video_->size(&Recording::samples);
    EXPECT_FALSE(runMainUntil(0.5, [&] { return video_->size(&Recording::samples) > delivered + 1; }));
    Strong<> kept = ZerlanFrameClient::shared().latestJPEG();
    ASSERT_TRUE(kept);
    EXPECT_EQ(jpeg, bytesOf(kept));
}

} // namespace
