// The frame client polling a frame server on 127.0.0.1:47654, as an app's running session sees
// it: one poll chain however often it is started, every frame to every registered receiver, the
// last good frame kept when the server goes away, bytes that are no image reaching nobody, and the
// cycle's work (fetch, decode, sample buffers) kept on the user-interactive global queue.
#include "CaptureTestSupport.h"
#include "ScriptedServer.h"

#include "frames/FrameClient.h"

#include <fakesdk/media_np.h>

#include <dlfcn.h>

#include <map>

using namespace capture_test;
using zerlan::testing::ScriptedServer;

namespace {
std::mutex gBuiltLock;
std::map<CMSampleBufferRef, std::string> gBuiltOn; // each sample buffer made: the queue that made it
} // namespace

// The platform's call that makes a ready sample buffer, as the library makes it, noting which
// queue ran it. The test program's definition comes before the framework's for every caller.
extern "C" OSStatus CMSampleBufferCreateReadyWithImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer,
                                                             CMVideoFormatDescriptionRef formatDescription,
                                                             const CMSampleTimingInfo *sampleTiming,
                                                             CMSampleBufferRef *sampleBufferOut)
{
    using Create = OSStatus (*)(CFAllocatorRef, CVImageBufferRef, CMVideoFormatDescriptionRef, const CMSampleTimingInfo *,
                                CMSampleBufferRef *);
    static Create real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "CMSampleBufferCreateReadyWithImageBuffer"));
    OSStatus status = real(allocator, imageBuffer, formatDescription, sampleTiming, sampleBufferOut);
    if (status == 0 && sampleBufferOut && *sampleBufferOut) {
        std::lock_guard guard(gBuiltLock);
        gBuiltOn[*sampleBufferOut] = dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL);
    }
    return status;
}

namespace {

std::string builtOn(CMSampleBufferRef buffer)
{
    std::lock_guard guard(gBuiltLock);
    auto found = gBuiltOn.find(buffer);
    return found == gBuiltOn.end() ? "<not made by the platform's call>" : found->second;
}

const char *const kNoImage = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nthis is not a picture";

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
TEST_F(PollTest, PollingNeedsNothingFromTheMainThreadAndBytesThatAreNoImageReachNobody)
{
    // A fetch blocks for as long as the server takes: on the main queue it would freeze the app.
    // This thread stands for a busy main thread and never runs its loop, yet polling goes on.
    ScriptedServer server(ScriptedServer::answering(kNoImage), zerlan::transport::kFramePort);
    ASSERT_TRUE(server.listening()) << "port 47654 is busy";
    send<void>(app_.session.get(), sel<"startRunning">());
    ASSERT_TRUE(waitFor([&] { return server.connections() >= 3; }, 20s))
        << "poll cycles, and the pauses between them, ran without the main queue; polling goes on after a bad frame";
    ASSERT_TRUE(drainMainQueue());
    EXPECT_FALSE(ZerlanFrameClient::shared().latestJPEG());
    EXPECT_EQ(0u, video_->size(&Recording::samples));
    EXPECT_EQ(0u, metadata_->size(&Recording::metadata));
    EXPECT_EQ(0, CALayerContentsSetCount_np(layer_));
}

TEST_F(PollTest, OneChainFeedsEveryReceiverAndKeepsTheLastGoodFrame)
{
    std::string payload = "poll-" + std::to_string(getpid());
    std::vector<uint8_t> jpeg = codeFrame(payload).jpeg();
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
    for (const Call &sample : samples)
        EXPECT_EQ("com.apple.root.user-interactive-qos", builtOn(sample.buffer()))
            << "the poll cycle, sample buffers included, runs on the user-interactive global queue";
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
