// Helpers shared by fakesdk's Objective-C frameworks: owning and weak references for C++ state,
// and Foundation objects made by message sends.
#pragma once

#include "objc/define.h"

#include <utility>
#include <vector>

namespace fakeobjc {

// One owned reference (retain on copy, release on destruction).
class Ref {
public:
    Ref() = default;
    explicit Ref(id obj) : obj_(objc_retain(obj)) {}
    Ref(const Ref &other) : obj_(objc_retain(other.obj_)) {}
    Ref(Ref &&other) noexcept : obj_(std::exchange(other.obj_, nullptr)) {}
    Ref &operator=(Ref other) noexcept
    {
        std::swap(obj_, other.obj_);
        return *this;
    }
    ~Ref()
    {
        if (obj_)
            objc_release(obj_);
    }
    [[nodiscard]] static Ref adopt(id obj)
    {
        Ref ref;
        ref.obj_ = obj;
        return ref;
    }
    id get() const { return obj_; }
    explicit operator bool() const { return obj_ != nullptr; }

private:
    id obj_ = nullptr;
};

// A zeroing weak slot; its address must not change, so it is neither copied nor moved.
class Weak {
public:
    Weak() = default;
    Weak(const Weak &) = delete;
    Weak &operator=(const Weak &) = delete;
    ~Weak() { objc_storeWeak(&slot_, nullptr); }
    void set(id obj) { objc_storeWeak(&slot_, obj); }
    // +0 (autoreleased), nil once the object is gone.
    id get()
    {
        id obj = objc_loadWeakRetained(&slot_);
        return obj ? objc_autorelease(obj) : nullptr;
    }
    // +1, for code that runs without a pool.
    Ref load() { return Ref::adopt(objc_loadWeakRetained(&slot_)); }

private:
    id slot_ = nullptr;
};

inline id str(const char *text)
{
    return msg<id>(cls("NSString"), "stringWithUTF8String:", text);
}

inline bool strEqual(id a, id b)
{
    if (a == b)
        return true;
    if (!a || !b)
        return false;
    return msg<bool>(a, "isEqual:", b);
}

inline id number(long value)
{
    return msg<id>(cls("NSNumber"), "numberWithInteger:", value);
}

inline id array(const std::vector<id> &objects)
{
    return msg<id>(cls("NSArray"), "arrayWithObjects:count:", objects.empty() ? nullptr : objects.data(),
                   static_cast<unsigned long>(objects.size()));
}

inline id array(const std::vector<Ref> &objects)
{
    std::vector<id> raw;
    for (const Ref &ref : objects)
        raw.push_back(ref.get());
    return array(raw);
}

inline std::vector<id> elements(id nsArray)
{
    std::vector<id> out;
    unsigned long count = msg<unsigned long>(nsArray, "count");
    for (unsigned long i = 0; i < count; ++i)
        out.push_back(msg<id>(nsArray, "objectAtIndex:", i));
    return out;
}

inline id dictionary(const std::vector<std::pair<id, id>> &entries)
{
    std::vector<id> keys, values;
    for (auto &[key, value] : entries) {
        keys.push_back(key);
        values.push_back(value);
    }
    return msg<id>(cls("NSDictionary"), "dictionaryWithObjects:forKeys:count:", values.data(), keys.data(),
                   static_cast<unsigned long>(keys.size()));
}

inline bool isKind(id obj, const char *className)
{
    return obj && msg<bool>(obj, "isKindOfClass:", cls(className));
}

} // namespace fakeobjc
