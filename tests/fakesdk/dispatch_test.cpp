// fakesdk's libdispatch, run loop and timers as an app sees them: serial queues are FIFO and
// exclusive, global queues parallel, main-queue work runs only on the main thread while its run
// loop runs, dispatch_after never fires early, dispatch objects are runtime objects that pending
// work keeps alive, blocks are copied and released, NSTimer retains its target until invalidated.
#include "FakesdkTestSupport.h"

#include <Block.h>
#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>
#include <fakesdk/dispatch_np.h>
#include <fakesdk/objc_np.h>
#include <objc/runtime.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>
#include <latch>
#include <mutex>
#include <set>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern "C" {
extern id const NSDefaultRunLoopMode;
extern id const NSRunLoopCommonModes;
}

namespace {

using Clock = std::chrono::steady_clock;

using namespace fakesdk_test;

dispatch_time_t after(double seconds)
{
    return dispatch_time(DISPATCH_TIME_NOW, static_cast<int64_t>(seconds * NSEC_PER_SEC));
}

// Whether a weakly referenced object is still alive.
bool alive(id *weak)
{
    id strong = objc_loadWeakRetained(weak);
    objc_release(strong);
    return strong != nil;
}

// Counts the live copies of a block's captured state: a block copies its captured C++ objects
// when Block_copy moves it to the heap and destroys them when the last reference goes.
struct Tracker {
    static std::atomic<int> live;
    Tracker() { live++; }
    Tracker(const Tracker &) { live++; }
    ~Tracker() { live--; }
};
std::atomic<int> Tracker::live{0};

class DispatchTest : public PooledTest {
protected:
    void SetUp() override
    {
        PooledTest::SetUp();
        trackersBefore_ = Tracker::live.load();
    }
    void TearDown() override
    {
        // Nothing a test submitted may be left on the main queue for the next one.
        CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
        PooledTest::TearDown();
    }
    // Runs the main run loop until every tracked block copy is gone.
    bool trackersReleased(double seconds = 5)
    {
        int baseline = trackersBefore_;
        return CFRunLoopRunUntil_np(seconds, ^{ return Tracker::live.load() == baseline; });
    }

    int trackersBefore_ = 0;
};

// ---- serial and concurrent queues

TEST_F(DispatchTest, SerialQueueRunsItemsInSubmissionOrderOneAtATime)
{
    constexpr int kProducers = 4, kItems = 500;
    dispatch_queue_t queue = dispatch_queue_create("com.zerlan.test.serial", DISPATCH_QUEUE_SERIAL);
    dispatch_group_t group = dispatch_group_create();
    std::vector<std::pair<int, int>> order; // written only by the queue's items
    auto *orderPtr = &order;
    std::atomic<int> inside{0}, overlaps{0};
    auto *insidePtr = &inside, *overlapsPtr = &overlaps;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; p++)
        producers.emplace_back([=] {
            for (int i = 0; i < kItems; i++)
                dispatch_group_async(group, queue, ^{
                    if (insidePtr->fetch_add(1) != 0)
                        overlapsPtr->fetch_add(1);
                    orderPtr->emplace_back(p, i);
                    std::this_thread::yield();
                    insidePtr->fetch_sub(1);
                });
        });
    for (auto &t : producers)
        t.join();
    ASSERT_EQ(dispatch_group_wait(group, after(10)), 0);
    EXPECT_EQ(overlaps.load(), 0) << "two items of a serial queue ran at once";
    ASSERT_EQ(order.size(), size_t(kProducers * kItems));
    std::vector<int> next(kProducers, 0);
    for (auto [p, i] : order) {
        EXPECT_EQ(i, next[p]) << "producer " << p << "'s items ran out of order";
        next[p] = i + 1;
    }
    dispatch_release(group);
    dispatch_release(queue);
}

// Items that wait for each other can only all finish if they run at the same time.
void expectParallel(dispatch_queue_t queue, int width)
{
    std::atomic<int> arrived{0}, metAll{0};
    auto *arrivedPtr = &arrived, *metAllPtr = &metAll;
    std::mutex threadsLock;
    std::set<pid_t> threads;
    auto *lockPtr = &threadsLock;
    auto *threadsPtr = &threads;
    dispatch_group_t group = dispatch_group_create();
    for (int i = 0; i < width; i++)
        dispatch_group_async(group, queue, ^{
            {
                std::lock_guard<std::mutex> guard(*lockPtr);
                threadsPtr->insert(static_cast<pid_t>(syscall(SYS_gettid)));
            }
            arrivedPtr->fetch_add(1);
            auto deadline = Clock::now() + std::chrono::seconds(5);
            while (arrivedPtr->load() < width && Clock::now() < deadline)
                std::this_thread::yield();
            if (arrivedPtr->load() == width)
                metAllPtr->fetch_add(1);
        });
    ASSERT_EQ(dispatch_group_wait(group, after(10)), 0);
    EXPECT_EQ(metAll.load(), width) << "items of " << dispatch_queue_get_label(queue) << " did not run in parallel";
    EXPECT_EQ(threads.size(), size_t(width));
    EXPECT_EQ(threads.count(getpid()), 0u) << "pool work ran on the main thread";
    dispatch_release(group);
}

TEST_F(DispatchTest, GlobalAndConcurrentQueuesRunItemsInParallel)
{
    expectParallel(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), 4);
    expectParallel(dispatch_get_global_queue(QOS_CLASS_USER_INITIATED, 0), 4);
    dispatch_queue_t concurrent = dispatch_queue_create("com.zerlan.test.concurrent", DISPATCH_QUEUE_CONCURRENT);
    expectParallel(concurrent, 4);
    dispatch_release(concurrent);
}

TEST_F(DispatchTest, WorkBlockedOnLaterWorkStillGetsAThread)
{
    // More blocked items than a pool runs at once: the item that releases them needs a thread.
    constexpr int kBlocked = 24;
    dispatch_queue_t global = dispatch_get_global_queue(QOS_CLASS_UTILITY, 0);
    dispatch_semaphore_t gate = dispatch_semaphore_create(0);
    dispatch_group_t group = dispatch_group_create();
    std::atomic<int> released{0};
    auto *releasedPtr = &released;
    for (int i = 0; i < kBlocked; i++)
        dispatch_group_async(group, global, ^{
            if (dispatch_semaphore_wait(gate, after(10)) == 0)
                releasedPtr->fetch_add(1);
        });
    dispatch_group_async(group, global, ^{
        for (int i = 0; i < kBlocked; i++)
            dispatch_semaphore_signal(gate);
    });
    ASSERT_EQ(dispatch_group_wait(group, after(15)), 0);
    EXPECT_EQ(released.load(), kBlocked);
    dispatch_release(group);
    dispatch_release(gate);
}

TEST_F(DispatchTest, SyncRunsOnTheCallerOnceTheSerialQueueIsFree)
{
    dispatch_queue_t queue = dispatch_queue_create("com.zerlan.test.sync", nullptr);
    dispatch_semaphore_t gate = dispatch_semaphore_create(0);
    std::atomic<bool> firstDone{false};
    auto *firstDonePtr = &firstDone;
    dispatch_async(queue, ^{
        dispatch_semaphore_wait(gate, after(10));
        firstDonePtr->store(true);
    });
    std::atomic<bool> syncReturned{false};
    std::thread caller([&] {
        pid_t me = static_cast<pid_t>(syscall(SYS_gettid));
        __block pid_t ranOn = 0;
        __block bool sawFirstDone = false;
        __block const char *label = nullptr;
        dispatch_sync(queue, ^{
            ranOn = static_cast<pid_t>(syscall(SYS_gettid));
            sawFirstDone = firstDonePtr->load();
            label = dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL);
        });
        EXPECT_EQ(ranOn, me) << "dispatch_sync work runs on the calling thread";
        EXPECT_TRUE(sawFirstDone) << "dispatch_sync overtook earlier work";
        EXPECT_STREQ(label, "com.zerlan.test.sync");
        syncReturned = true;
    });
    // The queue is busy: the caller must still be waiting.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(syncReturned.load());
    dispatch_semaphore_signal(gate);
    caller.join();
    EXPECT_TRUE(syncReturned.load());

    // Many pool items syncing onto one serial queue at once (more than a pool runs): no deadlock,
    // and still one at a time.
    dispatch_group_t group = dispatch_group_create();
    std::atomic<int> inside{0}, overlaps{0}, done{0};
    auto *insidePtr = &inside, *overlapsPtr = &overlaps, *donePtr = &done;
    for (int i = 0; i < 40; i++)
        dispatch_group_async(group, dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
            dispatch_async(queue, ^{
                std::this_thread::yield();
            });
            dispatch_sync(queue, ^{
                if (insidePtr->fetch_add(1) != 0)
                    overlapsPtr->fetch_add(1);
                std::this_thread::yield();
                insidePtr->fetch_sub(1);
                donePtr->fetch_add(1);
            });
        });
    ASSERT_EQ(dispatch_group_wait(group, after(15)), 0);
    EXPECT_EQ(done.load(), 40);
    EXPECT_EQ(overlaps.load(), 0);
    dispatch_release(group);
    dispatch_release(gate);
    dispatch_release(queue);
}

// ---- dispatch_after and time

TEST_F(DispatchTest, AfterRunsInDeadlineOrderAndNeverEarly)
{
    dispatch_queue_t queue = dispatch_queue_create("com.zerlan.test.after", nullptr);
    dispatch_group_t group = dispatch_group_create();
    struct Fired {
        int tag;
        dispatch_time_t deadline;
        dispatch_time_t ranAt;
    };
    std::vector<Fired> fired;
    auto *firedPtr = &fired;
    const double delays[] = {0.06, 0.02, 0.04, 0.0, 0.02};
    for (int i = 0; i < 5; i++) {
        dispatch_time_t deadline = after(delays[i]);
        dispatch_group_enter(group);
        dispatch_after(deadline, queue, ^{
            firedPtr->push_back({i, deadline, dispatch_time(DISPATCH_TIME_NOW, 0)});
            dispatch_group_leave(group);
        });
    }
    // A wall-clock deadline and a deadline already past.
    dispatch_time_t wall = dispatch_walltime(nullptr, static_cast<int64_t>(0.03 * NSEC_PER_SEC));
    dispatch_time_t wallMonotonic = after(0.03);
    dispatch_group_enter(group);
    dispatch_after(wall, queue, ^{
        firedPtr->push_back({5, wallMonotonic - NSEC_PER_MSEC, dispatch_time(DISPATCH_TIME_NOW, 0)});
        dispatch_group_leave(group);
    });
    __block bool forever = false;
    dispatch_after(DISPATCH_TIME_FOREVER, queue, ^{
        forever = true;
    });
    ASSERT_EQ(dispatch_group_wait(group, after(10)), 0);
    ASSERT_EQ(fired.size(), 6u);
    std::vector<int> tags;
    for (auto &f : fired) {
        tags.push_back(f.tag);
        EXPECT_GE(f.ranAt, f.deadline) << "item " << f.tag << " ran before its deadline";
    }
    EXPECT_EQ(tags, (std::vector<int>{3, 1, 4, 5, 2, 0})) << "items ran out of deadline order";
    EXPECT_FALSE(forever);
    dispatch_release(group);
    dispatch_release(queue);
}

TEST(DispatchTime, ArithmeticSaturatesAsApplesDoes)
{
    const timespec oneSecond{1, 0}, epoch{0, 0};
    const dispatch_time_t wallOne = dispatch_walltime(&oneSecond, 0);
    struct Case {
        const char *what;
        dispatch_time_t got, expected;
    } cases[] = {
        {"forever stays forever", dispatch_time(DISPATCH_TIME_FOREVER, -5), DISPATCH_TIME_FOREVER},
        {"monotonic plus delta", dispatch_time(1000, 500), 1500},
        {"monotonic underflow", dispatch_time(1000, -2000), 1},
        {"monotonic overflow", dispatch_time(uint64_t(INT64_MAX) - 10, 100), DISPATCH_TIME_FOREVER},
        {"wall time is negated nanoseconds", wallOne, static_cast<dispatch_time_t>(-int64_t(NSEC_PER_SEC))},
        {"wall plus delta", dispatch_time(wallOne, NSEC_PER_SEC), static_cast<dispatch_time_t>(-2 * int64_t(NSEC_PER_SEC))},
        {"wall underflow", dispatch_time(wallOne, -2 * int64_t(NSEC_PER_SEC)), static_cast<dispatch_time_t>(-2ll)},
        {"walltime at the epoch", dispatch_walltime(&epoch, 1), DISPATCH_TIME_FOREVER},
        {"walltime before the epoch", dispatch_walltime(&epoch, -5), static_cast<dispatch_time_t>(-2ll)},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.got, c.expected) << c.what;
    dispatch_time_t now = dispatch_time(DISPATCH_TIME_NOW, 0);
    dispatch_time_t later = dispatch_time(DISPATCH_TIME_NOW, NSEC_PER_SEC);
    EXPECT_GT(later, now + NSEC_PER_SEC - NSEC_PER_SEC / 10);
    EXPECT_LE(later - now, NSEC_PER_SEC + NSEC_PER_SEC / 10);
    EXPECT_LT(static_cast<int64_t>(dispatch_time(DISPATCH_WALLTIME_NOW, 0)), 0) << "a wall-clock time";
}

// ---- main queue and run loop

TEST_F(DispatchTest, MainQueueWorkRunsOnlyWhileTheMainThreadRunsItsRunLoop)
{
    ASSERT_TRUE(onMainThread()) << "GoogleTest runs tests on the main thread";
    // Written by main-queue work only, on the main thread.
    std::vector<int> ran;
    bool allOnMain = true;
    auto *ranPtr = &ran;
    auto *allOnMainPtr = &allOnMain;
    std::thread producer([=] {
        for (int i = 0; i < 3; i++)
            dispatch_async(dispatch_get_main_queue(), ^{
                ranPtr->push_back(i);
                *allOnMainPtr = *allOnMainPtr && onMainThread();
            });
    });
    producer.join();
    // Time passes without the run loop running: nothing runs.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(ran.empty()) << "main-queue work ran without the run loop";
    EXPECT_TRUE(CFRunLoopRunUntil_np(5, ^{ return true; }));
    EXPECT_TRUE(ran.empty()) << "waiting for a condition that holds ran the loop";
    // A mode that is not a common mode does not drain the main queue either.
    EXPECT_EQ(CFRunLoopRunInMode(CFSTR("ZerlanTestMode"), 0.05, false), kCFRunLoopRunFinished);
    EXPECT_TRUE(ran.empty());

    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 5, true), kCFRunLoopRunHandledSource);
    EXPECT_EQ(ran, (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(allOnMain);
    EXPECT_STREQ(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL), "com.apple.main-thread");
}

TEST_F(DispatchTest, NestedRunLoopInsideMainQueueWorkDoesNotDrainTheMainQueue)
{
    __block std::vector<std::string> events;
    dispatch_async(dispatch_get_main_queue(), ^{
        events.push_back("first begins");
        CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.05, false);
        events.push_back("first ends");
    });
    dispatch_async(dispatch_get_main_queue(), ^{
        events.push_back("second");
    });
    ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return events.size() == 3; }));
    EXPECT_EQ(events, (std::vector<std::string>{"first begins", "first ends", "second"}));
}

TEST_F(DispatchTest, SyncToMainFromAWorkerRunsOnTheMainThread)
{
    __block bool ranOnMain = false;
    __block int value = 0;
    std::atomic<int> seenAfterSync{-1};
    std::atomic<bool> done{false};
    auto *seenPtr = &seenAfterSync;
    auto *donePtr = &done;
    dispatch_async(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
        dispatch_sync(dispatch_get_main_queue(), ^{
            ranOnMain = onMainThread();
            value = 42;
        });
        seenPtr->store(value);
        donePtr->store(true);
    });
    ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return donePtr->load(); }));
    EXPECT_TRUE(ranOnMain);
    EXPECT_EQ(seenAfterSync.load(), 42) << "dispatch_sync returned before its work ran";
}

TEST_F(DispatchTest, RunLoopResultsAndStop)
{
    auto start = Clock::now();
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.03, false), kCFRunLoopRunTimedOut)
        << "the main run loop waits for main-queue work in the default mode";
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(30));
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false), kCFRunLoopRunTimedOut);

    // Stopped from another thread while it waits.
    std::thread stopper([] {
        auto deadline = Clock::now() + std::chrono::seconds(5);
        while (!CFRunLoopIsWaiting(CFRunLoopGetMain()) && Clock::now() < deadline)
            std::this_thread::yield();
        CFRunLoopStop(CFRunLoopGetMain());
    });
    start = Clock::now();
    EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 10, false), kCFRunLoopRunStopped);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    stopper.join();

    // CFRunLoopRun returns when main-queue work stops the loop.
    __block bool stopped = false;
    dispatch_async(dispatch_get_main_queue(), ^{
        stopped = true;
        CFRunLoopStop(CFRunLoopGetCurrent());
    });
    CFRunLoopRun();
    EXPECT_TRUE(stopped);
}

TEST_F(DispatchTest, PerformBlockAndTimersKeepToTheirModes)
{
    __block std::vector<std::string> ran;
    CFRunLoopRef main = CFRunLoopGetMain();
    CFRunLoopPerformBlock(main, CFSTR("ZerlanTestMode"), ^{
        ran.push_back("custom block");
    });
    CFRunLoopTimerRef customTimer = CFRunLoopTimerCreateWithHandler(
        nullptr, CFAbsoluteTimeGetCurrent(), 0, 0, 0, ^(CFRunLoopTimerRef) {
            ran.push_back("custom timer");
        });
    CFRunLoopTimerRef commonTimer = CFRunLoopTimerCreateWithHandler(
        nullptr, CFAbsoluteTimeGetCurrent(), 0, 0, 0, ^(CFRunLoopTimerRef) {
            ran.push_back("common timer");
        });
    CFRunLoopAddTimer(main, customTimer, CFSTR("ZerlanTestMode"));
    CFRunLoopAddTimer(main, commonTimer, kCFRunLoopCommonModes);
    EXPECT_TRUE(CFRunLoopContainsTimer(main, commonTimer, kCFRunLoopDefaultMode));
    EXPECT_FALSE(CFRunLoopContainsTimer(main, customTimer, kCFRunLoopDefaultMode));

    ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return !ran.empty(); }));
    EXPECT_EQ(ran, (std::vector<std::string>{"common timer"}));
    EXPECT_FALSE(CFRunLoopTimerIsValid(commonTimer)) << "a one-shot timer is invalid after it fired";
    EXPECT_EQ(CFGetRetainCount(commonTimer), 1) << "invalidation dropped the run loop's reference";

    EXPECT_EQ(CFRunLoopRunInMode(CFSTR("ZerlanTestMode"), 5, false), kCFRunLoopRunFinished)
        << "the custom mode is empty once its block ran and its one-shot timer fired";
    EXPECT_EQ(ran, (std::vector<std::string>{"common timer", "custom block", "custom timer"}));
    CFRelease(customTimer);
    CFRelease(commonTimer);
}

struct InfoCounts {
    int retains = 0, releases = 0, callouts = 0;
    int outstandingAtCallout = 0;
};

TEST_F(DispatchTest, TimerContextInfoIsHeldUntilInvalidationAndFireUsesTheCallout)
{
    InfoCounts counts;
    CFRunLoopTimerContext context{};
    context.info = &counts;
    context.retain = [](const void *info) -> const void * {
        static_cast<InfoCounts *>(const_cast<void *>(info))->retains++;
        return info;
    };
    context.release = [](const void *info) { static_cast<InfoCounts *>(const_cast<void *>(info))->releases++; };
    auto callout = [](CFRunLoopTimerRef, void *info) {
        auto *c = static_cast<InfoCounts *>(info);
        c->callouts++;
        c->outstandingAtCallout = c->retains - c->releases;
    };
    CFRunLoopTimerRef timer =
        CFRunLoopTimerCreate(nullptr, CFAbsoluteTimeGetCurrent() + 3600, 1.0, 0, 0, callout, &context);
    EXPECT_EQ(counts.retains, 1) << "the timer retains its info";
    EXPECT_TRUE(CFRunLoopTimerDoesRepeat(timer));
    double fireDate = CFRunLoopTimerGetNextFireDate(timer);
    send<void>(reinterpret_cast<id>(timer), "fire");
    EXPECT_EQ(counts.callouts, 1);
    EXPECT_EQ(counts.outstandingAtCallout, 2) << "the info is retained around the callout";
    EXPECT_TRUE(CFRunLoopTimerIsValid(timer)) << "-fire leaves a repeating timer scheduled";
    EXPECT_EQ(CFRunLoopTimerGetNextFireDate(timer), fireDate);

    CFRunLoopAddTimer(CFRunLoopGetMain(), timer, kCFRunLoopDefaultMode);
    EXPECT_EQ(CFGetRetainCount(timer), 2);
    CFRunLoopTimerInvalidate(timer);
    CFRunLoopTimerInvalidate(timer);
    EXPECT_EQ(counts.releases, counts.retains) << "invalidation released the info, once";
    EXPECT_EQ(CFGetRetainCount(timer), 1);
    EXPECT_EQ(CFRunLoopTimerGetNextFireDate(timer), 0.0);
    send<void>(reinterpret_cast<id>(timer), "fire");
    EXPECT_EQ(counts.callouts, 1) << "an invalid timer does not fire";
    CFRelease(timer);
    EXPECT_EQ(counts.releases, counts.retains);
}

TEST_F(DispatchTest, BackgroundThreadRunsItsOwnLoopAndTimers)
{
    std::atomic<int> fired{0};
    std::atomic<bool> firedOnMain{false};
    std::thread worker([&] {
        void *pool = objc_autoreleasePoolPush();
        // Its own loop, in CF and NSRunLoop alike; with nothing to wait for, a run finishes at once.
        EXPECT_NE(CFRunLoopGetCurrent(), CFRunLoopGetMain());
        id own = send(cls("NSRunLoop"), "currentRunLoop");
        EXPECT_NE(own, send(cls("NSRunLoop"), "mainRunLoop"));
        EXPECT_EQ(send(cls("NSRunLoop"), "currentRunLoop"), own) << "one NSRunLoop per thread";
        EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 5, false), kCFRunLoopRunFinished);
        EXPECT_EQ(CFRunLoopCopyCurrentMode(CFRunLoopGetCurrent()), nullptr);
        EXPECT_FALSE(send<bool>(own, "runMode:beforeDate:", NSDefaultRunLoopMode,
                                send(cls("NSDate"), "dateWithTimeIntervalSinceNow:", 5.0)))
            << "nothing to run: the loop cannot start";
        objc_autoreleasePoolPop(pool);
        auto *firedPtr = &fired;
        auto *onMainPtr = &firedOnMain;
        CFRunLoopTimerRef timer = CFRunLoopTimerCreateWithHandler(
            nullptr, CFAbsoluteTimeGetCurrent() + 0.01, 0.01, 0, 0, ^(CFRunLoopTimerRef t) {
                onMainPtr->store(onMainThread());
                if (firedPtr->fetch_add(1) == 2)
                    CFRunLoopTimerInvalidate(t);
            });
        CFRunLoopAddTimer(CFRunLoopGetCurrent(), timer, kCFRunLoopDefaultMode);
        CFRelease(timer);
        EXPECT_EQ(CFRunLoopRunInMode(kCFRunLoopDefaultMode, 10, false), kCFRunLoopRunFinished)
            << "the run ends when its only timer is invalidated";
    });
    worker.join();
    EXPECT_EQ(fired.load(), 3);
    EXPECT_FALSE(firedOnMain.load());
}

// ---- once

TEST(DispatchOnce, RunsExactlyOnceAndEveryCallerSeesItsResult)
{
    for (int round = 0; round < 20; round++) {
        static dispatch_once_t predicates[20];
        static std::atomic<int> value[20];
        // Reset so that the test can be repeated in one process.
        predicates[round] = 0;
        value[round] = 0;
        dispatch_once_t *predicate = &predicates[round];
        std::atomic<int> *result = &value[round];
        std::atomic<int> runs{0}, sawUnset{0};
        auto *runsPtr = &runs;
        constexpr int kThreads = 8;
        std::latch start(kThreads);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; t++)
            threads.emplace_back([&] {
                start.arrive_and_wait();
                dispatch_once(predicate, ^{
                    runsPtr->fetch_add(1);
                    // Long enough that the other callers arrive while it runs.
                    auto until = Clock::now() + std::chrono::milliseconds(2);
                    while (Clock::now() < until)
                        std::this_thread::yield();
                    result->store(round + 1);
                });
                if (result->load() != round + 1)
                    sawUnset++;
            });
        for (auto &t : threads)
            t.join();
        EXPECT_EQ(runs.load(), 1) << "round " << round;
        EXPECT_EQ(sawUnset.load(), 0) << "dispatch_once returned before the work finished";
        EXPECT_EQ(*predicate, ~0l);
    }
    static dispatch_once_t functionPredicate;
    static int calls;
    functionPredicate = 0;
    calls = 0;
    for (int i = 0; i < 3; i++)
        dispatch_once_f(&functionPredicate, &calls, [](void *context) { ++*static_cast<int *>(context); });
    EXPECT_EQ(calls, 1);
}

// ---- objects, retain counts and blocks

TEST_F(DispatchTest, DispatchObjectsAreRuntimeObjectsOfApplesClasses)
{
    long liveBefore = objc_liveObjects_np();
    dispatch_queue_t serial = dispatch_queue_create("s", nullptr);
    dispatch_queue_t concurrent = dispatch_queue_create("c", DISPATCH_QUEUE_CONCURRENT);
    dispatch_semaphore_t semaphore = dispatch_semaphore_create(0);
    dispatch_group_t group = dispatch_group_create();
    struct Case {
        id object;
        const char *className;
    } cases[] = {
        {asId(serial), "OS_dispatch_queue_serial"},
        {asId(concurrent), "OS_dispatch_queue_concurrent"},
        {asId(dispatch_get_main_queue()), "OS_dispatch_queue_main"},
        {asId(dispatch_get_global_queue(QOS_CLASS_BACKGROUND, 0)), "OS_dispatch_queue_global"},
        {asId(semaphore), "OS_dispatch_semaphore"},
        {asId(group), "OS_dispatch_group"},
    };
    for (const auto &c : cases) {
        EXPECT_STREQ(object_getClassName(c.object), c.className);
        EXPECT_TRUE(send<bool>(c.object, "isKindOfClass:", cls("OS_dispatch_object")));
    }
    EXPECT_TRUE(send<bool>(asId(dispatch_get_main_queue()), "isKindOfClass:", cls("OS_dispatch_queue_serial")));
    EXPECT_EQ(objc_liveObjects_np(), liveBefore + 4);
    for (id object : {asId(serial), asId(concurrent), asId(semaphore), asId(group)}) {
        EXPECT_EQ(objc_retainCount_np(object), 1) << "a _create function returns +1";
        dispatch_retain(reinterpret_cast<dispatch_object_t>(object));
        EXPECT_EQ(objc_retainCount_np(object), 2);
        objc_release(object);
        EXPECT_EQ(objc_retainCount_np(object), 1) << "objc_release and dispatch_release are one count";
        dispatch_release(reinterpret_cast<dispatch_object_t>(object));
    }
    EXPECT_EQ(objc_liveObjects_np(), liveBefore) << "dispatch_release of the last reference frees the object";

    for (int i = 0; i < 3; i++)
        dispatch_release(dispatch_get_main_queue());
    EXPECT_EQ(objc_retainCount_np(asId(dispatch_get_main_queue())), LONG_MAX);
    EXPECT_EQ(objc_retainCount_np(asId(dispatch_get_global_queue(0, 0))), LONG_MAX);
}

TEST_F(DispatchTest, PendingWorkKeepsAQueueAlive)
{
    dispatch_queue_t queue = dispatch_queue_create("com.zerlan.test.pending", nullptr);
    id weak = nil;
    objc_initWeak(&weak, asId(queue));
    dispatch_semaphore_t gate = dispatch_semaphore_create(0);
    std::atomic<int> ran{0};
    auto *ranPtr = &ran;
    dispatch_async(queue, ^{
        dispatch_semaphore_wait(gate, after(10));
        ranPtr->fetch_add(1);
    });
    dispatch_async(queue, ^{
        ranPtr->fetch_add(1);
    });
    EXPECT_GE(objc_retainCount_np(asId(queue)), 3) << "each pending item holds its queue";
    dispatch_release(queue);
    EXPECT_TRUE(alive(&weak)) << "released with work pending, the queue must live on";
    dispatch_semaphore_signal(gate);
    id *weakPtr = &weak;
    EXPECT_TRUE(CFRunLoopRunUntil_np(5, ^{ return !alive(weakPtr); })) << "the queue outlived its work";
    EXPECT_EQ(ran.load(), 2);
    objc_destroyWeak(&weak);
    dispatch_release(gate);
}

TEST_F(DispatchTest, SubmittedBlocksAreCopiedAndReleasedAfterTheyRun)
{
    dispatch_queue_t serial = dispatch_queue_create("com.zerlan.test.blocks", nullptr);
    dispatch_group_t group = dispatch_group_create();
    std::atomic<int> runs{0};
    auto *runsPtr = &runs;
    struct Submission {
        const char *what;
        void (^submit)(dispatch_block_t);
    };
    Submission submissions[] = {
        {"async to a global queue", ^(dispatch_block_t b) { dispatch_async(dispatch_get_global_queue(0, 0), b); }},
        {"async to a serial queue", ^(dispatch_block_t b) { dispatch_async(serial, b); }},
        {"async to the main queue", ^(dispatch_block_t b) { dispatch_async(dispatch_get_main_queue(), b); }},
        {"after", ^(dispatch_block_t b) { dispatch_after(after(0.01), serial, b); }},
        {"group async", ^(dispatch_block_t b) { dispatch_group_async(group, serial, b); }},
        {"group notify", ^(dispatch_block_t b) { dispatch_group_notify(group, dispatch_get_main_queue(), b); }},
    };
    for (const auto &s : submissions) {
        int before = runs.load();
        // Holds the work until the copy has been counted.
        dispatch_semaphore_t gate = dispatch_semaphore_create(0);
        {
            Tracker tracker;
            s.submit(^{
                (void)tracker;
                dispatch_semaphore_wait(gate, after(5));
                runsPtr->fetch_add(1);
            });
        }
        EXPECT_GT(Tracker::live.load(), trackersBefore_) << s.what << ": the block was not copied";
        dispatch_semaphore_signal(gate);
        EXPECT_TRUE(trackersReleased()) << s.what << ": the block was not released after it ran";
        EXPECT_EQ(runs.load(), before + 1) << s.what;
        dispatch_release(gate);
    }
    dispatch_release(group);
    dispatch_release(serial);
}

// ---- semaphores, groups, contexts, specifics

TEST(DispatchSemaphore, CountsWaitsAndSignals)
{
    EXPECT_EQ(dispatch_semaphore_create(-1), nullptr);
    dispatch_semaphore_t two = dispatch_semaphore_create(2);
    EXPECT_EQ(dispatch_semaphore_wait(two, DISPATCH_TIME_NOW), 0);
    EXPECT_EQ(dispatch_semaphore_wait(two, DISPATCH_TIME_NOW), 0);
    EXPECT_NE(dispatch_semaphore_wait(two, DISPATCH_TIME_NOW), 0) << "one past the count";
    auto start = Clock::now();
    EXPECT_NE(dispatch_semaphore_wait(two, after(0.03)), 0);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(30)) << "a timed wait returned early";
    EXPECT_EQ(dispatch_semaphore_signal(two), 0) << "nobody waits: no thread woken";
    EXPECT_EQ(dispatch_semaphore_wait(two, DISPATCH_TIME_NOW), 0) << "timed-out waits gave their claims back";
    dispatch_semaphore_signal(two);
    dispatch_semaphore_signal(two);
    dispatch_release(two);

    // Until the waiter blocks, each signal finds nobody and is taken back. Rarely the waiter
    // arrives between the two and takes the signal itself; then the round is run again.
    dispatch_semaphore_t zero = dispatch_semaphore_create(0);
    bool signalWokeWaiter = false;
    for (int round = 0; round < 20 && !signalWokeWaiter; round++) {
        std::atomic<bool> woke{false};
        std::thread waiter([&] {
            EXPECT_EQ(dispatch_semaphore_wait(zero, after(10)), 0);
            woke = true;
        });
        auto deadline = Clock::now() + std::chrono::seconds(5);
        while (Clock::now() < deadline) {
            if (dispatch_semaphore_signal(zero) != 0) {
                signalWokeWaiter = true;
                break;
            }
            if (dispatch_semaphore_wait(zero, DISPATCH_TIME_NOW) != 0)
                break;
            std::this_thread::yield();
        }
        waiter.join();
        EXPECT_TRUE(woke.load());
    }
    EXPECT_TRUE(signalWokeWaiter) << "a signal that wakes a waiter returns non-zero";
    dispatch_release(zero);
}

TEST_F(DispatchTest, GroupsWaitNotifyAndKeepThemselvesAlive)
{
    dispatch_group_t empty = dispatch_group_create();
    EXPECT_EQ(dispatch_group_wait(empty, DISPATCH_TIME_NOW), 0);
    dispatch_release(empty);

    dispatch_group_t group = dispatch_group_create();
    id weak = nil;
    objc_initWeak(&weak, asId(group));
    dispatch_group_enter(group);
    EXPECT_NE(dispatch_group_wait(group, after(0.02)), 0);
    std::atomic<int> finished{0};
    auto *finishedPtr = &finished;
    for (int i = 0; i < 8; i++)
        dispatch_group_async(group, dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
            finishedPtr->fetch_add(1);
        });
    __block int finishedAtNotify = -1;
    __block bool notifiedOnMain = false;
    dispatch_group_notify(group, dispatch_get_main_queue(), ^{
        finishedAtNotify = finishedPtr->load();
        notifiedOnMain = onMainThread();
    });
    dispatch_release(group);
    EXPECT_TRUE(alive(&weak)) << "an entered group lives until its last leave";
    auto start = Clock::now();
    EXPECT_FALSE(CFRunLoopRunUntil_np(0.05, ^{ return finishedAtNotify >= 0; })) << "notified while entered";
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50)) << "the wait ended before its timeout";
    dispatch_group_leave(group);
    ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return finishedAtNotify >= 0; }));
    EXPECT_EQ(finishedAtNotify, 8);
    EXPECT_TRUE(notifiedOnMain);
    id *weakPtr = &weak;
    EXPECT_TRUE(CFRunLoopRunUntil_np(5, ^{ return !alive(weakPtr); }));
    objc_destroyWeak(&weak);
}

TEST(DispatchDeathTest, MisuseCrashesAsLibdispatchDoes)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            dispatch_group_t group = dispatch_group_create();
            dispatch_group_leave(group);
        },
        "Unbalanced call to dispatch_group_leave");
    EXPECT_DEATH(
        {
            dispatch_semaphore_t semaphore = dispatch_semaphore_create(1);
            dispatch_semaphore_wait(semaphore, DISPATCH_TIME_FOREVER);
            dispatch_release(semaphore);
        },
        "Semaphore object deallocated while in use");
    EXPECT_DEATH(
        {
            dispatch_queue_t queue = dispatch_queue_create("q", nullptr);
            dispatch_sync(queue, ^{
                dispatch_sync(queue, ^{
                });
            });
        },
        "already owned by current thread");
}

std::atomic<int> gDestroyed{0};

TEST_F(DispatchTest, ContextsLabelsAndQueueSpecificValues)
{
    dispatch_queue_t queue = dispatch_queue_create("com.zerlan.test.specific", nullptr);
    int context = 0;
    dispatch_set_context(queue, &context);
    EXPECT_EQ(dispatch_get_context(queue), &context);
    dispatch_set_context(dispatch_get_main_queue(), &context);
    EXPECT_EQ(dispatch_get_context(dispatch_get_main_queue()), nullptr) << "global objects ignore contexts";
    EXPECT_STREQ(dispatch_queue_get_label(queue), "com.zerlan.test.specific");
    dispatch_queue_t unnamed = dispatch_queue_create(nullptr, nullptr);
    EXPECT_STREQ(dispatch_queue_get_label(unnamed), "");
    dispatch_release(unnamed);

    static char key, mainKey;
    static int value = 1, replacement = 2, mainValue = 3;
    int destroyedBefore = gDestroyed.load();
    auto destructor = [](void *) { gDestroyed++; };
    dispatch_queue_set_specific(queue, &key, &value, destructor);
    dispatch_queue_set_specific(dispatch_get_main_queue(), &mainKey, &mainValue, nullptr);
    EXPECT_EQ(dispatch_queue_get_specific(queue, &key), &value);
    EXPECT_EQ(dispatch_get_specific(&key), nullptr) << "the main thread is not on the queue";
    EXPECT_EQ(dispatch_get_specific(&mainKey), &mainValue) << "the main thread is on the main queue";
    __block void *inAsync = nullptr, *inSync = nullptr;
    dispatch_semaphore_t done = dispatch_semaphore_create(0);
    dispatch_async(queue, ^{
        inAsync = dispatch_get_specific(&key);
        dispatch_semaphore_signal(done);
    });
    ASSERT_EQ(dispatch_semaphore_wait(done, after(5)), 0);
    dispatch_sync(queue, ^{
        inSync = dispatch_get_specific(&key);
    });
    EXPECT_EQ(inAsync, &value);
    EXPECT_EQ(inSync, &value);

    dispatch_queue_set_specific(queue, &key, &replacement, destructor);
    EXPECT_EQ(dispatch_queue_get_specific(queue, &key), &replacement);
    ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return gDestroyed.load() == destroyedBefore + 1; }))
        << "the replaced value's destructor did not run";
    dispatch_release(queue);
    ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return gDestroyed.load() == destroyedBefore + 2; }))
        << "freeing the queue did not destroy its value";
    dispatch_queue_set_specific(dispatch_get_main_queue(), &mainKey, nullptr, nullptr);
    dispatch_release(done);
}

TEST(DispatchGlobalQueues, IdentifiersMapToApplesRootQueues)
{
    struct Case {
        intptr_t identifier;
        const char *label;
    } cases[] = {
        {QOS_CLASS_USER_INTERACTIVE, "com.apple.root.user-interactive-qos"},
        {QOS_CLASS_USER_INITIATED, "com.apple.root.user-initiated-qos"},
        {DISPATCH_QUEUE_PRIORITY_HIGH, "com.apple.root.user-initiated-qos"},
        {QOS_CLASS_DEFAULT, "com.apple.root.default-qos"},
        {DISPATCH_QUEUE_PRIORITY_DEFAULT, "com.apple.root.default-qos"},
        {QOS_CLASS_UTILITY, "com.apple.root.utility-qos"},
        {DISPATCH_QUEUE_PRIORITY_LOW, "com.apple.root.utility-qos"},
        {QOS_CLASS_BACKGROUND, "com.apple.root.background-qos"},
        {DISPATCH_QUEUE_PRIORITY_BACKGROUND, "com.apple.root.background-qos"},
    };
    std::set<dispatch_queue_global_t> distinct;
    for (const auto &c : cases) {
        dispatch_queue_global_t queue = dispatch_get_global_queue(c.identifier, 0);
        ASSERT_NE(queue, nullptr) << c.identifier;
        EXPECT_STREQ(dispatch_queue_get_label(queue), c.label) << c.identifier;
        distinct.insert(queue);
    }
    EXPECT_EQ(distinct.size(), 5u);
    EXPECT_EQ(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 1), nullptr) << "flags must be 0";
    EXPECT_EQ(dispatch_get_global_queue(0x42, 0), nullptr) << "an unknown class";
}

// ---- Foundation: NSTimer, NSRunLoop, NSDate

struct TimerLog {
    std::vector<double> fireDates;
    std::vector<double> firedAt;
    int invalidateAfter = 0;
    id lastTimer = nil;
};
TimerLog *gTimerLog = nullptr;

void timerTick(id, SEL, id timer)
{
    gTimerLog->firedAt.push_back(CFAbsoluteTimeGetCurrent());
    gTimerLog->fireDates.push_back(send<double>(send(timer, "fireDate"), "timeIntervalSinceReferenceDate"));
    gTimerLog->lastTimer = timer;
    if (static_cast<int>(gTimerLog->firedAt.size()) == gTimerLog->invalidateAfter)
        send<void>(timer, "invalidate");
}

id timerTarget()
{
    static Class target = [] {
        Class c = objc_allocateClassPair(objc_getClass("NSObject"), "ZerlanDispatchTestTimerTarget", 0);
        class_addMethod(c, sel_registerName("tick:"), reinterpret_cast<IMP>(timerTick), "v24@0:8@16");
        objc_registerClassPair(c);
        return c;
    }();
    return send(reinterpret_cast<id>(target), "new");
}

TEST_F(DispatchTest, RepeatingTimerKeepsItsPeriodAndReleasesItsTargetWhenInvalidated)
{
    TimerLog log;
    log.invalidateAfter = 4;
    gTimerLog = &log;
    id target = timerTarget();
    id userInfo = send(cls("NSObject"), "new");
    id weakUserInfo = nil;
    objc_initWeak(&weakUserInfo, userInfo);
    const double interval = 0.02;
    void *inner = objc_autoreleasePoolPush();
    id timer = send(cls("NSTimer"), "scheduledTimerWithTimeInterval:target:selector:userInfo:repeats:", interval,
                    target, sel_registerName("tick:"), userInfo, true);
    objc_retain(timer);
    objc_autoreleasePoolPop(inner);
    objc_release(userInfo);
    EXPECT_EQ(objc_retainCount_np(timer), 2) << "the run loop holds a scheduled timer";
    double firstFireDate = send<double>(send(timer, "fireDate"), "timeIntervalSinceReferenceDate");
    EXPECT_TRUE(send<bool>(timer, "isValid"));
    EXPECT_EQ(objc_retainCount_np(target), 2) << "a scheduled timer retains its target";
    EXPECT_EQ(send(timer, "userInfo"), userInfo);
    EXPECT_DOUBLE_EQ(send<double>(timer, "timeInterval"), interval);
    EXPECT_TRUE(send<bool>(timer, "isKindOfClass:", cls("NSTimer")));

    ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return !send<bool>(timer, "isValid"); }));
    ASSERT_EQ(log.firedAt.size(), 4u);
    // A loaded machine may make fires late, and a late repeating timer skips the fires it missed
    // rather than replaying them: every fire is on the timer's grid, later than the one before,
    // and never early.
    double previousPeriod = -1;
    for (size_t i = 0; i < log.firedAt.size(); i++) {
        double periods = (log.fireDates[i] - firstFireDate) / interval;
        EXPECT_NEAR(periods, std::round(periods), 1e-4) << "fire " << i << " is off the timer's period";
        EXPECT_GT(std::round(periods), previousPeriod) << "fire " << i << " repeats an earlier one";
        previousPeriod = std::round(periods);
        EXPECT_GE(log.firedAt[i], log.fireDates[i] - 1e-3) << "fire " << i << " came early";
    }
    EXPECT_EQ(firstFireDate, log.fireDates[0]) << "the first fire is the one scheduled";
    EXPECT_EQ(log.lastTimer, timer) << "the selector receives the timer";
    EXPECT_EQ(objc_retainCount_np(target), 1) << "invalidation released the target";
    EXPECT_FALSE(alive(&weakUserInfo)) << "invalidation released the user info";
    EXPECT_EQ(objc_retainCount_np(timer), 1) << "the run loop let go of the timer";
    send<void>(timer, "invalidate");
    objc_release(timer);
    objc_destroyWeak(&weakUserInfo);
    objc_release(target);
    gTimerLog = nullptr;
}

TEST_F(DispatchTest, OneShotTimersFireAndBlockTimersReleaseTheirBlock)
{
    TimerLog log;
    gTimerLog = &log;
    TimerLog *logPtr = &log;
    id target = timerTarget();
    id oneShot = send(cls("NSTimer"), "timerWithTimeInterval:target:selector:userInfo:repeats:", 0.0, target,
                      sel_registerName("tick:"), id(nil), false);
    EXPECT_DOUBLE_EQ(send<double>(oneShot, "timeInterval"), 0.0) << "a one-shot timer reports no interval";
    EXPECT_FALSE(CFRunLoopRunUntil_np(0.05, ^{ return !logPtr->firedAt.empty(); })) << "an unscheduled timer fired";
    send<void>(send(cls("NSRunLoop"), "currentRunLoop"), "addTimer:forMode:", oneShot, NSRunLoopCommonModes);
    ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return !logPtr->firedAt.empty(); }));
    EXPECT_FALSE(send<bool>(oneShot, "isValid"));
    EXPECT_EQ(objc_retainCount_np(target), 1);

    // -fire calls a repeating timer's target now without moving its schedule.
    id repeating = send(cls("NSTimer"), "scheduledTimerWithTimeInterval:target:selector:userInfo:repeats:", -1.0,
                        target, sel_registerName("tick:"), id(nil), true);
    EXPECT_DOUBLE_EQ(send<double>(repeating, "timeInterval"), 0.0001) << "intervals <= 0 become 0.0001 s";
    send<void>(repeating, "setFireDate:", send(cls("NSDate"), "distantFuture"));
    size_t before = log.firedAt.size();
    send<void>(repeating, "fire");
    EXPECT_EQ(log.firedAt.size(), before + 1);
    EXPECT_TRUE(send<bool>(repeating, "isValid"));
    EXPECT_EQ(log.fireDates.back(), send<double>(send(cls("NSDate"), "distantFuture"), "timeIntervalSinceReferenceDate"));
    send<void>(repeating, "invalidate");
    send<void>(repeating, "fire");
    EXPECT_EQ(log.firedAt.size(), before + 1) << "an invalid timer does not fire";

    __block int blockFires = 0;
    {
        Tracker tracker;
        send(cls("NSTimer"), "scheduledTimerWithTimeInterval:repeats:block:", 0.01, true, ^(id t) {
            (void)tracker;
            if (++blockFires == 2)
                send<void>(t, "invalidate");
        });
    }
    EXPECT_GT(Tracker::live.load(), trackersBefore_);
    ASSERT_TRUE(CFRunLoopRunUntil_np(5, ^{ return blockFires == 2; }));
    EXPECT_TRUE(trackersReleased()) << "invalidation released the timer's block";
    objc_release(target);
    gTimerLog = nullptr;
}

TEST_F(DispatchTest, NSRunLoopRunsTheThreadsCFRunLoop)
{
    id main = send(cls("NSRunLoop"), "mainRunLoop");
    EXPECT_EQ(send(cls("NSRunLoop"), "currentRunLoop"), main);
    EXPECT_EQ(send<CFRunLoopRef>(main, "getCFRunLoop"), CFRunLoopGetMain());
    EXPECT_EQ(NSDefaultRunLoopMode, reinterpret_cast<id>(const_cast<__CFString *>(kCFRunLoopDefaultMode)));
    EXPECT_EQ(text(NSRunLoopCommonModes), "kCFRunLoopCommonModes");

    __block bool ran = false;
    __block std::string modeInside;
    dispatch_async(dispatch_get_main_queue(), ^{
        ran = true;
        modeInside = text(send(main, "currentMode"));
    });
    auto start = Clock::now();
    send<void>(main, "runUntilDate:", send(cls("NSDate"), "dateWithTimeIntervalSinceNow:", 0.05));
    EXPECT_TRUE(ran);
    EXPECT_EQ(modeInside, "kCFRunLoopDefaultMode");
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50)) << "runUntilDate: returned early";
    EXPECT_EQ(send(main, "currentMode"), nil) << "not running";
}

TEST_F(DispatchTest, NSDateArithmeticComparisonAndDescription)
{
    id epoch = send(cls("NSDate"), "dateWithTimeIntervalSince1970:", 0.0);
    EXPECT_DOUBLE_EQ(send<double>(epoch, "timeIntervalSinceReferenceDate"), -978307200.0);
    EXPECT_EQ(text(send(epoch, "description")), "1970-01-01 00:00:00 +0000");
    id later = send(epoch, "dateByAddingTimeInterval:", 90061.5);
    EXPECT_EQ(text(send(later, "description")), "1970-01-02 01:01:01 +0000");
    EXPECT_DOUBLE_EQ(send<double>(later, "timeIntervalSince1970"), 90061.5);
    EXPECT_DOUBLE_EQ(send<double>(later, "timeIntervalSinceDate:", epoch), 90061.5);
    EXPECT_EQ(send<long>(epoch, "compare:", later), -1);
    EXPECT_EQ(send<long>(later, "compare:", epoch), 1);
    id same = send(cls("NSDate"), "dateWithTimeIntervalSinceReferenceDate:", -978307200.0);
    EXPECT_EQ(send<long>(epoch, "compare:", same), 0);
    EXPECT_TRUE(send<bool>(epoch, "isEqual:", same));
    EXPECT_EQ(send<unsigned long>(epoch, "hash"), send<unsigned long>(same, "hash"));
    EXPECT_FALSE(send<bool>(epoch, "isEqual:", later));
    EXPECT_EQ(send(epoch, "earlierDate:", later), epoch);
    EXPECT_EQ(send(epoch, "laterDate:", later), later);
    EXPECT_EQ(text(send(send(cls("NSDate"), "distantFuture"), "description")), "4001-01-01 00:00:00 +0000");
    double now = CFAbsoluteTimeGetCurrent();
    id soon = send(cls("NSDate"), "dateWithTimeIntervalSinceNow:", 10.0);
    EXPECT_NEAR(send<double>(soon, "timeIntervalSinceReferenceDate"), now + 10, 0.5);
    EXPECT_NEAR(send<double>(soon, "timeIntervalSinceNow"), 10, 0.5);
    id fresh = send(send(cls("NSDate"), "alloc"), "init");
    EXPECT_NEAR(send<double>(fresh, "timeIntervalSinceReferenceDate"), now, 0.5);
    EXPECT_EQ(send(fresh, "copy"), fresh) << "immutable: a copy is the same object";
    objc_release(fresh);
    objc_release(fresh);
}

} // namespace
