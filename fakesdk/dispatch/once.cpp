// dispatch_once's slow path: the header's inline fast path skips the call once the predicate
// holds ~0l.
#include "internal.h"

#undef dispatch_once
#undef dispatch_once_f

namespace {

constexpr intptr_t kDone = ~0l;
constexpr intptr_t kRunning = 1;

std::mutex &onceMutex()
{
    static std::mutex *mutex = new std::mutex();
    return *mutex;
}

std::condition_variable &onceCondition()
{
    static std::condition_variable *cv = new std::condition_variable();
    return *cv;
}

void callBlock(void *block)
{
    (reinterpret_cast<dispatch_block_t>(block))();
}

} // namespace

extern "C" {

void dispatch_once_f(dispatch_once_t *predicate, void *context, dispatch_function_t function)
{
    intptr_t state = __atomic_load_n(predicate, __ATOMIC_ACQUIRE);
    if (state == kDone)
        return;
    intptr_t expected = 0;
    if (__atomic_compare_exchange_n(predicate, &expected, kRunning, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
        function(context);
        {
            std::lock_guard<std::mutex> lock(onceMutex());
            __atomic_store_n(predicate, kDone, __ATOMIC_RELEASE);
        }
        onceCondition().notify_all();
        return;
    }
    fakedispatch::BlockedScope blocked;
    std::unique_lock<std::mutex> lock(onceMutex());
    onceCondition().wait(lock, [predicate] { return __atomic_load_n(predicate, __ATOMIC_ACQUIRE) == kDone; });
}

void dispatch_once(dispatch_once_t *predicate, DISPATCH_NOESCAPE dispatch_block_t block)
{
    dispatch_once_f(predicate, reinterpret_cast<void *>(block), callBlock);
}

} // extern "C"
