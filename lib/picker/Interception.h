// UIImagePickerController with a camera. The class reports one (rear and front, photo and video,
// no flash); a picker whose source type the app sets to the camera (1) becomes virtual: it keeps
// its camera device and capture mode as associated values instead of telling UIKit, and when it is
// presented, the library's camera screen is presented in its place. Pickers never set to the
// camera, and every other view controller, are left to UIKit. Main thread only, as UIKit is.
#pragma once

#include "objc/Runtime.h"

// Class methods of UIImagePickerController.
BOOL zerlan_isSourceTypeAvailable(id self, SEL _cmd, long sourceType);
BOOL zerlan_isCameraDeviceAvailable(id self, SEL _cmd, long cameraDevice);
id zerlan_availableMediaTypesForSourceType(id self, SEL _cmd, long sourceType);
id zerlan_availableCaptureModesForCameraDevice(id self, SEL _cmd, long cameraDevice);
BOOL zerlan_isFlashAvailableForCameraDevice(id self, SEL _cmd, long cameraDevice);

// Instance methods of UIImagePickerController.
void zerlan_setSourceType(id self, SEL _cmd, long sourceType);
long zerlan_sourceType(id self, SEL _cmd);
void zerlan_setCameraDevice(id self, SEL _cmd, long cameraDevice);
long zerlan_cameraDevice(id self, SEL _cmd);
void zerlan_setCameraCaptureMode(id self, SEL _cmd, long mode);
long zerlan_cameraCaptureMode(id self, SEL _cmd);

// UIViewController: runs for every presentation; only a virtual picker is swapped for a screen.
void zerlan_presentViewController_animated_completion(id self, SEL _cmd, id presented, BOOL animated,
                                                      void (^completion)(void));

// Added to UIImagePickerController as dismissViewControllerAnimated:completion:. A picker that
// shows a camera screen dismisses the screen, then (before the caller's completion) forgets it;
// any other picker gets UIViewController's own dismissal.
void ZerlanImagePickerDismiss(id self, SEL _cmd, BOOL animated, void (^completion)(void));
