// fakesdk's UIKit: the camera-less image picker, view controller presentation and dismissal on
// the main run loop, controls whose targets are not retained, views, colours and constraints as
// screens are built from them, and the Main Thread Checker.
#include "FakesdkTestSupport.h"

#include <dispatch/dispatch.h>
#include <fakesdk/dispatch_np.h>
#include <fakesdk/objc_np.h>
#include <fakesdk/uikit_np.h>
#include <objc/runtime.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

struct CGPoint {
    double x, y;
};
struct CGSize {
    double width, height;
};
struct CGRect {
    CGPoint origin;
    CGSize size;
};

namespace {

using namespace fakesdk_test;

constexpr unsigned long kTouchUpInside = 64, kValueChanged = 4096;

// Controllers of class UIKitTestController log "<title>.<callback>" for each appearance callback.
std::vector<std::string> gEvents;

std::string titleOf(id self) { return text(send(self, "title")); }

void logLoad(id self, SEL sel)
{
    gEvents.push_back(titleOf(self) + "." + sel_getName(sel));
}

void logAppearance(id self, SEL sel, bool)
{
    gEvents.push_back(titleOf(self) + "." + sel_getName(sel));
}

id gSender = nil;
int gActions = 0;
void onAction(id self, SEL, id sender)
{
    gSender = sender;
    ++gActions;
}

bool gCameraAllowed = false;
bool replacedAvailability(id, SEL, long sourceType)
{
    return sourceType != 1 || gCameraAllowed;
}

Class testClass(const char *name, const char *superclass, void (^setup)(Class))
{
    if (Class existing = objc_getClass(name))
        return existing;
    Class k = objc_allocateClassPair(objc_getClass(superclass), name, 0);
    setup(k);
    objc_registerClassPair(k);
    return k;
}

Class controllerClass()
{
    return testClass("UIKitTestController", "UIViewController", ^(Class k) {
      class_addMethod(k, sel_registerName("viewDidLoad"), reinterpret_cast<IMP>(logLoad), "v@:");
      for (const char *sel : {"viewWillAppear:", "viewDidAppear:", "viewWillDisappear:", "viewDidDisappear:"})
          class_addMethod(k, sel_registerName(sel), reinterpret_cast<IMP>(logAppearance), "v@:B");
    });
}

Class targetClass()
{
    return testClass("UIKitTestTarget", "NSObject", ^(Class k) {
      class_addMethod(k, sel_registerName("tapped:"), reinterpret_cast<IMP>(onAction), "v@:@");
    });
}

class UIKitTest : public PooledTest {
protected:
    void SetUp() override
    {
        PooledTest::SetUp();
        gEvents.clear();
        gActions = 0;
        gSender = nil;
    }
    void TearDown() override
    {
        UIApplicationResetWindows_np();
        PooledTest::TearDown();
    }
    id controller(const char *title)
    {
        id c = send(reinterpret_cast<id>(controllerClass()), "new");
        send<void>(c, "setTitle:", str(title));
        return c;
    }
};

// ---- UIImagePickerController

TEST_F(UIKitTest, PickerReportsNoCameraAndRaisesWhenTheCameraIsChosen)
{
    id picker = cls("UIImagePickerController");
    struct Source {
        long type;
        bool available;
    } sources[] = {{0, true}, {1, false}, {2, true}};
    for (const Source &s : sources) {
        EXPECT_EQ(send<bool>(picker, "isSourceTypeAvailable:", s.type), s.available) << s.type;
        id types = send(picker, "availableMediaTypesForSourceType:", s.type);
        if (s.available) {
            ASSERT_EQ(count(types), 2u);
            EXPECT_TRUE(send<bool>(types, "containsObject:", str("public.image")));
            EXPECT_TRUE(send<bool>(types, "containsObject:", str("public.movie")));
        } else {
            EXPECT_EQ(types, nil);
        }
    }
    for (long device : {0L, 1L}) {
        EXPECT_FALSE(send<bool>(picker, "isCameraDeviceAvailable:", device));
        EXPECT_FALSE(send<bool>(picker, "isFlashAvailableForCameraDevice:", device));
        EXPECT_EQ(send(picker, "availableCaptureModesForCameraDevice:", device), nil);
    }

    id instance = make("UIImagePickerController");
    EXPECT_TRUE(send<bool>(instance, "isKindOfClass:", cls("UINavigationController")));
    EXPECT_EQ(send<long>(instance, "sourceType"), 0);
    EXPECT_EQ(send<double>(instance, "videoMaximumDuration"), 600.0);
    ASSERT_EQ(count(send(instance, "mediaTypes")), 1u);
    EXPECT_EQ(text(send(send(instance, "mediaTypes"), "firstObject")), "public.image");
    EXPECT_EQ(raised([&] { send<void>(instance, "setSourceType:", 1L); }),
              Raised("NSInvalidArgumentException", "Source type 1 not available"));
    EXPECT_EQ(send<long>(instance, "sourceType"), 0) << "the refused value is not kept";
    send<void>(instance, "setSourceType:", 2L);
    EXPECT_EQ(send<long>(instance, "sourceType"), 2);

    id delegate = make("NSObject");
    send<void>(instance, "setDelegate:", delegate);
    EXPECT_EQ(objc_retainCount_np(delegate), 1) << "the delegate is weak";
    void *pool = objc_autoreleasePoolPush();
    EXPECT_EQ(send(instance, "delegate"), delegate);
    objc_autoreleasePoolPop(pool);
    objc_release(delegate);
    EXPECT_EQ(send(instance, "delegate"), nil);
    objc_release(instance);
}

// The setter asks the class by message send, so a replaced availability check decides.
TEST_F(UIKitTest, PickerSourceSetterAsksAvailabilityByMessage)
{
    Class picker = objc_getClass("UIImagePickerController");
    Method framework = class_getClassMethod(picker, sel_registerName("isSourceTypeAvailable:"));
    IMP original = method_setImplementation(framework, reinterpret_cast<IMP>(replacedAvailability));
    id instance = make("UIImagePickerController");
    gCameraAllowed = true;
    EXPECT_EQ(raised([&] { send<void>(instance, "setSourceType:", 1L); }).first, "");
    EXPECT_EQ(send<long>(instance, "sourceType"), 1);
    gCameraAllowed = false;
    EXPECT_EQ(raised([&] { send<void>(instance, "setSourceType:", 1L); }).second, "Source type 1 not available");
    method_setImplementation(framework, original);
    objc_release(instance);
}

// ---- presentation

TEST_F(UIKitTest, ViewLoadsOnceAndPresentationRunsAppearanceCallbacksThenCompletionOnTheMainQueue)
{
    id root = controller("A");
    EXPECT_FALSE(send<bool>(root, "isViewLoaded"));
    EXPECT_EQ(send(root, "viewIfLoaded"), nil);
    id view = send(root, "view");
    EXPECT_EQ(send(root, "view"), view);
    EXPECT_TRUE(send<bool>(root, "isViewLoaded"));
    EXPECT_EQ(send(view, "nextResponder"), root);
    EXPECT_GT(send<CGRect>(view, "frame").size.width, 0);
    UIWindowMakeKeyWithRootViewController_np(root);
    EXPECT_EQ(gEvents, (std::vector<std::string>{"A.viewDidLoad", "A.viewWillAppear:", "A.viewDidAppear:"}));

    struct Style {
        long style;
        std::vector<std::string> present, dismiss;
    } styles[] = {
        {1,
         {"B.viewDidLoad", "B.viewWillAppear:", "B.viewDidAppear:", "presented"},
         {"B.viewWillDisappear:", "B.viewDidDisappear:", "dismissed"}},
        {0,
         {"B.viewDidLoad", "A.viewWillDisappear:", "B.viewWillAppear:", "B.viewDidAppear:", "A.viewDidDisappear:",
          "presented"},
         {"A.viewWillAppear:", "B.viewWillDisappear:", "B.viewDidDisappear:", "A.viewDidAppear:", "dismissed"}},
    };
    for (const Style &s : styles) {
        id presented = controller("B");
        send<void>(presented, "setModalPresentationStyle:", s.style);
        gEvents.clear();
        __block bool done = false;
        send<void>(root, "presentViewController:animated:completion:", presented, true, ^{
          gEvents.push_back("presented");
          done = true;
        });
        EXPECT_EQ(send(root, "presentedViewController"), presented) << "linked at once";
        EXPECT_EQ(send(presented, "presentingViewController"), root);
        EXPECT_TRUE(gEvents.empty()) << "callbacks wait for the main queue";
        ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return done; }));
        EXPECT_EQ(gEvents, s.present) << "style " << s.style;

        // A second presentation while one is showing is ignored, completion included.
        id other = controller("C");
        __block bool otherDone = false;
        send<void>(root, "presentViewController:animated:completion:", other, false, ^{ otherDone = true; });
        EXPECT_EQ(send(root, "presentedViewController"), presented);

        gEvents.clear();
        done = false;
        send<void>(presented, "dismissViewControllerAnimated:completion:", true, ^{
          gEvents.push_back("dismissed");
          done = true;
        });
        ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return done; }));
        EXPECT_EQ(gEvents, s.dismiss) << "style " << s.style;
        EXPECT_FALSE(otherDone);
        EXPECT_EQ(send(root, "presentedViewController"), nil);
        EXPECT_EQ(send(presented, "presentingViewController"), nil);
        objc_release(other);
        objc_release(presented);
    }

    __block bool called = false;
    send<void>(root, "dismissViewControllerAnimated:completion:", false, ^{ called = true; });
    EXPECT_FALSE(CFRunLoopRunUntil_np(0.2, ^{ return called; })) << "nothing to dismiss: no completion";
    EXPECT_EQ(raised([&] { send<void>(root, "presentViewController:animated:completion:", id(nil), false, nullptr); })
                  .first,
              "NSInvalidArgumentException");
    objc_release(root);
}

// ---- controls

TEST_F(UIKitTest, ControlsSendActionsToUnretainedTargets)
{
    id button = send(cls("UIButton"), "buttonWithType:", 1L);
    id target = send(reinterpret_cast<id>(targetClass()), "new");
    long before = objc_retainCount_np(target);
    send<void>(button, "addTarget:action:forControlEvents:", target, sel_registerName("tapped:"), kTouchUpInside);
    send<void>(button, "addTarget:action:forControlEvents:", target, sel_registerName("tapped:"), kTouchUpInside);
    EXPECT_EQ(objc_retainCount_np(target), before) << "targets are not retained";
    void *pool = objc_autoreleasePoolPush(); // allTargets hands out autoreleased references
    EXPECT_EQ(count(send(button, "allTargets")), 1u);
    objc_autoreleasePoolPop(pool);
    id actions = send(button, "actionsForTarget:forControlEvent:", target, kTouchUpInside);
    ASSERT_EQ(count(actions), 1u) << "the same target and action are registered once";
    EXPECT_EQ(text(send(actions, "firstObject")), "tapped:");
    EXPECT_EQ(send(button, "actionsForTarget:forControlEvent:", target, kValueChanged), nil);

    struct Tap {
        bool enabled, hidden;
        int actions;
    } taps[] = {{true, false, 1}, {false, false, 0}, {true, true, 0}};
    for (const Tap &t : taps) {
        gActions = 0;
        send<void>(button, "setEnabled:", t.enabled);
        send<void>(button, "setHidden:", t.hidden);
        UIControlTap_np(button);
        EXPECT_EQ(gActions, t.actions) << "enabled " << t.enabled << " hidden " << t.hidden;
    }
    EXPECT_EQ(gSender, button);
    send<void>(button, "setEnabled:", true);
    send<void>(button, "setHidden:", false);

    gActions = 0;
    objc_release(target);
    EXPECT_TRUE(UIControlTap_np(button)) << "a gone target is skipped, not messaged";
    EXPECT_EQ(gActions, 0);

    gActions = 0;
    id segmented = send(send(cls("UISegmentedControl"), "alloc"), "initWithItems:",
                        send(cls("NSArray"), "arrayWithObjects:count:", (id[]){str("Photo"), str("Video")}, 2ul));
    id listener = send(reinterpret_cast<id>(targetClass()), "new");
    send<void>(segmented, "addTarget:action:forControlEvents:", listener, sel_registerName("tapped:"), kValueChanged);
    EXPECT_EQ(send<long>(segmented, "selectedSegmentIndex"), -1);
    send<void>(segmented, "setSelectedSegmentIndex:", 0L);
    EXPECT_EQ(gActions, 0) << "setting the index programmatically sends nothing";
    EXPECT_TRUE(UISegmentedControlSelect_np(segmented, 1));
    EXPECT_EQ(send<long>(segmented, "selectedSegmentIndex"), 1);
    EXPECT_EQ(gActions, 1);
    EXPECT_FALSE(UISegmentedControlSelect_np(segmented, 2));
    objc_release(listener);
    objc_release(segmented);
}

TEST_F(UIKitTest, ButtonTitlesFallBackToTheNormalState)
{
    id button = send(cls("UIButton"), "buttonWithType:", 0L);
    send<void>(button, "setTitle:forState:", str("Cancel"), 0ul);
    send<void>(button, "setTitle:forState:", str("Off"), 2ul);
    EXPECT_EQ(text(send(button, "titleForState:", 0ul)), "Cancel");
    EXPECT_EQ(text(send(button, "titleForState:", 4ul)), "Cancel") << "selected falls back to normal";
    EXPECT_EQ(text(send(button, "currentTitle")), "Cancel");
    EXPECT_EQ(text(send(send(button, "titleLabel"), "text")), "Cancel");
    send<void>(button, "setEnabled:", false);
    EXPECT_EQ(text(send(button, "currentTitle")), "Off");
    send<void>(button, "setTitle:forState:", id(nil), 2ul);
    EXPECT_EQ(text(send(button, "titleForState:", 2ul)), "Cancel");
}

// ---- views, colours, fonts

TEST_F(UIKitTest, ViewsKeepOneSuperviewAndMirrorTheirLayers)
{
    id parent = make("UIView");
    id other = make("UIView");
    id child = make("UILabel");
    ASSERT_TRUE(send<bool>(send(parent, "layer"), "isKindOfClass:", cls("CALayer")));
    long before = objc_retainCount_np(child);
    send<void>(parent, "addSubview:", child);
    EXPECT_EQ(objc_retainCount_np(child), before + 1);
    EXPECT_EQ(send(child, "superview"), parent);
    EXPECT_EQ(count(send(send(parent, "layer"), "sublayers")), 1u);
    send<void>(other, "addSubview:", child);
    EXPECT_EQ(count(send(parent, "subviews")), 0u) << "moving a view takes it out of its old parent";
    EXPECT_EQ(count(send(send(parent, "layer"), "sublayers")), 0u);
    EXPECT_EQ(send(child, "superview"), other);
    send<void>(child, "removeFromSuperview");
    EXPECT_EQ(send(child, "superview"), nil);
    EXPECT_EQ(objc_retainCount_np(child), before);

    CGRect frame{{10, 20}, {100, 50}};
    send<void>(child, "setFrame:", frame);
    CGRect bounds = send<CGRect>(child, "bounds");
    EXPECT_EQ(bounds.origin.x, 0);
    EXPECT_EQ(bounds.size.width, 100);
    EXPECT_EQ(send<CGRect>(send(child, "layer"), "frame").origin.y, 20);
    EXPECT_EQ(send<long>(child, "numberOfLines"), 1);
    for (id o : {parent, other, child})
        objc_release(o);
}

TEST_F(UIKitTest, ColoursCompareByTheirComponents)
{
    double r = -1, g = -1, b = -1, a = -1;
    id translucent = send(cls("UIColor"), "colorWithWhite:alpha:", 0.0, 0.48);
    ASSERT_TRUE(send<bool>(translucent, "getRed:green:blue:alpha:", &r, &g, &b, &a));
    EXPECT_EQ(r + g + b, 0.0);
    EXPECT_EQ(a, 0.48);
    EXPECT_TRUE(send<bool>(send(cls("UIColor"), "whiteColor"), "isEqual:",
                           send(cls("UIColor"), "colorWithRed:green:blue:alpha:", 1.0, 1.0, 1.0, 1.0)));
    EXPECT_FALSE(send<bool>(send(cls("UIColor"), "blackColor"), "isEqual:", send(cls("UIColor"), "clearColor")));
}

// Activation installs a constraint on the items' nearest common ancestor, and refuses items in
// different hierarchies with Apple's exception, as the camera screen's constraints would meet it.
TEST_F(UIKitTest, ConstraintsActivateOnTheCommonAncestorOrRaise)
{
    id root = make("UIView");
    id bar = make("UIView");
    id button = make("UIButton");
    id loose = make("UIView");
    send<void>(root, "addSubview:", bar);
    send<void>(bar, "addSubview:", button);

    id pinned = send(send(button, "leadingAnchor"), "constraintEqualToAnchor:constant:", send(bar, "leadingAnchor"), 20.0);
    id height = send(send(bar, "heightAnchor"), "constraintEqualToConstant:", 96.0);
    id safe = send(send(button, "bottomAnchor"), "constraintEqualToAnchor:constant:",
                   send(send(root, "safeAreaLayoutGuide"), "bottomAnchor"), -30.0);
    id lessThan = send(send(button, "trailingAnchor"), "constraintLessThanOrEqualToAnchor:constant:",
                       send(root, "trailingAnchor"), -24.0);
    EXPECT_EQ(send(pinned, "firstItem"), button);
    EXPECT_EQ(send(pinned, "secondItem"), bar);
    EXPECT_EQ(send<long>(pinned, "firstAttribute"), 5L) << "NSLayoutAttributeLeading";
    EXPECT_EQ(send<double>(pinned, "constant"), 20.0);
    EXPECT_EQ(send(height, "secondItem"), nil);
    EXPECT_EQ(send<long>(lessThan, "relation"), -1L);
    EXPECT_EQ(send(send(root, "safeAreaLayoutGuide"), "owningView"), root);

    id batch = send(cls("NSArray"), "arrayWithObjects:count:", (id[]){pinned, height, safe, lessThan}, 4ul);
    send<void>(cls("NSLayoutConstraint"), "activateConstraints:", batch);
    for (id c : {pinned, height, safe, lessThan})
        EXPECT_TRUE(send<bool>(c, "isActive"));
    EXPECT_EQ(count(send(bar, "constraints")), 2u) << "leading pin and the bar's own height";
    EXPECT_EQ(count(send(root, "constraints")), 2u) << "both reach up to the root";

    id orphan = send(send(loose, "topAnchor"), "constraintEqualToAnchor:", send(root, "topAnchor"));
    auto [name, reason] = raised([&] { send<void>(orphan, "setActive:", true); });
    EXPECT_EQ(name, "NSGenericException");
    EXPECT_NE(reason.find("because they have no common ancestor"), std::string::npos) << reason;
    EXPECT_FALSE(send<bool>(orphan, "isActive"));

    send<void>(cls("NSLayoutConstraint"), "deactivateConstraints:", batch);
    EXPECT_EQ(count(send(root, "constraints")), 0u);
    for (id o : {root, bar, button, loose})
        objc_release(o);
}

// The methods the injected library exchanges are each class's own; dismissal lives on
// UIViewController only, so that the library can add its own to the picker.
TEST_F(UIKitTest, ExchangedMethodsAreDefinedOnTheirOwnClass)
{
    Class picker = objc_getClass("UIImagePickerController");
    Class pickerMeta = object_getClass(reinterpret_cast<id>(picker));
    auto own = [](Class c, const char *name) {
        SEL sel = sel_registerName(name);
        Method m = class_getInstanceMethod(c, sel);
        return m && m != class_getInstanceMethod(class_getSuperclass(c), sel);
    };
    for (const char *name : {"isSourceTypeAvailable:", "isCameraDeviceAvailable:", "availableMediaTypesForSourceType:",
                             "availableCaptureModesForCameraDevice:", "isFlashAvailableForCameraDevice:"})
        EXPECT_TRUE(own(pickerMeta, name)) << name;
    for (const char *name : {"setSourceType:", "sourceType", "setCameraDevice:", "cameraDevice",
                             "setCameraCaptureMode:", "cameraCaptureMode"})
        EXPECT_TRUE(own(picker, name)) << name;
    Class controller = objc_getClass("UIViewController");
    EXPECT_TRUE(own(controller, "presentViewController:animated:completion:"));
    EXPECT_TRUE(own(controller, "dismissViewControllerAnimated:completion:"));
    EXPECT_FALSE(own(picker, "dismissViewControllerAnimated:completion:"));
    EXPECT_FALSE(own(objc_getClass("UINavigationController"), "dismissViewControllerAnimated:completion:"));
}

// Runs the block on a user-initiated global queue and waits for it, as a lost main-queue hop
// would run UIKit work.
void offMainThread(void (^work)(void))
{
    dispatch_semaphore_t done = dispatch_semaphore_create(0);
    dispatch_async(dispatch_get_global_queue(QOS_CLASS_USER_INITIATED, 0), ^{
        work();
        dispatch_semaphore_signal(done);
    });
    dispatch_semaphore_wait(done, DISPATCH_TIME_FOREVER);
    dispatch_release(done);
}

// Xcode's Main Thread Checker told to stop on issues: a UI class's method sent from another
// thread names the method where it is declared and the thread, and ends the process; the classes
// Apple documents as thread-safe, and the last release of a view, pass.
TEST(UIKitDeathTest, UIMethodsOffTheMainThreadStopTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    __block id label = make("UILabel");
    offMainThread(^{
        send(cls("UIColor"), "colorWithWhite:alpha:", 1.0, 0.5);
        send(cls("UIFont"), "systemFontOfSize:weight:", 14.0, 0.0);
        send(cls("UIImage"), "imageWithData:", send(cls("NSData"), "data"));
        objc_release(label);
    });
    label = make("UILabel");
    const char *thread = "\nPID: [0-9]+, TID: [0-9]+, Thread name: .*, Queue name: com.apple.root.user-initiated-qos\n";
    EXPECT_DEATH(offMainThread(^{ send<void>(label, "setHidden:", true); }),
                 std::string("Main Thread Checker: UI API called on a background thread: -\\[UIView setHidden:\\]") + thread);
    EXPECT_DEATH(offMainThread(^{ send(cls("UIScreen"), "mainScreen"); }), "\\+\\[UIScreen mainScreen\\]");
    offMainThread(^{ objc_release(label); });
}

} // namespace
