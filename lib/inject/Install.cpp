#include "inject/Install.h"

#include "inject/Connections.h"
#include "inject/Diagnostics.h"
#include "inject/FakeDevice.h"
#include "inject/Registry.h"
#include "picker/Interception.h"
#include "session/Outputs.h"
#include "session/Photo.h"
#include "session/Session.h"
#include "transport/FramePort.h"

#include <string>

using namespace zerlan::objc;

std::span<const ZerlanExchangeRow> ZerlanExchangeTable()
{
    // Built on first use: the rows hold function addresses, so they are not constant-initialised,
    // and the initialiser below must not depend on the order of static initialisation.
    static const ZerlanExchangeRow rows[] = {
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
        // In place before presentation is exchanged, so a picker presented right after load can
        // already be dismissed through it.
        {"UIImagePickerController", "dismissViewControllerAnimated:completion:", ZerlanRowKind::added, imp(ZerlanImagePickerDismiss), "UIViewController"},
        {"UIViewController", "presentViewController:animated:completion:", ZerlanRowKind::instance, imp(zerlan_presentViewController_animated_completion)},
    };
    return rows;
}

void ZerlanExchange(Class cls, SEL frameworkSelector, SEL replacementSelector)
{
    Method framework = class_getInstanceMethod(cls, frameworkSelector);
    Method replacement = class_getInstanceMethod(cls, replacementSelector);
    if (framework && replacement)
        method_exchangeImplementations(framework, replacement);
}

void ZerlanExchangeClass(Class cls, SEL frameworkSelector, SEL replacementSelector)
{
    Method framework = class_getClassMethod(cls, frameworkSelector);
    Method replacement = class_getClassMethod(cls, replacementSelector);
    if (framework && replacement)
        method_exchangeImplementations(framework, replacement);
}

void ZerlanInstallRow(const ZerlanExchangeRow &row)
{
    Class target = reinterpret_cast<Class>(send<id>(cls(row.className), sel<"class">()));
    if (!target)
        return;
    SEL selector = sel_registerName(row.selector);
    if (row.kind == ZerlanRowKind::added) {
        if (Method model = class_getInstanceMethod(objc_getClass(row.typesFrom), selector))
            class_addMethod(target, selector, row.implementation, method_getTypeEncoding(model));
        return;
    }
    bool isClassRow = row.kind == ZerlanRowKind::classMethod;
    Method framework = isClassRow ? class_getClassMethod(target, selector) : class_getInstanceMethod(target, selector);
    SEL replacement = sel_registerName((std::string("zerlan_") + row.selector).c_str());
    if (framework) {
        Class holder = isClassRow ? object_getClass(reinterpret_cast<id>(target)) : target;
        class_addMethod(holder, replacement, row.implementation, method_getTypeEncoding(framework));
    }
    if (isClassRow)
        ZerlanExchangeClass(target, selector, replacement);
    else
        ZerlanExchange(target, selector, replacement);
}

// The library's only load-time initialiser. The loader runs it after the frameworks the library
// links against have registered their classes.
__attribute__((constructor)) static void ZerlanInstall()
{
    AutoreleasePool pool;
    ZerlanResetRetainedFakeObjects();
    for (const ZerlanExchangeRow &row : ZerlanExchangeTable())
        ZerlanInstallRow(row);
    ZerlanLog(CFSTR("[ZerlanInject] AVFoundation compatibility layer loaded"));
    ZerlanFramePort();
    if (const char *ignored = zerlan::transport::ignoredFramePort())
        ZerlanLog(CFSTR("[ZerlanInject] ZERLAN_FRAME_PORT \"%s\" is not a port (1 to 65535): fetching frames from 47654"),
                  ignored);
}
