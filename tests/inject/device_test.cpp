// The fabricated camera as an app sees it, pass-through to a working camera when the system has
// one, and who is handed the camera by a discovery session.
#include "UnknownCaller.h"
#include "inject/FakeDevice.h"
#include "inject/Registry.h"
#include "objc/Frameworks.h"

#include <fakesdk/avfoundation_np.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>

using namespace zerlan::objc;

extern "C" id SystemCallerDevices(id discoverySession);

namespace {

std::string text(id s)
{
    const char *chars = utf8(s);
    return chars ? chars : "<nil>";
}

id deviceClass()
{
    return cls("AVCaptureDevice");
}

id defaultVideoDevice()
{
    return send<id>(deviceClass(), sel<"defaultDeviceWithMediaType:">(), AVMediaTypeVideo);
}

id discoverySession()
{
    return send<id>(cls("AVCaptureDeviceDiscoverySession"), sel<"discoverySessionWithDeviceTypes:mediaType:position:">(),
                    arrayWithObject(AVCaptureDeviceTypeBuiltInWideAngleCamera), AVMediaTypeVideo, 2L);
}

// What a device says of itself: the fabricated camera has none of a real one's features.
void expectIdentity(id device, const char *name, const char *uniqueID, long position, bool features)
{
    EXPECT_EQ(name, text(send<id>(device, sel<"localizedName">())));
    EXPECT_EQ(uniqueID, text(send<id>(device, sel<"uniqueID">())));
    EXPECT_EQ(position, send<long>(device, sel<"position">()));
    EXPECT_TRUE(isEqualToString(AVCaptureDeviceTypeBuiltInWideAngleCamera, send<id>(device, sel<"deviceType">())));
    for (SEL feature : {sel<"hasFlash">(), sel<"hasTorch">(), sel<"isFocusPointOfInterestSupported">(),
                        sel<"isExposurePointOfInterestSupported">()})
        EXPECT_EQ(features, bool(send<BOOL>(device, feature))) << sel_getName(feature);
}

class DeviceTest : public ::testing::Test {
protected:
    void TearDown() override { AVCaptureDeviceUnregisterAll_np(); }
    AutoreleasePool pool_;
};

TEST_F(DeviceTest, TheFabricatedCameraIdentity)
{
    id device = defaultVideoDevice();
    ASSERT_NE(nil, device);
    EXPECT_EQ(device, defaultVideoDevice()) << "one camera per process";
    EXPECT_EQ(objc_getClass("AVCaptureDevice"), object_getClass(device));
    EXPECT_TRUE(ZerlanMarked(device, &kFakeDeviceKey));
    EXPECT_FALSE(ZerlanMarked(device, &kFakeInputKey)) << "marked under its own key only";
    expectIdentity(device, "Zerlan Camera", "com.zerlan.injected-camera", 1, false);

    id error = reinterpret_cast<id>(device); // any non-nil value: the camera must clear it
    EXPECT_TRUE(send<BOOL>(device, sel<"lockForConfiguration:">(), &error));
    EXPECT_EQ(nil, error);
    EXPECT_TRUE(send<BOOL>(device, sel<"lockForConfiguration:">(), static_cast<id *>(nullptr)));
    send<void>(device, sel<"unlockForConfiguration">());

    EXPECT_EQ(nil, send<id>(deviceClass(), sel<"defaultDeviceWithMediaType:">(), AVMediaTypeAudio)) << "no microphone";
    EXPECT_EQ(nil, send<id>(deviceClass(), sel<"defaultDeviceWithMediaType:">(), nil));
    EXPECT_EQ(device, send<id>(deviceClass(), sel<"deviceWithUniqueID:">(), string("com.zerlan.injected-camera")));
    EXPECT_EQ(nil, send<id>(deviceClass(), sel<"deviceWithUniqueID:">(), string("com.zerlan.other")));
}

TEST_F(DeviceTest, OneFormatOf640By480BGRAThatCannotBeChanged)
{
    id device = defaultVideoDevice();
    id formats = send<id>(device, sel<"formats">());
    ASSERT_EQ(1u, count(formats));
    id format = send<id>(device, sel<"activeFormat">());
    EXPECT_EQ(format, objectAtIndex(formats, 0));
    EXPECT_STREQ("ZerlanDeviceFormat", object_getClassName(format));
    auto description = send<CMFormatDescriptionRef>(format, sel<"formatDescription">());
    ASSERT_NE(nullptr, description);
    CMVideoDimensions size = CMVideoFormatDescriptionGetDimensions(description);
    EXPECT_EQ(640, size.width);
    EXPECT_EQ(480, size.height);
    EXPECT_EQ(kCVPixelFormatType_32BGRA, CMFormatDescriptionGetMediaSubType(description));
    EXPECT_EQ(description, send<CMFormatDescriptionRef>(format, sel<"formatDescription">())) << "made once";
    EXPECT_EQ(0u, count(send<id>(format, sel<"videoSupportedFrameRateRanges">())));

    id other = class_createInstance(objc_getClass("AVCaptureDeviceFormat"), 0);
    send<void>(device, sel<"setActiveFormat:">(), other);
    EXPECT_EQ(format, send<id>(device, sel<"activeFormat">()));
    objc_release(other);

    id port = ZerlanFakeInputPort();
    EXPECT_STREQ("ZerlanInputPort", object_getClassName(port));
    EXPECT_TRUE(isEqualToString(AVMediaTypeVideo, send<id>(port, sel<"mediaType">())));
    EXPECT_EQ(1, send<long>(port, sel<"sourceDevicePosition">()));
    EXPECT_TRUE(isEqualToString(AVCaptureDeviceTypeBuiltInWideAngleCamera, send<id>(port, sel<"sourceDeviceType">())));
    EXPECT_TRUE(send<BOOL>(port, sel<"isEnabled">()));
    EXPECT_EQ(port, ZerlanFakeInputPort());
}

TEST_F(DeviceTest, ARealCameraWinsAndAnswersForItselfThroughEveryMethod)
{
    id real = AVCaptureDeviceRegister_np("Back Camera", "real-1", 2, nil, 1280, 720, true, true, true, true);
    ASSERT_NE(nil, real);
    EXPECT_EQ(real, defaultVideoDevice());
    EXPECT_EQ(real, send<id>(deviceClass(), sel<"deviceWithUniqueID:">(), string("real-1")));
    EXPECT_FALSE(ZerlanMarked(real, &kFakeDeviceKey));
    expectIdentity(real, "Back Camera", "real-1", 2, true);
    id formats = send<id>(real, sel<"formats">());
    ASSERT_EQ(2u, count(formats));
    ASSERT_TRUE(send<BOOL>(real, sel<"lockForConfiguration:">(), static_cast<id *>(nullptr)));
    EXPECT_EQ(1, AVCaptureDeviceConfigurationLockDepth_np(real));
    send<void>(real, sel<"setActiveFormat:">(), objectAtIndex(formats, 1));
    EXPECT_EQ(objectAtIndex(formats, 1), send<id>(real, sel<"activeFormat">())) << "a real device stores it";
    send<void>(real, sel<"unlockForConfiguration">());
    EXPECT_EQ(0, AVCaptureDeviceConfigurationLockDepth_np(real));
    EXPECT_EQ(1u, count(send<id>(discoverySession(), sel<"devices">()))) << "a found device is not joined by ours";
    EXPECT_EQ(real, objectAtIndex(send<id>(discoverySession(), sel<"devices">()), 0));
}

TEST_F(DeviceTest, DiscoveryHandsTheCameraOnlyToAppCode)
{
    id session = discoverySession();
    id fromApp = send<id>(session, sel<"devices">());
    ASSERT_EQ(1u, count(fromApp)) << "even a front-camera query from the app gets our back camera";
    EXPECT_EQ(ZerlanFakeVideoDevice(), objectAtIndex(fromApp, 0));
    EXPECT_EQ(ZerlanFakeVideoDevice(), objectAtIndex(send<id>(session, sel<"devices">()), 0));

    EXPECT_EQ(0u, count(SystemCallerDevices(session))) << "code under /System/Library/ keeps the empty list";

    std::optional<id> fromNowhere = zerlan::testing::sendFromUnknownCaller(session, sel<"devices">());
    if (!fromNowhere)
        GTEST_SKIP() << "no way to run code outside an image here";
    EXPECT_EQ(0u, count(*fromNowhere)) << "a caller that cannot be placed gets nothing";
}

} // namespace
