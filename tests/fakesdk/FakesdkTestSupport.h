// What fakesdk's own tests share: message sends by selector name through the runtime's public
// lookup (a message to nil answers zero), the Foundation values they build and read, the
// NSException a call raises, and waits on the main run loop. These tests talk to fakesdk as any
// SDK client would, without the library's lib/objc.
#pragma once

#include <fakesdk/dispatch_np.h>
#include <objc/runtime.h>

#include <gtest/gtest.h>

#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

// The runtime's ARC entry points, which Apple exports without a public header.
extern "C" {
id objc_retain(id);
void objc_release(id);
id objc_autorelease(id);
void *objc_autoreleasePoolPush(void);
void objc_autoreleasePoolPop(void *);
id objc_initWeak(id *, id);
void objc_destroyWeak(id *);
id objc_loadWeakRetained(id *);
}

namespace fakesdk_test {

template <typename R = id, typename... A>
R send(id receiver, const char *name, A... args)
{
    if (!receiver)
        return R();
    SEL s = sel_registerName(name);
    return reinterpret_cast<R (*)(id, SEL, A...)>(class_getMethodImplementation(object_getClass(receiver), s))(
        receiver, s, args...);
}

// A CF or dispatch object as the runtime object it is.
inline id asId(const void *ref) { return reinterpret_cast<id>(const_cast<void *>(ref)); }
inline id cls(const char *name) { return reinterpret_cast<id>(objc_getClass(name)); }
inline id str(const char *text) { return send(cls("NSString"), "stringWithUTF8String:", text); }
inline std::string text(id s) { return s ? send<const char *>(s, "UTF8String") : "<nil>"; }
inline id num(long v) { return send(cls("NSNumber"), "numberWithLong:", v); }
inline unsigned long count(id array) { return send<unsigned long>(array, "count"); }
inline id at(id array, unsigned long i) { return send(array, "objectAtIndex:", i); }
// alloc + init (+1).
inline id make(const char *className) { return send(send(cls(className), "alloc"), "init"); }

// The name and reason of the NSException that f raises ("" if none).
using Raised = std::pair<std::string, std::string>;
template <typename F>
Raised raised(F f)
{
    try {
        f();
    } catch (id e) {
        return {text(send(e, "name")), text(send(e, "reason"))};
    }
    return {};
}

// Each test's autoreleased objects go with its own pool.
class PooledTest : public ::testing::Test {
protected:
    void SetUp() override { pool_ = objc_autoreleasePoolPush(); }
    void TearDown() override { objc_autoreleasePoolPop(pool_); }
    void *pool_ = nullptr;
};

inline bool waitFor(double seconds, bool (^condition)(void)) { return CFRunLoopRunUntil_np(seconds, condition); }

// The process's initial thread, which runs the main queue.
inline bool onMainThread() { return getpid() == static_cast<pid_t>(syscall(SYS_gettid)); }

} // namespace fakesdk_test
