// libdispatch's private structure: dispatch objects are runtime objects whose one ivar points at
// a C++ state object; work runs on per-QoS pools of worker threads.
#pragma once

#include <dispatch/dispatch.h>

#include "objc/define.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace fakedispatch {

using Clock = std::chrono::steady_clock;

[[noreturn]] void clientCrash(const char *message);

struct ObjectState {
    virtual ~ObjectState() = default;
    std::atomic<void *> context{nullptr};
};

inline id asId(dispatch_object_t object)
{
    return reinterpret_cast<id>(object);
}

// Makes an instance of the named class that owns state (+1).
id makeObject(const char *className, ObjectState *state);
ObjectState *stateOf(id object);

template <typename T>
T &stateAs(dispatch_object_t object, const char *what)
{
    auto *state = dynamic_cast<T *>(stateOf(asId(object)));
    if (!state)
        clientCrash(what);
    return *state;
}

// A deadline on the steady clock, or nothing for DISPATCH_TIME_FOREVER.
std::optional<Clock::time_point> deadlineOf(dispatch_time_t when);
bool isMainThread();

// A pool of worker threads for one QoS class. Threads start on demand up to a soft limit of
// runnable workers; a worker blocked in a dispatch wait does not count, so work that a blocked
// worker waits for still finds a thread (up to a hard limit).
class RootPool {
public:
    using Task = void (*)(void *);
    explicit RootPool(std::string name);
    void push(Task task, void *argument);
    void blockedBegin();
    void blockedEnd();

private:
    void workerLoop();
    void spawnIfNeededLocked();

    std::string name_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::pair<Task, void *>> tasks_;
    int threads_ = 0;
    int idle_ = 0;
    int blocked_ = 0;
    int softLimit_;
};

// Marks the calling worker thread as blocked while a dispatch wait lasts.
class BlockedScope {
public:
    BlockedScope();
    ~BlockedScope();
    BlockedScope(const BlockedScope &) = delete;
    BlockedScope &operator=(const BlockedScope &) = delete;

private:
    RootPool *pool_;
};

struct Work {
    dispatch_function_t function = nullptr;
    void *context = nullptr;
    // Set when the work is a copied block: released after it ran.
    bool ownsBlock = false;
    // Left after the work ran (the group holds itself alive while entered).
    dispatch_group_t group = nullptr;
};

Work *makeBlockWork(dispatch_block_t block);
Work *makeFunctionWork(void *context, dispatch_function_t function);

enum class QueueKind { Serial, Concurrent, Global, Main };

struct SyncWaiter;

struct QueueState : ObjectState {
    QueueKind kind = QueueKind::Serial;
    std::string label;
    RootPool *pool = nullptr;

    std::mutex mutex;
    // Serial and main queues: pending work in order. A null work with a waiter hands the queue
    // to a dispatch_sync caller.
    struct Entry {
        Work *work;
        SyncWaiter *waiter;
    };
    std::deque<Entry> entries;
    // Serial queues: a drainer or a dispatch_sync caller owns the queue.
    bool owned = false;

    struct Specific {
        void *context;
        dispatch_function_t destructor;
    };
    std::map<const void *, Specific> specifics;

    ~QueueState() override;
};

// Enqueues work (taking ownership of it) as dispatch_async does.
void enqueue(dispatch_queue_t queue, Work *work);
QueueState &queueState(dispatch_queue_t queue);

void groupLeave(dispatch_group_t group);

} // namespace fakedispatch
