// NSTimer's Objective-C methods. The class itself (and __NSCFTimer, what the factories return)
// is declared by CoreFoundation, where CFRunLoopTimerRef is an NSTimer: these methods are
// CFRunLoopTimer calls, with the target, selector and user info (or block) as the timer's
// context info, which CF releases when the timer is invalidated.
#include "CoreFoundation/cfinternal.h"

#include <Block.h>

#include <algorithm>
#include <atomic>

// CoreFoundation's private entry point behind -fire: the timer's callout, now.
extern "C" void _CFRunLoopTimerFire(CFRunLoopTimerRef timer);

namespace {

// Intervals of 0 or less become this, as NSTimer documents.
constexpr double kMinimumInterval = 0.0001;

struct TimerTarget {
    std::atomic<long> references{1};
    id target = nil;
    SEL selector = nullptr;
    id userInfo = nil;
    void (^block)(id timer) = nullptr;

    ~TimerTarget()
    {
        objc_release(target);
        objc_release(userInfo);
        if (block)
            Block_release(block);
    }
};

const void *retainTarget(const void *info)
{
    static_cast<TimerTarget *>(const_cast<void *>(info))->references.fetch_add(1, std::memory_order_relaxed);
    return info;
}

void releaseTarget(const void *info)
{
    auto *target = static_cast<TimerTarget *>(const_cast<void *>(info));
    if (target->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete target;
}

void fireTarget(CFRunLoopTimerRef timer, void *info)
{
    auto *target = static_cast<TimerTarget *>(info);
    id timerObject = reinterpret_cast<id>(timer);
    if (target->block)
        target->block(timerObject);
    else
        fakeobjc::msg<void>(target->target, target->selector, timerObject);
}

// +1 timer firing first at now + interval.
id newTimer(CFAbsoluteTime fireDate, double interval, bool repeats, TimerTarget *target)
{
    CFRunLoopTimerContext context{0, target, retainTarget, releaseTarget, nullptr};
    CFRunLoopTimerRef timer =
        CFRunLoopTimerCreate(nullptr, fireDate, repeats ? std::max(interval, kMinimumInterval) : 0.0, 0, 0,
                             fireTarget, &context);
    releaseTarget(target);
    return reinterpret_cast<id>(timer);
}

CFAbsoluteTime fireDateAfter(double interval)
{
    return CFAbsoluteTimeGetCurrent() + std::max(interval, kMinimumInterval);
}

TimerTarget *targetFor(id target, SEL selector, id userInfo)
{
    auto *t = new TimerTarget();
    t->target = objc_retain(target);
    t->selector = selector;
    t->userInfo = objc_retain(userInfo);
    return t;
}

TimerTarget *targetFor(void (^block)(id))
{
    auto *t = new TimerTarget();
    t->block = Block_copy(block);
    return t;
}

id schedule(id timer)
{
    CFRunLoopAddTimer(CFRunLoopGetCurrent(), reinterpret_cast<CFRunLoopTimerRef>(timer), kCFRunLoopDefaultMode);
    return objc_autorelease(timer);
}

id timerWithTarget(id, SEL, double interval, id target, SEL selector, id userInfo, bool repeats)
{
    return objc_autorelease(newTimer(fireDateAfter(interval), interval, repeats, targetFor(target, selector, userInfo)));
}

id scheduledTimerWithTarget(id, SEL, double interval, id target, SEL selector, id userInfo, bool repeats)
{
    return schedule(newTimer(fireDateAfter(interval), interval, repeats, targetFor(target, selector, userInfo)));
}

id timerWithBlock(id, SEL, double interval, bool repeats, void (^block)(id))
{
    return objc_autorelease(newTimer(fireDateAfter(interval), interval, repeats, targetFor(block)));
}

id scheduledTimerWithBlock(id, SEL, double interval, bool repeats, void (^block)(id))
{
    return schedule(newTimer(fireDateAfter(interval), interval, repeats, targetFor(block)));
}

double absoluteTimeOf(id date)
{
    return fakeobjc::msg<double>(date, "timeIntervalSinceReferenceDate");
}

// A class cluster's initialiser: the allocated placeholder gives way to a CF timer.
id initWithFireDateTarget(id self, SEL, id date, double interval, id target, SEL selector, id userInfo, bool repeats)
{
    objc_release(self);
    return newTimer(absoluteTimeOf(date), interval, repeats, targetFor(target, selector, userInfo));
}

id initWithFireDateBlock(id self, SEL, id date, double interval, bool repeats, void (^block)(id))
{
    objc_release(self);
    return newTimer(absoluteTimeOf(date), interval, repeats, targetFor(block));
}

CFRunLoopTimerRef cfTimer(id self)
{
    return reinterpret_cast<CFRunLoopTimerRef>(self);
}

void invalidate(id self, SEL)
{
    CFRunLoopTimerInvalidate(cfTimer(self));
}

bool isValid(id self, SEL)
{
    return CFRunLoopTimerIsValid(cfTimer(self));
}

// Fires now without disturbing a repeating timer's schedule; a one-shot timer is then invalid.
void fire(id self, SEL)
{
    _CFRunLoopTimerFire(cfTimer(self));
}

id userInfo(id self, SEL)
{
    CFRunLoopTimerContext context{};
    CFRunLoopTimerGetContext(cfTimer(self), &context);
    return context.info && context.release == releaseTarget ? static_cast<TimerTarget *>(context.info)->userInfo : nil;
}

double timeInterval(id self, SEL)
{
    return CFRunLoopTimerGetInterval(cfTimer(self));
}

id fireDate(id self, SEL)
{
    return fakeobjc::msg<id>(fakeobjc::cls("NSDate"), "dateWithTimeIntervalSinceReferenceDate:",
                             CFRunLoopTimerGetNextFireDate(cfTimer(self)));
}

void setFireDate(id self, SEL, id date)
{
    CFRunLoopTimerSetNextFireDate(cfTimer(self), absoluteTimeOf(date));
}

double tolerance(id self, SEL)
{
    return CFRunLoopTimerGetTolerance(cfTimer(self));
}

void setTolerance(id self, SEL, double value)
{
    CFRunLoopTimerSetTolerance(cfTimer(self), value);
}

template <typename F>
void addMethod(Class cls, const char *selector, F fn)
{
    class_addMethod(cls, sel_registerName(selector), reinterpret_cast<IMP>(fn),
                    fakeobjc::MethodEncoding<F>::get().c_str());
}

__attribute__((constructor(120))) void declareNSTimerMethods()
{
    Class timer = objc_getClass("NSTimer");
    Class meta = object_getClass(reinterpret_cast<id>(timer));
    addMethod(meta, "timerWithTimeInterval:target:selector:userInfo:repeats:", timerWithTarget);
    addMethod(meta, "scheduledTimerWithTimeInterval:target:selector:userInfo:repeats:", scheduledTimerWithTarget);
    addMethod(meta, "timerWithTimeInterval:repeats:block:", timerWithBlock);
    addMethod(meta, "scheduledTimerWithTimeInterval:repeats:block:", scheduledTimerWithBlock);
    addMethod(timer, "initWithFireDate:interval:target:selector:userInfo:repeats:", initWithFireDateTarget);
    addMethod(timer, "initWithFireDate:interval:repeats:block:", initWithFireDateBlock);
    addMethod(timer, "invalidate", invalidate);
    addMethod(timer, "isValid", isValid);
    addMethod(timer, "fire", fire);
    addMethod(timer, "userInfo", userInfo);
    addMethod(timer, "timeInterval", timeInterval);
    addMethod(timer, "fireDate", fireDate);
    addMethod(timer, "setFireDate:", setFireDate);
    addMethod(timer, "tolerance", tolerance);
    addMethod(timer, "setTolerance:", setTolerance);
}

} // namespace
