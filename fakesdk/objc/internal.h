// fakesdk's private view of its Objective-C runtime: the ARC entry points that Apple exports
// from libobjc without a public header, and helpers the fake frameworks share.
#pragma once

#include <objc/message.h>
#include <objc/objc-exception.h>
#include <objc/objc-sync.h>
#include <objc/runtime.h>

#include <type_traits>
#include <utility>

extern "C" {
id objc_retain(id obj);
void objc_release(id obj);
id objc_autorelease(id obj);
id objc_retainAutoreleasedReturnValue(id obj);
void *objc_autoreleasePoolPush(void);
void objc_autoreleasePoolPop(void *pool);
id objc_initWeak(id *location, id value);
void objc_destroyWeak(id *location);
id objc_loadWeakRetained(id *location);
}

namespace fakeobjc {

// Marks a runtime object as never freed: retain and release become no-ops (constant strings,
// class objects, shared singletons such as kCFBooleanTrue).
void makeImmortal(id obj);

// Main Thread Checker: every method the class itself has now, instance and class methods but
// dealloc, may from here on run only on the main thread (the process's initial thread). A send
// of one from another thread prints what Xcode's checker prints (the method, the thread, the
// queue, a backtrace) and aborts. The check follows the implementations through exchanges.
void requireMainThread(Class cls);

// Raises an NSException with the given name and reason (a C++ throw of the NSException id).
[[noreturn]] void raise(const char *name, const char *reason);
[[noreturn]] void raiseFormat(const char *name, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The lookup for a message returning R: on x86-64 a struct returned through memory (larger than 16
// bytes, or not trivially copyable) shifts receiver and selector by one register, so an
// unimplemented selector must reach the _stret forwarding entry.
template <typename R>
constexpr bool returnsThroughMemory()
{
    if constexpr (std::is_class_v<R> || std::is_union_v<R>)
        return sizeof(R) > 16 || !std::is_trivially_copyable_v<R>;
    else
        return false;
}

template <typename R>
inline IMP lookUp(Class cls, SEL sel)
{
    if constexpr (returnsThroughMemory<R>())
        return class_getMethodImplementation_stret(cls, sel);
    else
        return class_getMethodImplementation(cls, sel);
}

template <typename R, typename... Args>
inline R msg(id receiver, SEL sel, Args... args)
{
    if (!receiver) {
        if constexpr (std::is_void_v<R>)
            return;
        else
            return R{};
    }
    IMP imp = lookUp<R>(object_getClass(receiver), sel);
    return reinterpret_cast<R (*)(id, SEL, Args...)>(imp)(receiver, sel, args...);
}

template <typename R, typename... Args>
inline R msg(id receiver, const char *selName, Args... args)
{
    return msg<R, Args...>(receiver, sel_registerName(selName), args...);
}

template <typename R, typename... Args>
inline R msgSuper(Class cls, id receiver, const char *selName, Args... args)
{
    SEL sel = sel_registerName(selName);
    IMP imp = lookUp<R>(class_getSuperclass(cls), sel);
    return reinterpret_cast<R (*)(id, SEL, Args...)>(imp)(receiver, sel, args...);
}

} // namespace fakeobjc
