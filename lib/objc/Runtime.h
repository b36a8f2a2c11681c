// The C++ face of the Objective-C runtime: the only place in the library that knows how a message
// is sent, how ownership of runtime and CF objects is held, and how a class is declared.
//
// Contract of every helper here:
// - send<R>(receiver, sel, args...) calls the receiver's implementation with the exact function
//   type R(*)(id, SEL, Args...); a nil receiver returns a value-initialised R and sends nothing.
//   An unimplemented selector goes to the platform's forwarding, in the convention of R (a target
//   from forwardingTargetForSelector: gets the message, else it fails as an unrecognised selector).
// - Strong<T> owns one reference (+1). Strong<T>::retain(x) takes a new reference on x (+0 in);
//   Strong<T>::adopt(x) takes over a reference the caller already owns (+1 in: alloc/new/copy,
//   CF Create/Copy). Destruction releases; moving leaves the source null.
// - Weak is a zeroing weak slot; load() returns a Strong (nil once the object is gone).
#pragma once

#include <objc/message.h>
#include <objc/objc-sync.h>
#include <objc/runtime.h>

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <type_traits>
#include <utility>

// The runtime exports these without a public header (they are what ARC compiles to).
extern "C" {
id objc_retain(id obj);
void objc_release(id obj);
id objc_autorelease(id obj);
void *objc_autoreleasePoolPush(void);
void objc_autoreleasePoolPop(void *pool);
id objc_loadWeakRetained(id *location);
id objc_initWeak(id *location, id value);
void objc_destroyWeak(id *location);
}

namespace zerlan::objc {

// A compile-time string usable as a template argument, so that each selector is registered once
// per spelling and never retyped: sel<"initWithDevice:error:">().
template <size_t N>
struct FixedString {
    constexpr FixedString(const char (&text)[N])
    {
        for (size_t i = 0; i < N; ++i)
            chars[i] = text[i];
    }
    char chars[N];
};

template <FixedString Name>
inline SEL sel()
{
    static SEL const selector = sel_registerName(Name.chars);
    return selector;
}

// A CF object seen as the Objective-C object it is (toll-free bridging).
inline id bridge(CFTypeRef object)
{
    return reinterpret_cast<id>(const_cast<void *>(object));
}

inline id cls(const char *name)
{
    return reinterpret_cast<id>(objc_getClass(name));
}

namespace detail {
// Whether the x86-64 SysV ABI returns R through memory: a struct or union larger than 16 bytes,
// or one that is not trivially copyable. The result's address then takes the first argument
// register and shifts receiver and selector along by one.
template <typename R>
constexpr bool returnsThroughMemory()
{
    if constexpr (std::is_class_v<R> || std::is_union_v<R>)
        return sizeof(R) > 16 || !std::is_trivially_copyable_v<R>;
    else
        return false;
}

// The implementation a message returning R calls. Implemented selectors give the same function
// either way; an unimplemented one gives the forwarding entry, which must find the receiver and
// selector where the caller put them: on x86-64 that takes the _stret entry for a result returned
// through memory. arm64 passes a result's address in x8, apart from the arguments, and has one
// entry for all (its SDK marks the _stret lookup unavailable).
template <typename R>
__attribute__((always_inline)) inline IMP lookUp(Class cls, SEL selector)
{
#if defined(__x86_64__)
    if constexpr (returnsThroughMemory<R>())
        return class_getMethodImplementation_stret(cls, selector);
#endif
    return class_getMethodImplementation(cls, selector);
}
} // namespace detail

template <typename R, typename... Args>
__attribute__((always_inline)) inline R send(id receiver, SEL selector, Args... args)
{
    if (!receiver) {
        if constexpr (std::is_void_v<R>)
            return;
        else
            return R{};
    }
    IMP imp = detail::lookUp<R>(object_getClass(receiver), selector);
    return reinterpret_cast<R (*)(id, SEL, Args...)>(imp)(receiver, selector, args...);
}

// The implementation that cls's superclass provides, for overrides in the library's own classes.
template <typename R, typename... Args>
__attribute__((always_inline)) inline R sendSuper(Class cls, id receiver, SEL selector, Args... args)
{
    if (!receiver) {
        if constexpr (std::is_void_v<R>)
            return;
        else
            return R{};
    }
    IMP imp = detail::lookUp<R>(class_getSuperclass(cls), selector);
    return reinterpret_cast<R (*)(id, SEL, Args...)>(imp)(receiver, selector, args...);
}

namespace detail {
template <typename T>
inline void retainObject(T object)
{
    if (!object)
        return;
    if constexpr (std::is_same_v<T, id>)
        objc_retain(object);
    else
        CFRetain(object);
}

template <typename T>
inline void releaseObject(T object)
{
    if (!object)
        return;
    if constexpr (std::is_same_v<T, id>)
        objc_release(object);
    else
        CFRelease(object);
}
} // namespace detail

// One owned reference to an Objective-C object (T = id) or a CF object (T = a CF reference type).
template <typename T = id>
class Strong {
public:
    Strong() = default;
    Strong(std::nullptr_t) {}
    ~Strong() { detail::releaseObject(ptr_); }

    [[nodiscard]] static Strong retain(T object)
    {
        detail::retainObject(object);
        return Strong(object);
    }
    [[nodiscard]] static Strong adopt(T object) { return Strong(object); }

    Strong(const Strong &other) : ptr_(other.ptr_) { detail::retainObject(ptr_); }
    Strong(Strong &&other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
    Strong &operator=(Strong other) noexcept
    {
        std::swap(ptr_, other.ptr_);
        return *this;
    }

    T get() const { return ptr_; }
    explicit operator bool() const { return ptr_ != nullptr; }
    operator T() const { return ptr_; }

    // Gives up ownership: the caller now owns the +1 reference.
    [[nodiscard]] T leak() { return std::exchange(ptr_, nullptr); }

    // Hands the reference to the current autorelease pool and returns the object (+0).
    T autorelease()
    {
        T object = leak();
        if constexpr (std::is_same_v<T, id>)
            return objc_autorelease(object);
        else
            return object ? static_cast<T>(CFAutorelease(object)) : object;
    }

private:
    explicit Strong(T object) : ptr_(object) {}
    T ptr_ = nullptr;
};

// A zeroing weak reference. It registers its own address with the runtime, so it never moves.
class Weak {
public:
    Weak() { objc_initWeak(&slot_, nullptr); }
    explicit Weak(id object) { objc_initWeak(&slot_, object); }
    ~Weak() { objc_destroyWeak(&slot_); }
    Weak(const Weak &) = delete;
    Weak &operator=(const Weak &) = delete;

    void store(id object) { objc_storeWeak(&slot_, object); }
    [[nodiscard]] Strong<> load() { return Strong<>::adopt(objc_loadWeakRetained(&slot_)); }

private:
    id slot_ = nullptr;
};

class AutoreleasePool {
public:
    AutoreleasePool() : token_(objc_autoreleasePoolPush()) {}
    ~AutoreleasePool() { objc_autoreleasePoolPop(token_); }
    AutoreleasePool(const AutoreleasePool &) = delete;
    AutoreleasePool &operator=(const AutoreleasePool &) = delete;

private:
    void *token_;
};

// objc_sync_enter/exit on one object for a scope.
class ObjectLock {
public:
    explicit ObjectLock(id object) : object_(object) { objc_sync_enter(object_); }
    ~ObjectLock() { objc_sync_exit(object_); }
    ObjectLock(const ObjectLock &) = delete;
    ObjectLock &operator=(const ObjectLock &) = delete;

private:
    id object_;
};

// Declares one runtime class: the library's subclasses of framework classes. Methods that
// override the superclass take the superclass method's own type encoding, so the signature
// seen by the runtime is the framework's; new methods give theirs.
class ClassBuilder {
public:
    // Given a Nil superclass the runtime would make a new root class, which no framework would
    // know how to retain or release; the library declares only subclasses, so it asks for none.
    ClassBuilder(const char *name, const char *superclassName)
    {
        if (Class superclass = objc_getClass(superclassName))
            cls_ = objc_allocateClassPair(superclass, name, 0);
    }

    // Nil when the superclass is missing (nothing is then declared) or the name is taken.
    Class cls() const { return cls_; }

    ClassBuilder &override(SEL selector, IMP imp)
    {
        if (cls_) {
            Method inherited = class_getInstanceMethod(class_getSuperclass(cls_), selector);
            class_addMethod(cls_, selector, imp, inherited ? method_getTypeEncoding(inherited) : "@@:");
        }
        return *this;
    }

    ClassBuilder &method(SEL selector, IMP imp, const char *types)
    {
        if (cls_)
            class_addMethod(cls_, selector, imp, types);
        return *this;
    }

    ClassBuilder &ivar(const char *name, size_t size, uint8_t log2Alignment, const char *types)
    {
        if (cls_)
            class_addIvar(cls_, name, size, log2Alignment, types);
        return *this;
    }

    // An ivar holding an object its instance owns (see setObjectIvar and releaseObjectIvar).
    ClassBuilder &objectIvar(const char *name)
    {
        static_assert(sizeof(id) == 8, "LP64 only");
        return ivar(name, sizeof(id), 3, "@");
    }

    Class registerClass()
    {
        if (cls_)
            objc_registerClassPair(cls_);
        return cls_;
    }

private:
    Class cls_ = nullptr;
};

// The address of an ivar of type T inside an instance (found by name once per class).
template <typename T>
inline T *ivarPointer(id object, const char *name)
{
    Ivar ivar = class_getInstanceVariable(object_getClass(object), name);
    return ivar ? reinterpret_cast<T *>(reinterpret_cast<char *>(object) + ivar_getOffset(ivar)) : nullptr;
}

// Object ivars that their instance owns (+1): read (+0), replace with a retained or copied value
// (the old one is released), and release in dealloc. A class without the ivar reads nil.
inline id objectIvar(id object, const char *name)
{
    id *slot = ivarPointer<id>(object, name);
    return slot ? *slot : nil;
}

enum class IvarStore { retain, copy };

inline void setObjectIvar(id object, const char *name, id value, IvarStore store)
{
    id *slot = ivarPointer<id>(object, name);
    if (!slot)
        return;
    id owned = store == IvarStore::copy ? send<id>(value, sel<"copy">()) : objc_retain(value);
    objc_release(std::exchange(*slot, owned));
}

inline void releaseObjectIvar(id object, const char *name)
{
    if (id *slot = ivarPointer<id>(object, name))
        objc_release(std::exchange(*slot, nil));
}

template <typename F>
inline IMP imp(F function)
{
    return reinterpret_cast<IMP>(function);
}

} // namespace zerlan::objc
