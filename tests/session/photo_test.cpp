// Still photos from an accepted photo output: the frame server's JPEG (fetched on demand before
// the session runs, the frame client's latest frame once it does), empty data with no server,
// delivered once, off the main thread, to delegates that implement the finished-photo callback.
#include "CaptureTestSupport.h"

#include "frames/FrameClient.h"
#include "inject/Registry.h"

using namespace capture_test;

namespace {

class PhotoTest : public ::testing::Test {
protected:
    void capture(id delegate)
    {
        id settings = send<id>(cls("AVCapturePhotoSettings"), sel<"photoSettings">());
        send<void>(output_.get(), sel<"capturePhotoWithSettings:delegate:">(), settings, delegate);
    }

    Call waitForPhoto(size_t index)
    {
        EXPECT_TRUE(runMainUntil(10, [&] { return recorder_->size(&Recording::photos) > index; }));
        auto photos = recorder_->copy(&Recording::photos);
        return index < photos.size() ? photos[index] : Call{};
    }

    AutoreleasePool pool_;
    Recorder recorder_;
    AppSession app_;
    Strong<> output_ = app_.add("AVCapturePhotoOutput");
};

// Declared first: the frame client must not have run yet in this process.
TEST_F(PhotoTest, NoServerGivesAnEmptyPhotoAndNoError)
{
    ASSERT_FALSE(ZerlanFetchJPEG()) << "something serves on 47654";
    capture(recorder_.get());
    Call call = waitForPhoto(0);
    ASSERT_TRUE(call.object);
    EXPECT_EQ(output_.get(), call.output);
    EXPECT_EQ(nil, call.third);
    EXPECT_STREQ("ZerlanPhoto", class_getName(object_getClass(call.object)));
    EXPECT_TRUE(send<BOOL>(call.object.get(), sel<"isKindOfClass:">(), cls("AVCapturePhoto")));
    id data = send<id>(call.object.get(), sel<"fileDataRepresentation">());
    ASSERT_NE(nil, data) << "empty data, never nil";
    EXPECT_EQ(0u, send<unsigned long>(data, sel<"length">()));
    EXPECT_FALSE(call.mainThread);
    EXPECT_EQ("com.apple.root.user-initiated-qos", call.queue);
}

TEST_F(PhotoTest, BeforeStartRunningThePhotoIsOneDirectFetch)
{
    std::vector<uint8_t> jpeg = codeFrame("photo-before").jpeg();
    FrameServer server(jpeg);
    ASSERT_TRUE(server.waitUntilServing()) << "127.0.0.1:47654 is taken by another server";
    long retainedBefore = count(gRetainedFakeObjects);
    capture(recorder_.get());
    EXPECT_EQ(retainedBefore + 1, long(count(gRetainedFakeObjects))) << "each photo is kept for the process";
    Call call = waitForPhoto(0);
    ASSERT_TRUE(call.object);
    id data = send<id>(call.object.get(), sel<"fileDataRepresentation">());
    EXPECT_EQ(jpeg, bytesOf(data));
    EXPECT_EQ(data, send<id>(call.object.get(), sel<"fileDataRepresentation">())) << "the same object every time";
    EXPECT_FALSE(ZerlanFrameClient::shared().latestJPEG()) << "a capture does not start the frame client";
}

TEST_F(PhotoTest, WhileRunningThePhotoIsTheLatestFrame)
{
    std::vector<uint8_t> jpeg = codeFrame("photo-running").jpeg();
    FrameServer server(jpeg);
    ASSERT_TRUE(server.waitUntilServing()) << "127.0.0.1:47654 is taken by another server";
    send<void>(app_.session.get(), sel<"startRunning">());
    ASSERT_TRUE(runMainUntil(10, [] { return bool(ZerlanFrameClient::shared().latestJPEG()); }));

    // With the server gone the frame client's last good frame is still the photo.
    server.stop();
    ASSERT_FALSE(ZerlanFetchJPEG());
    capture(recorder_.get());
    Call call = waitForPhoto(0);
    ASSERT_TRUE(call.object);
    id data = send<id>(call.object.get(), sel<"fileDataRepresentation">());
    EXPECT_EQ(ZerlanFrameClient::shared().latestJPEG().get(), data) << "the frame client's bytes, unchanged";
    EXPECT_EQ(jpeg, bytesOf(data));
}

TEST_F(PhotoTest, OnlyTheFinishedPhotoCallbackIsSent)
{
    long retainedBefore = count(gRetainedFakeObjects);
    std::shared_ptr<Recording> olderCalls;
    Weak older;
    {
        Recorder delegate(false);
        olderCalls = delegate.recording;
        older.store(delegate.get());
        capture(delegate.get());
    }
    capture(nil);
    EXPECT_EQ(retainedBefore + 2, long(count(gRetainedFakeObjects))) << "photos are made even with nobody to take them";

    // The capture holds its delegate until its delivery has run; once the delegate is freed that
    // delivery is over, and it sent the older delegate nothing at all.
    ASSERT_TRUE(runMainUntil(10, [&] { return !older.load(); })) << "the capture let go of its delegate";
    EXPECT_EQ(0u, olderCalls->size(&Recording::others)) << "neither the will-begin nor the older photo callback";
    EXPECT_EQ(0u, olderCalls->size(&Recording::photos));

    capture(recorder_.get());
    ASSERT_TRUE(waitForPhoto(0).object);
    EXPECT_EQ(1u, recorder_->size(&Recording::photos));
}

TEST_F(PhotoTest, AnUnacceptedPhotoOutputIsTheSystems)
{
    Strong<> loose = allocInit<"init">("AVCapturePhotoOutput");
    id settings = send<id>(cls("AVCapturePhotoSettings"), sel<"photoSettings">());
    bool raised = false;
    try {
        send<void>(loose.get(), sel<"capturePhotoWithSettings:delegate:">(), settings, recorder_.get());
    } catch (id exception) {
        raised = true; // the Simulator's refusal without an active video connection
    }
    EXPECT_TRUE(raised);
    EXPECT_FALSE(ZerlanMarked(loose, &kPhotoOutputKey));
}

} // namespace
