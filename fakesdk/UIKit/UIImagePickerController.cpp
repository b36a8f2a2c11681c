// UIImagePickerController on a Simulator without a camera: the library sources exist, the camera
// does not, and choosing the camera as the source raises. The setter asks +isSourceTypeAvailable:
// by message send, as UIKit does, so a replaced availability check is what decides.
#include "UIControllerPrivate.h"

namespace uik {
namespace {

constexpr long kSourcePhotoLibrary = 0, kSourceSavedPhotosAlbum = 2;

ControllerState *state(id self)
{
    return controllerState(self);
}

// ---- class methods

bool isSourceTypeAvailable(id self, SEL, long sourceType)
{
    return sourceType == kSourcePhotoLibrary || sourceType == kSourceSavedPhotosAlbum;
}

id availableMediaTypes(id self, SEL, long sourceType)
{
    if (!msg<bool>(self, "isSourceTypeAvailable:", sourceType))
        return nullptr;
    return array(std::vector<id>{str("public.image"), str("public.movie")});
}

bool isCameraDeviceAvailable(id self, SEL, long cameraDevice)
{
    return false;
}

id availableCaptureModes(id self, SEL, long cameraDevice)
{
    return nullptr;
}

bool isFlashAvailable(id self, SEL, long cameraDevice)
{
    return false;
}

// ---- instance methods

id pickerInitWithNibName(id self, SEL, id nibName, id bundle)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("UIImagePickerController"), self, "initWithNibName:bundle:", nibName,
                                  bundle);
    if (!self)
        return nullptr;
    ControllerState &s = gControllerSlot.get(self);
    s.sourceType = kSourcePhotoLibrary;
    s.mediaTypes = Ref(array(std::vector<id>{str("public.image")}));
    s.videoMaximumDuration = 600;
    s.videoQuality = 1; // UIImagePickerControllerQualityTypeMedium
    s.showsCameraControls = true;
    s.flashMode = 0; // UIImagePickerControllerCameraFlashModeAuto
    return self;
}

long sourceType(id self, SEL)
{
    auto *s = state(self);
    return s ? s->sourceType : 0;
}

void setSourceType(id self, SEL, long sourceType)
{
    id pickerClass = reinterpret_cast<id>(objc_getClass("UIImagePickerController"));
    if (!msg<bool>(pickerClass, "isSourceTypeAvailable:", sourceType))
        fakeobjc::raiseFormat("NSInvalidArgumentException", "Source type %ld not available", sourceType);
    gControllerSlot.get(self).sourceType = sourceType;
}

long cameraDevice(id self, SEL)
{
    auto *s = state(self);
    return s ? s->cameraDevice : 0;
}

void setCameraDevice(id self, SEL, long device)
{
    gControllerSlot.get(self).cameraDevice = device;
}

long cameraCaptureMode(id self, SEL)
{
    auto *s = state(self);
    return s ? s->captureMode : 0;
}

void setCameraCaptureMode(id self, SEL, long mode)
{
    gControllerSlot.get(self).captureMode = mode;
}

long cameraFlashMode(id self, SEL)
{
    auto *s = state(self);
    return s ? s->flashMode : 0;
}

void setCameraFlashMode(id self, SEL, long mode)
{
    gControllerSlot.get(self).flashMode = mode;
}

id mediaTypes(id self, SEL)
{
    auto *s = state(self);
    return s ? s->mediaTypes.get() : nullptr;
}

void setMediaTypes(id self, SEL, id types)
{
    if (!types || msg<unsigned long>(types, "count") == 0)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "No available types for source %ld", sourceType(self, nullptr));
    gControllerSlot.get(self).mediaTypes = Ref::adopt(msg<id>(types, "copy"));
}

bool allowsEditing(id self, SEL)
{
    auto *s = state(self);
    return s && s->allowsEditing;
}

void setAllowsEditing(id self, SEL, bool value)
{
    gControllerSlot.get(self).allowsEditing = value;
}

double videoMaximumDuration(id self, SEL)
{
    auto *s = state(self);
    return s ? s->videoMaximumDuration : 0;
}

void setVideoMaximumDuration(id self, SEL, double value)
{
    gControllerSlot.get(self).videoMaximumDuration = value;
}

long videoQuality(id self, SEL)
{
    auto *s = state(self);
    return s ? s->videoQuality : 0;
}

void setVideoQuality(id self, SEL, long value)
{
    gControllerSlot.get(self).videoQuality = value;
}

bool showsCameraControls(id self, SEL)
{
    auto *s = state(self);
    return s && s->showsCameraControls;
}

void setShowsCameraControls(id self, SEL, bool value)
{
    gControllerSlot.get(self).showsCameraControls = value;
}

id cameraOverlayView(id self, SEL)
{
    auto *s = state(self);
    return s ? s->overlayView.get() : nullptr;
}

void setCameraOverlayView(id self, SEL, id view)
{
    gControllerSlot.get(self).overlayView = Ref(view);
}

void takePicture(id self, SEL)
{
}

bool startVideoCapture(id self, SEL)
{
    return false;
}

void stopVideoCapture(id self, SEL)
{
}

__attribute__((constructor(203))) void declareImagePicker()
{
    fakeobjc::ClassDef("UIImagePickerController", "UINavigationController")
        .classMethod("isSourceTypeAvailable:", isSourceTypeAvailable)
        .classMethod("availableMediaTypesForSourceType:", availableMediaTypes)
        .classMethod("isCameraDeviceAvailable:", isCameraDeviceAvailable)
        .classMethod("availableCaptureModesForCameraDevice:", availableCaptureModes)
        .classMethod("isFlashAvailableForCameraDevice:", isFlashAvailable)
        .method("initWithNibName:bundle:", pickerInitWithNibName)
        .method("sourceType", sourceType)
        .method("setSourceType:", setSourceType)
        .method("cameraDevice", cameraDevice)
        .method("setCameraDevice:", setCameraDevice)
        .method("cameraCaptureMode", cameraCaptureMode)
        .method("setCameraCaptureMode:", setCameraCaptureMode)
        .method("cameraFlashMode", cameraFlashMode)
        .method("setCameraFlashMode:", setCameraFlashMode)
        .method("mediaTypes", mediaTypes)
        .method("setMediaTypes:", setMediaTypes)
        .method("allowsEditing", allowsEditing)
        .method("setAllowsEditing:", setAllowsEditing)
        .method("videoMaximumDuration", videoMaximumDuration)
        .method("setVideoMaximumDuration:", setVideoMaximumDuration)
        .method("videoQuality", videoQuality)
        .method("setVideoQuality:", setVideoQuality)
        .method("showsCameraControls", showsCameraControls)
        .method("setShowsCameraControls:", setShowsCameraControls)
        .method("cameraOverlayView", cameraOverlayView)
        .method("setCameraOverlayView:", setCameraOverlayView)
        .method("takePicture", takePicture)
        .method("startVideoCapture", startVideoCapture)
        .method("stopVideoCapture", stopVideoCapture)
        .registerClass();
}

} // namespace
} // namespace uik
