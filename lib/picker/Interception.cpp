#include "picker/Interception.h"

#include "inject/Diagnostics.h"
#include "inject/Registry.h"
#include "objc/Frameworks.h"
#include "picker/PickerScreen.h"

#include <vector>

using namespace zerlan::objc;

namespace {

constexpr long kSourceTypeCamera = 1;

id pickerClass()
{
    return cls("UIImagePickerController");
}

bool isVirtual(id picker)
{
    return ZerlanMarked(picker, &kVirtualImagePickerKey);
}

// Once-made arrays that live for the process, so every answer is the same object.
id immortalArray(std::initializer_list<id> objects)
{
    std::vector<id> items(objects);
    return send<id>(cls("NSArray"), sel<"arrayWithObjects:count:">(), items.data(),
                    static_cast<unsigned long>(items.size()));
}

id storedInteger(id picker, const void *key)
{
    return objc_getAssociatedObject(picker, key);
}

void storeInteger(id picker, const void *key, long value)
{
    objc_setAssociatedObject(picker, key, number(value), OBJC_ASSOCIATION_RETAIN_NONATOMIC);
}

} // namespace

BOOL zerlan_isSourceTypeAvailable(id self, SEL, long sourceType)
{
    if (sourceType == kSourceTypeCamera)
        return YES;
    return send<BOOL>(self, sel<"zerlan_isSourceTypeAvailable:">(), sourceType);
}

BOOL zerlan_isCameraDeviceAvailable(id self, SEL, long cameraDevice)
{
    if (cameraDevice == 0 || cameraDevice == 1)
        return YES;
    return send<BOOL>(self, sel<"zerlan_isCameraDeviceAvailable:">(), cameraDevice);
}

id zerlan_availableMediaTypesForSourceType(id self, SEL, long sourceType)
{
    if (sourceType != kSourceTypeCamera)
        return send<id>(self, sel<"zerlan_availableMediaTypesForSourceType:">(), sourceType);
    static dispatch_once_t once;
    static id types;
    dispatch_once(&once, ^{
        AutoreleasePool pool;
        types = objc_retain(immortalArray({string("public.image"), string("public.movie")}));
    });
    return types;
}

id zerlan_availableCaptureModesForCameraDevice(id self, SEL, long)
{
    static dispatch_once_t once;
    static id modes;
    dispatch_once(&once, ^{
        AutoreleasePool pool;
        modes = objc_retain(immortalArray({number(0), number(1)}));
    });
    return modes;
}

BOOL zerlan_isFlashAvailableForCameraDevice(id, SEL, long)
{
    return NO;
}

// The argument decides, not the mark: once virtual, a picker stays virtual, and a later source
// type still reaches UIKit's setter (sourceType keeps answering the camera).
void zerlan_setSourceType(id self, SEL, long sourceType)
{
    if (sourceType == kSourceTypeCamera) {
        ZerlanMark(self, &kVirtualImagePickerKey);
        return;
    }
    send<void>(self, sel<"zerlan_setSourceType:">(), sourceType);
}

long zerlan_sourceType(id self, SEL)
{
    if (isVirtual(self))
        return kSourceTypeCamera;
    return send<long>(self, sel<"zerlan_sourceType">());
}

void zerlan_setCameraDevice(id self, SEL, long cameraDevice)
{
    if (isVirtual(self))
        storeInteger(self, &kVirtualImagePickerDeviceKey, cameraDevice);
    else
        send<void>(self, sel<"zerlan_setCameraDevice:">(), cameraDevice);
}

long zerlan_cameraDevice(id self, SEL)
{
    if (isVirtual(self))
        return integerValue(storedInteger(self, &kVirtualImagePickerDeviceKey));
    return send<long>(self, sel<"zerlan_cameraDevice">());
}

void zerlan_setCameraCaptureMode(id self, SEL, long mode)
{
    if (isVirtual(self))
        storeInteger(self, &kVirtualImagePickerModeKey, mode);
    else
        send<void>(self, sel<"zerlan_setCameraCaptureMode:">(), mode);
}

long zerlan_cameraCaptureMode(id self, SEL)
{
    if (isVirtual(self))
        return integerValue(storedInteger(self, &kVirtualImagePickerModeKey));
    return send<long>(self, sel<"zerlan_cameraCaptureMode">());
}

void zerlan_presentViewController_animated_completion(id self, SEL, id presented, BOOL animated,
                                                      void (^completion)(void))
{
    SEL system = sel<"zerlan_presentViewController:animated:completion:">();
    if (!send<BOOL>(presented, sel<"isKindOfClass:">(), pickerClass()) || !isVirtual(presented)) {
        send<void>(self, system, presented, animated, completion);
        return;
    }
    Strong<> screen = Strong<>::adopt(send<id>(reinterpret_cast<id>(ZerlanVirtualImagePickerClass()), sel<"new">()));
    send<void>(screen.get(), sel<"setPicker:">(), presented);
    // Full screen whatever the app chose for the picker: the camera covers its presenter, as the
    // system camera does.
    send<void>(screen.get(), sel<"setModalPresentationStyle:">(), 0L);
    objc_setAssociatedObject(presented, &kVirtualImagePickerProxyKey, screen.get(), OBJC_ASSOCIATION_RETAIN_NONATOMIC);
    ZerlanLog(CFSTR("[ZerlanInject] presenting virtual UIImagePickerController camera"));
    send<void>(self, system, screen.get(), animated, completion);
}

void ZerlanImagePickerDismiss(id self, SEL, BOOL animated, void (^completion)(void))
{
    SEL dismiss = sel<"dismissViewControllerAnimated:completion:">();
    id shown = objc_getAssociatedObject(self, &kVirtualImagePickerProxyKey);
    if (!shown) {
        // Resolved from UIImagePickerController itself, so a subclass of the picker that calls
        // super does not come back here.
        sendSuper<void>(reinterpret_cast<Class>(pickerClass()), self, dismiss, animated, completion);
        return;
    }
    // The screen and the picker hold each other; the block keeps both (and, being copied with
    // it, the caller's completion) until the screen is gone, then breaks the cycle.
    Strong<> screen = Strong<>::retain(shown);
    Strong<> picker = Strong<>::retain(self);
    send<void>(screen.get(), dismiss, animated, ^{
        send<void>(screen.get(), sel<"setPicker:">(), static_cast<id>(nil));
        objc_setAssociatedObject(picker.get(), &kVirtualImagePickerProxyKey, nil, OBJC_ASSOCIATION_ASSIGN);
        if (completion)
            completion();
    });
}
