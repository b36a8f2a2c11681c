// Declarations of Apple's <dispatch/dispatch.h> (libdispatch) for C++ code that is not
// Objective-C, as the iOS Simulator SDK declares them when OS_OBJECT_USE_OBJC is 0: dispatch
// objects are opaque structs that convert implicitly to dispatch_object_t. Implemented by
// fakesdk's libdispatch; every dispatch object is an Objective-C runtime object, so
// objc_retain/objc_release and dispatch_retain/dispatch_release count the same references.
#pragma once

#ifndef __cplusplus
#error "fakesdk's <dispatch/dispatch.h> declares the C++ form of the dispatch API only"
#endif

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#define DISPATCH_API_VERSION 20181008

#define DISPATCH_EXPORT extern "C" __attribute__((visibility("default")))
#define DISPATCH_INLINE static __inline__
#define DISPATCH_ALWAYS_INLINE __attribute__((__always_inline__))
#define DISPATCH_NOTHROW __attribute__((__nothrow__))
#define DISPATCH_NOESCAPE __attribute__((__noescape__))
#define DISPATCH_WARN_RESULT __attribute__((__warn_unused_result__))
#define DISPATCH_RETURNS_RETAINED
#define DISPATCH_EXPECT(x, v) __builtin_expect((x), (v))

// <sys/qos.h> is where Apple declares the quality-of-service classes; Linux has no such header.
#if __has_include(<sys/qos.h>)
#include <sys/qos.h>
#else
typedef enum : unsigned int {
    QOS_CLASS_USER_INTERACTIVE = 0x21,
    QOS_CLASS_USER_INITIATED = 0x19,
    QOS_CLASS_DEFAULT = 0x15,
    QOS_CLASS_UTILITY = 0x11,
    QOS_CLASS_BACKGROUND = 0x09,
    QOS_CLASS_UNSPECIFIED = 0x00,
} qos_class_t;
#endif
typedef qos_class_t dispatch_qos_class_t;

// ---- time.h

#ifndef NSEC_PER_SEC
#define NSEC_PER_SEC 1000000000ull
#endif
#ifndef NSEC_PER_MSEC
#define NSEC_PER_MSEC 1000000ull
#endif
#ifndef USEC_PER_SEC
#define USEC_PER_SEC 1000000ull
#endif
#ifndef NSEC_PER_USEC
#define NSEC_PER_USEC 1000ull
#endif
#ifndef MSEC_PER_SEC
#define MSEC_PER_SEC 1000ull
#endif

// A point in time: nanoseconds of the monotonic clock, or (with the top bit set) the negated
// nanoseconds since 1970 of a wall-clock time made by dispatch_walltime.
typedef uint64_t dispatch_time_t;

enum {
    DISPATCH_WALLTIME_NOW = ~1ull,
};

#define DISPATCH_TIME_NOW (0ull)
#define DISPATCH_TIME_FOREVER (~0ull)

// ---- object.h

typedef struct dispatch_object_s {
private:
    dispatch_object_s();
    ~dispatch_object_s();
    dispatch_object_s(const dispatch_object_s &);
    void operator=(const dispatch_object_s &);
} *dispatch_object_t;

#define DISPATCH_DECL(name) typedef struct name##_s : public dispatch_object_s { \
} *name##_t
#define DISPATCH_DECL_SUBCLASS(name, base) typedef struct name##_s : public base##_s { \
} *name##_t
#define DISPATCH_GLOBAL_OBJECT(type, object) (static_cast<type>(&(object)))

#ifdef __BLOCKS__
typedef void (^dispatch_block_t)(void);
#endif

extern "C" {

DISPATCH_EXPORT dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);
DISPATCH_EXPORT dispatch_time_t dispatch_walltime(const struct timespec *when, int64_t delta);

typedef void (*dispatch_function_t)(void *);

// Objects made by a _create function are returned +1 and released with dispatch_release.
// Global and main queues are never freed; retaining and releasing them does nothing.
DISPATCH_EXPORT void dispatch_retain(dispatch_object_t object);
DISPATCH_EXPORT void dispatch_release(dispatch_object_t object);
DISPATCH_EXPORT void *dispatch_get_context(dispatch_object_t object);
DISPATCH_EXPORT void dispatch_set_context(dispatch_object_t object, void *context);

// ---- queue.h

DISPATCH_DECL(dispatch_queue);
DISPATCH_DECL_SUBCLASS(dispatch_queue_global, dispatch_queue);
DISPATCH_DECL_SUBCLASS(dispatch_queue_serial, dispatch_queue);
DISPATCH_DECL_SUBCLASS(dispatch_queue_main, dispatch_queue_serial);
DISPATCH_DECL_SUBCLASS(dispatch_queue_concurrent, dispatch_queue);
DISPATCH_DECL(dispatch_queue_attr);

// Work is copied (Block_copy) when submitted and released after it ran on the queue's thread.
#ifdef __BLOCKS__
DISPATCH_EXPORT void dispatch_async(dispatch_queue_t queue, dispatch_block_t block);
#endif
DISPATCH_EXPORT void dispatch_async_f(dispatch_queue_t queue, void *context, dispatch_function_t work);

// Runs the work and returns when it finished: on the calling thread once the queue is free,
// except for the main queue, whose work always runs on the main thread.
#ifdef __BLOCKS__
DISPATCH_EXPORT void dispatch_sync(dispatch_queue_t queue, DISPATCH_NOESCAPE dispatch_block_t block);
#endif
DISPATCH_EXPORT void dispatch_sync_f(dispatch_queue_t queue, void *context, dispatch_function_t work);

// The main thread's queue, drained by the main run loop. Inline, as in Apple's header (the
// symbol is a pointer here: the object lives on the runtime's heap).
DISPATCH_EXPORT struct dispatch_queue_s *_dispatch_main_q_ptr;

DISPATCH_INLINE DISPATCH_ALWAYS_INLINE DISPATCH_NOTHROW dispatch_queue_main_t dispatch_get_main_queue(void)
{
    return static_cast<dispatch_queue_main_t>(_dispatch_main_q_ptr);
}

typedef long dispatch_queue_priority_t;

#define DISPATCH_QUEUE_PRIORITY_HIGH 2
#define DISPATCH_QUEUE_PRIORITY_DEFAULT 0
#define DISPATCH_QUEUE_PRIORITY_LOW (-2)
#define DISPATCH_QUEUE_PRIORITY_BACKGROUND INT16_MIN

// identifier is a QOS_CLASS_* or DISPATCH_QUEUE_PRIORITY_* value and flags must be 0; anything
// else returns NULL.
DISPATCH_EXPORT dispatch_queue_global_t dispatch_get_global_queue(intptr_t identifier, uintptr_t flags);

#define DISPATCH_QUEUE_SERIAL NULL
#define DISPATCH_QUEUE_SERIAL_INACTIVE NULL
#define DISPATCH_TARGET_QUEUE_DEFAULT NULL
#define DISPATCH_CURRENT_QUEUE_LABEL NULL

DISPATCH_EXPORT struct dispatch_queue_attr_s _dispatch_queue_attr_concurrent;
#define DISPATCH_QUEUE_CONCURRENT DISPATCH_GLOBAL_OBJECT(dispatch_queue_attr_t, _dispatch_queue_attr_concurrent)

// Returns +1. The label is copied.
DISPATCH_EXPORT DISPATCH_WARN_RESULT dispatch_queue_t dispatch_queue_create(const char *label,
                                                                            dispatch_queue_attr_t attr);

// DISPATCH_CURRENT_QUEUE_LABEL asks for the label of the queue running the caller. Never NULL.
DISPATCH_EXPORT const char *dispatch_queue_get_label(dispatch_queue_t queue);

// The destructor runs on the default-priority global queue when the value is replaced or the
// queue is freed.
DISPATCH_EXPORT void dispatch_queue_set_specific(dispatch_queue_t queue, const void *key, void *context,
                                                 dispatch_function_t destructor);
DISPATCH_EXPORT void *dispatch_queue_get_specific(dispatch_queue_t queue, const void *key);
// The value for key on the queue running the caller (the main queue on the main thread).
DISPATCH_EXPORT void *dispatch_get_specific(const void *key);

// Submits the work at or after when. DISPATCH_TIME_FOREVER submits nothing.
#ifdef __BLOCKS__
DISPATCH_EXPORT void dispatch_after(dispatch_time_t when, dispatch_queue_t queue, dispatch_block_t block);
#endif
DISPATCH_EXPORT void dispatch_after_f(dispatch_time_t when, dispatch_queue_t queue, void *context,
                                      dispatch_function_t work);

// ---- semaphore.h

DISPATCH_DECL(dispatch_semaphore);

// Returns +1, or NULL when value is negative.
DISPATCH_EXPORT DISPATCH_WARN_RESULT dispatch_semaphore_t dispatch_semaphore_create(intptr_t value);
// Returns 0 on success, non-zero when the timeout passed.
DISPATCH_EXPORT intptr_t dispatch_semaphore_wait(dispatch_semaphore_t dsema, dispatch_time_t timeout);
// Returns non-zero when a waiting thread was woken.
DISPATCH_EXPORT intptr_t dispatch_semaphore_signal(dispatch_semaphore_t dsema);

// ---- group.h

DISPATCH_DECL(dispatch_group);

DISPATCH_EXPORT DISPATCH_WARN_RESULT dispatch_group_t dispatch_group_create(void);
#ifdef __BLOCKS__
DISPATCH_EXPORT void dispatch_group_async(dispatch_group_t group, dispatch_queue_t queue, dispatch_block_t block);
#endif
DISPATCH_EXPORT void dispatch_group_async_f(dispatch_group_t group, dispatch_queue_t queue, void *context,
                                            dispatch_function_t work);
// Returns 0 once every entered unit left, non-zero when the timeout passed first.
DISPATCH_EXPORT intptr_t dispatch_group_wait(dispatch_group_t group, dispatch_time_t timeout);
#ifdef __BLOCKS__
DISPATCH_EXPORT void dispatch_group_notify(dispatch_group_t group, dispatch_queue_t queue, dispatch_block_t block);
#endif
DISPATCH_EXPORT void dispatch_group_notify_f(dispatch_group_t group, dispatch_queue_t queue, void *context,
                                             dispatch_function_t work);
DISPATCH_EXPORT void dispatch_group_enter(dispatch_group_t group);
DISPATCH_EXPORT void dispatch_group_leave(dispatch_group_t group);

// ---- once.h

// Zero-initialised, with static or global storage; libdispatch stores ~0l once the work ran.
typedef intptr_t dispatch_once_t;

#ifdef __BLOCKS__
DISPATCH_EXPORT void dispatch_once(dispatch_once_t *predicate, DISPATCH_NOESCAPE dispatch_block_t block);
#endif
DISPATCH_EXPORT void dispatch_once_f(dispatch_once_t *predicate, void *context, dispatch_function_t function);

// The inline fast path of Apple's once.h: no call once the predicate holds the done marker.
#ifdef __BLOCKS__
DISPATCH_INLINE DISPATCH_ALWAYS_INLINE DISPATCH_NOTHROW void _dispatch_once(dispatch_once_t *predicate,
                                                                          DISPATCH_NOESCAPE dispatch_block_t block)
{
    if (DISPATCH_EXPECT(__atomic_load_n(predicate, __ATOMIC_ACQUIRE), ~0l) != ~0l)
        dispatch_once(predicate, block);
}
#undef dispatch_once
#define dispatch_once _dispatch_once
#endif

DISPATCH_INLINE DISPATCH_ALWAYS_INLINE DISPATCH_NOTHROW void _dispatch_once_f(dispatch_once_t *predicate,
                                                                            void *context,
                                                                            dispatch_function_t function)
{
    if (DISPATCH_EXPECT(__atomic_load_n(predicate, __ATOMIC_ACQUIRE), ~0l) != ~0l)
        dispatch_once_f(predicate, context, function);
}
#undef dispatch_once_f
#define dispatch_once_f _dispatch_once_f

} // extern "C"
