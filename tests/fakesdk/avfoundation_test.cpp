// fakesdk's AVFoundation: the camera-less Simulator's answers and exceptions, a registered device
// passed through every device method, sessions that join inputs and outputs by connections, frames
// and photos from a registered camera, and framework internals that reach app-visible methods by
// message send from inside the AVFoundation image.
#include "FakesdkTestSupport.h"

#include <CoreGraphics/CoreGraphics.h>
#include <CoreMedia/CoreMedia.h>
#include <dispatch/dispatch.h>
#include <fakesdk/avfoundation_np.h>
#include <fakesdk/dispatch_np.h>
#include <fakesdk/objc_np.h>
#include <objc/runtime.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

extern "C" {
extern id const AVMediaTypeVideo;
extern id const AVMediaTypeAudio;
extern id const AVMetadataObjectTypeQRCode;
extern id const AVCaptureDeviceTypeBuiltInWideAngleCamera;
extern id const AVCaptureDeviceTypeBuiltInUltraWideCamera;
extern id const AVVideoCodecKey;
extern id const AVVideoCodecTypeH264;
extern id const AVVideoWidthKey;
extern id const AVVideoHeightKey;
extern id const AVFileTypeMPEG4;
extern id const AVCaptureSessionPresetHigh;
extern id const AVCaptureSessionPreset1920x1080;
extern id const AVCaptureSessionPreset640x480;
}

namespace {

using namespace fakesdk_test;

id bare(const char *className) { return class_createInstance(objc_getClass(className), 0); }

// A runtime class whose instances log the selectors they receive (from any thread).
struct CallLog {
    std::mutex lock;
    std::vector<std::string> calls;
    std::vector<id> arguments;
    // Arguments are retained: the framework's objects only live for the callback.
    void add(SEL sel, id argument)
    {
        std::lock_guard guard(lock);
        calls.push_back(sel_getName(sel));
        arguments.push_back(objc_retain(argument));
    }
    void reset()
    {
        std::lock_guard guard(lock);
        for (id argument : arguments)
            objc_release(argument);
        calls.clear();
        arguments.clear();
    }
    size_t size()
    {
        std::lock_guard guard(lock);
        return calls.size();
    }
};
CallLog gLog;

void logTwo(id, SEL sel, id, id argument) { gLog.add(sel, argument); }
void logThree(id, SEL sel, id, id argument, id) { gLog.add(sel, argument); }

std::atomic<long> gFrames{0};
std::atomic<int> gFrameWidth{0}, gFrameHeight{0};
std::atomic<unsigned> gFrameFormat{0};
void onFrame(id, SEL, id, CMSampleBufferRef sample, id)
{
    CVPixelBufferRef pixels = CMSampleBufferGetImageBuffer(sample);
    gFrameWidth = int(CVPixelBufferGetWidth(pixels));
    gFrameHeight = int(CVPixelBufferGetHeight(pixels));
    gFrameFormat = CVPixelBufferGetPixelFormatType(pixels);
    ++gFrames;
}

Class delegateClass()
{
    static Class c = [] {
        Class k = objc_allocateClassPair(objc_getClass("NSObject"), "AVFTestDelegate", 0);
        for (const char *sel : {"captureOutput:willBeginCaptureForResolvedSettings:",
                                "captureOutput:willCapturePhotoForResolvedSettings:",
                                "captureOutput:didCapturePhotoForResolvedSettings:"})
            class_addMethod(k, sel_registerName(sel), reinterpret_cast<IMP>(logTwo), "v@:@@");
        for (const char *sel :
             {"captureOutput:didFinishProcessingPhoto:error:", "captureOutput:didFinishCaptureForResolvedSettings:error:"})
            class_addMethod(k, sel_registerName(sel), reinterpret_cast<IMP>(logThree), "v@:@@@");
        class_addMethod(k, sel_registerName("captureOutput:didOutputSampleBuffer:fromConnection:"),
                        reinterpret_cast<IMP>(onFrame), "v@:@^{opaqueCMSampleBuffer=}@");
        objc_registerClassPair(k);
        return k;
    }();
    return c;
}

class AVFoundationTest : public PooledTest {
protected:
    void TearDown() override
    {
        AVCaptureDeviceUnregisterAll_np();
        PooledTest::TearDown();
    }
    id registerBackCamera(bool flags = true)
    {
        return AVCaptureDeviceRegister_np("Back Camera", "back-1", 1, AVCaptureDeviceTypeBuiltInWideAngleCamera, 640,
                                          480, flags, flags, flags, !flags);
    }
    // A session with the camera's input and one output, each owned by the session.
    id sessionWith(id device, id output)
    {
        id session = make("AVCaptureSession");
        id input = send(cls("AVCaptureDeviceInput"), "deviceInputWithDevice:error:", device, static_cast<id *>(nullptr));
        send<void>(session, "addInput:", input);
        if (output) {
            send<void>(session, "addOutput:", output);
            objc_release(output);
        }
        return session;
    }
};

// ---- the camera-less Simulator

TEST_F(AVFoundationTest, AnInputCannotBeMadeWithoutAConnectedDeviceAndGivesAnError)
{
    id unplugged = objc_retain(registerBackCamera());
    AVCaptureDeviceUnregisterAll_np();
    id bareDevice = bare("AVCaptureDevice");
    for (id device : {id(nil), bareDevice, unplugged}) {
        id error = nil, weak = nil;
        id allocated = send(cls("AVCaptureDeviceInput"), "alloc");
        objc_initWeak(&weak, allocated);
        EXPECT_EQ(send(allocated, "initWithDevice:error:", device, &error), nil);
        EXPECT_EQ(objc_loadWeakRetained(&weak), nil) << "the failed initialiser released the instance";
        objc_destroyWeak(&weak);
        ASSERT_NE(error, nil);
        EXPECT_EQ(text(send(error, "domain")), "AVFoundationErrorDomain");
        EXPECT_EQ(send<long>(error, "code"), -11814);
        error = nil;
        EXPECT_EQ(send(cls("AVCaptureDeviceInput"), "deviceInputWithDevice:error:", device, &error), nil);
        EXPECT_NE(error, nil);
        EXPECT_EQ(send(cls("AVCaptureDeviceInput"), "deviceInputWithDevice:error:", device, static_cast<id *>(nullptr)),
                  nil);
        EXPECT_FALSE(send<bool>(unplugged, "isConnected"));
    }
    objc_release(bareDevice);
    objc_release(unplugged);
}

TEST_F(AVFoundationTest, SessionRefusesUnusableInputsAndRaisesWithApplesReasons)
{
    id session = make("AVCaptureSession");
    id bareInput = bare("AVCaptureDeviceInput");
    id camera = registerBackCamera();
    id owned = send(cls("AVCaptureDeviceInput"), "deviceInputWithDevice:error:", camera, static_cast<id *>(nullptr));
    id other = make("AVCaptureSession");
    send<void>(other, "addInput:", owned);
    struct Case {
        id input;
        const char *reason;
    } cases[] = {
        {nil, "*** -[AVCaptureSession addInput:] Can't add a nil AVCaptureInput"},
        {bareInput, "*** -[AVCaptureSession addInput:] Can't add an AVCaptureDeviceInput that has no device"},
        {owned, "*** -[AVCaptureSession addInput:] An AVCaptureInput instance may not be added to more than one session"},
    };
    for (const Case &c : cases) {
        EXPECT_FALSE(send<bool>(session, "canAddInput:", c.input)) << c.reason;
        EXPECT_EQ(raised([&] { send<void>(session, "addInput:", c.input); }), Raised("NSInvalidArgumentException", c.reason));
    }
    EXPECT_EQ(count(send(session, "inputs")), 0u);
    EXPECT_EQ(raised([&] { send<void>(session, "addOutput:", id(nil)); }),
              Raised("NSInvalidArgumentException", "*** -[AVCaptureSession addOutput:] Can't add a nil AVCaptureOutput"));
    objc_release(bareInput);
    objc_release(other);
    objc_release(session);
}

TEST_F(AVFoundationTest, SessionWithoutInputsRunsAndItsOutputsStayUnconnected)
{
    id session = make("AVCaptureSession");
    id photo = make("AVCapturePhotoOutput");
    id metadata = make("AVCaptureMetadataOutput");
    EXPECT_TRUE(send<bool>(session, "canAddOutput:", photo));
    send<void>(session, "addOutput:", photo);
    send<void>(session, "addOutput:", metadata);
    id second = make("AVCaptureSession");
    EXPECT_FALSE(send<bool>(second, "canAddOutput:", photo));
    EXPECT_EQ(raised([&] { send<void>(second, "addOutput:", photo); }).second,
              "*** -[AVCaptureSession addOutput:] An AVCaptureOutput instance may not be added to more than one session");
    send<void>(session, "startRunning");
    EXPECT_TRUE(send<bool>(session, "isRunning"));
    EXPECT_EQ(count(send(photo, "connections")), 0u);
    EXPECT_EQ(send(photo, "connectionWithMediaType:", AVMediaTypeVideo), nil);
    EXPECT_EQ(count(send(session, "outputs")), 2u);

    id settings = send(cls("AVCapturePhotoSettings"), "photoSettings");
    id delegate = send(reinterpret_cast<id>(delegateClass()), "new");
    EXPECT_EQ(raised([&] { send<void>(photo, "capturePhotoWithSettings:delegate:", settings, delegate); }),
              Raised("NSInvalidArgumentException",
                     "*** -[AVCapturePhotoOutput capturePhotoWithSettings:delegate:] No active and enabled video connection"));

    EXPECT_EQ(count(send(metadata, "availableMetadataObjectTypes")), 0u);
    id qr = send(cls("NSArray"), "arrayWithObject:", AVMetadataObjectTypeQRCode);
    EXPECT_EQ(raised([&] { send<void>(metadata, "setMetadataObjectTypes:", qr); }),
              Raised("NSInvalidArgumentException", "*** -[AVCaptureMetadataOutput setMetadataObjectTypes:] Unsupported "
                                                   "type found - use -availableMetadataObjectTypes"));
    EXPECT_EQ(raised([&] { send<void>(metadata, "setMetadataObjectTypes:", id(nil)); }).first, "");
    EXPECT_EQ(count(send(metadata, "metadataObjectTypes")), 0u);

    send<void>(session, "stopRunning");
    EXPECT_FALSE(send<bool>(session, "isRunning"));
    for (id o : {photo, metadata, delegate, second, session})
        objc_release(o);
}

TEST_F(AVFoundationTest, SessionNotesWhatReachedItsOwnMethodsUnderTheirOwnNames)
{
    auto received = [](id session) {
        id names = AVCaptureSessionCopyReceivedMessages_np(session);
        std::vector<std::string> out;
        for (unsigned long i = 0; i < count(names); ++i)
            out.push_back(text(send(names, "objectAtIndex:", i)));
        objc_release(names);
        return out;
    };
    id session = make("AVCaptureSession");
    EXPECT_EQ(received(session), std::vector<std::string>{}) << "init is not noted";
    send<void>(session, "stopRunning");
    send<void>(session, "removeInput:", id(nil));
    send<bool>(session, "canAddInput:", id(nil));
    // Reached under another selector, as an exchanged method is: noted under its own name.
    SEL renamed = sel_registerName("renamedStartRunning");
    class_addMethod(object_getClass(session), renamed,
                    class_getMethodImplementation(object_getClass(session), sel_registerName("startRunning")), "v@:");
    send<void>(session, "renamedStartRunning");
    EXPECT_EQ(received(session), (std::vector<std::string>{"stopRunning", "removeInput:", "canAddInput:", "startRunning"}));
    id other = make("AVCaptureSession");
    EXPECT_EQ(received(other), std::vector<std::string>{}) << "each session its own";
    EXPECT_EQ(received(nil), std::vector<std::string>{});
    objc_release(other);
    objc_release(session);
}

// Instances no initialiser ran on (the library fabricates such objects) answer zeros and never raise.
TEST_F(AVFoundationTest, BareInstancesAnswerNilZeroAndNo)
{
    id device = bare("AVCaptureDevice");
    for (const char *sel : {"localizedName", "uniqueID", "deviceType", "activeFormat", "modelID"})
        EXPECT_EQ(send(device, sel), nil) << sel;
    EXPECT_EQ(count(send(device, "formats")), 0u);
    EXPECT_EQ(send<long>(device, "position"), 0);
    for (const char *sel : {"hasFlash", "hasTorch", "isFocusPointOfInterestSupported",
                            "isExposurePointOfInterestSupported", "isConnected"})
        EXPECT_FALSE(send<bool>(device, sel)) << sel;
    EXPECT_FALSE(send<bool>(device, "hasMediaType:", AVMediaTypeVideo));
    EXPECT_FALSE(send<bool>(device, "lockForConfiguration:", static_cast<id *>(nullptr)));
    send<void>(device, "unlockForConfiguration");
    send<void>(device, "setActiveFormat:", id(nil));

    id connection = bare("AVCaptureConnection");
    EXPECT_EQ(count(send(connection, "inputPorts")), 0u);
    EXPECT_FALSE(send<bool>(connection, "isActive"));
    EXPECT_EQ(raised([&] {
                  send<void>(connection, "setAutomaticallyAdjustsVideoMirroring:", false);
                  send<void>(connection, "setVideoMirrored:", true);
              }).first,
              "");
    EXPECT_TRUE(send<bool>(connection, "isVideoMirrored"));

    id output = bare("AVCaptureVideoDataOutput");
    EXPECT_EQ(count(send(output, "connections")), 0u);
    EXPECT_EQ(send(output, "recommendedVideoSettingsForAssetWriterWithOutputFileType:", AVFileTypeMPEG4), nil);
    id photo = bare("AVCapturePhoto");
    EXPECT_EQ(send(photo, "fileDataRepresentation"), nil);
    id port = bare("AVCaptureInputPort");
    EXPECT_FALSE(send<bool>(port, "isEnabled"));
    EXPECT_EQ(send<CMFormatDescriptionRef>(port, "formatDescription"), nullptr);
    for (id o : {device, connection, output, photo, port})
        objc_release(o);
}

// ---- a registered camera

// Without a camera, as the Simulator has none, every lookup and discovery finds nothing (an
// empty list, not nil); a registered camera is found where it fits.
TEST_F(AVFoundationTest, LookupsFindOnlyARegisteredDeviceWhichAnswersEveryDeviceMethod)
{
    id device = cls("AVCaptureDevice"), camera = nil;
    struct Discovery {
        id type;
        long position;
        unsigned long found;
    } discoveries[] = {{AVCaptureDeviceTypeBuiltInWideAngleCamera, 0, 1},
                       {AVCaptureDeviceTypeBuiltInWideAngleCamera, 1, 1},
                       {AVCaptureDeviceTypeBuiltInWideAngleCamera, 2, 0},
                       {AVCaptureDeviceTypeBuiltInUltraWideCamera, 1, 0}};
    for (bool registered : {false, true}) {
        SCOPED_TRACE(registered ? "a registered camera" : "no camera");
        camera = registered ? registerBackCamera(true) : nil;
        EXPECT_EQ(send(device, "defaultDeviceWithMediaType:", AVMediaTypeVideo), camera);
        EXPECT_EQ(send(device, "defaultDeviceWithMediaType:", AVMediaTypeAudio), nil);
        EXPECT_EQ(send(device, "deviceWithUniqueID:", str("back-1")), camera);
        EXPECT_EQ(count(send(device, "devicesWithMediaType:", AVMediaTypeVideo)), registered ? 1u : 0u);
        EXPECT_EQ(send(device, "defaultDeviceWithDeviceType:mediaType:position:",
                       AVCaptureDeviceTypeBuiltInWideAngleCamera, AVMediaTypeVideo, 1L),
                  camera);
        for (const Discovery &d : discoveries) {
            id devices = send(send(cls("AVCaptureDeviceDiscoverySession"),
                                   "discoverySessionWithDeviceTypes:mediaType:position:",
                                   send(cls("NSArray"), "arrayWithObject:", d.type), AVMediaTypeVideo, d.position),
                              "devices");
            ASSERT_NE(devices, nil);
            EXPECT_EQ(count(devices), registered ? d.found : 0u) << text(d.type) << " position " << d.position;
        }
    }
    EXPECT_EQ(text(send(camera, "localizedName")), "Back Camera");
    EXPECT_EQ(send<long>(camera, "position"), 1);
    EXPECT_TRUE(send<bool>(send(camera, "deviceType"), "isEqual:", AVCaptureDeviceTypeBuiltInWideAngleCamera));
    EXPECT_TRUE(send<bool>(camera, "hasFlash") && send<bool>(camera, "hasTorch") &&
                send<bool>(camera, "isFocusPointOfInterestSupported"));
    EXPECT_FALSE(send<bool>(camera, "isExposurePointOfInterestSupported"));

    id formats = send(camera, "formats");
    ASSERT_EQ(count(formats), 2u);
    const FourCharCode subtypes[] = {'420v', 'BGRA'};
    for (unsigned long i = 0; i < 2; ++i) {
        CMFormatDescriptionRef description = send<CMFormatDescriptionRef>(at(formats, i), "formatDescription");
        ASSERT_NE(description, nullptr);
        CMVideoDimensions size = CMVideoFormatDescriptionGetDimensions(description);
        EXPECT_EQ(size.width, 640);
        EXPECT_EQ(size.height, 480);
        EXPECT_EQ(CMFormatDescriptionGetMediaSubType(description), subtypes[i]);
        EXPECT_EQ(count(send(at(formats, i), "videoSupportedFrameRateRanges")), 1u);
    }
    EXPECT_EQ(send(camera, "activeFormat"), at(formats, 0));
    EXPECT_EQ(raised([&] { send<void>(camera, "setActiveFormat:", at(formats, 1)); }).first, "NSGenericException");
    id error = nil;
    ASSERT_TRUE(send<bool>(camera, "lockForConfiguration:", &error));
    EXPECT_EQ(error, nil);
    EXPECT_EQ(AVCaptureDeviceConfigurationLockDepth_np(camera), 1);
    send<void>(camera, "setActiveFormat:", at(formats, 1));
    EXPECT_EQ(send(camera, "activeFormat"), at(formats, 1));
    id foreign = bare("AVCaptureDeviceFormat");
    EXPECT_EQ(raised([&] { send<void>(camera, "setActiveFormat:", foreign); }).first, "NSInvalidArgumentException");
    EXPECT_EQ(send(camera, "activeFormat"), at(formats, 1));
    send<void>(camera, "unlockForConfiguration");
    EXPECT_EQ(AVCaptureDeviceConfigurationLockDepth_np(camera), 0);
    objc_release(foreign);
}

TEST_F(AVFoundationTest, SessionConnectsACameraInputToItsOutputs)
{
    id camera = registerBackCamera();
    id video = make("AVCaptureVideoDataOutput");
    id session = sessionWith(camera, video);
    id input = at(send(session, "inputs"), 0);
    id ports = send(input, "ports");
    ASSERT_EQ(count(ports), 1u);
    id port = at(ports, 0);
    EXPECT_EQ(send(port, "input"), input);
    EXPECT_TRUE(send<bool>(send(port, "mediaType"), "isEqual:", AVMediaTypeVideo));
    EXPECT_EQ(send<long>(port, "sourceDevicePosition"), 1);

    id connections = send(video, "connections");
    ASSERT_EQ(count(connections), 1u);
    id connection = at(connections, 0);
    EXPECT_EQ(send(connection, "output"), video);
    EXPECT_EQ(at(send(connection, "inputPorts"), 0), port);
    EXPECT_EQ(send(video, "connectionWithMediaType:", AVMediaTypeVideo), connection);
    EXPECT_EQ(send(video, "connectionWithMediaType:", AVMediaTypeAudio), nil);
    EXPECT_EQ(count(send(session, "connections")), 1u);
    EXPECT_TRUE(send<bool>(connection, "isVideoOrientationSupported"));
    EXPECT_FALSE(send<bool>(connection, "isActive")) << "not running yet";

    // A second camera input is refused; the camera's 640x480 formats cannot do 1080p.
    id again = send(cls("AVCaptureDeviceInput"), "deviceInputWithDevice:error:", camera, static_cast<id *>(nullptr));
    EXPECT_EQ(raised([&] { send<void>(session, "addInput:", again); }).second,
              "*** -[AVCaptureSession addInput:] Multiple audio/video AVCaptureInputs are not currently supported");
    EXPECT_FALSE(send<bool>(session, "canSetSessionPreset:", AVCaptureSessionPreset1920x1080));
    EXPECT_TRUE(send<bool>(session, "canSetSessionPreset:", AVCaptureSessionPreset640x480));

    // Recommended writer settings follow the buffers: landscape, then upright after rotation.
    struct Orientation {
        long value;
        long width, height;
    } orientations[] = {{3, 640, 480}, {1, 480, 640}, {4, 640, 480}};
    for (const Orientation &o : orientations) {
        send<void>(connection, "setVideoOrientation:", o.value);
        id settings = send(video, "recommendedVideoSettingsForAssetWriterWithOutputFileType:", AVFileTypeMPEG4);
        ASSERT_NE(settings, nil);
        EXPECT_TRUE(send<bool>(send(settings, "objectForKey:", AVVideoCodecKey), "isEqual:", AVVideoCodecTypeH264));
        EXPECT_EQ(send<long>(send(settings, "objectForKey:", AVVideoWidthKey), "integerValue"), o.width);
        EXPECT_EQ(send<long>(send(settings, "objectForKey:", AVVideoHeightKey), "integerValue"), o.height);
    }

    id metadata = make("AVCaptureMetadataOutput");
    send<void>(session, "addOutput:", metadata);
    EXPECT_TRUE(send<bool>(send(metadata, "availableMetadataObjectTypes"), "containsObject:", AVMetadataObjectTypeQRCode));
    send<void>(metadata, "setMetadataObjectTypes:", send(cls("NSArray"), "arrayWithObject:", AVMetadataObjectTypeQRCode));
    EXPECT_EQ(count(send(metadata, "metadataObjectTypes")), 1u);

    objc_retain(video);
    send<void>(session, "removeOutput:", video);
    EXPECT_EQ(count(send(video, "connections")), 0u);
    ASSERT_EQ(count(send(session, "connections")), 1u);
    EXPECT_EQ(send(at(send(session, "connections"), 0), "output"), metadata);
    EXPECT_EQ(count(send(session, "outputs")), 1u);
    EXPECT_TRUE(send<bool>(session, "canAddOutput:", video)) << "a removed output may join again";
    objc_release(video);
    objc_release(metadata);
    objc_release(session);
}

TEST_F(AVFoundationTest, RunningCameraSessionDeliversFramesAndPhotos)
{
    id camera = registerBackCamera();
    id video = make("AVCaptureVideoDataOutput");
    id photo = make("AVCapturePhotoOutput");
    id session = sessionWith(camera, video);
    send<void>(session, "addOutput:", photo);
    id delegate = send(reinterpret_cast<id>(delegateClass()), "new");
    dispatch_queue_t queue = dispatch_queue_create("frames", DISPATCH_QUEUE_SERIAL);
    send<void>(video, "setSampleBufferDelegate:queue:", delegate, queue);
    EXPECT_EQ(objc_retainCount_np(delegate), 1) << "the delegate is not retained";

    gFrames = 0;
    send<void>(session, "startRunning");
    EXPECT_TRUE(send<bool>(send(video, "connectionWithMediaType:", AVMediaTypeVideo), "isActive"));
    ASSERT_TRUE(waitFor(5, ^{ return gFrames.load() >= 3; }));
    EXPECT_EQ(gFrameWidth.load(), 640);
    EXPECT_EQ(gFrameHeight.load(), 480);
    EXPECT_EQ(gFrameFormat.load(), unsigned(kCVPixelFormatType_32BGRA));

    gLog.reset();
    id settings = send(cls("AVCapturePhotoSettings"), "photoSettings");
    send<void>(photo, "capturePhotoWithSettings:delegate:", settings, delegate);
    ASSERT_TRUE(waitFor(5, ^{ return gLog.size() >= 5; }));
    std::vector<std::string> expected = {
        "captureOutput:willBeginCaptureForResolvedSettings:", "captureOutput:willCapturePhotoForResolvedSettings:",
        "captureOutput:didCapturePhotoForResolvedSettings:", "captureOutput:didFinishProcessingPhoto:error:",
        "captureOutput:didFinishCaptureForResolvedSettings:error:"};
    EXPECT_EQ(gLog.calls, expected);
    id data = send(gLog.arguments[3], "fileDataRepresentation");
    ASSERT_GT(send<unsigned long>(data, "length"), 2u);
    auto *bytes = static_cast<const unsigned char *>(send<const void *>(data, "bytes"));
    EXPECT_EQ(bytes[0], 0xFF);
    EXPECT_EQ(bytes[1], 0xD8) << "a JPEG";
    CGImageRef image = send<CGImageRef>(gLog.arguments[3], "CGImageRepresentation");
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(CGImageGetWidth(image), 640u);
    EXPECT_EQ(send<CGImageRef>(gLog.arguments[3], "CGImageRepresentation"), image) << "decoded once, kept by the photo";
    EXPECT_EQ(raised([&] { send<void>(photo, "capturePhotoWithSettings:delegate:", settings, delegate); }).second,
              "*** -[AVCapturePhotoOutput capturePhotoWithSettings:delegate:] Settings may not be re-used");

    send<void>(session, "stopRunning");
    dispatch_sync(queue, ^{
    });
    long afterStop = gFrames.load();
    EXPECT_EQ(AVCaptureVideoDataOutputDeliveredFrames_np(video), afterStop);
    EXPECT_FALSE(waitFor(0.35, ^{ return gFrames.load() > afterStop; })) << "no frame after stopRunning";
    gLog.reset();
    objc_release(photo);
    objc_release(session);
    objc_release(delegate);
    dispatch_release(queue);
}

// ---- framework internals go through the runtime

std::mutex gCallerLock;
std::vector<std::string> gCallers;
id recordConnections(id self, SEL)
{
    Dl_info info{};
    void *caller = __builtin_return_address(0);
    {
        std::lock_guard guard(gCallerLock);
        gCallers.push_back(dladdr(caller, &info) && info.dli_fname ? info.dli_fname : "?");
    }
    SEL original = sel_registerName("avftest_connections");
    return reinterpret_cast<id (*)(id, SEL)>(class_getMethodImplementation(object_getClass(self), original))(self,
                                                                                                              original);
}

TEST_F(AVFoundationTest, SessionAsksOutputsForConnectionsFromInsideTheFramework)
{
    Class output = objc_getClass("AVCaptureOutput");
    Method framework = class_getInstanceMethod(output, sel_registerName("connections"));
    ASSERT_TRUE(class_addMethod(output, sel_registerName("avftest_connections"), reinterpret_cast<IMP>(recordConnections),
                                method_getTypeEncoding(framework)));
    Method replacement = class_getInstanceMethod(output, sel_registerName("avftest_connections"));
    method_exchangeImplementations(framework, replacement);
    gCallers.clear();

    id camera = registerBackCamera();
    id video = make("AVCaptureVideoDataOutput");
    id session = sessionWith(camera, video);
    send<void>(session, "startRunning");
    id seen = AVCaptureSessionCopyOutputConnections_np(session);
    EXPECT_EQ(count(seen), 1u);
    size_t frameworkCalls = gCallers.size();
    send(video, "connections");
    send<void>(session, "stopRunning");
    method_exchangeImplementations(framework, replacement);

    ASSERT_GE(frameworkCalls, 3u) << "addOutput:, startRunning and the hook each ask";
    for (size_t i = 0; i < frameworkCalls; ++i) {
        EXPECT_NE(gCallers[i].find("/System/Library/Frameworks/"), std::string::npos) << gCallers[i];
        EXPECT_NE(gCallers[i].find("AVFoundation"), std::string::npos) << gCallers[i];
    }
    ASSERT_EQ(gCallers.size(), frameworkCalls + 1);
    EXPECT_EQ(gCallers.back().find("/System/Library/"), std::string::npos) << "the test's own call: " << gCallers.back();
    objc_release(seen);
    objc_release(session);
}

// Convenience constructors reach the initialisers by message send, so subclasses and exchanges see them.
id gInitSeen = nil;
void recordingSetSession(id self, SEL sel, id session)
{
    gInitSeen = session;
    reinterpret_cast<void (*)(id, SEL, id)>(class_getMethodImplementation(objc_getClass("AVCaptureVideoPreviewLayer"),
                                                                          sel))(self, sel, session);
}

TEST_F(AVFoundationTest, PreviewLayerRetainsItsSessionAndSetsItByMessage)
{
    Class sub = objc_allocateClassPair(objc_getClass("AVCaptureVideoPreviewLayer"), "AVFTestPreviewLayer", 0);
    class_addMethod(sub, sel_registerName("setSession:"), reinterpret_cast<IMP>(recordingSetSession), "v@:@");
    objc_registerClassPair(sub);

    id session = make("AVCaptureSession");
    long before = objc_retainCount_np(session);
    gInitSeen = nil;
    id layer = send(reinterpret_cast<id>(sub), "layerWithSession:", session);
    EXPECT_EQ(gInitSeen, session) << "initWithSession: sent setSession:";
    EXPECT_EQ(send(layer, "session"), session);
    EXPECT_EQ(objc_retainCount_np(session), before + 1);
    EXPECT_TRUE(send<bool>(send(layer, "videoGravity"), "isEqual:", str("AVLayerVideoGravityResizeAspect")));
    EXPECT_TRUE(send<bool>(layer, "isKindOfClass:", cls("CALayer")));
    EXPECT_EQ(send(layer, "connection"), nil) << "no camera, no connection";

    id camera = registerBackCamera();
    id withCamera = sessionWith(camera, nil);
    send<void>(layer, "setSession:", withCamera);
    EXPECT_EQ(objc_retainCount_np(session), before) << "the old session is released";
    id connection = send(layer, "connection");
    ASSERT_NE(connection, nil);
    EXPECT_EQ(send(connection, "videoPreviewLayer"), layer);
    EXPECT_EQ(send<long>(connection, "videoOrientation"), 1);
    EXPECT_EQ(at(send(connection, "inputPorts"), 0), at(send(at(send(withCamera, "inputs"), 0), "ports"), 0));
    objc_release(withCamera);
    objc_release(session);
}

TEST_F(AVFoundationTest, ConnectionFactoryGoesThroughTheInitialiserAndKeepsWhatItIsGiven)
{
    id camera = registerBackCamera();
    id input = send(cls("AVCaptureDeviceInput"), "deviceInputWithDevice:error:", camera, static_cast<id *>(nullptr));
    id ports = send(input, "ports");
    id output = make("AVCaptureVideoDataOutput");
    id connection = send(cls("AVCaptureConnection"), "connectionWithInputPorts:output:", ports, output);
    EXPECT_EQ(send(connection, "output"), output);
    EXPECT_EQ(count(send(connection, "inputPorts")), 1u);
    EXPECT_TRUE(send<bool>(connection, "isEnabled"));
    EXPECT_FALSE(send<bool>(connection, "isActive"));
    EXPECT_EQ(count(send(output, "connections")), 0u) << "not attached until a session adds it";

    id session = make("AVCaptureSession");
    EXPECT_FALSE(send<bool>(session, "canAddConnection:", connection)) << "its input is in no session";
    send<void>(session, "addInputWithNoConnections:", input);
    send<void>(session, "addOutputWithNoConnections:", output);
    EXPECT_EQ(count(send(output, "connections")), 0u);
    ASSERT_TRUE(send<bool>(session, "canAddConnection:", connection));
    send<void>(session, "addConnection:", connection);
    EXPECT_EQ(send(output, "connectionWithMediaType:", AVMediaTypeVideo), connection);
    EXPECT_FALSE(send<bool>(session, "canAddConnection:", connection));
    send<void>(session, "removeInput:", input);
    EXPECT_EQ(count(send(session, "connections")), 0u);
    EXPECT_EQ(count(send(output, "connections")), 0u);
    objc_release(output);
    objc_release(session);
}

// Every method the injected library exchanges must be the class's own runtime method (not one it
// inherits), or the exchange would change a superclass for every other subclass too.
TEST_F(AVFoundationTest, ExchangedMethodsAreDefinedOnTheirOwnClass)
{
    struct Row {
        const char *className;
        const char *selectors;
        bool classMethod;
    } rows[] = {
        {"AVCaptureDevice", "defaultDeviceWithMediaType: deviceWithUniqueID:", true},
        {"AVCaptureDevice",
         "localizedName uniqueID position deviceType formats activeFormat setActiveFormat: hasFlash hasTorch "
         "isFocusPointOfInterestSupported isExposurePointOfInterestSupported lockForConfiguration: "
         "unlockForConfiguration",
         false},
        {"AVCaptureDeviceDiscoverySession", "devices", false},
        {"AVCaptureDeviceInput", "initWithDevice:error: ports", false},
        {"AVCaptureConnection",
         "initWithInputPorts:output: isVideoOrientationSupported isVideoMirroringSupported videoOrientation "
         "setVideoOrientation:",
         false},
        {"AVCaptureOutput", "connections connectionWithMediaType:", false},
        {"AVCaptureSession",
         "canAddInput: addInput: canAddOutput: addOutput: startRunning stopRunning isRunning addInputWithNoConnections: "
         "addOutputWithNoConnections: addConnection: canAddConnection: canSetSessionPreset: inputs outputs removeInput: "
         "removeOutput:",
         false},
        {"AVCaptureVideoDataOutput", "setSampleBufferDelegate:queue: recommendedVideoSettingsForAssetWriterWithOutputFileType:",
         false},
        {"AVCapturePhotoOutput", "capturePhotoWithSettings:delegate:", false},
        {"AVCaptureMetadataOutput", "availableMetadataObjectTypes setMetadataObjectTypes: setMetadataObjectsDelegate:queue:",
         false},
        {"AVCaptureVideoPreviewLayer", "setSession:", false},
    };
    int checked = 0;
    for (const Row &row : rows) {
        Class c = objc_getClass(row.className);
        ASSERT_NE(c, nullptr) << row.className;
        Class owner = row.classMethod ? object_getClass(reinterpret_cast<id>(c)) : c;
        std::string all = row.selectors;
        for (size_t start = 0; start < all.size();) {
            size_t end = all.find(' ', start);
            std::string name = all.substr(start, end == std::string::npos ? std::string::npos : end - start);
            start = end == std::string::npos ? all.size() : end + 1;
            SEL sel = sel_registerName(name.c_str());
            Method own = class_getInstanceMethod(owner, sel);
            ASSERT_NE(own, nullptr) << row.className << " " << name;
            EXPECT_NE(own, class_getInstanceMethod(class_getSuperclass(owner), sel)) << row.className << " " << name;
            ++checked;
        }
    }
    EXPECT_EQ(checked, 48);
}

} // namespace
