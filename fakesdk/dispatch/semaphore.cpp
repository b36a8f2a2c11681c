// Counting semaphores and groups.
#include "internal.h"

#include <vector>

using namespace fakeobjc;

namespace fakedispatch {

namespace {

// What Apple's waits return on timeout (KERN_OPERATION_TIMED_OUT).
constexpr intptr_t kTimedOut = 49;

struct SemaphoreState : ObjectState {
    std::mutex mutex;
    std::condition_variable cv;
    // Negative while threads wait: minus the number of waiters.
    intptr_t value = 0;
    intptr_t original = 0;
    // Signals granted to waiters that have not woken yet.
    intptr_t wakeups = 0;

    ~SemaphoreState() override
    {
        if (value < original)
            clientCrash("Semaphore object deallocated while in use");
    }
};

struct GroupState : ObjectState {
    std::mutex mutex;
    std::condition_variable cv;
    long count = 0;
    // Advances each time the count returns to zero, so that a waiter woken late still knows.
    uint64_t generation = 0;
    std::vector<std::pair<dispatch_queue_t, Work *>> notifications;

    ~GroupState() override
    {
        if (count != 0)
            clientCrash("Group object deallocated while in use");
    }
};

template <typename Predicate>
bool waitUntil(std::condition_variable &cv, std::unique_lock<std::mutex> &lock, dispatch_time_t timeout,
               Predicate done)
{
    auto deadline = deadlineOf(timeout);
    if (!deadline) {
        cv.wait(lock, done);
        return true;
    }
    return cv.wait_until(lock, *deadline, done);
}

} // namespace

void groupLeave(dispatch_group_t group)
{
    auto &state = stateAs<GroupState>(group, "not a dispatch group");
    std::vector<std::pair<dispatch_queue_t, Work *>> notifications;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.count == 0)
            clientCrash("Unbalanced call to dispatch_group_leave()");
        if (--state.count > 0)
            return;
        state.generation++;
        notifications.swap(state.notifications);
        state.cv.notify_all();
    }
    for (auto &[queue, work] : notifications) {
        enqueue(queue, work);
        objc_release(asId(queue));
    }
    // The reference taken by the first enter; it may free the group.
    objc_release(asId(group));
}

} // namespace fakedispatch

using namespace fakedispatch;

extern "C" {

dispatch_semaphore_t dispatch_semaphore_create(intptr_t value)
{
    if (value < 0)
        return nullptr;
    auto *state = new SemaphoreState();
    state->value = value;
    state->original = value;
    return reinterpret_cast<dispatch_semaphore_t>(makeObject("OS_dispatch_semaphore", state));
}

intptr_t dispatch_semaphore_wait(dispatch_semaphore_t dsema, dispatch_time_t timeout)
{
    auto &state = stateAs<SemaphoreState>(dsema, "not a dispatch semaphore");
    std::unique_lock<std::mutex> lock(state.mutex);
    if (--state.value >= 0)
        return 0;
    BlockedScope blocked;
    if (waitUntil(state.cv, lock, timeout, [&] { return state.wakeups > 0; })) {
        state.wakeups--;
        return 0;
    }
    // No signal was granted to this waiter (that happens under the same lock): withdraw.
    state.value++;
    return kTimedOut;
}

intptr_t dispatch_semaphore_signal(dispatch_semaphore_t dsema)
{
    auto &state = stateAs<SemaphoreState>(dsema, "not a dispatch semaphore");
    std::lock_guard<std::mutex> lock(state.mutex);
    if (++state.value > 0)
        return 0;
    state.wakeups++;
    state.cv.notify_one();
    return 1;
}

dispatch_group_t dispatch_group_create(void)
{
    return reinterpret_cast<dispatch_group_t>(makeObject("OS_dispatch_group", new GroupState()));
}

void dispatch_group_enter(dispatch_group_t group)
{
    auto &state = stateAs<GroupState>(group, "not a dispatch group");
    std::lock_guard<std::mutex> lock(state.mutex);
    // An entered group keeps itself alive until the last leave, as on Apple's platforms.
    if (state.count++ == 0)
        objc_retain(asId(group));
}

void dispatch_group_leave(dispatch_group_t group)
{
    groupLeave(group);
}

intptr_t dispatch_group_wait(dispatch_group_t group, dispatch_time_t timeout)
{
    auto &state = stateAs<GroupState>(group, "not a dispatch group");
    std::unique_lock<std::mutex> lock(state.mutex);
    if (state.count == 0)
        return 0;
    uint64_t generation = state.generation;
    BlockedScope blocked;
    return waitUntil(state.cv, lock, timeout, [&] { return state.generation != generation; }) ? 0 : kTimedOut;
}

void dispatch_group_notify_f(dispatch_group_t group, dispatch_queue_t queue, void *context,
                             dispatch_function_t function)
{
    auto &state = stateAs<GroupState>(group, "not a dispatch group");
    queueState(queue);
    Work *work = makeFunctionWork(context, function);
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.count > 0) {
            objc_retain(asId(queue));
            state.notifications.emplace_back(queue, work);
            return;
        }
    }
    enqueue(queue, work);
}

void dispatch_group_notify(dispatch_group_t group, dispatch_queue_t queue, dispatch_block_t block)
{
    auto &state = stateAs<GroupState>(group, "not a dispatch group");
    queueState(queue);
    Work *work = makeBlockWork(block);
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.count > 0) {
            objc_retain(asId(queue));
            state.notifications.emplace_back(queue, work);
            return;
        }
    }
    enqueue(queue, work);
}

void dispatch_group_async_f(dispatch_group_t group, dispatch_queue_t queue, void *context,
                            dispatch_function_t function)
{
    queueState(queue);
    Work *work = makeFunctionWork(context, function);
    dispatch_group_enter(group);
    work->group = group;
    enqueue(queue, work);
}

void dispatch_group_async(dispatch_group_t group, dispatch_queue_t queue, dispatch_block_t block)
{
    queueState(queue);
    Work *work = makeBlockWork(block);
    dispatch_group_enter(group);
    work->group = group;
    enqueue(queue, work);
}

} // extern "C"
