// UIApplication (the shared instance, its windows, action dispatch along the responder chain),
// UIWindow and UIScreen (an iPhone-sized main screen).
#include "UIControllerPrivate.h"
#include "UIKitPrivate.h"

#include <fakesdk/uikit_np.h>

#include <algorithm>

namespace uik {
namespace {

struct ApplicationState {
    std::mutex lock;
    std::vector<Ref> windows;
    Weak keyWindow;
    Ref delegate;
};

struct WindowState {
    Ref rootViewController;
};

fakeobjc::StateSlot<ApplicationState> gApplicationSlot;
fakeobjc::StateSlot<WindowState> gWindowSlot;

// ---- UIApplication

id sharedApplication(id self, SEL)
{
    static id application = [] {
        id app = class_createInstance(objc_getClass("UIApplication"), 0);
        fakeobjc::makeImmortal(app);
        gApplicationSlot.get(app);
        return app;
    }();
    return application;
}

id applicationKeyWindow(id self, SEL)
{
    auto *s = gApplicationSlot.peek(self);
    return s ? s->keyWindow.get() : nullptr;
}

id applicationWindows(id self, SEL)
{
    auto *s = gApplicationSlot.peek(self);
    if (!s)
        return array(std::vector<id>{});
    std::lock_guard guard(s->lock);
    return array(s->windows);
}

long applicationState(id self, SEL)
{
    return 0; // UIApplicationStateActive
}

id applicationDelegate(id self, SEL)
{
    auto *s = gApplicationSlot.peek(self);
    return s ? s->delegate.get() : nullptr;
}

void applicationSetDelegate(id self, SEL, id delegate)
{
    gApplicationSlot.get(self).delegate = Ref(delegate);
}

// With no target the action goes to the first responder up the chain from the sender that
// implements it.
bool applicationSendAction(id self, SEL, SEL action, id target, id sender, id event)
{
    if (!action)
        return false;
    if (!target) {
        for (id r = sender; r; r = msg<id>(r, "nextResponder"))
            if (msg<bool>(r, "respondsToSelector:", action)) {
                target = r;
                break;
            }
        if (!target)
            return false;
    }
    msg<void>(target, action, sender, event);
    return true;
}

void registerWindow(id window)
{
    ApplicationState &s = gApplicationSlot.get(sharedApplication(nullptr, nullptr));
    std::lock_guard guard(s.lock);
    if (std::none_of(s.windows.begin(), s.windows.end(), [&](const Ref &w) { return w.get() == window; }))
        s.windows.emplace_back(window);
    s.keyWindow.set(window);
}

// ---- UIWindow

id windowRoot(id self, SEL)
{
    auto *s = gWindowSlot.peek(self);
    return s ? s->rootViewController.get() : nullptr;
}

void windowSetRoot(id self, SEL, id controller)
{
    WindowState &s = gWindowSlot.get(self);
    if (s.rootViewController)
        msg<void>(msg<id>(s.rootViewController.get(), "viewIfLoaded"), "removeFromSuperview");
    s.rootViewController = Ref(controller);
    if (controller) {
        id view = msg<id>(controller, "view");
        msg<void>(view, "setFrame:", msg<CGRect>(self, "bounds"));
        msg<void>(self, "addSubview:", view);
    }
}

void windowMakeKeyAndVisible(id self, SEL)
{
    registerWindow(self);
    msg<void>(self, "setHidden:", false);
}

void windowMakeKey(id self, SEL)
{
    registerWindow(self);
}

bool windowIsKey(id self, SEL)
{
    return msg<id>(msg<id>(cls("UIApplication"), "sharedApplication"), "keyWindow") == self;
}

id windowNextResponder(id self, SEL)
{
    return msg<id>(cls("UIApplication"), "sharedApplication");
}

void windowDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gWindowSlot, "UIWindow", self);
}

// ---- UIScreen

id mainScreen(id self, SEL)
{
    static id screen = [] {
        id s = class_createInstance(objc_getClass("UIScreen"), 0);
        fakeobjc::makeImmortal(s);
        return s;
    }();
    return screen;
}

CGRect screenBounds(id self, SEL)
{
    return CGRect{{0, 0}, {390, 844}};
}

CGRect screenNativeBounds(id self, SEL)
{
    return CGRect{{0, 0}, {1170, 2532}};
}

double screenScale(id self, SEL)
{
    return 3;
}

__attribute__((constructor(202))) void declareApplication()
{
    fakeobjc::ClassDef("UIApplication", "UIResponder")
        .classMethod("sharedApplication", sharedApplication)
        .method("keyWindow", applicationKeyWindow)
        .method("windows", applicationWindows)
        .method("applicationState", applicationState)
        .method("delegate", applicationDelegate)
        .method("setDelegate:", applicationSetDelegate)
        .method("sendAction:to:from:forEvent:", applicationSendAction)
        .stateIvar()
        .registerWith(gApplicationSlot);

    fakeobjc::ClassDef("UIWindow", "UIView")
        .method("rootViewController", windowRoot)
        .method("setRootViewController:", windowSetRoot)
        .method("makeKeyAndVisible", windowMakeKeyAndVisible)
        .method("makeKeyWindow", windowMakeKey)
        .method("isKeyWindow", windowIsKey)
        .method("nextResponder", windowNextResponder)
        .method("dealloc", windowDealloc)
        .stateIvar()
        .registerWith(gWindowSlot);

    fakeobjc::ClassDef("UIScreen", "NSObject")
        .classMethod("mainScreen", mainScreen)
        .method("bounds", screenBounds)
        .method("nativeBounds", screenNativeBounds)
        .method("scale", screenScale)
        .registerClass();
}

} // namespace
} // namespace uik

using namespace uik;

UIKIT_EXPORT id UIWindowMakeKeyWithRootViewController_np(id rootViewController)
{
    UIApplicationResetWindows_np();
    CGRect bounds = msg<CGRect>(msg<id>(cls("UIScreen"), "mainScreen"), "bounds");
    id window = msg<id>(msg<id>(cls("UIWindow"), "alloc"), "initWithFrame:", bounds);
    msg<void>(window, "setRootViewController:", rootViewController);
    msg<void>(window, "makeKeyAndVisible");
    objc_release(window); // the application keeps it
    if (rootViewController) {
        msg<void>(rootViewController, "viewWillAppear:", false);
        msg<void>(rootViewController, "viewDidAppear:", false);
    }
    return window;
}

UIKIT_EXPORT void UIApplicationResetWindows_np(void)
{
    id app = msg<id>(cls("UIApplication"), "sharedApplication");
    ApplicationState &s = gApplicationSlot.get(app);
    std::vector<Ref> old;
    {
        std::lock_guard guard(s.lock);
        old.swap(s.windows);
        s.keyWindow.set(nullptr);
    }
}
