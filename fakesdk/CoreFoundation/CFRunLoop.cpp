// CFRunLoop and CFRunLoopTimer: one run loop per thread that fires its timers, runs performed
// blocks and, on the main thread, drains the main dispatch queue; it sleeps on a condition
// variable until the next timer, a wake-up, new main-queue work or its deadline. NSTimer and
// __NSCFTimer are declared here, as on Apple's platforms, where CFRunLoopTimerRef is an NSTimer;
// Foundation adds NSTimer's Objective-C methods.
#include "cfinternal.h"
#include "dispatch/dispatch_4CF.h"

#include <fakesdk/dispatch_np.h>

#include <Block.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <unistd.h>
#include <sys/syscall.h>
#include <vector>

namespace fakecf {
namespace {

using Clock = std::chrono::steady_clock;

// One lock for every run loop and timer: they reference each other across threads (a timer is
// invalidated from any thread while its run loop waits), and the lock is never held during a
// callout.
std::mutex &gLock()
{
    static auto *lock = new std::mutex();
    return *lock;
}

const char *const kDefaultName = "kCFRunLoopDefaultMode";
const char *const kCommonName = "kCFRunLoopCommonModes";

// CFRunLoopTimerCreate's limit on intervals (about 16 years), as in CF.
constexpr CFTimeInterval kIntervalLimit = 504911232.0;

struct TimerState {
    bool valid = false;
    CFAbsoluteTime fireDate = 0;
    // The same instant on the steady clock, which is what waits use.
    Clock::time_point fireTime{};
    CFTimeInterval interval = 0;
    CFTimeInterval tolerance = 0;
    CFIndex order = 0;
    CFRunLoopTimerCallBack callout = nullptr;
    CFRunLoopTimerContext context{};
    // The run loop that retains the timer (not retained back), and the modes it fires in.
    id runLoop = nil;
    std::set<std::string> modes;
    bool firing = false;

    ~TimerState()
    {
        if (context.release && context.info)
            context.release(context.info);
    }
};

struct PendingBlock {
    std::vector<std::string> modes;
    void (^block)(void);
};

struct RunLoopState {
    bool isMain = false;
    std::condition_variable cv;
    bool stopped = false;
    bool wakeUp = false;
    bool waiting = false;
    // The modes of the runs in progress, innermost last.
    std::vector<std::string> modeStack;
    std::set<std::string> commonModes{kDefaultName};
    std::vector<id> timers;
    std::vector<PendingBlock> blocks;

    ~RunLoopState();
};

fakeobjc::StateSlot<TimerState> gTimerSlot;
fakeobjc::StateSlot<RunLoopState> gRunLoopSlot;
Class gRunLoopClass;
Class gTimerClass;
Class gCFTimerClass;

// Set while the main thread runs main-queue work: a run loop nested inside such work does not
// drain the main queue again, so main-queue items never interleave.
thread_local bool tInMainQueueCallout = false;

id asObject(const void *ref)
{
    return reinterpret_cast<id>(const_cast<void *>(ref));
}

TimerState &timerState(CFRunLoopTimerRef timer)
{
    if (!timer) {
        std::fprintf(stderr, "*** CFRunLoopTimer function called with NULL ***\n");
        std::abort();
    }
    return gTimerSlot.get(asObject(timer));
}

RunLoopState &runLoopState(CFRunLoopRef rl)
{
    if (!rl) {
        std::fprintf(stderr, "*** CFRunLoop function called with NULL ***\n");
        std::abort();
    }
    return gRunLoopSlot.get(asObject(rl));
}

std::string modeName(CFTypeRef mode)
{
    if (!mode)
        return std::string();
    if (mode == kCFRunLoopDefaultMode)
        return kDefaultName;
    if (mode == kCFRunLoopCommonModes)
        return kCommonName;
    return utf8Of(asObject(mode));
}

// The process's initial thread.
bool isMainThread()
{
    thread_local const bool isMain = getpid() == static_cast<pid_t>(syscall(SYS_gettid));
    return isMain;
}

Clock::time_point steadyFromAbsolute(CFAbsoluteTime date)
{
    // Clamped to a century either way, which keeps the clock arithmetic in range for dates such
    // as +[NSDate distantFuture].
    constexpr double kCentury = 100.0 * 365 * 24 * 3600;
    double delta = std::clamp(date - CFAbsoluteTimeGetCurrent(), -kCentury, kCentury);
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(delta));
}

bool isCommonLocked(const RunLoopState &rl, const std::string &mode)
{
    return rl.commonModes.count(mode) != 0;
}

bool firesInLocked(const TimerState &timer, const RunLoopState &rl, const std::string &mode)
{
    return timer.modes.count(mode) || (timer.modes.count(kCommonName) && isCommonLocked(rl, mode));
}

bool blockRunsInLocked(const PendingBlock &block, const RunLoopState &rl, const std::string &mode)
{
    for (const auto &name : block.modes)
        if (name == mode || (name == kCommonName && isCommonLocked(rl, mode)))
            return true;
    return false;
}

bool drainsMainQueueLocked(const RunLoopState &rl, const std::string &mode)
{
    return rl.isMain && isMainThread() && isCommonLocked(rl, mode) && !tInMainQueueCallout;
}

bool hasBlocksLocked(const RunLoopState &rl, const std::string &mode)
{
    for (const auto &block : rl.blocks)
        if (blockRunsInLocked(block, rl, mode))
            return true;
    return false;
}

// A mode with nothing that could ever wake the loop makes a run return kCFRunLoopRunFinished.
bool isEmptyLocked(const RunLoopState &rl, const std::string &mode)
{
    if (drainsMainQueueLocked(rl, mode) || hasBlocksLocked(rl, mode))
        return false;
    for (id timer : rl.timers) {
        const TimerState &state = gTimerSlot.get(timer);
        if (state.valid && firesInLocked(state, rl, mode))
            return false;
    }
    return true;
}

RunLoopState::~RunLoopState()
{
    std::vector<id> detached;
    {
        std::lock_guard<std::mutex> lock(gLock());
        for (id timer : timers) {
            TimerState &state = gTimerSlot.get(timer);
            state.runLoop = nil;
            state.modes.clear();
        }
        detached.swap(timers);
    }
    for (id timer : detached)
        objc_release(timer);
    for (auto &pending : blocks)
        Block_release(pending.block);
}

void runLoopDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gRunLoopSlot, "__CFRunLoop", self);
}

void timerDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gTimerSlot, "NSTimer", self);
}

id newRunLoop(bool isMain)
{
    id rl = class_createInstance(gRunLoopClass, 0);
    gRunLoopSlot.get(rl).isMain = isMain;
    return rl;
}

// The run loop of a thread other than the main one, released when the thread ends.
struct ThreadRunLoop {
    id runLoop = nil;
    ~ThreadRunLoop() { objc_release(runLoop); }
};

thread_local ThreadRunLoop tRunLoop;

class AutoreleasePool {
public:
    AutoreleasePool() : token_(objc_autoreleasePoolPush()) {}
    ~AutoreleasePool() { objc_autoreleasePoolPop(token_); }
    AutoreleasePool(const AutoreleasePool &) = delete;
    AutoreleasePool &operator=(const AutoreleasePool &) = delete;

private:
    void *token_;
};

void runBlocks(RunLoopState &rl, const std::string &mode)
{
    std::vector<PendingBlock> ready;
    {
        std::lock_guard<std::mutex> lock(gLock());
        auto keep = std::stable_partition(rl.blocks.begin(), rl.blocks.end(),
                                          [&](const PendingBlock &b) { return !blockRunsInLocked(b, rl, mode); });
        ready.assign(keep, rl.blocks.end());
        rl.blocks.erase(keep, rl.blocks.end());
    }
    for (size_t i = 0; i < ready.size(); i++) {
        try {
            AutoreleasePool pool;
            ready[i].block();
        } catch (...) {
            for (size_t j = i; j < ready.size(); j++)
                Block_release(ready[j].block);
            throw;
        }
        Block_release(ready[i].block);
    }
}

// Fires one due timer: the timer and its info are retained during the callout, as CF does.
void fireTimer(id timer)
{
    TimerState &state = gTimerSlot.get(timer);
    void *info;
    const void *(*retainInfo)(const void *);
    void (*releaseInfo)(const void *);
    CFRunLoopTimerCallBack callout;
    Clock::time_point scheduled;
    {
        std::lock_guard<std::mutex> lock(gLock());
        if (!state.valid || state.firing)
            return;
        state.firing = true;
        info = state.context.info;
        retainInfo = state.context.retain;
        releaseInfo = state.context.release;
        callout = state.callout;
        scheduled = state.fireTime;
    }
    if (retainInfo && info)
        info = const_cast<void *>(retainInfo(info));
    auto finish = [&] {
        bool invalidate = false;
        {
            std::lock_guard<std::mutex> lock(gLock());
            state.firing = false;
            if (state.valid && state.interval <= 0) {
                invalidate = true;
            } else if (state.valid && state.fireTime == scheduled) {
                // Keep the period of the scheduled fire dates, skipping the ones already missed.
                double late = std::chrono::duration<double>(Clock::now() - state.fireTime).count();
                double periods = std::floor(std::max(late, 0.0) / state.interval) + 1;
                state.fireDate += periods * state.interval;
                state.fireTime += std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(periods * state.interval));
            }
        }
        if (invalidate)
            CFRunLoopTimerInvalidate(reinterpret_cast<CFRunLoopTimerRef>(timer));
        if (releaseInfo && info)
            releaseInfo(info);
    };
    try {
        AutoreleasePool pool;
        if (callout)
            callout(reinterpret_cast<CFRunLoopTimerRef>(timer), info);
    } catch (...) {
        finish();
        throw;
    }
    finish();
}

void fireTimers(RunLoopState &rl, const std::string &mode)
{
    std::vector<std::pair<id, TimerState *>> due;
    {
        std::lock_guard<std::mutex> lock(gLock());
        Clock::time_point now = Clock::now();
        for (id timer : rl.timers) {
            TimerState &state = gTimerSlot.get(timer);
            if (state.valid && !state.firing && state.fireTime <= now && firesInLocked(state, rl, mode))
                due.emplace_back(objc_retain(timer), &state);
        }
        std::stable_sort(due.begin(), due.end(), [](const auto &a, const auto &b) {
            return a.second->fireTime != b.second->fireTime ? a.second->fireTime < b.second->fireTime
                                                            : a.second->order < b.second->order;
        });
    }
    for (size_t i = 0; i < due.size(); i++) {
        try {
            fireTimer(due[i].first);
        } catch (...) {
            for (size_t j = i; j < due.size(); j++)
                objc_release(due[j].first);
            throw;
        }
        objc_release(due[i].first);
    }
}

bool drainMainQueue()
{
    bool saved = tInMainQueueCallout;
    tInMainQueueCallout = true;
    bool ran;
    try {
        ran = _dispatch_main_queue_drain_4CF();
    } catch (...) {
        tInMainQueueCallout = saved;
        throw;
    }
    tInMainQueueCallout = saved;
    return ran;
}

void waitLocked(std::unique_lock<std::mutex> &lock, RunLoopState &rl, const std::string &mode,
                const std::optional<Clock::time_point> &deadline)
{
    rl.waiting = true;
    for (;;) {
        if (rl.wakeUp) {
            rl.wakeUp = false;
            break;
        }
        if (rl.stopped || hasBlocksLocked(rl, mode))
            break;
        if (drainsMainQueueLocked(rl, mode) && _dispatch_main_queue_has_work_4CF())
            break;
        std::optional<Clock::time_point> next = deadline;
        for (id timer : rl.timers) {
            const TimerState &state = gTimerSlot.get(timer);
            if (state.valid && !state.firing && firesInLocked(state, rl, mode) && (!next || state.fireTime < *next))
                next = state.fireTime;
        }
        if (next && Clock::now() >= *next)
            break;
        if (next)
            rl.cv.wait_until(lock, *next);
        else
            rl.cv.wait(lock);
    }
    rl.waiting = false;
}

CFRunLoopRunResult runInMode(CFRunLoopRef runLoop, const std::string &mode, CFTimeInterval seconds,
                             bool returnAfterSourceHandled)
{
    RunLoopState &rl = runLoopState(runLoop);
    std::optional<Clock::time_point> deadline;
    if (seconds <= 0)
        deadline = Clock::now();
    else if (seconds < 1.0e9)
        deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    {
        std::lock_guard<std::mutex> lock(gLock());
        if (isEmptyLocked(rl, mode))
            return kCFRunLoopRunFinished;
        if (rl.stopped) {
            rl.stopped = false;
            return kCFRunLoopRunStopped;
        }
        rl.modeStack.push_back(mode);
    }
    struct ModeScope {
        RunLoopState &rl;
        ~ModeScope()
        {
            std::lock_guard<std::mutex> lock(gLock());
            rl.modeStack.pop_back();
        }
    } scope{rl};
    for (;;) {
        runBlocks(rl, mode);
        fireTimers(rl, mode);
        bool drains;
        {
            std::lock_guard<std::mutex> lock(gLock());
            drains = drainsMainQueueLocked(rl, mode);
        }
        bool handled = drains && drainMainQueue();
        std::unique_lock<std::mutex> lock(gLock());
        if (handled && returnAfterSourceHandled)
            return kCFRunLoopRunHandledSource;
        if (deadline && Clock::now() >= *deadline)
            return kCFRunLoopRunTimedOut;
        if (rl.stopped) {
            rl.stopped = false;
            return kCFRunLoopRunStopped;
        }
        if (isEmptyLocked(rl, mode))
            return kCFRunLoopRunFinished;
        waitLocked(lock, rl, mode, deadline);
    }
}

void wakeMainRunLoop()
{
    CFRunLoopWakeUp(CFRunLoopGetMain());
}

const void *retainBlock(const void *block)
{
    return _Block_copy(block);
}

void releaseBlock(const void *block)
{
    _Block_release(block);
}

void callBlock(CFRunLoopTimerRef timer, void *block)
{
    (reinterpret_cast<void (^)(CFRunLoopTimerRef)>(block))(timer);
}

// After CoreFoundation's own classes (priority 110) and before its default-priority
// initialisers; NSObject is registered by libobjc, which loads first.
__attribute__((constructor(120))) void declareRunLoopClasses()
{
    ensureClasses();
    gRunLoopClass =
        fakeobjc::ClassDef("__CFRunLoop", "NSObject").stateIvar().method("dealloc", runLoopDealloc).registerWith(
            gRunLoopSlot);
    gTimerClass =
        fakeobjc::ClassDef("NSTimer", "NSObject").stateIvar().method("dealloc", timerDealloc).registerWith(gTimerSlot);
    gCFTimerClass = fakeobjc::ClassDef("__NSCFTimer", "NSTimer").registerClass();
    typeIDForClass(gRunLoopClass);
    typeIDForClass(gTimerClass);
    _dispatch_main_queue_set_wakeup_4CF(wakeMainRunLoop);
}

} // namespace
} // namespace fakecf

using namespace fakecf;

extern "C" {

const CFRunLoopMode kCFRunLoopDefaultMode = reinterpret_cast<CFStringRef>(constantString(kDefaultName));
const CFRunLoopMode kCFRunLoopCommonModes = reinterpret_cast<CFStringRef>(constantString(kCommonName));

CFTypeID CFRunLoopGetTypeID(void)
{
    return typeIDForClass(gRunLoopClass);
}

CFRunLoopRef CFRunLoopGetMain(void)
{
    static id main = [] {
        id rl = newRunLoop(true);
        fakeobjc::makeImmortal(rl);
        return rl;
    }();
    return reinterpret_cast<CFRunLoopRef>(main);
}

CFRunLoopRef CFRunLoopGetCurrent(void)
{
    if (isMainThread())
        return CFRunLoopGetMain();
    if (!tRunLoop.runLoop)
        tRunLoop.runLoop = newRunLoop(false);
    return reinterpret_cast<CFRunLoopRef>(tRunLoop.runLoop);
}

CFRunLoopMode CFRunLoopCopyCurrentMode(CFRunLoopRef rl)
{
    RunLoopState &state = runLoopState(rl);
    std::lock_guard<std::mutex> lock(gLock());
    if (state.modeStack.empty())
        return nullptr;
    return reinterpret_cast<CFRunLoopMode>(objc_retain(constantString(state.modeStack.back().c_str())));
}

void CFRunLoopAddCommonMode(CFRunLoopRef rl, CFRunLoopMode mode)
{
    RunLoopState &state = runLoopState(rl);
    std::string name = modeName(mode);
    std::lock_guard<std::mutex> lock(gLock());
    if (name != kCommonName)
        state.commonModes.insert(name);
    state.cv.notify_all();
}

CFAbsoluteTime CFRunLoopGetNextTimerFireDate(CFRunLoopRef rl, CFRunLoopMode mode)
{
    RunLoopState &state = runLoopState(rl);
    std::string name = modeName(mode);
    std::lock_guard<std::mutex> lock(gLock());
    std::optional<CFAbsoluteTime> next;
    for (id timer : state.timers) {
        const TimerState &timerState = gTimerSlot.get(timer);
        if (timerState.valid && firesInLocked(timerState, state, name) && (!next || timerState.fireDate < *next))
            next = timerState.fireDate;
    }
    return next.value_or(0.0);
}

void CFRunLoopRun(void)
{
    CFRunLoopRunResult result;
    do {
        result = runInMode(CFRunLoopGetCurrent(), kDefaultName, 1.0e10, false);
    } while (result != kCFRunLoopRunStopped && result != kCFRunLoopRunFinished);
}

CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds, Boolean returnAfterSourceHandled)
{
    return runInMode(CFRunLoopGetCurrent(), modeName(mode), seconds, returnAfterSourceHandled);
}

Boolean CFRunLoopIsWaiting(CFRunLoopRef rl)
{
    RunLoopState &state = runLoopState(rl);
    std::lock_guard<std::mutex> lock(gLock());
    return state.waiting;
}

void CFRunLoopWakeUp(CFRunLoopRef rl)
{
    RunLoopState &state = runLoopState(rl);
    std::lock_guard<std::mutex> lock(gLock());
    state.wakeUp = true;
    state.cv.notify_all();
}

void CFRunLoopStop(CFRunLoopRef rl)
{
    RunLoopState &state = runLoopState(rl);
    std::lock_guard<std::mutex> lock(gLock());
    state.stopped = true;
    state.cv.notify_all();
}

void CFRunLoopPerformBlock(CFRunLoopRef rl, CFTypeRef mode, void (^block)(void))
{
    RunLoopState &state = runLoopState(rl);
    if (!mode || !block)
        return;
    std::vector<std::string> names;
    if (CFGetTypeID(mode) == CFArrayGetTypeID()) {
        auto modes = static_cast<CFArrayRef>(mode);
        for (CFIndex i = 0; i < CFArrayGetCount(modes); i++)
            names.push_back(modeName(CFArrayGetValueAtIndex(modes, i)));
    } else {
        names.push_back(modeName(mode));
    }
    std::lock_guard<std::mutex> lock(gLock());
    state.blocks.push_back(PendingBlock{std::move(names), Block_copy(block)});
}

Boolean CFRunLoopContainsTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode)
{
    RunLoopState &loop = runLoopState(rl);
    TimerState &state = timerState(timer);
    std::string name = modeName(mode);
    std::lock_guard<std::mutex> lock(gLock());
    return state.valid && state.runLoop == asObject(rl) &&
           (state.modes.count(name) || (name != kCommonName && firesInLocked(state, loop, name)));
}

void CFRunLoopAddTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode)
{
    RunLoopState &loop = runLoopState(rl);
    TimerState &state = timerState(timer);
    std::string name = modeName(mode);
    std::lock_guard<std::mutex> lock(gLock());
    if (!state.valid || (state.runLoop && state.runLoop != asObject(rl)))
        return;
    if (!state.runLoop) {
        state.runLoop = asObject(rl);
        loop.timers.push_back(objc_retain(asObject(timer)));
    }
    state.modes.insert(name);
    loop.cv.notify_all();
}

void CFRunLoopRemoveTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode)
{
    RunLoopState &loop = runLoopState(rl);
    TimerState &state = timerState(timer);
    std::string name = modeName(mode);
    {
        std::lock_guard<std::mutex> lock(gLock());
        if (state.runLoop != asObject(rl) || !state.modes.erase(name) || !state.modes.empty())
            return;
        state.runLoop = nil;
        loop.timers.erase(std::find(loop.timers.begin(), loop.timers.end(), asObject(timer)));
    }
    objc_release(asObject(timer));
}

CFTypeID CFRunLoopTimerGetTypeID(void)
{
    return typeIDForClass(gTimerClass);
}

CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef, CFAbsoluteTime fireDate, CFTimeInterval interval,
                                       CFOptionFlags, CFIndex order, CFRunLoopTimerCallBack callout,
                                       CFRunLoopTimerContext *context)
{
    id timer = class_createInstance(gCFTimerClass, 0);
    TimerState &state = gTimerSlot.get(timer);
    state.valid = true;
    state.fireDate = fireDate;
    state.fireTime = steadyFromAbsolute(fireDate);
    state.interval = interval > 0 ? std::min(interval, kIntervalLimit) : 0.0;
    state.order = order;
    state.callout = callout;
    if (context) {
        state.context = *context;
        if (context->retain && context->info)
            state.context.info = const_cast<void *>(context->retain(context->info));
    }
    return reinterpret_cast<CFRunLoopTimerRef>(timer);
}

CFRunLoopTimerRef CFRunLoopTimerCreateWithHandler(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                                                  CFTimeInterval interval, CFOptionFlags flags, CFIndex order,
                                                  void (^block)(CFRunLoopTimerRef timer))
{
    CFRunLoopTimerContext context{0, reinterpret_cast<void *>(block), retainBlock, releaseBlock, nullptr};
    return CFRunLoopTimerCreate(allocator, fireDate, interval, flags, order, callBlock, &context);
}

CFAbsoluteTime CFRunLoopTimerGetNextFireDate(CFRunLoopTimerRef timer)
{
    TimerState &state = timerState(timer);
    std::lock_guard<std::mutex> lock(gLock());
    return state.valid ? state.fireDate : 0.0;
}

void CFRunLoopTimerSetNextFireDate(CFRunLoopTimerRef timer, CFAbsoluteTime fireDate)
{
    TimerState &state = timerState(timer);
    std::lock_guard<std::mutex> lock(gLock());
    if (!state.valid)
        return;
    state.fireDate = fireDate;
    state.fireTime = steadyFromAbsolute(fireDate);
    if (state.runLoop)
        gRunLoopSlot.get(state.runLoop).cv.notify_all();
}

CFTimeInterval CFRunLoopTimerGetInterval(CFRunLoopTimerRef timer)
{
    TimerState &state = timerState(timer);
    std::lock_guard<std::mutex> lock(gLock());
    return state.interval;
}

Boolean CFRunLoopTimerDoesRepeat(CFRunLoopTimerRef timer)
{
    return CFRunLoopTimerGetInterval(timer) > 0;
}

CFIndex CFRunLoopTimerGetOrder(CFRunLoopTimerRef timer)
{
    TimerState &state = timerState(timer);
    std::lock_guard<std::mutex> lock(gLock());
    return state.order;
}

void CFRunLoopTimerInvalidate(CFRunLoopTimerRef timer)
{
    TimerState &state = timerState(timer);
    CFRunLoopTimerContext context{};
    bool wasScheduled = false;
    {
        std::lock_guard<std::mutex> lock(gLock());
        if (!state.valid)
            return;
        state.valid = false;
        if (state.runLoop) {
            RunLoopState &loop = gRunLoopSlot.get(state.runLoop);
            loop.timers.erase(std::find(loop.timers.begin(), loop.timers.end(), asObject(timer)));
            loop.cv.notify_all();
            state.runLoop = nil;
            state.modes.clear();
            wasScheduled = true;
        }
        context = state.context;
        state.context.info = nullptr;
    }
    if (context.release && context.info)
        context.release(context.info);
    // The run loop's reference; it may free the timer.
    if (wasScheduled)
        objc_release(asObject(timer));
}

Boolean CFRunLoopTimerIsValid(CFRunLoopTimerRef timer)
{
    TimerState &state = timerState(timer);
    std::lock_guard<std::mutex> lock(gLock());
    return state.valid;
}

void CFRunLoopTimerGetContext(CFRunLoopTimerRef timer, CFRunLoopTimerContext *context)
{
    TimerState &state = timerState(timer);
    std::lock_guard<std::mutex> lock(gLock());
    if (context)
        *context = state.context;
}

CFTimeInterval CFRunLoopTimerGetTolerance(CFRunLoopTimerRef timer)
{
    TimerState &state = timerState(timer);
    std::lock_guard<std::mutex> lock(gLock());
    return state.tolerance;
}

void CFRunLoopTimerSetTolerance(CFRunLoopTimerRef timer, CFTimeInterval tolerance)
{
    TimerState &state = timerState(timer);
    std::lock_guard<std::mutex> lock(gLock());
    state.tolerance = std::max(tolerance, 0.0);
}

// -[NSTimer fire]'s work (Foundation's NSTimer.cpp): the callout now, with the schedule of a
// repeating timer unchanged and a one-shot timer invalidated afterwards. Nothing for an invalid timer.
__attribute__((visibility("default"))) void _CFRunLoopTimerFire(CFRunLoopTimerRef timer)
{
    TimerState &state = timerState(timer);
    void *info;
    CFRunLoopTimerContext context;
    CFRunLoopTimerCallBack callout;
    {
        std::lock_guard<std::mutex> lock(gLock());
        if (!state.valid)
            return;
        context = state.context;
        callout = state.callout;
    }
    info = context.retain && context.info ? const_cast<void *>(context.retain(context.info)) : context.info;
    id object = objc_retain(asObject(timer));
    auto finish = [&] {
        if (!CFRunLoopTimerDoesRepeat(timer))
            CFRunLoopTimerInvalidate(timer);
        if (context.release && info)
            context.release(info);
        objc_release(object);
    };
    try {
        if (callout)
            callout(timer, info);
    } catch (...) {
        finish();
        throw;
    }
    finish();
}

bool CFRunLoopRunUntil_np(double timeoutSeconds, bool (^condition)(void))
{
    constexpr CFTimeInterval kSlice = 0.01;
    CFAbsoluteTime deadline = CFAbsoluteTimeGetCurrent() + timeoutSeconds;
    for (;;) {
        if (condition())
            return true;
        CFTimeInterval remaining = deadline - CFAbsoluteTimeGetCurrent();
        if (remaining <= 0)
            return false;
        // A thread whose run loop has nothing to wait for returns at once; pause for a slice so
        // the condition is polled rather than spun on.
        if (CFRunLoopRunInMode(kCFRunLoopDefaultMode, std::min(remaining, kSlice), true) == kCFRunLoopRunFinished)
            std::this_thread::sleep_for(std::chrono::duration<double>(std::min(remaining, kSlice)));
    }
}

} // extern "C"
