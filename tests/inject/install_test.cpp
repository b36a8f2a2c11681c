// Installation as a loaded library leaves it: every row exchanged in place, the zerlan_ selectors
// reaching the framework, a missing method skipping only its own row, the debug switch fixed.
#include "inject/Connections.h"
#include "inject/Diagnostics.h"
#include "inject/FakeDevice.h"
#include "inject/Install.h"
#include "inject/Registry.h"
#include "picker/Interception.h"
#include "session/Outputs.h"
#include "session/Photo.h"
#include "session/Session.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using namespace zerlan::objc;

namespace {

Method lookUp(const ZerlanExchangeRow &row, const std::string &selector)
{
    Class cls = objc_getClass(row.className);
    SEL s = sel_registerName(selector.c_str());
    return row.kind == ZerlanRowKind::classMethod ? class_getClassMethod(cls, s) : class_getInstanceMethod(cls, s);
}

TEST(InstallTest, EveryRowIsExchangedInPlace)
{
    for (const ZerlanExchangeRow &row : ZerlanExchangeTable()) {
        if (row.kind == ZerlanRowKind::added) {
            // The class now has a method of its own, typed as the one it used to inherit.
            SEL selector = sel_registerName(row.selector);
            Method own = class_getInstanceMethod(objc_getClass(row.className), selector);
            Method inherited = class_getInstanceMethod(objc_getClass(row.typesFrom), selector);
            ASSERT_TRUE(own && inherited) << row.className << " " << row.selector;
            EXPECT_EQ(row.implementation, method_getImplementation(own)) << row.selector;
            EXPECT_NE(row.implementation, method_getImplementation(inherited)) << row.typesFrom << " keeps its own";
            EXPECT_STREQ(method_getTypeEncoding(inherited), method_getTypeEncoding(own)) << row.selector;
            continue;
        }
        Method framework = lookUp(row, row.selector);
        Method original = lookUp(row, std::string("zerlan_") + row.selector);
        ASSERT_NE(nullptr, framework) << row.className << " " << row.selector;
        ASSERT_NE(nullptr, original) << row.className << " zerlan_" << row.selector;
        EXPECT_EQ(row.implementation, method_getImplementation(framework)) << row.selector;
        EXPECT_NE(row.implementation, method_getImplementation(original)) << row.selector;
        EXPECT_STREQ(method_getTypeEncoding(framework), method_getTypeEncoding(original)) << row.selector;
    }
    EXPECT_NE(nullptr, gRetainedFakeObjects) << "the retained-object list exists from load on";
}

TEST(InstallTest, TheTableIsExactlyTheInterceptedMethodsInInstallOrder)
{
    // Install order matters (the dismissal is added before presentation is exchanged), and each
    // row must name the replacement written for its own selector.
    struct Expected {
        const char *className, *selector;
        ZerlanRowKind kind;
        IMP implementation;
    } const expected[] = {
        {"AVCaptureDevice", "defaultDeviceWithMediaType:", ZerlanRowKind::classMethod, imp(zerlan_defaultDeviceWithMediaType)},
        {"AVCaptureDevice", "deviceWithUniqueID:", ZerlanRowKind::classMethod, imp(zerlan_deviceWithUniqueID)},
        {"AVCaptureDevice", "localizedName", ZerlanRowKind::instance, imp(zerlan_localizedName)},
        {"AVCaptureDevice", "uniqueID", ZerlanRowKind::instance, imp(zerlan_uniqueID)},
        {"AVCaptureDevice", "position", ZerlanRowKind::instance, imp(zerlan_position)},
        {"AVCaptureDevice", "deviceType", ZerlanRowKind::instance, imp(zerlan_deviceType)},
        {"AVCaptureDevice", "formats", ZerlanRowKind::instance, imp(zerlan_formats)},
        {"AVCaptureDevice", "activeFormat", ZerlanRowKind::instance, imp(zerlan_activeFormat)},
        {"AVCaptureDevice", "setActiveFormat:", ZerlanRowKind::instance, imp(zerlan_setActiveFormat)},
        {"AVCaptureDevice", "hasFlash", ZerlanRowKind::instance, imp(zerlan_hasFlash)},
        {"AVCaptureDevice", "hasTorch", ZerlanRowKind::instance, imp(zerlan_hasTorch)},
        {"AVCaptureDevice", "isFocusPointOfInterestSupported", ZerlanRowKind::instance, imp(zerlan_isFocusPointOfInterestSupported)},
        {"AVCaptureDevice", "isExposurePointOfInterestSupported", ZerlanRowKind::instance, imp(zerlan_isExposurePointOfInterestSupported)},
        {"AVCaptureDevice", "lockForConfiguration:", ZerlanRowKind::instance, imp(zerlan_lockForConfiguration)},
        {"AVCaptureDevice", "unlockForConfiguration", ZerlanRowKind::instance, imp(zerlan_unlockForConfiguration)},
        {"AVCaptureDeviceDiscoverySession", "devices", ZerlanRowKind::instance, imp(zerlan_devices)},
        {"AVCaptureDeviceInput", "initWithDevice:error:", ZerlanRowKind::instance, imp(zerlan_initWithDevice_error)},
        {"AVCaptureDeviceInput", "ports", ZerlanRowKind::instance, imp(zerlan_ports)},
        {"AVCaptureConnection", "initWithInputPorts:output:", ZerlanRowKind::instance, imp(zerlan_initWithInputPorts_output)},
        {"AVCaptureConnection", "isVideoOrientationSupported", ZerlanRowKind::instance, imp(zerlan_isVideoOrientationSupported)},
        {"AVCaptureConnection", "isVideoMirroringSupported", ZerlanRowKind::instance, imp(zerlan_isVideoMirroringSupported)},
        {"AVCaptureConnection", "videoOrientation", ZerlanRowKind::instance, imp(zerlan_videoOrientation)},
        {"AVCaptureConnection", "setVideoOrientation:", ZerlanRowKind::instance, imp(zerlan_setVideoOrientation)},
        {"AVCaptureOutput", "connections", ZerlanRowKind::instance, imp(zerlan_connections)},
        {"AVCaptureOutput", "connectionWithMediaType:", ZerlanRowKind::instance, imp(zerlan_connectionWithMediaType)},
        {"AVCaptureSession", "canAddInput:", ZerlanRowKind::instance, imp(zerlan_canAddInput)},
        {"AVCaptureSession", "addInput:", ZerlanRowKind::instance, imp(zerlan_addInput)},
        {"AVCaptureSession", "canAddOutput:", ZerlanRowKind::instance, imp(zerlan_canAddOutput)},
        {"AVCaptureSession", "addOutput:", ZerlanRowKind::instance, imp(zerlan_addOutput)},
        {"AVCaptureSession", "startRunning", ZerlanRowKind::instance, imp(zerlan_startRunning)},
        {"AVCaptureSession", "stopRunning", ZerlanRowKind::instance, imp(zerlan_stopRunning)},
        {"AVCaptureSession", "isRunning", ZerlanRowKind::instance, imp(zerlan_isRunning)},
        {"AVCaptureSession", "addInputWithNoConnections:", ZerlanRowKind::instance, imp(zerlan_addInputWithNoConnections)},
        {"AVCaptureSession", "addOutputWithNoConnections:", ZerlanRowKind::instance, imp(zerlan_addOutputWithNoConnections)},
        {"AVCaptureSession", "addConnection:", ZerlanRowKind::instance, imp(zerlan_addConnection)},
        {"AVCaptureSession", "canAddConnection:", ZerlanRowKind::instance, imp(zerlan_canAddConnection)},
        {"AVCaptureSession", "canSetSessionPreset:", ZerlanRowKind::instance, imp(zerlan_canSetSessionPreset)},
        {"AVCaptureSession", "inputs", ZerlanRowKind::instance, imp(zerlan_inputs)},
        {"AVCaptureSession", "outputs", ZerlanRowKind::instance, imp(zerlan_outputs)},
        {"AVCaptureSession", "removeInput:", ZerlanRowKind::instance, imp(zerlan_removeInput)},
        {"AVCaptureSession", "removeOutput:", ZerlanRowKind::instance, imp(zerlan_removeOutput)},
        {"AVCaptureVideoDataOutput", "setSampleBufferDelegate:queue:", ZerlanRowKind::instance, imp(zerlan_setSampleBufferDelegate_queue)},
        {"AVCaptureVideoDataOutput", "recommendedVideoSettingsForAssetWriterWithOutputFileType:", ZerlanRowKind::instance, imp(zerlan_recommendedVideoSettingsForAssetWriterWithOutputFileType)},
        {"AVCapturePhotoOutput", "capturePhotoWithSettings:delegate:", ZerlanRowKind::instance, imp(zerlan_capturePhotoWithSettings_delegate)},
        {"AVCaptureMetadataOutput", "availableMetadataObjectTypes", ZerlanRowKind::instance, imp(zerlan_availableMetadataObjectTypes)},
        {"AVCaptureMetadataOutput", "setMetadataObjectTypes:", ZerlanRowKind::instance, imp(zerlan_setMetadataObjectTypes)},
        {"AVCaptureMetadataOutput", "setMetadataObjectsDelegate:queue:", ZerlanRowKind::instance, imp(zerlan_setMetadataObjectsDelegate_queue)},
        {"AVCaptureVideoPreviewLayer", "setSession:", ZerlanRowKind::instance, imp(zerlan_setSession)},
        {"UIImagePickerController", "isSourceTypeAvailable:", ZerlanRowKind::classMethod, imp(zerlan_isSourceTypeAvailable)},
        {"UIImagePickerController", "isCameraDeviceAvailable:", ZerlanRowKind::classMethod, imp(zerlan_isCameraDeviceAvailable)},
        {"UIImagePickerController", "availableMediaTypesForSourceType:", ZerlanRowKind::classMethod, imp(zerlan_availableMediaTypesForSourceType)},
        {"UIImagePickerController", "availableCaptureModesForCameraDevice:", ZerlanRowKind::classMethod, imp(zerlan_availableCaptureModesForCameraDevice)},
        {"UIImagePickerController", "isFlashAvailableForCameraDevice:", ZerlanRowKind::classMethod, imp(zerlan_isFlashAvailableForCameraDevice)},
        {"UIImagePickerController", "setSourceType:", ZerlanRowKind::instance, imp(zerlan_setSourceType)},
        {"UIImagePickerController", "sourceType", ZerlanRowKind::instance, imp(zerlan_sourceType)},
        {"UIImagePickerController", "setCameraDevice:", ZerlanRowKind::instance, imp(zerlan_setCameraDevice)},
        {"UIImagePickerController", "cameraDevice", ZerlanRowKind::instance, imp(zerlan_cameraDevice)},
        {"UIImagePickerController", "setCameraCaptureMode:", ZerlanRowKind::instance, imp(zerlan_setCameraCaptureMode)},
        {"UIImagePickerController", "cameraCaptureMode", ZerlanRowKind::instance, imp(zerlan_cameraCaptureMode)},
        {"UIImagePickerController", "dismissViewControllerAnimated:completion:", ZerlanRowKind::added, imp(ZerlanImagePickerDismiss)},
        {"UIViewController", "presentViewController:animated:completion:", ZerlanRowKind::instance, imp(zerlan_presentViewController_animated_completion)},
    };
    auto table = ZerlanExchangeTable();
    ASSERT_EQ(std::size(expected), table.size());
    for (size_t i = 0; i < std::size(expected); ++i) {
        const ZerlanExchangeRow &row = table[i];
        SCOPED_TRACE(testing::Message() << "row " << i + 1 << " " << expected[i].selector);
        EXPECT_STREQ(expected[i].className, row.className);
        EXPECT_STREQ(expected[i].selector, row.selector);
        EXPECT_EQ(expected[i].kind, row.kind);
        EXPECT_EQ(expected[i].implementation, row.implementation);
        EXPECT_STREQ(expected[i].kind == ZerlanRowKind::added ? "UIViewController" : nullptr, row.typesFrom);
    }
}

long replaced(id, SEL) { return 42; }
long original(id, SEL) { return 7; }

TEST(InstallTest, AMissingFrameworkMethodSkipsOnlyItsRow)
{
    Class cls = objc_allocateClassPair(objc_getClass("NSObject"), "TestPartialFramework", 0);
    class_addMethod(cls, sel_registerName("present"), imp(original), "q@:");
    objc_registerClassPair(cls);
    const ZerlanExchangeRow rows[] = {
        {"TestPartialFramework", "missing", ZerlanRowKind::instance, imp(replaced)},
        {"TestPartialFramework", "present", ZerlanRowKind::instance, imp(replaced)},
        {"NoSuchFrameworkClass", "present", ZerlanRowKind::instance, imp(replaced)},
    };
    for (const auto &row : rows)
        ZerlanInstallRow(row);
    EXPECT_EQ(nullptr, class_getInstanceMethod(cls, sel_registerName("missing")));
    EXPECT_EQ(nullptr, class_getInstanceMethod(cls, sel_registerName("zerlan_missing")))
        << "no replacement is added where there is nothing to replace";
    id object = send<id>(reinterpret_cast<id>(cls), sel<"new">());
    EXPECT_EQ(42, send<long>(object, sel<"present">()));
    EXPECT_EQ(7, send<long>(object, sel<"zerlan_present">()));
    objc_release(object);
}

TEST(InstallTest, ExchangeNeedsBothMethods)
{
    Class cls = objc_allocateClassPair(objc_getClass("NSObject"), "TestExchangeBoth", 0);
    class_addMethod(cls, sel_registerName("a"), imp(original), "q@:");
    objc_registerClassPair(cls);
    ZerlanExchange(cls, sel_registerName("a"), sel_registerName("zerlan_a"));
    EXPECT_EQ(imp(original), method_getImplementation(class_getInstanceMethod(cls, sel_registerName("a"))));
}

TEST(DiagnosticsTest, TheSwitchIsReadOnce)
{
    bool before = ZerlanDebugEnabled();
    if (before)
        unsetenv("ZERLAN_DEBUG");
    else
        setenv("ZERLAN_DEBUG", "", 1);
    EXPECT_EQ(before, ZerlanDebugEnabled()) << "later changes to the environment have no effect";
}

} // namespace
