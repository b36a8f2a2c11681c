// How fakesdk's frameworks declare their classes: a builder that registers C++ functions as
// methods with type encodings derived from the function type, and a typed slot for the C++
// state that an instance keeps behind one ivar (null in a bare, uninitialised instance).
#pragma once

#include "internal.h"

#include <atomic>
#include <string>
#include <type_traits>

namespace fakeobjc {

template <typename T, typename = void>
struct Encoding {
    static std::string get()
    {
        if constexpr (std::is_same_v<T, void>)
            return "v";
        else if constexpr (std::is_same_v<T, bool>)
            return "B";
        else if constexpr (std::is_same_v<T, char> || std::is_same_v<T, signed char>)
            return "c";
        else if constexpr (std::is_same_v<T, unsigned char>)
            return "C";
        else if constexpr (std::is_same_v<T, short>)
            return "s";
        else if constexpr (std::is_same_v<T, unsigned short>)
            return "S";
        else if constexpr (std::is_same_v<T, int>)
            return "i";
        else if constexpr (std::is_same_v<T, unsigned int>)
            return "I";
        else if constexpr (std::is_same_v<T, long> || std::is_same_v<T, long long>)
            return "q";
        else if constexpr (std::is_same_v<T, unsigned long> || std::is_same_v<T, unsigned long long>)
            return "Q";
        else if constexpr (std::is_same_v<T, float>)
            return "f";
        else if constexpr (std::is_same_v<T, double>)
            return "d";
        else if constexpr (std::is_same_v<T, id>)
            return "@";
        else if constexpr (std::is_same_v<T, Class>)
            return "#";
        else if constexpr (std::is_same_v<T, SEL>)
            return ":";
        else if constexpr (std::is_same_v<T, const char *> || std::is_same_v<T, char *>)
            return "*";
        else if constexpr (std::is_pointer_v<T>)
            return "^v";
        else
            return "?";
    }
};

// Blocks are objects: '@?'.
template <typename R, typename... A>
struct Encoding<R (^)(A...)> {
    static std::string get() { return "@?"; }
};

// Frameworks specialise this for their structs and CF types (CMTime is "{?=qiIq}",
// CMSampleBufferRef "^{opaqueCMSampleBuffer=}", CGRect "{CGRect={CGPoint=dd}{CGSize=dd}}").
#define FAKEOBJC_ENCODING(Type, Text)                                                                                  \
    template <>                                                                                                         \
    struct fakeobjc::Encoding<Type> {                                                                                   \
        static std::string get() { return Text; }                                                                      \
    }

template <typename F>
struct MethodEncoding;

template <typename R, typename... A>
struct MethodEncoding<R (*)(id, SEL, A...)> {
    static std::string get() { return Encoding<R>::get() + "@:" + (std::string() + ... + Encoding<A>::get()); }
};

// State of type T behind one pointer ivar. A bare instance (class_createInstance, no init) has
// no state until it is first asked for, exactly as a framework object whose initialiser never
// ran answers zeroes.
template <typename T>
class StateSlot {
public:
    void bind(Class cls, const char *ivarName) { offset_ = ivar_getOffset(class_getInstanceVariable(cls, ivarName)); }

    T *peek(id self) const { return slot(self).load(std::memory_order_acquire); }

    T &get(id self) const
    {
        auto &ptr = slot(self);
        T *state = ptr.load(std::memory_order_acquire);
        if (state)
            return *state;
        T *fresh = new T();
        if (ptr.compare_exchange_strong(state, fresh, std::memory_order_acq_rel))
            return *fresh;
        delete fresh;
        return *state;
    }

    void destroy(id self) const { delete slot(self).exchange(nullptr); }

private:
    std::atomic<T *> &slot(id self) const
    {
        return *reinterpret_cast<std::atomic<T *> *>(reinterpret_cast<char *>(self) + offset_);
    }
    ptrdiff_t offset_ = 0;
};

class ClassDef {
public:
    ClassDef(const char *name, const char *superclassName)
        : cls_(objc_allocateClassPair(superclassName ? objc_getClass(superclassName) : nullptr, name, 0))
    {
        if (!cls_ || (superclassName && !objc_getClass(superclassName)))
            raiseFormat("NSInternalInconsistencyException", "fakesdk: cannot declare class %s : %s", name,
                        superclassName ? superclassName : "(root)");
    }

    template <typename F>
    ClassDef &method(const char *selector, F fn)
    {
        class_addMethod(cls_, sel_registerName(selector), reinterpret_cast<IMP>(fn),
                        MethodEncoding<F>::get().c_str());
        return *this;
    }

    template <typename F>
    ClassDef &classMethod(const char *selector, F fn)
    {
        class_addMethod(object_getClass(reinterpret_cast<id>(cls_)), sel_registerName(selector),
                        reinterpret_cast<IMP>(fn), MethodEncoding<F>::get().c_str());
        return *this;
    }

    // Adds the one state ivar; the class's dealloc calls destroyStateThenSuper.
    ClassDef &stateIvar()
    {
        class_addIvar(cls_, "_state", sizeof(void *), 3, "^v");
        return *this;
    }

    template <typename T>
    Class registerWith(StateSlot<T> &slot)
    {
        objc_registerClassPair(cls_);
        slot.bind(cls_, "_state");
        return cls_;
    }

    Class registerClass()
    {
        objc_registerClassPair(cls_);
        return cls_;
    }

    Class cls() const { return cls_; }

private:
    Class cls_;
};

// The dealloc of a class declared with stateIvar(): its state goes before the superclass's.
template <typename T>
inline void destroyStateThenSuper(const StateSlot<T> &slot, const char *className, id self)
{
    slot.destroy(self);
    msgSuper<void>(objc_getClass(className), self, "dealloc");
}

inline id cls(const char *name)
{
    return reinterpret_cast<id>(objc_getClass(name));
}

} // namespace fakeobjc
