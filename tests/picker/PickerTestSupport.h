// What the image picker tests share: an app that presents pickers from the root view controller
// of its key window, a picker delegate that records what it is told (and, like most apps,
// dismisses the picker), and readers for what the camera screen shows.
#pragma once

#include "CaptureTestSupport.h"

#include <fakesdk/uikit_np.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace picker_test {

using namespace capture_test;

struct DelegateCall {
    enum Kind { finished, cancelled } kind;
    id picker;
    Strong<> info;
    bool mainThread;
};

struct DelegateLog {
    std::vector<DelegateCall> calls;
    bool dismissOnResult = true;
    size_t count(DelegateCall::Kind kind) const
    {
        size_t n = 0;
        for (const DelegateCall &c : calls)
            n += c.kind == kind;
        return n;
    }
};

namespace detail {
inline DelegateLog *logOf(id self)
{
    return *ivarPointer<DelegateLog *>(self, "_log");
}

inline void dismissIfAsked(id self, id picker)
{
    if (logOf(self)->dismissOnResult)
        send<void>(picker, sel<"dismissViewControllerAnimated:completion:">(), YES, static_cast<void (^)(void)>(nullptr));
}

inline void didFinish(id self, SEL, id picker, id info)
{
    logOf(self)->calls.push_back({DelegateCall::finished, picker, Strong<>::retain(info), gettid() == getpid()});
    dismissIfAsked(self, picker);
}

inline void didCancel(id self, SEL, id picker)
{
    logOf(self)->calls.push_back({DelegateCall::cancelled, picker, nullptr, gettid() == getpid()});
    dismissIfAsked(self, picker);
}

inline Class delegateClass()
{
    static Class c = [] {
        Class made = objc_allocateClassPair(objc_getClass("NSObject"), "PickerTestDelegate", 0);
        class_addIvar(made, "_log", sizeof(void *), 3, "^v");
        class_addMethod(made, sel_registerName("imagePickerController:didFinishPickingMediaWithInfo:"), imp(didFinish),
                        "v@:@@");
        class_addMethod(made, sel_registerName("imagePickerControllerDidCancel:"), imp(didCancel), "v@:@");
        objc_registerClassPair(made);
        return made;
    }();
    return c;
}
} // namespace detail

// The app's picker delegate (+1) and its log, which outlives it.
struct Delegate {
    std::shared_ptr<DelegateLog> log = std::make_shared<DelegateLog>();
    Strong<> object = Strong<>::adopt(class_createInstance(detail::delegateClass(), 0));
    Delegate() { *ivarPointer<DelegateLog *>(object.get(), "_log") = log.get(); }
    DelegateLog *operator->() const { return log.get(); }
};

inline id nsArray(std::initializer_list<const char *> texts)
{
    std::vector<id> items;
    for (const char *t : texts)
        items.push_back(string(t));
    return send<id>(cls("NSArray"), sel<"arrayWithObjects:count:">(), items.data(), static_cast<unsigned long>(items.size()));
}

inline std::string statusOf(id screen)
{
    return text(send<id>(send<id>(screen, sel<"statusLabel">()), sel<"text">()));
}

inline bool captureEnabled(id screen)
{
    return send<BOOL>(send<id>(screen, sel<"captureButton">()), sel<"isEnabled">());
}

// Runs the main run loop until the block answers true (for conditions on __block variables,
// which lambdas cannot capture).
inline bool waitFor(bool (^condition)(void), double seconds = 5)
{
    return CFRunLoopRunUntil_np(seconds, condition);
}

inline bool tap(id control)
{
    return UIControlTap_np(control);
}

// A key window whose root view controller presents the pickers, and the pickers it made.
class PickerApp {
public:
    PickerApp()
    {
        root_ = allocInit<"init">("UIViewController");
        UIWindowMakeKeyWithRootViewController_np(root_.get());
    }
    ~PickerApp()
    {
        // Whatever is still on screen goes, so its polling stops before the next test.
        if (send<id>(root_.get(), sel<"presentedViewController">())) {
            __block bool gone = false;
            send<void>(root_.get(), sel<"dismissViewControllerAnimated:completion:">(), NO, ^{
                gone = true;
            });
            waitFor(^bool { return gone; });
        }
        drainMainQueue();
        UIApplicationResetWindows_np();
    }

    id root() const { return root_.get(); }

    // A picker set up as an app sets up a camera picker.
    Strong<> cameraPicker(id delegate, std::initializer_list<const char *> mediaTypes = {"public.image"})
    {
        Strong<> picker = allocInit<"init">("UIImagePickerController");
        send<void>(picker.get(), sel<"setSourceType:">(), 1L);
        send<void>(picker.get(), sel<"setMediaTypes:">(), nsArray(mediaTypes));
        send<void>(picker.get(), sel<"setDelegate:">(), delegate);
        return picker;
    }

    // Presents from the root and runs the main loop until the completion ran; returns what the
    // root presented (nil when the completion never came).
    id present(id controller)
    {
        __block bool done = false;
        send<void>(root_.get(), sel<"presentViewController:animated:completion:">(), controller, YES, ^{
            done = true;
        });
        if (!waitFor(^bool { return done; }))
            return nil;
        return send<id>(root_.get(), sel<"presentedViewController">());
    }

private:
    AutoreleasePool pool_;
    Strong<> root_;
};

// Sets an environment variable for one scope.
class ScopedEnv {
public:
    ScopedEnv(const char *name, const char *value) : name_(name)
    {
        if (const char *old = std::getenv(name))
            old_ = old, hadOld_ = true;
        setenv(name, value, 1);
    }
    ~ScopedEnv()
    {
        if (hadOld_)
            setenv(name_, old_.c_str(), 1);
        else
            unsetenv(name_);
    }

private:
    const char *name_;
    std::string old_;
    bool hadOld_ = false;
};

} // namespace picker_test
