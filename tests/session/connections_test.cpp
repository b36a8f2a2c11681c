// The fabricated camera's input, its port and the outputs' fabricated connections, and who is
// shown them: app code yes, the system frameworks' own code never.
#include "CaptureTestSupport.h"
#include "UnknownCaller.h"

#include "inject/Connections.h"
#include "inject/FakeDevice.h"
#include "inject/Registry.h"

#include <fakesdk/avfoundation_np.h>

#include <latch>

using namespace capture_test;

extern "C" id SystemCallerConnections(id output);
extern "C" id SystemCallerConnectionWithMediaType(id output, id mediaType);

namespace {

class ConnectionsTest : public ::testing::Test {
protected:
    void TearDown() override { AVCaptureDeviceUnregisterAll_np(); }

    id realCamera()
    {
        return AVCaptureDeviceRegister_np("Real Camera", "real-camera", 1, nil, 1280, 720, false, false, false, false);
    }

    AutoreleasePool pool_;
};

TEST_F(ConnectionsTest, InputForTheFabricatedCamera)
{
    id error = string("stale");
    id device = fabricatedCamera();
    Strong<> input = allocInit<"initWithDevice:error:">("AVCaptureDeviceInput", device, &error);
    ASSERT_TRUE(input);
    EXPECT_EQ(nil, error) << "the caller's error slot is cleared";
    EXPECT_TRUE(ZerlanMarked(input, &kFakeInputKey));

    Strong<> second = fabricatedInput();
    EXPECT_NE(input.get(), second.get()) << "each input is its own object";
    for (id each : {input.get(), second.get()}) {
        id ports = send<id>(each, sel<"ports">());
        ASSERT_EQ(1u, count(ports));
        EXPECT_EQ(ZerlanFakeInputPort(), objectAtIndex(ports, 0));
    }
}

TEST_F(ConnectionsTest, InputForARealCameraIsTheFramework)
{
    id error = nil;
    Strong<> real = allocInit<"initWithDevice:error:">("AVCaptureDeviceInput", realCamera(), &error);
    ASSERT_TRUE(real);
    EXPECT_FALSE(ZerlanMarked(real, &kFakeInputKey));
    id ports = send<id>(real.get(), sel<"ports">());
    ASSERT_GE(count(ports), 1u);
    EXPECT_NE(ZerlanFakeInputPort(), objectAtIndex(ports, 0));

    // A nil device stays the framework's failure, error included.
    Strong<> none = allocInit<"initWithDevice:error:">("AVCaptureDeviceInput", static_cast<id>(nil), &error);
    EXPECT_FALSE(none);
    EXPECT_NE(nil, error);
}

TEST_F(ConnectionsTest, ConnectionOverTheFabricatedPort)
{
    Strong<> output = allocInit<"init">("AVCaptureVideoDataOutput");
    Strong<> realInput = allocInit<"initWithDevice:error:">("AVCaptureDeviceInput", realCamera(), static_cast<id *>(nullptr));
    id realPort = objectAtIndex(send<id>(realInput.get(), sel<"ports">()), 0);
    id both[] = {realPort, ZerlanFakeInputPort()};
    id ports = send<id>(cls("NSArray"), sel<"arrayWithObjects:count:">(), both, 2ul);

    Strong<> connection = allocInit<"initWithInputPorts:output:">("AVCaptureConnection", ports, output.get());
    ASSERT_TRUE(connection);
    EXPECT_TRUE(ZerlanMarked(connection, &kFakeConnectionKey)) << "the fabricated port among others is enough";
    EXPECT_EQ(connection.get(), ZerlanConnectionForOutput(output)) << "it became the output's connection";

    struct Step {
        long set, expect;
    };
    EXPECT_EQ(3, send<long>(connection.get(), sel<"videoOrientation">()));
    for (Step step : {Step{1, 1}, Step{99, 99}, Step{4, 4}}) {
        send<void>(connection.get(), sel<"setVideoOrientation:">(), step.set);
        EXPECT_EQ(step.expect, send<long>(connection.get(), sel<"videoOrientation">()));
    }
    EXPECT_TRUE(send<BOOL>(connection.get(), sel<"isVideoOrientationSupported">()));
    EXPECT_FALSE(send<BOOL>(connection.get(), sel<"isVideoMirroringSupported">()));

    // A newer fabricated connection replaces it as the output's current one.
    Strong<> newer = allocInit<"initWithInputPorts:output:">("AVCaptureConnection", arrayWithObject(ZerlanFakeInputPort()),
                                                             output.get());
    EXPECT_EQ(newer.get(), ZerlanConnectionForOutput(output));
    EXPECT_EQ(3, send<long>(newer.get(), sel<"videoOrientation">()));

    // Over real ports only, the framework builds an ordinary connection and answers for it: a
    // video connection can mirror and keeps the orientation it is given...
    Strong<> real = allocInit<"initWithInputPorts:output:">("AVCaptureConnection", arrayWithObject(realPort), output.get());
    ASSERT_TRUE(real);
    EXPECT_FALSE(ZerlanMarked(real, &kFakeConnectionKey));
    EXPECT_TRUE(send<BOOL>(real.get(), sel<"isVideoMirroringSupported">()));
    send<void>(real.get(), sel<"setVideoOrientation:">(), 1L);
    EXPECT_EQ(1, send<long>(real.get(), sel<"zerlan_videoOrientation">())) << "the framework was given it";
    EXPECT_EQ(1, send<long>(real.get(), sel<"videoOrientation">()));

    // ...and one without a video port refuses orientations.
    Strong<> portless = allocInit<"initWithInputPorts:output:">("AVCaptureConnection", send<id>(cls("NSArray"), sel<"array">()),
                                                                output.get());
    ASSERT_TRUE(portless);
    EXPECT_FALSE(send<BOOL>(portless.get(), sel<"isVideoOrientationSupported">()));
    bool refused = false;
    try {
        send<void>(portless.get(), sel<"setVideoOrientation:">(), 1L);
    } catch (id) {
        refused = true;
    }
    EXPECT_TRUE(refused) << "the framework's refusal";
}

TEST_F(ConnectionsTest, FabricatedInputsAndConnectionsOutliveEverythingTheAppHeld)
{
    // Nothing in the app owns what the library fabricates beyond the moment it is handed out, so
    // the library keeps it for the life of the process.
    Weak input, ownConnection, madeConnection, firstOutput, secondOutput;
    {
        AutoreleasePool inner;
        Strong<> in = fabricatedInput();
        input.store(in);
        Strong<> output = allocInit<"init">("AVCaptureVideoDataOutput");
        firstOutput.store(output);
        ownConnection.store(ZerlanConnectionForOutput(output));
        Strong<> other = allocInit<"init">("AVCaptureVideoDataOutput");
        secondOutput.store(other);
        Strong<> made = allocInit<"initWithInputPorts:output:">("AVCaptureConnection",
                                                                arrayWithObject(ZerlanFakeInputPort()), other.get());
        ASSERT_TRUE(ZerlanMarked(made, &kFakeConnectionKey));
        madeConnection.store(made);
    }
    EXPECT_FALSE(firstOutput.load()) << "the app's own objects are gone";
    EXPECT_FALSE(secondOutput.load()) << "the app's own objects are gone";
    EXPECT_TRUE(input.load()) << "an input made from the fabricated camera";
    EXPECT_TRUE(ownConnection.load()) << "the connection made for an output";
    EXPECT_TRUE(madeConnection.load()) << "a connection the app made over the fabricated port";
}

TEST_F(ConnectionsTest, WhoSeesTheFabricatedConnections)
{
    AppSession app;
    Strong<> video = app.add("AVCaptureVideoDataOutput");
    Strong<> metadata = app.add("AVCaptureMetadataOutput");
    Strong<> unaccepted = allocInit<"init">("AVCaptureVideoDataOutput");

    id connections = send<id>(video.get(), sel<"connections">());
    ASSERT_EQ(1u, count(connections));
    id connection = objectAtIndex(connections, 0);
    EXPECT_TRUE(ZerlanMarked(connection, &kFakeConnectionKey));
    EXPECT_EQ(connection, objectAtIndex(send<id>(video.get(), sel<"connections">()), 0)) << "the same every time";
    EXPECT_EQ(connection, AppSession::connectionOf(video));

    // Code in a /System/Library/ image gets the framework's own (empty) answers.
    EXPECT_EQ(0u, count(SystemCallerConnections(video)));
    EXPECT_EQ(nil, SystemCallerConnectionWithMediaType(video, AVMediaTypeVideo));

    // The metadata output's fabricated connection answers only for video.
    id metadataConnection = AppSession::connectionOf(metadata);
    EXPECT_TRUE(ZerlanMarked(metadataConnection, &kFakeConnectionKey));
    EXPECT_NE(connection, metadataConnection);
    id metadataConnections = send<id>(metadata.get(), sel<"connections">());
    ASSERT_EQ(1u, count(metadataConnections)) << "an accepted metadata output lists its connection too";
    EXPECT_EQ(metadataConnection, objectAtIndex(metadataConnections, 0));
    EXPECT_EQ(nil, send<id>(metadata.get(), sel<"connectionWithMediaType:">(), AVMediaTypeAudio));

    // An output no fabricated session accepted is the framework's, whoever asks.
    EXPECT_EQ(0u, count(send<id>(unaccepted.get(), sel<"connections">())));
    EXPECT_EQ(nil, AppSession::connectionOf(unaccepted));
}

TEST_F(ConnectionsTest, AnUnknownCallerCountsAsAppCode)
{
    // Code in no image (JIT-compiled code, say) cannot be shown to be the system's: it is the app's.
    AppSession app;
    Strong<> video = app.add("AVCaptureVideoDataOutput");
    id connection = AppSession::connectionOf(video);
    std::optional<id> connections = zerlan::testing::sendFromUnknownCaller(video, sel<"connections">());
    if (!connections)
        GTEST_SKIP() << "no way to run code outside an image here";
    ASSERT_EQ(1u, count(*connections));
    EXPECT_EQ(connection, objectAtIndex(*connections, 0));
    EXPECT_EQ(connection, zerlan::testing::sendFromUnknownCaller(video, sel<"connectionWithMediaType:">(), AVMediaTypeVideo));
}

TEST_F(ConnectionsTest, FabricationOnManyThreadsAtOnceKeepsEveryObject)
{
    // This thread holds the retained-object list's lock, as a thread in the middle of its own
    // append would: an input fabricated meanwhile waits for it before joining the list.
    fabricatedCamera();
    unsigned long before = count(gRetainedFakeObjects);
    std::atomic<bool> made{false};
    std::thread fabricator;
    {
        ObjectLock held(gRetainedFakeObjects);
        fabricator = std::thread([&] {
            AutoreleasePool pool;
            fabricatedInput();
            made = true;
        });
        EXPECT_FALSE(waitFor([&] { return made.load(); }, 1s)) << "appended while another thread held the list's lock";
    }
    fabricator.join();
    EXPECT_EQ(before + 1, count(gRetainedFakeObjects));

    // Threads that fabricate at once lose none of each other's appends (ThreadSanitizer sees any
    // append made outside the lock here).
    constexpr int kThreads = 4, kEach = 1000;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            AutoreleasePool pool;
            start.arrive_and_wait();
            for (int i = 0; i < kEach; ++i)
                fabricatedInput();
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(before + 1 + kThreads * kEach, count(gRetainedFakeObjects));
}

TEST_F(ConnectionsTest, FrameworkInternalsKeepTheFrameworksConnections)
{
    // An accepted output that also joins a real session with a real camera: the framework's own
    // code, asking from inside AVFoundation, sees the real connection; the app sees the fabricated one.
    AppSession app;
    Strong<> output = app.add("AVCaptureVideoDataOutput");
    Strong<> real = allocInit<"init">("AVCaptureSession");
    Strong<> realInput = allocInit<"initWithDevice:error:">("AVCaptureDeviceInput", realCamera(), static_cast<id *>(nullptr));
    ASSERT_TRUE(send<BOOL>(real.get(), sel<"canAddInput:">(), realInput.get()));
    send<void>(real.get(), sel<"addInput:">(), realInput.get());
    ASSERT_TRUE(send<BOOL>(real.get(), sel<"canAddOutput:">(), output.get()));
    send<void>(real.get(), sel<"addOutput:">(), output.get());

    Strong<> seen = Strong<>::adopt(AVCaptureSessionCopyOutputConnections_np(real));
    ASSERT_EQ(1u, count(seen));
    EXPECT_FALSE(ZerlanMarked(objectAtIndex(seen, 0), &kFakeConnectionKey));
    id appView = send<id>(output.get(), sel<"connections">());
    ASSERT_EQ(1u, count(appView));
    EXPECT_TRUE(ZerlanMarked(objectAtIndex(appView, 0), &kFakeConnectionKey));
    EXPECT_NE(objectAtIndex(seen, 0), objectAtIndex(appView, 0));
}

} // namespace
