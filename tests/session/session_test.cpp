// Capture sessions and outputs as an app configures them: which sessions become fabricated, what
// they list and answer, and how the outputs' configuration reaches the library or the system.
#include "CaptureTestSupport.h"
#include "ScriptedServer.h"

#include "inject/Registry.h"
#include "session/Session.h"

#include <fakesdk/avfoundation_np.h>

using namespace capture_test;
using zerlan::testing::ScriptedServer;

namespace {

class SessionTest : public ::testing::Test {
protected:
    void TearDown() override { AVCaptureDeviceUnregisterAll_np(); }

    static BOOL ask(id session, const char *selector, id argument)
    {
        return send<BOOL>(session, sel_registerName(selector), argument);
    }

    // The session methods whose system implementation ran, oldest first.
    std::vector<std::string> receivedBySystem()
    {
        Strong<> names = Strong<>::adopt(AVCaptureSessionCopyReceivedMessages_np(session_));
        return elements(names, text);
    }

    AutoreleasePool pool_;
    Strong<> input_ = fabricatedInput();
    Strong<> session_ = allocInit<"init">("AVCaptureSession");
};

TEST_F(SessionTest, CanAddInputMakesTheSessionFabricatedAndTheSystemHearsNothingOfIt)
{
    EXPECT_FALSE(send<BOOL>(session_.get(), sel<"isRunning">()));
    EXPECT_TRUE(ask(session_, "canAddInput:", input_));
    EXPECT_TRUE(ZerlanMarked(session_, &kFakeSessionKey));

    // From now on the session answers from its own bookkeeping, with no addInput: needed.
    EXPECT_TRUE(send<BOOL>(session_.get(), sel<"isRunning">())) << "running as soon as it is fabricated";
    EXPECT_TRUE(ask(session_, "canAddOutput:", nil));
    EXPECT_TRUE(ask(session_, "canAddConnection:", nil));
    EXPECT_TRUE(ask(session_, "canSetSessionPreset:", string("no such preset")));
    EXPECT_EQ(0u, count(send<id>(session_.get(), sel<"inputs">())));
    send<void>(session_.get(), sel<"stopRunning">());
    EXPECT_TRUE(send<BOOL>(session_.get(), sel<"isRunning">()));

    // Connections given to it are dropped: the system never sees them.
    Strong<> output = allocInit<"init">("AVCaptureVideoDataOutput");
    id connection = send<id>(cls("AVCaptureConnection"), sel<"connectionWithInputPorts:output:">(),
                             send<id>(input_.get(), sel<"ports">()), output.get());
    send<void>(session_.get(), sel<"addConnection:">(), connection);
    EXPECT_EQ(0u, count(send<id>(session_.get(), sel<"connections">())));

    // The rest of an app's configuration of a camera session, and taking it down again.
    send<void>(session_.get(), sel<"addInput:">(), input_.get());
    send<void>(session_.get(), sel<"addInputWithNoConnections:">(), input_.get());
    ASSERT_TRUE(ask(session_, "canAddOutput:", output));
    send<void>(session_.get(), sel<"addOutput:">(), output.get());
    send<void>(session_.get(), sel<"addOutputWithNoConnections:">(), output.get());
    send<void>(session_.get(), sel<"addConnection:">(), static_cast<id>(nil));
    send<void>(session_.get(), sel<"startRunning">());
    send<void>(session_.get(), sel<"stopRunning">());
    send<id>(session_.get(), sel<"outputs">());
    send<void>(session_.get(), sel<"removeOutput:">(), output.get());
    send<void>(session_.get(), sel<"removeInput:">(), input_.get());
    // Only what came before the session was fabricated, and the list of connections, which the
    // library leaves to the system.
    const std::vector<std::string> before{"isRunning", "connections"};
    EXPECT_EQ(before, receivedBySystem()) << "the system heard of the fabricated session";

    // A real input is the system's business, even on a fabricated session: here a camera that
    // has been unplugged since its input was made, which the system refuses.
    id camera = AVCaptureDeviceRegister_np("Real Camera", "real-camera", 1, nil, 1280, 720, false, false, false, false);
    Strong<> real = allocInit<"initWithDevice:error:">("AVCaptureDeviceInput", camera, static_cast<id *>(nullptr));
    ASSERT_TRUE(real);
    AVCaptureDeviceUnregisterAll_np();
    EXPECT_FALSE(ask(session_, "canAddInput:", real)) << "the system's answer";
    EXPECT_EQ((std::vector<std::string>{"isRunning", "connections", "canAddInput:"}), receivedBySystem());
}

TEST_F(SessionTest, AddInputAloneLeavesTheSessionToTheSystem)
{
    send<void>(session_.get(), sel<"addInput:">(), input_.get());
    EXPECT_FALSE(ZerlanMarked(session_, &kFakeSessionKey));
    EXPECT_EQ(0u, count(send<id>(session_.get(), sel<"inputs">()))) << "the system's list";
    EXPECT_EQ((std::vector<id>{input_}), elements(ZerlanSessionObjects(session_, &kSessionInputsKey)))
        << "recorded privately all the same";
    Strong<> output = allocInit<"init">("AVCaptureVideoDataOutput");
    EXPECT_TRUE(ask(session_, "canAddOutput:", output)) << "the system's answer for a real output";
    send<void>(session_.get(), sel<"addOutput:">(), output.get());
    EXPECT_FALSE(ZerlanMarked(output, &kVideoOutputKey));
    EXPECT_EQ((std::vector<id>{output}), elements(send<id>(session_.get(), sel<"outputs">())));
}

TEST_F(SessionTest, AddInputWithNoConnectionsMakesTheSessionFabricated)
{
    send<void>(session_.get(), sel<"addInputWithNoConnections:">(), input_.get());
    send<void>(session_.get(), sel<"addInputWithNoConnections:">(), input_.get());
    EXPECT_TRUE(ZerlanMarked(session_, &kFakeSessionKey));
    EXPECT_EQ((std::vector<id>{input_}), elements(send<id>(session_.get(), sel<"inputs">())));
    send<void>(session_.get(), sel<"removeInput:">(), input_.get());
    EXPECT_EQ(0u, count(send<id>(session_.get(), sel<"inputs">())));
    EXPECT_TRUE(ZerlanMarked(session_, &kFakeSessionKey)) << "never left";
}

// Declared before the tests that start a fabricated session: the frame client must still be idle.
TEST_F(SessionTest, AnUnmarkedSessionRunsAsTheSystemSaysAndPollsNothing)
{
    // A listener on the library's port (this test has a network of its own) counts the fetches.
    ScriptedServer frames([](int) { return true; }, zerlan::transport::kFramePort);
    ASSERT_TRUE(frames.listening()) << "port 47654 is busy";

    // The fabricated input does not make these the library's: only the session's mark does.
    Strong<> output = allocInit<"init">("AVCaptureVideoDataOutput");
    send<void>(session_.get(), sel<"startRunning">());
    send<void>(session_.get(), sel<"stopRunning">());
    send<void>(session_.get(), sel<"removeInput:">(), input_.get());
    send<void>(session_.get(), sel<"removeOutput:">(), output.get());
    bool refused = false;
    try {
        send<void>(session_.get(), sel<"addConnection:">(), static_cast<id>(nil));
    } catch (id) {
        refused = true;
    }
    EXPECT_TRUE(refused) << "the system's refusal of a nil connection";
    EXPECT_EQ((std::vector<std::string>{"startRunning", "stopRunning", "removeInput:", "removeOutput:", "addConnection:"}),
              receivedBySystem());
    EXPECT_FALSE(runMainUntil(1, [&] { return frames.connections() > 0; })) << "the system's session started polling";

    // Once the session is the library's, its start begins polling at once.
    ASSERT_TRUE(ask(session_, "canAddInput:", input_));
    send<void>(session_.get(), sel<"startRunning">());
    EXPECT_TRUE(runMainUntil(10, [&] { return frames.connections() > 0; }));
}

TEST_F(SessionTest, OutputsAreListedOnceAndClassified)
{
    ASSERT_TRUE(ask(session_, "canAddInput:", input_));
    send<void>(session_.get(), sel<"addInput:">(), input_.get());

    struct Kind {
        const char *className;
        const void *mark; // null: listed but unmarked
        bool hasConnection;
    };
    const Kind kinds[] = {
        {"AVCaptureVideoDataOutput", &kVideoOutputKey, true},
        {"AVCapturePhotoOutput", &kPhotoOutputKey, true},
        {"AVCaptureMetadataOutput", &kMetadataOutputKey, false},
        {"AVCaptureMovieFileOutput", nullptr, false},
    };
    const void *marks[] = {&kVideoOutputKey, &kPhotoOutputKey, &kMetadataOutputKey};
    std::vector<id> added;
    for (const Kind &kind : kinds) {
        Strong<> output = allocInit<"init">(kind.className);
        send<void>(session_.get(), sel<"addOutput:">(), output.get());
        send<void>(session_.get(), sel<"addOutputWithNoConnections:">(), output.get());
        added.push_back(output);
        for (const void *mark : marks)
            EXPECT_EQ(mark == kind.mark, ZerlanMarked(output, mark)) << kind.className;
        EXPECT_EQ(kind.hasConnection, objc_hasAssociation_np(output, &kOutputConnectionKey))
            << kind.className << ": video data and photo outputs get their connection on acceptance";
    }
    EXPECT_EQ(added[2], objc_getAssociatedObject(session_, &kMetadataOutputKey));

    id snapshot = send<id>(session_.get(), sel<"outputs">());
    EXPECT_EQ(added, elements(snapshot)) << "insertion order, each once";
    send<void>(session_.get(), sel<"addOutput:">(), static_cast<id>(nil));
    send<void>(session_.get(), sel<"removeOutput:">(), added[1]);
    send<void>(session_.get(), sel<"removeOutput:">(), added[1]);
    EXPECT_EQ(4u, count(snapshot)) << "an earlier answer is a copy";
    EXPECT_EQ((std::vector<id>{added[0], added[2], added[3]}), elements(send<id>(session_.get(), sel<"outputs">())));
    EXPECT_TRUE(ZerlanMarked(added[1], &kPhotoOutputKey)) << "a removed output keeps its mark";
}

class OutputAdapterTest : public ::testing::Test {
protected:
    AutoreleasePool pool_;
    AppSession app_;
    Recorder delegate_;
};

TEST_F(OutputAdapterTest, VideoDelegateIsRecordedForEveryOutputWithoutARetain)
{
    Strong<> loose = allocInit<"init">("AVCaptureVideoDataOutput");
    Strong<> q = Strong<>::adopt(reinterpret_cast<id>(dispatch_queue_create("test.adapter", nullptr)));
    long before = objc_retainCount_np(delegate_.get());
    send<void>(loose.get(), sel<"setSampleBufferDelegate:queue:">(), delegate_.get(), reinterpret_cast<dispatch_queue_t>(q.get()));
    EXPECT_EQ(delegate_.get(), objc_getAssociatedObject(loose, &kVideoDelegateKey));
    EXPECT_EQ(q.get(), objc_getAssociatedObject(loose, &kVideoQueueKey));
    EXPECT_EQ(before, objc_retainCount_np(delegate_.get())) << "the video delegate is not retained";
    EXPECT_EQ(delegate_.get(), send<id>(loose.get(), sel<"sampleBufferDelegate">())) << "passed on to the system";

    send<void>(loose.get(), sel<"setSampleBufferDelegate:queue:">(), static_cast<id>(nil), static_cast<dispatch_queue_t>(nullptr));
    EXPECT_FALSE(objc_hasAssociation_np(loose, &kVideoDelegateKey));
    EXPECT_FALSE(objc_hasAssociation_np(loose, &kVideoQueueKey));
}

TEST_F(OutputAdapterTest, RecommendedVideoSettingsFollowTheConnection)
{
    Strong<> output = app_.add("AVCaptureVideoDataOutput");
    auto settings = [&] {
        return send<id>(output.get(), sel<"recommendedVideoSettingsForAssetWriterWithOutputFileType:">(), string("public.mpeg-4"));
    };
    struct Case {
        long orientation, width, height;
    };
    for (Case c : {Case{3, 640, 480}, Case{1, 480, 640}, Case{2, 480, 640}, Case{4, 640, 480}, Case{7, 640, 480}}) {
        send<void>(AppSession::connectionOf(output), sel<"setVideoOrientation:">(), c.orientation);
        id s = settings();
        EXPECT_EQ(3u, count(s));
        EXPECT_TRUE(isEqualToString(AVVideoCodecTypeH264, send<id>(s, sel<"objectForKey:">(), AVVideoCodecKey)));
        EXPECT_EQ(c.width, integerValue(send<id>(s, sel<"objectForKey:">(), AVVideoWidthKey))) << c.orientation;
        EXPECT_EQ(c.height, integerValue(send<id>(s, sel<"objectForKey:">(), AVVideoHeightKey))) << c.orientation;
    }

    Strong<> loose = allocInit<"init">("AVCaptureVideoDataOutput");
    id type = string("public.mpeg-4");
    id system = send<id>(loose.get(), sel<"zerlan_recommendedVideoSettingsForAssetWriterWithOutputFileType:">(), type);
    id answered = send<id>(loose.get(), sel<"recommendedVideoSettingsForAssetWriterWithOutputFileType:">(), type);
    EXPECT_EQ(system, answered) << "an unaccepted output answers as the system (nil: it has no connection)";
}

TEST_F(OutputAdapterTest, MetadataOutputIsQROnlyAndKeepsItsDelegate)
{
    Strong<> early = allocInit<"init">("AVCaptureMetadataOutput");
    dispatch_queue_t main = dispatch_get_main_queue();
    send<void>(early.get(), sel<"setMetadataObjectsDelegate:queue:">(), delegate_.get(), main);
    EXPECT_FALSE(objc_hasAssociation_np(early, &kMetadataDelegateKey)) << "not accepted yet: the system's setter";
    EXPECT_EQ(delegate_.get(), send<id>(early.get(), sel<"metadataObjectsDelegate">()));
    EXPECT_EQ(0u, count(send<id>(early.get(), sel<"availableMetadataObjectTypes">()))) << "the system's: no camera";

    Strong<> output = app_.add("AVCaptureMetadataOutput");
    id before = send<id>(output.get(), sel<"metadataObjectTypes">());
    send<void>(output.get(), sel<"setMetadataObjectTypes:">(), arrayWithObject(string("org.iso.Aztec")));
    EXPECT_TRUE(send<BOOL>(before, sel<"isEqual:">(), send<id>(output.get(), sel<"metadataObjectTypes">())))
        << "requested types are neither stored nor passed on";
    id types = send<id>(output.get(), sel<"availableMetadataObjectTypes">());
    ASSERT_EQ(1u, count(types));
    EXPECT_TRUE(isEqualToString(AVMetadataObjectTypeQRCode, objectAtIndex(types, 0)));

    // The system's setter is not called, so nothing but the library keeps the delegate and queue
    // that the app may let go of.
    Strong<> q = Strong<>::adopt(reinterpret_cast<id>(dispatch_queue_create("test.metadata", nullptr)));
    long retained = objc_retainCount_np(delegate_.get()), queueRetained = objc_retainCount_np(q);
    send<void>(output.get(), sel<"setMetadataObjectsDelegate:queue:">(), delegate_.get(), reinterpret_cast<dispatch_queue_t>(q.get()));
    EXPECT_EQ(delegate_.get(), objc_getAssociatedObject(output, &kMetadataDelegateKey));
    EXPECT_EQ(retained + 1, objc_retainCount_np(delegate_.get())) << "the metadata delegate is retained";
    EXPECT_EQ(queueRetained + 1, objc_retainCount_np(q)) << "the metadata queue is retained";
    EXPECT_EQ(nil, send<id>(output.get(), sel<"metadataObjectsDelegate">())) << "the system's setter is not called";
}

} // namespace
