// Declarations of Apple's <CoreFoundation/CFRunLoop.h> (run loops and timers; no sources or
// observers), implemented by fakesdk. One run loop per thread, made on first use. The main
// thread's run loop also drains the main dispatch queue when it runs in a common mode (the
// default mode is one), outside work that came from the main queue itself, as on Apple's
// platforms. A CFRunLoopTimerRef is an NSTimer (toll-free bridged).
#pragma once

#include <CoreFoundation/CoreFoundation.h>

CF_EXTERN_C_BEGIN

typedef CFStringRef CFRunLoopMode;
typedef struct CF_BRIDGED_MUTABLE_TYPE(id) __CFRunLoop *CFRunLoopRef;
typedef struct CF_BRIDGED_MUTABLE_TYPE(NSTimer) __CFRunLoopTimer *CFRunLoopTimerRef;

typedef CF_ENUM(SInt32, CFRunLoopRunResult){
    kCFRunLoopRunFinished = 1,
    kCFRunLoopRunStopped = 2,
    kCFRunLoopRunTimedOut = 3,
    kCFRunLoopRunHandledSource = 4,
};

// The strings "kCFRunLoopDefaultMode" and "kCFRunLoopCommonModes".
CF_EXPORT const CFRunLoopMode kCFRunLoopDefaultMode;
CF_EXPORT const CFRunLoopMode kCFRunLoopCommonModes;

CF_EXPORT CFTypeID CFRunLoopGetTypeID(void);
// +0; the run loop lives as long as its thread (the main one forever).
CF_EXPORT CFRunLoopRef CFRunLoopGetCurrent(void);
CF_EXPORT CFRunLoopRef CFRunLoopGetMain(void);
// +1, or NULL when the run loop is not running.
CF_EXPORT CFRunLoopMode CFRunLoopCopyCurrentMode(CFRunLoopRef rl);
CF_EXPORT void CFRunLoopAddCommonMode(CFRunLoopRef rl, CFRunLoopMode mode);
CF_EXPORT CFAbsoluteTime CFRunLoopGetNextTimerFireDate(CFRunLoopRef rl, CFRunLoopMode mode);

// Runs the current thread's run loop in the default mode until it is stopped or has nothing
// left to wait for.
CF_EXPORT void CFRunLoopRun(void);
// Runs the current thread's run loop: once when seconds <= 0, otherwise until the time is up,
// CFRunLoopStop, a handled source (main-queue work) when returnAfterSourceHandled, or at once
// with kCFRunLoopRunFinished when the mode has no timers and no main queue to wait for.
CF_EXPORT CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                                                Boolean returnAfterSourceHandled);
CF_EXPORT Boolean CFRunLoopIsWaiting(CFRunLoopRef rl);
CF_EXPORT void CFRunLoopWakeUp(CFRunLoopRef rl);
// Makes the innermost run of rl return kCFRunLoopRunStopped (the next run, if none is active).
CF_EXPORT void CFRunLoopStop(CFRunLoopRef rl);

#ifdef __BLOCKS__
// Copies the block; it runs on rl's thread during a run in mode (a mode or kCFRunLoopCommonModes).
// Does not wake the run loop (call CFRunLoopWakeUp).
CF_EXPORT void CFRunLoopPerformBlock(CFRunLoopRef rl, CFTypeRef mode, void (^block)(void));
#endif

CF_EXPORT Boolean CFRunLoopContainsTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode);
// The run loop retains the timer until it is removed from its last mode or invalidated. A timer
// belongs to one run loop at a time.
CF_EXPORT void CFRunLoopAddTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode);
CF_EXPORT void CFRunLoopRemoveTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode);

typedef struct {
    CFIndex version;
    void *info;
    const void *(*retain)(const void *info);
    void (*release)(const void *info);
    CFStringRef (*copyDescription)(const void *info);
} CFRunLoopTimerContext;

typedef void (*CFRunLoopTimerCallBack)(CFRunLoopTimerRef timer, void *info);

CF_EXPORT CFTypeID CFRunLoopTimerGetTypeID(void);
// +1. An interval <= 0 makes a one-shot timer, invalidated after it fired. The context's info is
// retained (with its retain callback) and released when the timer is invalidated or freed.
CF_EXPORT CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                                                 CFTimeInterval interval, CFOptionFlags flags, CFIndex order,
                                                 CFRunLoopTimerCallBack callout, CFRunLoopTimerContext *context);
#ifdef __BLOCKS__
CF_EXPORT CFRunLoopTimerRef CFRunLoopTimerCreateWithHandler(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                                                            CFTimeInterval interval, CFOptionFlags flags,
                                                            CFIndex order, void (^block)(CFRunLoopTimerRef timer));
#endif
CF_EXPORT CFAbsoluteTime CFRunLoopTimerGetNextFireDate(CFRunLoopTimerRef timer);
CF_EXPORT void CFRunLoopTimerSetNextFireDate(CFRunLoopTimerRef timer, CFAbsoluteTime fireDate);
CF_EXPORT CFTimeInterval CFRunLoopTimerGetInterval(CFRunLoopTimerRef timer);
CF_EXPORT Boolean CFRunLoopTimerDoesRepeat(CFRunLoopTimerRef timer);
CF_EXPORT CFIndex CFRunLoopTimerGetOrder(CFRunLoopTimerRef timer);
// Removes the timer from its run loop and releases its context info; idempotent.
CF_EXPORT void CFRunLoopTimerInvalidate(CFRunLoopTimerRef timer);
CF_EXPORT Boolean CFRunLoopTimerIsValid(CFRunLoopTimerRef timer);
CF_EXPORT void CFRunLoopTimerGetContext(CFRunLoopTimerRef timer, CFRunLoopTimerContext *context);
CF_EXPORT CFTimeInterval CFRunLoopTimerGetTolerance(CFRunLoopTimerRef timer);
CF_EXPORT void CFRunLoopTimerSetTolerance(CFRunLoopTimerRef timer, CFTimeInterval tolerance);

CF_EXTERN_C_END
