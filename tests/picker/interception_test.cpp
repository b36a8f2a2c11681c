// UIImagePickerController with the library loaded: the class reports a camera, a picker set to the
// camera keeps its device and mode itself (ordinary pickers stay UIKit's), and presenting a
// camera picker presents a full-screen camera screen in its place, which the picker's own
// dismissal takes down again.
#include "PickerTestSupport.h"

#include "inject/Registry.h"

using namespace picker_test;

namespace {

id pickerClass()
{
    return cls("UIImagePickerController");
}

TEST(PickerClass, ReportsACameraAndLeavesOtherSourcesToUIKit)
{
    AutoreleasePool pool;
    struct {
        long value;
        bool sourceAvailable, deviceAvailable;
    } const cases[] = {{0, true, true}, {1, true, true}, {2, true, false}, {3, false, false}, {-1, false, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(c.sourceAvailable, send<BOOL>(pickerClass(), sel<"isSourceTypeAvailable:">(), c.value));
        EXPECT_EQ(c.deviceAvailable, send<BOOL>(pickerClass(), sel<"isCameraDeviceAvailable:">(), c.value));
        EXPECT_FALSE(send<BOOL>(pickerClass(), sel<"isFlashAvailableForCameraDevice:">(), c.value));
    }

    id types = send<id>(pickerClass(), sel<"availableMediaTypesForSourceType:">(), 1L);
    EXPECT_EQ((std::vector<std::string>{"public.image", "public.movie"}), elements(types, text));
    EXPECT_EQ(types, send<id>(pickerClass(), sel<"availableMediaTypesForSourceType:">(), 1L)) << "one constant array";
    EXPECT_EQ(nil, send<id>(pickerClass(), sel<"availableMediaTypesForSourceType:">(), 3L)) << "UIKit's answer";

    id modes = send<id>(pickerClass(), sel<"availableCaptureModesForCameraDevice:">(), 0L);
    EXPECT_EQ((std::vector<long>{0, 1}), elements<long>(modes, integerValue));
    for (long device : {1L, 7L})
        EXPECT_EQ(modes, send<id>(pickerClass(), sel<"availableCaptureModesForCameraDevice:">(), device));
}

// What the app reads, and what UIKit itself holds (the zerlan_ selectors reach UIKit's own
// implementations after the exchange).
struct PickerValues {
    long sourceType, device, mode;
    long systemSourceType, systemDevice, systemMode;
    bool operator==(const PickerValues &) const = default;
};

PickerValues valuesOf(id picker)
{
    return {send<long>(picker, sel<"sourceType">()),          send<long>(picker, sel<"cameraDevice">()),
            send<long>(picker, sel<"cameraCaptureMode">()),   send<long>(picker, sel<"zerlan_sourceType">()),
            send<long>(picker, sel<"zerlan_cameraDevice">()), send<long>(picker, sel<"zerlan_cameraCaptureMode">())};
}

void PrintTo(const PickerValues &v, std::ostream *os)
{
    *os << "app " << v.sourceType << "/" << v.device << "/" << v.mode << ", UIKit " << v.systemSourceType << "/"
        << v.systemDevice << "/" << v.systemMode;
}

TEST(PickerSettings, ACameraPickerKeepsDeviceAndModeItself)
{
    AutoreleasePool pool;
    Strong<> picker = allocInit<"init">("UIImagePickerController");
    send<void>(picker.get(), sel<"setSourceType:">(), 1L);
    EXPECT_TRUE(ZerlanMarked(picker.get(), &kVirtualImagePickerKey));
    EXPECT_EQ((PickerValues{1, 0, 0, 0, 0, 0}), valuesOf(picker.get())) << "rear camera, photo mode until set";

    send<void>(picker.get(), sel<"setCameraCaptureMode:">(), 1L);
    send<void>(picker.get(), sel<"setCameraDevice:">(), 42L); // kept as given, not validated
    EXPECT_EQ((PickerValues{1, 42, 1, 0, 0, 0}), valuesOf(picker.get()));

    // Another source type reaches UIKit, but the picker stays a camera picker for good.
    send<void>(picker.get(), sel<"setSourceType:">(), 2L);
    EXPECT_EQ((PickerValues{1, 42, 1, 2, 0, 0}), valuesOf(picker.get()));
}

TEST(PickerSettings, WhatIsSetBeforeTheCameraSourceStaysWithUIKit)
{
    AutoreleasePool pool;
    Strong<> picker = allocInit<"init">("UIImagePickerController");
    send<void>(picker.get(), sel<"setCameraDevice:">(), 1L);
    send<void>(picker.get(), sel<"setCameraCaptureMode:">(), 1L);
    EXPECT_EQ((PickerValues{0, 1, 1, 0, 1, 1}), valuesOf(picker.get())) << "an ordinary picker is UIKit's";
    EXPECT_FALSE(objc_hasAssociation_np(picker.get(), &kVirtualImagePickerDeviceKey));
    EXPECT_FALSE(objc_hasAssociation_np(picker.get(), &kVirtualImagePickerModeKey));

    send<void>(picker.get(), sel<"setSourceType:">(), 1L);
    EXPECT_EQ((PickerValues{1, 0, 0, 0, 1, 1}), valuesOf(picker.get()));
}

class PickerPresentation : public ::testing::Test {
protected:
    Delegate delegate_;
    PickerApp app_;

    static Class screenClass() { return objc_getClass("ZerlanVirtualImagePickerViewController"); }
    id attachedScreen(id picker) { return objc_getAssociatedObject(picker, &kVirtualImagePickerProxyKey); }
};

TEST_F(PickerPresentation, ACameraPickerIsReplacedByAFullScreenCamera)
{
    Strong<> picker = app_.cameraPicker(delegate_.object.get());
    send<void>(picker.get(), sel<"setModalPresentationStyle:">(), 1L); // the app asks for a sheet

    __block id timerAtCompletion = nil;
    __block id screenAtCompletion = nil;
    send<void>(app_.root(), sel<"presentViewController:animated:completion:">(), picker.get(), YES, ^{
        screenAtCompletion = send<id>(app_.root(), sel<"presentedViewController">());
        timerAtCompletion = send<id>(screenAtCompletion, sel<"frameTimer">());
    });
    ASSERT_TRUE(waitFor(^bool { return screenAtCompletion != nil; }));
    id screen = screenAtCompletion;
    EXPECT_EQ(screenClass(), object_getClass(screen));
    EXPECT_EQ(picker.get(), send<id>(screen, sel<"picker">()));
    EXPECT_EQ(screen, attachedScreen(picker.get()));
    EXPECT_EQ(0, send<long>(screen, sel<"modalPresentationStyle">())) << "full screen whatever the app chose";
    EXPECT_EQ(nil, send<id>(picker.get(), sel<"presentingViewController">())) << "the picker itself is never shown";
    EXPECT_NE(nil, timerAtCompletion) << "the screen had appeared when the app's completion ran";
}

TEST_F(PickerPresentation, ThePickersDismissalTakesTheScreenDownAndForgetsIt)
{
    Strong<> picker = app_.cameraPicker(delegate_.object.get());
    Weak first;
    {
        AutoreleasePool pool;
        first.store(app_.present(picker.get()));
        ASSERT_TRUE(first.load());

        Weak *screen = &first;
        __block bool done = false;
        __block id pickerSeenInCompletion = picker.get();
        __block id attachedInCompletion = picker.get();
        __block id presentedInCompletion = picker.get();
        send<void>(picker.get(), sel<"dismissViewControllerAnimated:completion:">(), YES, ^{
            done = true;
            pickerSeenInCompletion = send<id>(screen->load().get(), sel<"picker">());
            attachedInCompletion = attachedScreen(picker.get());
            presentedInCompletion = send<id>(app_.root(), sel<"presentedViewController">());
        });
        ASSERT_TRUE(waitFor(^bool { return done; }));
        EXPECT_EQ(nil, pickerSeenInCompletion);
        EXPECT_EQ(nil, attachedInCompletion);
        EXPECT_EQ(nil, presentedInCompletion);
        EXPECT_EQ(nil, send<id>(first.load().get(), sel<"frameTimer">())) << "polling stopped";
        drainMainQueue();
    }
    EXPECT_FALSE(first.load()) << "the screen and the picker no longer keep each other alive";

    // Still a camera picker: shown again, it gets a fresh screen.
    id second = app_.present(picker.get());
    EXPECT_EQ(screenClass(), object_getClass(second));
    EXPECT_EQ(picker.get(), send<id>(second, sel<"picker">()));
}

TEST_F(PickerPresentation, OrdinaryPickersAndOtherControllersAreUntouched)
{
    Strong<> ordinary = allocInit<"init">("UIImagePickerController");
    Strong<> plain = allocInit<"init">("UIViewController");
    for (id controller : {ordinary.get(), plain.get()}) {
        SCOPED_TRACE(class_getName(object_getClass(controller)));
        EXPECT_EQ(controller, app_.present(controller));
        EXPECT_FALSE(objc_hasAssociation_np(controller, &kVirtualImagePickerProxyKey));
        EXPECT_TRUE(PickerApp::dismiss(controller)) << "dismissed as UIKit dismisses";
        EXPECT_EQ(nil, send<id>(app_.root(), sel<"presentedViewController">()));
    }
}

TEST_F(PickerPresentation, DismissingFromThePresenterLeavesTheScreenAttachedUntilShownAgain)
{
    Strong<> picker = app_.cameraPicker(delegate_.object.get());
    Strong<> first = Strong<>::retain(app_.present(picker.get()));
    ASSERT_TRUE(PickerApp::dismiss(app_.root()));
    EXPECT_EQ(nil, send<id>(app_.root(), sel<"presentedViewController">()));
    EXPECT_EQ(picker.get(), send<id>(first.get(), sel<"picker">()));
    EXPECT_EQ(first.get(), attachedScreen(picker.get()));

    id second = app_.present(picker.get());
    EXPECT_NE(first.get(), second);
    EXPECT_EQ(second, attachedScreen(picker.get())) << "the new screen replaces the old attachment";
}

// An app's own picker class, whose dismissal does its own thing and then calls super.
int gSubclassDismissals;

void subclassDismiss(id self, SEL cmd, BOOL animated, void (^completion)(void))
{
    ++gSubclassDismissals;
    sendSuper<void>(objc_getClass("AppImagePicker"), self, cmd, animated, completion);
}

Class appPickerClass()
{
    static Class made = [] {
        Class c = objc_allocateClassPair(objc_getClass("UIImagePickerController"), "AppImagePicker", 0);
        class_addMethod(c, sel_registerName("dismissViewControllerAnimated:completion:"), imp(subclassDismiss), "v@:B@?");
        objc_registerClassPair(c);
        return c;
    }();
    return made;
}

TEST_F(PickerPresentation, ASubclassOfThePickerIsACameraPickerTooAndItsSuperDismissalReachesUIKit)
{
    gSubclassDismissals = 0;
    Strong<> camera = Strong<>::adopt(send<id>(reinterpret_cast<id>(appPickerClass()), sel<"new">()));
    send<void>(camera.get(), sel<"setSourceType:">(), 1L);
    id screen = app_.present(camera.get());
    EXPECT_EQ(screenClass(), object_getClass(screen)) << "a kind of UIImagePickerController counts";
    EXPECT_EQ(camera.get(), send<id>(screen, sel<"picker">()));
    ASSERT_TRUE(PickerApp::dismiss(camera.get()));
    EXPECT_EQ(nil, attachedScreen(camera.get()));

    // With no screen attached, super's dismissal goes on to UIViewController's. A super call
    // resolved from the receiver's class would come back to the library's own, for ever.
    Strong<> ordinary = Strong<>::adopt(send<id>(reinterpret_cast<id>(appPickerClass()), sel<"new">()));
    EXPECT_EQ(ordinary.get(), app_.present(ordinary.get()));
    EXPECT_TRUE(PickerApp::dismiss(ordinary.get()));
    EXPECT_EQ(nil, send<id>(app_.root(), sel<"presentedViewController">()));
    EXPECT_EQ(2, gSubclassDismissals);
}

} // namespace
