// Frame consumption driven directly (no frame server, the client never polls here): what the
// app's preview layers, sample-buffer delegate and metadata delegate receive for each frame.
#include "CaptureTestSupport.h"

#include "frames/FrameClient.h"
#include "frames/MetadataObject.h"
#include "inject/Registry.h"

#include <fakesdk/media_np.h>

#include <algorithm>

using namespace capture_test;

namespace {

std::string payloadFor(const char *name)
{
    return std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "-" + name;
}

Canvas twoCodesFrame(const std::string &left, const std::string &right)
{
    Canvas c(640, 480);
    c.qr(left, 10, 120, 5);
    c.qr(right, 330, 120, 5);
    return c;
}

class ConsumeTest : public ::testing::Test {
protected:
    void consume(const Canvas &canvas)
    {
        Strong<> frame = image(canvas);
        ASSERT_TRUE(frame);
        ZerlanFrameClient::shared().consume(frame);
    }

    Strong<> serialQueue(const char *label)
    {
        return Strong<>::adopt(reinterpret_cast<id>(dispatch_queue_create(label, nullptr)));
    }

    static dispatch_queue_t queue(const Strong<> &q) { return reinterpret_cast<dispatch_queue_t>(q.get()); }
    // Returns once what was queued on q before has run.
    static void drain(const Strong<> &q) { dispatch_sync(queue(q), ^{}); }

    AutoreleasePool pool_;
    Recorder video_, metadata_;
    AppSession app_;
    Canvas plain_ = bands(640, 480, true, 160);
};

TEST_F(ConsumeTest, SampleBufferReachesTheDelegateOnItsQueueOrTheMainThread)
{
    Strong<> output = app_.add("AVCaptureVideoDataOutput");
    Strong<> q = serialQueue("test.video");
    send<void>(output.get(), sel<"setSampleBufferDelegate:queue:">(), video_.get(), queue(q));

    consume(plain_);
    ASSERT_TRUE(runMainUntil(5, [&] { return video_->size(&Recording::samples) == 1; }));
    Call call = video_->copy(&Recording::samples)[0];
    EXPECT_EQ(output.get(), call.output);
    EXPECT_EQ(AppSession::connectionOf(output), call.third) << "the output's one fabricated connection";
    EXPECT_EQ("test.video", call.queue);
    EXPECT_EQ(640u, CVPixelBufferGetWidth(CMSampleBufferGetImageBuffer(call.buffer())));
    EXPECT_EQ(2, call.retainCountInCall) << "the library's reference and the delegate's own";
    ASSERT_TRUE(runMainUntil(5, [&] { return retainCountOf(call.buffer()) == 2; }))
        << "once the delegate returns only the recording and its copy here hold the buffer";

    // The connection's orientation is read for every frame.
    send<void>(call.third, sel<"setVideoOrientation:">(), 1L);
    consume(plain_);
    ASSERT_TRUE(runMainUntil(5, [&] { return video_->size(&Recording::samples) == 2; }));
    CVPixelBufferRef portrait = CMSampleBufferGetImageBuffer(video_->copy(&Recording::samples)[1].buffer());
    EXPECT_EQ(480u, CVPixelBufferGetWidth(portrait));
    EXPECT_EQ(640u, CVPixelBufferGetHeight(portrait));

    // A delegate given no queue is called on the main thread.
    bool raised = false;
    try {
        send<void>(output.get(), sel<"setSampleBufferDelegate:queue:">(), video_.get(), static_cast<dispatch_queue_t>(nullptr));
    } catch (id) {
        raised = true; // the system's setter refuses a nil queue, after the library has stored both
    }
    EXPECT_TRUE(raised);
    consume(plain_);
    ASSERT_TRUE(runMainUntil(5, [&] { return video_->size(&Recording::samples) == 3; }));
    EXPECT_TRUE(video_->copy(&Recording::samples)[2].mainThread);
}

TEST_F(ConsumeTest, DeliveryFollowsTheLatestDelegateAndOutput)
{
    Strong<> q = serialQueue("test.video");
    Strong<> first = app_.add("AVCaptureVideoDataOutput");
    send<void>(first.get(), sel<"setSampleBufferDelegate:queue:">(), video_.get(), queue(q));
    Recorder replacement;
    send<void>(first.get(), sel<"setSampleBufferDelegate:queue:">(), replacement.get(), queue(q));
    consume(plain_);
    ASSERT_TRUE(runMainUntil(5, [&] { return replacement->size(&Recording::samples) == 1; }));

    // A second accepted video output takes over; the first gets nothing more.
    Strong<> second = app_.add("AVCaptureVideoDataOutput");
    send<void>(second.get(), sel<"setSampleBufferDelegate:queue:">(), video_.get(), queue(q));
    consume(plain_);
    ASSERT_TRUE(runMainUntil(5, [&] { return video_->size(&Recording::samples) == 1; }));
    EXPECT_EQ(second.get(), video_->copy(&Recording::samples)[0].output);
    EXPECT_EQ(1u, replacement->size(&Recording::samples));

    // With no output registered, no sample buffer is made at all.
    ZerlanFrameClient::shared().setVideoOutput(nil);
    ASSERT_TRUE(drainMainQueue()) << "earlier frames' layer updates paint whatever is registered when they run";
    Strong<> layer = allocInit<"init">("AVCaptureVideoPreviewLayer");
    send<void>(layer.get(), sel<"setSession:">(), app_.session.get());
    consume(plain_);
    ASSERT_TRUE(runMainUntil(5, [&] { return CALayerContentsSetCount_np(layer) == 1; }));
    drain(q);
    EXPECT_EQ(1u, video_->size(&Recording::samples));
}

// The app switches its video delegate and queue while a frame is being converted. The fabricated
// connection's orientation is read in the middle of consumption; a connection that makes the
// switch when asked puts it exactly there, which no scheduling can.
struct DelegateSwitch {
    id output, delegate;
    dispatch_queue_t queue;
};
DelegateSwitch gSwitch;

long switchDelegateThenAnswer(id self, SEL selector)
{
    send<void>(gSwitch.output, sel<"setSampleBufferDelegate:queue:">(), gSwitch.delegate, gSwitch.queue);
    return sendSuper<long>(object_getClass(self), self, selector);
}

TEST_F(ConsumeTest, EachDelegateIsCalledOnTheQueueGivenWithIt)
{
    Strong<> output = app_.add("AVCaptureVideoDataOutput");
    Strong<> before = serialQueue("test.before"), after = serialQueue("test.after");
    Recorder replacement;
    send<void>(output.get(), sel<"setSampleBufferDelegate:queue:">(), video_.get(), queue(before));

    id connection = AppSession::connectionOf(output);
    Class plain = object_getClass(connection);
    static Class switching = [] {
        Class c = objc_allocateClassPair(objc_getClass("AVCaptureConnection"), "ConsumeTestSwitchingConnection", 0);
        class_addMethod(c, sel_registerName("videoOrientation"), imp(switchDelegateThenAnswer), "q@:");
        objc_registerClassPair(c);
        return c;
    }();
    gSwitch = {output.get(), replacement.get(), queue(after)};
    object_setClass(connection, switching);
    consume(plain_);
    object_setClass(connection, plain);

    ASSERT_TRUE(runMainUntil(5, [&] {
        return video_->size(&Recording::samples) + replacement->size(&Recording::samples) == 1;
    }));
    drain(before);
    drain(after);
    for (const Call &call : video_->copy(&Recording::samples))
        EXPECT_EQ("test.before", call.queue) << "the delegate read before the switch, with its own queue";
    for (const Call &call : replacement->copy(&Recording::samples))
        EXPECT_EQ("test.after", call.queue) << "the delegate read after the switch, with its own queue";
    EXPECT_EQ(1u, video_->size(&Recording::samples) + replacement->size(&Recording::samples));
}

TEST_F(ConsumeTest, OutputsTheAppFreesAreNotKeptAndGetNothing)
{
    Strong<> q = serialQueue("test.freed");
    Weak video, metadata;
    {
        AutoreleasePool inner;
        AppSession app;
        Strong<> v = app.add("AVCaptureVideoDataOutput");
        send<void>(v.get(), sel<"setSampleBufferDelegate:queue:">(), video_.get(), queue(q));
        Strong<> m = app.add("AVCaptureMetadataOutput");
        send<void>(m.get(), sel<"setMetadataObjectsDelegate:queue:">(), metadata_.get(), queue(q));
        consume(codeFrame(payloadFor("registered")));
        ASSERT_TRUE(runMainUntil(5, [&] {
            return video_->size(&Recording::samples) == 1 && metadata_->size(&Recording::metadata) == 1;
        })) << "both outputs were registered";
        drain(q);
        video.store(v);
        metadata.store(m);
    }
    EXPECT_FALSE(video.load()) << "the frame client holds the video data output weakly";
    EXPECT_FALSE(metadata.load()) << "the frame client holds the metadata output weakly";

    consume(codeFrame(payloadFor("after")));
    ASSERT_TRUE(drainMainQueue());
    drain(q);
    EXPECT_EQ(1u, video_->size(&Recording::samples));
    EXPECT_EQ(1u, metadata_->size(&Recording::metadata));
}

// Every layer shows the session's frames: one given a fabricated session (which stays away from
// the system's setter, so the layer keeps its own session), a real one or nil (the system's).
TEST_F(ConsumeTest, EveryPreviewLayerIsPaintedOncePerFrameOnTheMainThread)
{
    auto layerWith = [](std::initializer_list<id> sessions) {
        Strong<> layer = allocInit<"init">("AVCaptureVideoPreviewLayer");
        for (id session : sessions)
            send<void>(layer.get(), sel<"setSession:">(), session);
        return layer;
    };
    Strong<> real = allocInit<"init">("AVCaptureSession");
    Strong<> twice = layerWith({app_.session.get(), app_.session.get()}), fabricated = layerWith({app_.session.get()});
    Strong<> withReal = layerWith({real.get()}), cleared = layerWith({real.get(), nil}), never = layerWith({nil});
    EXPECT_EQ(nil, send<id>(fabricated.get(), sel<"session">()));
    EXPECT_EQ(real.get(), send<id>(withReal.get(), sel<"session">()));
    EXPECT_EQ(nil, send<id>(cleared.get(), sel<"session">()));
    layerWith({app_.session.get()}); // freed before the frame arrives: skipped

    Strong<> frame = image(plain_);
    ZerlanFrameClient::shared().consume(frame);
    const id layers[] = {twice.get(), fabricated.get(), withReal.get(), cleared.get(), never.get()};
    ASSERT_TRUE(runMainUntil(5, [&] {
        return std::all_of(std::begin(layers), std::end(layers), [](id l) { return CALayerContentsSetCount_np(l) >= 1; });
    }));
    id bitmap = bridge(send<CGImageRef>(frame.get(), sel<"CGImage">()));
    for (id layer : layers) {
        EXPECT_EQ(1, CALayerContentsSetCount_np(layer)) << "a layer added twice is painted once per frame";
        EXPECT_TRUE(CALayerContentsLastSetOnMainThread_np(layer));
        EXPECT_EQ(bitmap, send<id>(layer, sel<"contents">()));
        EXPECT_TRUE(isEqualToString(kCAGravityResizeAspectFill, send<id>(layer, sel<"contentsGravity">())));
    }
}

// A preview layer that, while it is being painted, has another thread register a layer and
// notes whether that registration ended before the painting did.
struct PaintingRace {
    id session, late;
    std::thread registrar;
    std::atomic<bool> registered{false};
    bool registeredWhilePainting = false;
};
PaintingRace *gPaintingRace;

void setContentsWhileRegistering(id self, SEL selector, id contents)
{
    if (PaintingRace *race = std::exchange(gPaintingRace, nullptr)) {
        race->registrar = std::thread([race] {
            AutoreleasePool pool;
            send<void>(race->late, sel<"setSession:">(), race->session);
            race->registered = true;
        });
        race->registeredWhilePainting = waitFor([race] { return race->registered.load(); }, 1s);
    }
    sendSuper<void>(object_getClass(self), self, selector, contents);
}

TEST_F(ConsumeTest, LayersAreNotRegisteredWhileAFrameIsPainted)
{
    static std::once_flag declared;
    std::call_once(declared, [] {
        Class c = objc_allocateClassPair(objc_getClass("AVCaptureVideoPreviewLayer"), "ConsumeTestRacingLayer", 0);
        class_addMethod(c, sel_registerName("setContents:"), imp(setContentsWhileRegistering), "v@:@");
        objc_registerClassPair(c);
    });
    Strong<> painted = allocInit<"init">("ConsumeTestRacingLayer");
    send<void>(painted.get(), sel<"setSession:">(), app_.session.get());
    Strong<> late = allocInit<"init">("AVCaptureVideoPreviewLayer");
    PaintingRace race;
    race.session = app_.session.get();
    race.late = late.get();
    gPaintingRace = &race;

    consume(plain_);
    ASSERT_TRUE(runMainUntil(5, [&] { return CALayerContentsSetCount_np(painted) == 1; }));
    race.registrar.join();
    EXPECT_FALSE(race.registeredWhilePainting) << "the layer table was changed while it was being painted";

    consume(plain_);
    EXPECT_TRUE(runMainUntil(5, [&] { return CALayerContentsSetCount_np(late) == 1; })) << "registered after all";
}

TEST_F(ConsumeTest, OneMetadataCallPerChangeOfPayload)
{
    Strong<> output = app_.add("AVCaptureMetadataOutput");
    std::string x = payloadFor("X"), y = payloadFor("Y");
    // Seen before the delegate is set: recorded, never delivered later.
    consume(codeFrame(payloadFor("early")));
    send<void>(output.get(), sel<"setMetadataObjectsDelegate:queue:">(), metadata_.get(),
               static_cast<dispatch_queue_t>(nullptr));

    for (const Canvas &frame : {codeFrame(x), codeFrame(x), plain_, codeFrame(x), codeFrame(y), codeFrame(x)})
        consume(frame);
    ASSERT_TRUE(runMainUntil(5, [&] { return metadata_->size(&Recording::metadata) >= 3; }));
    EXPECT_FALSE(runMainUntil(0.3, [&] { return metadata_->size(&Recording::metadata) > 3; }));

    std::vector<std::string> payloads;
    for (const Call &call : metadata_->copy(&Recording::metadata)) {
        EXPECT_EQ(output.get(), call.output);
        EXPECT_EQ(nil, call.third);
        EXPECT_TRUE(call.mainThread) << "no queue given: the main queue";
        ASSERT_EQ(1u, count(call.object));
        id object = objectAtIndex(call.object, 0);
        EXPECT_STREQ("ZerlanMetadataObject", class_getName(object_getClass(object)));
        EXPECT_TRUE(send<BOOL>(object, sel<"isKindOfClass:">(), cls("AVMetadataMachineReadableCodeObject")));
        EXPECT_TRUE(isEqualToString(AVMetadataObjectTypeQRCode, send<id>(object, sel<"type">())));
        payloads.push_back(text(send<id>(object, sel<"stringValue">())));
    }
    EXPECT_EQ((std::vector<std::string>{x, y, x}), payloads);
}

TEST_F(ConsumeTest, TwoCodesInViewAlternate)
{
    Strong<> output = app_.add("AVCaptureMetadataOutput");
    {
        // The app lets go of its queue once it has handed it over.
        Strong<> q = serialQueue("test.metadata");
        send<void>(output.get(), sel<"setMetadataObjectsDelegate:queue:">(), metadata_.get(), queue(q));
    }
    std::string left = payloadFor("left"), right = payloadFor("right");
    Canvas both = twoCodesFrame(left, right);
    for (int i = 0; i < 4; ++i)
        consume(both);
    ASSERT_TRUE(runMainUntil(5, [&] { return metadata_->size(&Recording::metadata) == 4; }));

    std::vector<std::string> payloads;
    for (const Call &call : metadata_->copy(&Recording::metadata)) {
        EXPECT_EQ("test.metadata", call.queue);
        payloads.push_back(text(send<id>(objectAtIndex(call.object, 0), sel<"stringValue">())));
    }
    ASSERT_TRUE(payloads[0] == left || payloads[0] == right) << payloads[0];
    std::string other = payloads[0] == left ? right : left;
    EXPECT_EQ((std::vector<std::string>{payloads[0], other, payloads[0], other}), payloads);
}

TEST_F(ConsumeTest, MetadataObjectsOutliveTheCallThatHandsThemOut)
{
    Strong<> output = app_.add("AVCaptureMetadataOutput");
    Strong<> q = serialQueue("test.metadata");
    send<void>(output.get(), sel<"setMetadataObjectsDelegate:queue:">(), metadata_.get(), queue(q));
    consume(codeFrame(payloadFor("kept")));
    ASSERT_TRUE(runMainUntil(5, [&] { return metadata_->size(&Recording::metadata) == 1; }));
    drain(q);

    // The delegate lets go of the array it was given: the library keeps the object itself.
    Weak array, object;
    {
        std::lock_guard guard(metadata_->lock);
        array.store(metadata_->metadata[0].object);
        object.store(objectAtIndex(metadata_->metadata[0].object, 0));
        metadata_->metadata.clear();
    }
    EXPECT_FALSE(array.load()) << "nothing else holds the array";
    Strong<> kept = object.load();
    ASSERT_TRUE(kept) << "the metadata object is kept for the life of the process";
    EXPECT_EQ(payloadFor("kept"), text(send<id>(kept.get(), sel<"stringValue">())));
}

TEST_F(ConsumeTest, MetadataObjectKeepsACopyOfItsPayload)
{
    long live = objc_liveObjects_np();
    {
        AutoreleasePool inner;
        Strong<> object = Strong<>::adopt(class_createInstance(ZerlanMetadataObjectClass(), 0));
        Strong<> payload = allocInit<"initWithString:">("NSMutableString", string("before"));
        send<void>(object.get(), sel<"setZerlanPayload:">(), payload.get());
        send<void>(payload.get(), sel<"setString:">(), string("after"));
        EXPECT_EQ("before", text(send<id>(object.get(), sel<"stringValue">())));
        EXPECT_EQ(send<id>(object.get(), sel<"zerlanPayload">()), send<id>(object.get(), sel<"stringValue">()));
        send<void>(object.get(), sel<"setZerlanPayload:">(), string("replaced"));
    }
    EXPECT_EQ(live, objc_liveObjects_np()) << "the payload is released with the object";
}

} // namespace
