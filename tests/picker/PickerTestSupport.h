// What the image picker tests share: an app that presents pickers from the root view controller
// of its key window, a picker delegate that records what it is told (and, like most apps,
// dismisses the picker), readers for what the camera screen shows, and a frame port that takes
// fetches and holds them unanswered.
#pragma once

#include "CaptureTestSupport.h"
#include "ScriptedServer.h"

#include <fakesdk/uikit_np.h>

#include <algorithm>
#include <chrono>
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

// The Cancel button: the first view of the top bar, the root view's second.
inline id cancelButton(id screen)
{
    id topBar = objectAtIndex(send<id>(send<id>(screen, sel<"view">()), sel<"subviews">()), 1);
    return objectAtIndex(send<id>(topBar, sel<"subviews">()), 0);
}

// Stops the screen's polling (its timer, and the fetch under way), so that nothing but the test
// moves it on; a frame comes again only when the test sends requestFrame.
inline bool stopPolling(id screen)
{
    send<void>(send<id>(screen, sel<"frameTimer">()), sel<"invalidate">());
    return runMainUntil(5, [&] { return !send<BOOL>(screen, sel<"fetchInFlight">()); });
}

// 127.0.0.1:47654 taking every fetch and answering none until release(): a fetch stays in flight
// for as long as the test wants (the library gives up on its own after 2 s).
class HeldFetches {
public:
    HeldFetches()
        : server_(
              [this](int fd) {
                  std::lock_guard guard(lock_);
                  held_.push_back(fd);
                  times_.push_back(std::chrono::steady_clock::now());
                  return false; // kept open
              },
              47654)
    {
    }
    ~HeldFetches() { release(); }

    size_t count()
    {
        std::lock_guard guard(lock_);
        return times_.size();
    }
    // Fetches that arrived within `seconds` of the first one.
    size_t countWithin(double seconds)
    {
        std::lock_guard guard(lock_);
        return size_t(std::count_if(times_.begin(), times_.end(), [&](auto t) {
            return t - times_.front() <= std::chrono::duration<double>(seconds);
        }));
    }
    // Closes what is held: the fetches end without a frame.
    void release()
    {
        std::lock_guard guard(lock_);
        for (int fd : held_)
            ::close(fd);
        held_.clear();
    }

private:
    std::mutex lock_;
    std::vector<int> held_;
    std::vector<std::chrono::steady_clock::time_point> times_;
    zerlan::testing::ScriptedServer server_;
};

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
        if (send<id>(root_.get(), sel<"presentedViewController">()))
            dismiss(root_.get());
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

    // Sends dismissViewControllerAnimated:completion: to the controller (a picker, or the root)
    // and runs the main loop until its completion ran.
    static bool dismiss(id controller)
    {
        __block bool gone = false;
        send<void>(controller, sel<"dismissViewControllerAnimated:completion:">(), NO, ^{
            gone = true;
        });
        return waitFor(^bool { return gone; });
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
