// Dispatch objects as runtime objects (Apple's OS_dispatch_* classes), reference counting,
// contexts and time.
#include "internal.h"

#include <Block.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/syscall.h>

using namespace fakeobjc;

namespace fakedispatch {

static_assert(std::is_same_v<Clock::duration, std::chrono::nanoseconds>);

namespace {

ptrdiff_t gStateOffset = -1;

ObjectState *&stateSlot(id object)
{
    return *reinterpret_cast<ObjectState **>(reinterpret_cast<char *>(object) + gStateOffset);
}

void objectDealloc(id self, SEL)
{
    delete stateSlot(self);
    stateSlot(self) = nullptr;
    msgSuper<void>(objc_getClass("OS_dispatch_object"), self, "dealloc");
}

id objectDescription(id self, SEL)
{
    char text[512];
    auto *queue = dynamic_cast<QueueState *>(stateOf(self));
    if (queue)
        std::snprintf(text, sizeof text, "<%s: %s[%p]>", object_getClassName(self), queue->label.c_str(),
                      static_cast<void *>(self));
    else
        std::snprintf(text, sizeof text, "<%s: %p>", object_getClassName(self), static_cast<void *>(self));
    return msg<id>(cls("NSString"), "stringWithUTF8String:", static_cast<const char *>(text));
}

int64_t wallNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t(now.tv_sec) * int64_t(NSEC_PER_SEC) + now.tv_nsec;
}

// Monotonic dispatch times are the steady clock's own nanoseconds (CLOCK_MONOTONIC), so that a
// deadline converts to a wait without a second clock read that could make it fire early.
int64_t monotonicNanoseconds()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

} // namespace

void clientCrash(const char *message)
{
    std::fprintf(stderr, "BUG IN CLIENT OF LIBDISPATCH: %s\n", message);
    std::abort();
}

// The class hierarchy is Apple's; the state ivar lives on OS_dispatch_object.
void declareClasses()
{
    if (objc_getClass("OS_dispatch_object"))
        return;
    ClassDef("OS_object", "NSObject").registerClass();
    Class object = ClassDef("OS_dispatch_object", "OS_object")
                       .stateIvar()
                       .method("dealloc", objectDealloc)
                       .method("description", objectDescription)
                       .method("debugDescription", objectDescription)
                       .registerClass();
    gStateOffset = ivar_getOffset(class_getInstanceVariable(object, "_state"));
    ClassDef("OS_dispatch_queue", "OS_dispatch_object").registerClass();
    ClassDef("OS_dispatch_queue_serial", "OS_dispatch_queue").registerClass();
    ClassDef("OS_dispatch_queue_main", "OS_dispatch_queue_serial").registerClass();
    ClassDef("OS_dispatch_queue_concurrent", "OS_dispatch_queue").registerClass();
    ClassDef("OS_dispatch_queue_global", "OS_dispatch_queue").registerClass();
    ClassDef("OS_dispatch_semaphore", "OS_dispatch_object").registerClass();
    ClassDef("OS_dispatch_group", "OS_dispatch_object").registerClass();
}

id makeObject(const char *className, ObjectState *state)
{
    id object = class_createInstance(objc_getClass(className), 0);
    stateSlot(object) = state;
    return object;
}

ObjectState *stateOf(id object)
{
    if (!object || gStateOffset < 0)
        return nullptr;
    return stateSlot(object);
}

// The process's initial thread, whatever thread first loaded libdispatch.
bool isMainThread()
{
    thread_local const bool isMain = getpid() == static_cast<pid_t>(syscall(SYS_gettid));
    return isMain;
}

std::optional<Clock::time_point> deadlineOf(dispatch_time_t when)
{
    if (when == DISPATCH_TIME_FOREVER)
        return std::nullopt;
    Clock::time_point now = Clock::now();
    if (when == DISPATCH_TIME_NOW || when == DISPATCH_WALLTIME_NOW)
        return now;
    // Far deadlines are as good as none; this keeps the arithmetic of timed waits in range.
    constexpr int64_t kCentury = int64_t(100) * 365 * 24 * 3600 * int64_t(NSEC_PER_SEC);
    if (static_cast<int64_t>(when) < 0) {
        int64_t remaining = -static_cast<int64_t>(when) - wallNanoseconds();
        if (remaining > kCentury)
            return std::nullopt;
        return now + std::chrono::nanoseconds(remaining);
    }
    if (static_cast<int64_t>(when) - monotonicNanoseconds() > kCentury)
        return std::nullopt;
    return Clock::time_point(std::chrono::nanoseconds(static_cast<int64_t>(when)));
}

} // namespace fakedispatch

using namespace fakedispatch;

extern "C" {

void dispatch_retain(dispatch_object_t object)
{
    if (!object)
        clientCrash("dispatch_retain of NULL");
    objc_retain(asId(object));
}

void dispatch_release(dispatch_object_t object)
{
    if (!object)
        clientCrash("dispatch_release of NULL");
    objc_release(asId(object));
}

void *dispatch_get_context(dispatch_object_t object)
{
    ObjectState *state = stateOf(asId(object));
    return state ? state->context.load(std::memory_order_acquire) : nullptr;
}

void dispatch_set_context(dispatch_object_t object, void *context)
{
    ObjectState *state = stateOf(asId(object));
    if (!state)
        return;
    // Global and main queues ignore contexts, as on Apple's platforms.
    if (auto *queue = dynamic_cast<QueueState *>(state))
        if (queue->kind == QueueKind::Global || queue->kind == QueueKind::Main)
            return;
    state->context.store(context, std::memory_order_release);
}

// Apple's arithmetic, including its saturation: overflow gives DISPATCH_TIME_FOREVER and
// underflow the earliest representable time (1, or -2 for wall-clock times).
dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta)
{
    if (when == DISPATCH_TIME_FOREVER)
        return DISPATCH_TIME_FOREVER;
    if (when == DISPATCH_WALLTIME_NOW)
        when = static_cast<dispatch_time_t>(-wallNanoseconds());
    if (static_cast<int64_t>(when) < 0) {
        if (delta >= 0) {
            when -= static_cast<uint64_t>(delta);
            return static_cast<int64_t>(when) >= 0 ? DISPATCH_TIME_FOREVER : when;
        }
        when += static_cast<uint64_t>(-delta);
        return static_cast<int64_t>(when) >= -1 ? static_cast<dispatch_time_t>(-2ll) : when;
    }
    if (when == DISPATCH_TIME_NOW)
        when = static_cast<dispatch_time_t>(monotonicNanoseconds());
    if (delta >= 0) {
        when += static_cast<uint64_t>(delta);
        return static_cast<int64_t>(when) <= 0 ? DISPATCH_TIME_FOREVER : when;
    }
    when -= static_cast<uint64_t>(-delta);
    return static_cast<int64_t>(when) < 1 ? 1 : when;
}

dispatch_time_t dispatch_walltime(const struct timespec *when, int64_t delta)
{
    int64_t nanoseconds = when ? int64_t(when->tv_sec) * int64_t(NSEC_PER_SEC) + when->tv_nsec
                               : wallNanoseconds();
    nanoseconds += delta;
    if (nanoseconds <= 1)
        return delta >= 0 ? DISPATCH_TIME_FOREVER : static_cast<dispatch_time_t>(-2ll);
    return static_cast<dispatch_time_t>(-nanoseconds);
}

} // extern "C"
