// Queues: serial queues drain one item at a time on a pool thread, concurrent and global queues
// hand every item to the pool, and the main queue waits for the main thread's run loop.
#include "dispatch_4CF.h"
#include "internal.h"

#include <Block.h>

#include <cstdio>
#include <cstring>
#include <queue>
#include <thread>
#include <vector>

using namespace fakeobjc;

extern "C" __attribute__((visibility("default"))) struct dispatch_queue_s *_dispatch_main_q_ptr = nullptr;

namespace fakedispatch {

void declareClasses();

namespace {

// A serial queue yields its thread after this many items, so that one busy queue cannot
// starve the others sharing the pool.
constexpr int kDrainBudget = 32;

struct Globals {
    RootPool *pools[5];
    dispatch_queue_global_t globals[5];
    dispatch_queue_main_t main;
};

const char *const kGlobalLabels[5] = {
    "com.apple.root.user-interactive-qos", "com.apple.root.user-initiated-qos", "com.apple.root.default-qos",
    "com.apple.root.utility-qos",          "com.apple.root.background-qos",
};
const char *const kPoolNames[5] = {"dispatch.ui", "dispatch.init", "dispatch.default", "dispatch.utility",
                                   "dispatch.bg"};
constexpr int kDefaultIndex = 2;

Globals &globals()
{
    // Never destroyed: worker threads may still run while the process exits.
    static Globals *instance = [] {
        declareClasses();
        auto *g = new Globals();
        for (int i = 0; i < 5; i++) {
            g->pools[i] = new RootPool(kPoolNames[i]);
            auto *state = new QueueState();
            state->kind = QueueKind::Global;
            state->label = kGlobalLabels[i];
            state->pool = g->pools[i];
            id queue = makeObject("OS_dispatch_queue_global", state);
            makeImmortal(queue);
            g->globals[i] = reinterpret_cast<dispatch_queue_global_t>(queue);
        }
        auto *state = new QueueState();
        state->kind = QueueKind::Main;
        state->label = "com.apple.main-thread";
        id queue = makeObject("OS_dispatch_queue_main", state);
        makeImmortal(queue);
        g->main = reinterpret_cast<dispatch_queue_main_t>(queue);
        return g;
    }();
    return *instance;
}

std::atomic<void (*)(void)> gMainWakeup{nullptr};

thread_local dispatch_queue_t tCurrentQueue = nullptr;

dispatch_queue_t currentQueue()
{
    if (tCurrentQueue)
        return tCurrentQueue;
    return isMainThread() ? globals().main : nullptr;
}

class CurrentQueueScope {
public:
    explicit CurrentQueueScope(dispatch_queue_t queue) : saved_(tCurrentQueue) { tCurrentQueue = queue; }
    ~CurrentQueueScope() { tCurrentQueue = saved_; }

private:
    dispatch_queue_t saved_;
};

void callBlock(void *block)
{
    (reinterpret_cast<dispatch_block_t>(block))();
}

[[noreturn]] void uncaught(id exception)
{
    auto text = [](id string) {
        const char *utf8 = msg<const char *>(string, "UTF8String");
        return utf8 ? utf8 : "(null)";
    };
    std::fprintf(stderr, "*** Terminating app due to uncaught exception '%s', reason: '%s'\n",
                 text(msg<id>(exception, "name")), text(msg<id>(exception, "reason")));
    std::abort();
}

void callout(dispatch_function_t function, void *context)
{
    try {
        function(context);
    } catch (id exception) {
        uncaught(exception);
    }
}

// Runs one item on the current thread as the queue's work: inside an autorelease pool, with
// the queue as the current queue. Consumes the item and the reference it held on the queue.
void runWork(dispatch_queue_t queue, Work *work)
{
    {
        CurrentQueueScope scope(queue);
        void *pool = objc_autoreleasePoolPush();
        callout(work->function, work->context);
        objc_autoreleasePoolPop(pool);
    }
    if (work->ownsBlock)
        Block_release(work->context);
    if (work->group)
        groupLeave(work->group);
    delete work;
    objc_release(asId(queue));
}

struct PoolItem {
    dispatch_queue_t queue;
    Work *work;
};

void runPoolItem(void *argument)
{
    auto *item = static_cast<PoolItem *>(argument);
    runWork(item->queue, item->work);
    delete item;
}

} // namespace

struct SyncWaiter {
    std::mutex mutex;
    std::condition_variable cv;
    bool ready = false;

    void signal()
    {
        std::lock_guard<std::mutex> lock(mutex);
        ready = true;
        cv.notify_one();
    }

    void wait()
    {
        BlockedScope blocked;
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [this] { return ready; });
    }
};

namespace {

// Drains a serial queue on a pool thread; holds one reference on the queue while it owns it.
void drainSerial(void *argument)
{
    auto queue = static_cast<dispatch_queue_t>(argument);
    QueueState &state = queueState(queue);
    for (int budget = kDrainBudget; budget > 0; budget--) {
        std::unique_lock<std::mutex> lock(state.mutex);
        if (state.entries.empty()) {
            state.owned = false;
            lock.unlock();
            objc_release(asId(queue));
            return;
        }
        QueueState::Entry entry = state.entries.front();
        state.entries.pop_front();
        lock.unlock();
        if (entry.waiter) {
            // The dispatch_sync caller now owns the queue and resumes draining when done.
            entry.waiter->signal();
            objc_release(asId(queue));
            return;
        }
        runWork(queue, entry.work);
    }
    state.pool->push(drainSerial, queue);
}

// After a dispatch_sync caller ran its work as the owner of a serial queue.
void releaseOwnership(dispatch_queue_t queue, QueueState &state)
{
    std::unique_lock<std::mutex> lock(state.mutex);
    if (state.entries.empty()) {
        state.owned = false;
        return;
    }
    lock.unlock();
    objc_retain(asId(queue));
    state.pool->push(drainSerial, queue);
}

void wakeMain()
{
    if (auto wakeup = gMainWakeup.load(std::memory_order_acquire))
        wakeup();
}

struct MainSync {
    dispatch_function_t function;
    void *context;
    SyncWaiter waiter;
};

void runMainSync(void *argument)
{
    auto *sync = static_cast<MainSync *>(argument);
    sync->function(sync->context);
    sync->waiter.signal();
}

// dispatch_after's single timer thread.
class AfterTimer {
public:
    void add(Clock::time_point when, dispatch_queue_t queue, Work *work)
    {
        objc_retain(asId(queue));
        std::lock_guard<std::mutex> lock(mutex_);
        if (!started_) {
            started_ = true;
            std::thread([this] { run(); }).detach();
        }
        bool earliest = pending_.empty() || when < pending_.top().when;
        pending_.push(Entry{when, sequence_++, queue, work});
        if (earliest)
            cv_.notify_one();
    }

private:
    struct Entry {
        Clock::time_point when;
        uint64_t sequence;
        dispatch_queue_t queue;
        Work *work;
        bool operator>(const Entry &other) const
        {
            return when != other.when ? when > other.when : sequence > other.sequence;
        }
    };

    void run()
    {
        pthread_setname_np(pthread_self(), "dispatch.timer");
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            if (pending_.empty()) {
                cv_.wait(lock);
                continue;
            }
            Entry next = pending_.top();
            Clock::time_point now = Clock::now();
            if (next.when > now) {
                // Bounded waits keep the clock arithmetic in range for far deadlines.
                cv_.wait_until(lock, std::min(next.when, now + std::chrono::hours(1)));
                continue;
            }
            pending_.pop();
            lock.unlock();
            enqueue(next.queue, next.work);
            objc_release(asId(next.queue));
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable cv_;
    std::priority_queue<Entry, std::vector<Entry>, std::greater<Entry>> pending_;
    uint64_t sequence_ = 0;
    bool started_ = false;
};

AfterTimer &afterTimer()
{
    static AfterTimer *timer = new AfterTimer();
    return *timer;
}

__attribute__((constructor)) void initialiseDispatch()
{
    _dispatch_main_q_ptr = globals().main;
}

} // namespace

QueueState::~QueueState()
{
    for (auto &[key, specific] : specifics)
        if (specific.destructor && specific.context)
            dispatch_async_f(globals().globals[kDefaultIndex], specific.context, specific.destructor);
}

QueueState &queueState(dispatch_queue_t queue)
{
    if (!queue)
        clientCrash("NULL queue");
    return stateAs<QueueState>(queue, "not a dispatch queue");
}

Work *makeBlockWork(dispatch_block_t block)
{
    if (!block)
        clientCrash("NULL block");
    auto *work = new Work();
    work->function = callBlock;
    work->context = reinterpret_cast<void *>(Block_copy(block));
    work->ownsBlock = true;
    return work;
}

Work *makeFunctionWork(void *context, dispatch_function_t function)
{
    if (!function)
        clientCrash("NULL function");
    auto *work = new Work();
    work->function = function;
    work->context = context;
    return work;
}

void enqueue(dispatch_queue_t queue, Work *work)
{
    QueueState &state = queueState(queue);
    // Each pending item keeps its queue alive.
    objc_retain(asId(queue));
    switch (state.kind) {
    case QueueKind::Global:
    case QueueKind::Concurrent:
        state.pool->push(runPoolItem, new PoolItem{queue, work});
        return;
    case QueueKind::Main: {
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            state.entries.push_back({work, nullptr});
        }
        wakeMain();
        return;
    }
    case QueueKind::Serial: {
        std::unique_lock<std::mutex> lock(state.mutex);
        state.entries.push_back({work, nullptr});
        if (state.owned)
            return;
        state.owned = true;
        lock.unlock();
        objc_retain(asId(queue));
        state.pool->push(drainSerial, queue);
        return;
    }
    }
}

} // namespace fakedispatch

using namespace fakedispatch;

namespace {

// The work is made only for a time that comes: a block given with DISPATCH_TIME_FOREVER is never
// copied, as libdispatch drops it at once.
template <typename MakeWork>
void runAfter(dispatch_time_t when, dispatch_queue_t queue, MakeWork makeWork)
{
    if (when == DISPATCH_TIME_FOREVER)
        return;
    auto deadline = deadlineOf(when);
    Work *item = makeWork();
    if (deadline && *deadline <= Clock::now())
        enqueue(queue, item);
    else
        afterTimer().add(deadline ? *deadline : Clock::now() + std::chrono::hours(24 * 365 * 100), queue, item);
}

} // namespace

extern "C" {

dispatch_queue_global_t dispatch_get_global_queue(intptr_t identifier, uintptr_t flags)
{
    // 0x2 is Apple's private overcommit flag; overcommitting is what these pools do anyway.
    if (flags & ~uintptr_t(0x2))
        return nullptr;
    int index;
    switch (identifier) {
    case QOS_CLASS_USER_INTERACTIVE:
        index = 0;
        break;
    case QOS_CLASS_USER_INITIATED:
    case DISPATCH_QUEUE_PRIORITY_HIGH:
        index = 1;
        break;
    case QOS_CLASS_DEFAULT:
    case DISPATCH_QUEUE_PRIORITY_DEFAULT:
        index = 2;
        break;
    case QOS_CLASS_UTILITY:
    case DISPATCH_QUEUE_PRIORITY_LOW:
        index = 3;
        break;
    case QOS_CLASS_BACKGROUND:
    case DISPATCH_QUEUE_PRIORITY_BACKGROUND:
        index = 4;
        break;
    default:
        return nullptr;
    }
    return globals().globals[index];
}

dispatch_queue_t dispatch_queue_create(const char *label, dispatch_queue_attr_t attr)
{
    auto *state = new QueueState();
    bool concurrent = attr == DISPATCH_QUEUE_CONCURRENT;
    state->kind = concurrent ? QueueKind::Concurrent : QueueKind::Serial;
    state->label = label ? label : "";
    state->pool = globals().pools[kDefaultIndex];
    id queue = makeObject(concurrent ? "OS_dispatch_queue_concurrent" : "OS_dispatch_queue_serial", state);
    return reinterpret_cast<dispatch_queue_t>(queue);
}

const char *dispatch_queue_get_label(dispatch_queue_t queue)
{
    if (queue == DISPATCH_CURRENT_QUEUE_LABEL) {
        queue = currentQueue();
        if (!queue)
            queue = globals().globals[kDefaultIndex];
    }
    return queueState(queue).label.c_str();
}

void dispatch_async(dispatch_queue_t queue, dispatch_block_t block)
{
    queueState(queue);
    enqueue(queue, makeBlockWork(block));
}

void dispatch_async_f(dispatch_queue_t queue, void *context, dispatch_function_t work)
{
    queueState(queue);
    enqueue(queue, makeFunctionWork(context, work));
}

void dispatch_sync_f(dispatch_queue_t queue, void *context, dispatch_function_t function)
{
    if (!function)
        clientCrash("NULL function");
    QueueState &state = queueState(queue);
    if (currentQueue() == queue && state.kind != QueueKind::Global && state.kind != QueueKind::Concurrent)
        clientCrash("dispatch_sync called on queue already owned by current thread");
    switch (state.kind) {
    case QueueKind::Global:
    case QueueKind::Concurrent: {
        CurrentQueueScope scope(queue);
        callout(function, context);
        return;
    }
    case QueueKind::Main: {
        // Main-queue work runs on the main thread, even when submitted synchronously.
        MainSync sync{function, context, {}};
        enqueue(queue, makeFunctionWork(&sync, runMainSync));
        sync.waiter.wait();
        return;
    }
    case QueueKind::Serial: {
        objc_retain(asId(queue));
        std::unique_lock<std::mutex> lock(state.mutex);
        if (!state.owned) {
            state.owned = true;
            lock.unlock();
        } else {
            SyncWaiter waiter;
            state.entries.push_back({nullptr, &waiter});
            lock.unlock();
            waiter.wait();
        }
        {
            CurrentQueueScope scope(queue);
            callout(function, context);
        }
        releaseOwnership(queue, state);
        objc_release(asId(queue));
        return;
    }
    }
}

void dispatch_sync(dispatch_queue_t queue, DISPATCH_NOESCAPE dispatch_block_t block)
{
    if (!block)
        clientCrash("NULL block");
    dispatch_sync_f(queue, reinterpret_cast<void *>(block), callBlock);
}

void dispatch_after_f(dispatch_time_t when, dispatch_queue_t queue, void *context, dispatch_function_t work)
{
    queueState(queue);
    if (!work)
        clientCrash("NULL function");
    runAfter(when, queue, [&] { return makeFunctionWork(context, work); });
}

void dispatch_after(dispatch_time_t when, dispatch_queue_t queue, dispatch_block_t block)
{
    queueState(queue);
    if (!block)
        clientCrash("NULL block");
    runAfter(when, queue, [&] { return makeBlockWork(block); });
}

void dispatch_queue_set_specific(dispatch_queue_t queue, const void *key, void *context,
                                 dispatch_function_t destructor)
{
    QueueState &state = queueState(queue);
    if (!key || state.kind == QueueKind::Global)
        return;
    QueueState::Specific previous{nullptr, nullptr};
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto it = state.specifics.find(key);
        if (it != state.specifics.end()) {
            previous = it->second;
            state.specifics.erase(it);
        }
        if (context)
            state.specifics[key] = QueueState::Specific{context, destructor};
    }
    if (previous.destructor && previous.context)
        dispatch_async_f(globals().globals[kDefaultIndex], previous.context, previous.destructor);
}

void *dispatch_queue_get_specific(dispatch_queue_t queue, const void *key)
{
    QueueState &state = queueState(queue);
    if (!key)
        return nullptr;
    std::lock_guard<std::mutex> lock(state.mutex);
    auto it = state.specifics.find(key);
    return it != state.specifics.end() ? it->second.context : nullptr;
}

void *dispatch_get_specific(const void *key)
{
    dispatch_queue_t queue = currentQueue();
    return queue ? dispatch_queue_get_specific(queue, key) : nullptr;
}

bool _dispatch_main_queue_drain_4CF(void)
{
    dispatch_queue_main_t queue = globals().main;
    QueueState &state = queueState(queue);
    size_t count;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        count = state.entries.size();
    }
    bool ran = false;
    for (; count > 0; count--) {
        QueueState::Entry entry;
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            if (state.entries.empty())
                break;
            entry = state.entries.front();
            state.entries.pop_front();
        }
        runWork(queue, entry.work);
        ran = true;
    }
    return ran;
}

bool _dispatch_main_queue_has_work_4CF(void)
{
    QueueState &state = queueState(globals().main);
    std::lock_guard<std::mutex> lock(state.mutex);
    return !state.entries.empty();
}

void _dispatch_main_queue_set_wakeup_4CF(void (*wakeup)(void))
{
    gMainWakeup.store(wakeup, std::memory_order_release);
    if (wakeup && _dispatch_main_queue_has_work_4CF())
        wakeup();
}

} // extern "C"
