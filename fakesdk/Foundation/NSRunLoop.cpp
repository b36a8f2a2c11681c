// NSRunLoop: Foundation's face of the thread's CFRunLoop (not toll-free bridged; one NSRunLoop
// per thread wraps that thread's CFRunLoop).
#include "CoreFoundation/cfinternal.h"

#include <unistd.h>
#include <sys/syscall.h>

FAKEOBJC_ENCODING(CFRunLoopRef, "^{__CFRunLoop=}");

// The same string objects as kCFRunLoopDefaultMode and kCFRunLoopCommonModes.
extern "C" __attribute__((visibility("default"))) id const NSDefaultRunLoopMode =
    fakecf::constantString("kCFRunLoopDefaultMode");
extern "C" __attribute__((visibility("default"))) id const NSRunLoopCommonModes =
    fakecf::constantString("kCFRunLoopCommonModes");

namespace {

struct RunLoopState {
    CFRunLoopRef runLoop = nullptr;
};

fakeobjc::StateSlot<RunLoopState> gSlot;
Class gRunLoopClass;

id newRunLoop(CFRunLoopRef runLoop)
{
    id rl = class_createInstance(gRunLoopClass, 0);
    gSlot.get(rl).runLoop = runLoop;
    return rl;
}

struct ThreadRunLoop {
    id runLoop = nil;
    ~ThreadRunLoop() { objc_release(runLoop); }
};

thread_local ThreadRunLoop tRunLoop;

id mainRunLoop(id, SEL)
{
    static id shared = [] {
        id rl = newRunLoop(CFRunLoopGetMain());
        fakeobjc::makeImmortal(rl);
        return rl;
    }();
    return shared;
}

id currentRunLoop(id self, SEL cmd)
{
    CFRunLoopRef current = CFRunLoopGetCurrent();
    if (current == CFRunLoopGetMain())
        return mainRunLoop(self, cmd);
    if (!tRunLoop.runLoop)
        tRunLoop.runLoop = newRunLoop(current);
    return tRunLoop.runLoop;
}

CFRunLoopRef cfRunLoop(id self)
{
    CFRunLoopRef rl = gSlot.get(self).runLoop;
    return rl ? rl : CFRunLoopGetCurrent();
}

CFRunLoopRef getCFRunLoop(id self, SEL)
{
    return cfRunLoop(self);
}

id currentMode(id self, SEL)
{
    CFRunLoopMode mode = CFRunLoopCopyCurrentMode(cfRunLoop(self));
    return mode ? objc_autorelease(reinterpret_cast<id>(const_cast<__CFString *>(mode))) : nil;
}

void addTimer(id self, SEL, id timer, id mode)
{
    CFRunLoopAddTimer(cfRunLoop(self), reinterpret_cast<CFRunLoopTimerRef>(timer), reinterpret_cast<CFStringRef>(mode));
}

double secondsUntil(id date)
{
    return fakeobjc::msg<double>(date, "timeIntervalSinceNow");
}

// NO when the run loop could not start: nothing in the mode to wait for.
bool runModeBeforeDate(id self, SEL, id mode, id limitDate)
{
    CFRunLoopRunResult result =
        CFRunLoopRunInMode(reinterpret_cast<CFStringRef>(mode), limitDate ? secondsUntil(limitDate) : 0.0, true);
    return result != kCFRunLoopRunFinished;
}

void runUntilDate(id self, SEL cmd, id limitDate)
{
    do {
        if (!runModeBeforeDate(self, cmd, NSDefaultRunLoopMode, limitDate))
            return;
    } while (secondsUntil(limitDate) > 0);
}

void run(id self, SEL cmd)
{
    id forever = fakeobjc::msg<id>(fakeobjc::cls("NSDate"), "distantFuture");
    while (runModeBeforeDate(self, cmd, NSDefaultRunLoopMode, forever)) {
    }
}

void performBlock(id self, SEL, void (^block)(void))
{
    CFRunLoopPerformBlock(cfRunLoop(self), kCFRunLoopCommonModes, block);
    CFRunLoopWakeUp(cfRunLoop(self));
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSRunLoop", self);
}

__attribute__((constructor(120))) void declareNSRunLoop()
{
    gRunLoopClass = fakeobjc::ClassDef("NSRunLoop", "NSObject")
                        .stateIvar()
                        .classMethod("mainRunLoop", mainRunLoop)
                        .classMethod("currentRunLoop", currentRunLoop)
                        .method("getCFRunLoop", getCFRunLoop)
                        .method("currentMode", currentMode)
                        .method("addTimer:forMode:", addTimer)
                        .method("runMode:beforeDate:", runModeBeforeDate)
                        .method("runUntilDate:", runUntilDate)
                        .method("run", run)
                        .method("performBlock:", performBlock)
                        .method("dealloc", dealloc)
                        .registerWith(gSlot);
}

} // namespace
