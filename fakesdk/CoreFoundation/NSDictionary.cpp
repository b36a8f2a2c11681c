// NSDictionary (instances of __NSDictionaryI) and NSMutableDictionary (__NSDictionaryM): a hash
// table keyed by -hash/-isEqual: that retains its values and copies its keys (CFDictionary with
// the kCFType callbacks retains keys instead). No locking, as on Apple's platforms.
#include "cfinternal.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unordered_map>
#include <vector>

namespace fakecf {
namespace {

struct KeyHash {
    size_t operator()(id key) const { return fakeobjc::msg<unsigned long>(key, "hash"); }
};

struct KeyEqual {
    bool operator()(id a, id b) const { return a == b || fakeobjc::msg<bool>(a, "isEqual:", b); }
};

struct DictionaryState {
    std::unordered_map<id, id, KeyHash, KeyEqual> map;
    // Made by CFDictionaryCreateMutable with kCFCopyStringDictionaryKeyCallBacks.
    bool cfCopiesKeys = false;
    ~DictionaryState()
    {
        for (auto &[key, value] : map) {
            objc_release(key);
            objc_release(value);
        }
    }
};

fakeobjc::StateSlot<DictionaryState> gSlot;
Class gNSDictionary;
Class gNSMutableDictionary;
Class gDictionaryI;
Class gDictionaryM;

DictionaryState &state(id self)
{
    return gSlot.get(self);
}

Class concreteOf(id self)
{
    Class cls = reinterpret_cast<Class>(self);
    return cls == gNSDictionary ? gDictionaryI : cls == gNSMutableDictionary ? gDictionaryM : cls;
}

// Stores object under key; the previous key object is kept and the previous value released
// last, since its dealloc may look at the dictionary.
void put(id self, id key, id object, bool copyKey)
{
    auto &map = state(self).map;
    objc_retain(object);
    auto it = map.find(key);
    if (it != map.end()) {
        id old = it->second;
        it->second = object;
        objc_release(old);
        return;
    }
    id stored = copyKey ? fakeobjc::msg<id>(key, "copy") : objc_retain(key);
    map.emplace(stored, object);
}

void fill(id self, const id *objects, const id *keys, unsigned long count)
{
    for (unsigned long i = 0; i < count; ++i) {
        if (!objects[i])
            fakeobjc::raiseFormat("NSInvalidArgumentException",
                                  "*** -[__NSPlaceholderDictionary initWithObjects:forKeys:count:]: attempt to insert "
                                  "nil object from objects[%lu]",
                                  i);
        if (!keys[i])
            fakeobjc::raiseFormat("NSInvalidArgumentException",
                                  "*** -[__NSPlaceholderDictionary initWithObjects:forKeys:count:]: attempt to insert "
                                  "nil key from keys[%lu]",
                                  i);
    }
    for (unsigned long i = 0; i < count; ++i)
        put(self, keys[i], objects[i], true);
}

id newOfClass(Class cls, const id *objects, const id *keys, unsigned long count)
{
    id obj = class_createInstance(cls, 0);
    try {
        fill(obj, objects, keys, count);
    } catch (...) {
        objc_release(obj);
        throw;
    }
    return obj;
}

struct Pairs {
    std::vector<id> keys;
    std::vector<id> values;
};

Pairs pairsOf(id dictionary)
{
    Pairs out;
    if (!dictionary)
        return out;
    for (auto &[key, value] : state(dictionary).map) {
        out.keys.push_back(key);
        out.values.push_back(value);
    }
    return out;
}

id allocDictionary(id self, SEL)
{
    return class_createInstance(concreteOf(self), 0);
}

id allocDictionaryWithZone(id self, SEL cmd, void *)
{
    return allocDictionary(self, cmd);
}

id dictionary(id self, SEL)
{
    return objc_autorelease(newOfClass(concreteOf(self), nullptr, nullptr, 0));
}

id dictionaryWithObjectForKey(id self, SEL, id object, id key)
{
    return objc_autorelease(newOfClass(concreteOf(self), &object, &key, 1));
}

id dictionaryWithObjectsForKeysCount(id self, SEL, const id *objects, const id *keys, unsigned long count)
{
    return objc_autorelease(newOfClass(concreteOf(self), objects, keys, count));
}

id dictionaryWithDictionary(id self, SEL, id other)
{
    Pairs pairs = pairsOf(other);
    return objc_autorelease(newOfClass(concreteOf(self), pairs.values.data(), pairs.keys.data(), pairs.keys.size()));
}

id dictionaryWithCapacity(id self, SEL, unsigned long capacity)
{
    id obj = newOfClass(concreteOf(self), nullptr, nullptr, 0);
    state(obj).map.reserve(capacity);
    return objc_autorelease(obj);
}

id init(id self, SEL)
{
    state(self);
    return self;
}

id initWithCapacity(id self, SEL, unsigned long capacity)
{
    state(self).map.reserve(capacity);
    return self;
}

id initWithObjectsForKeysCount(id self, SEL, const id *objects, const id *keys, unsigned long count)
{
    try {
        fill(self, objects, keys, count);
    } catch (...) {
        objc_release(self);
        throw;
    }
    return self;
}

id initWithDictionary(id self, SEL cmd, id other)
{
    Pairs pairs = pairsOf(other);
    return initWithObjectsForKeysCount(self, cmd, pairs.values.data(), pairs.keys.data(), pairs.keys.size());
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSDictionary", self);
}

unsigned long count(id self, SEL)
{
    return state(self).map.size();
}

id objectForKey(id self, SEL, id key)
{
    if (!key)
        return nil;
    auto &map = state(self).map;
    auto it = map.find(key);
    return it == map.end() ? nil : it->second;
}

id allKeys(id self, SEL)
{
    Pairs pairs = pairsOf(self);
    return objc_autorelease(newArray(pairs.keys.data(), pairs.keys.size()));
}

id allValues(id self, SEL)
{
    Pairs pairs = pairsOf(self);
    return objc_autorelease(newArray(pairs.values.data(), pairs.values.size()));
}

bool isEqualToDictionary(id self, SEL, id other)
{
    if (self == other)
        return true;
    if (!other || !isKind(other, gNSDictionary))
        return false;
    auto &mine = state(self).map;
    auto &theirs = state(other).map;
    if (mine.size() != theirs.size())
        return false;
    for (auto &[key, value] : mine) {
        auto it = theirs.find(key);
        if (it == theirs.end() || !(it->second == value || fakeobjc::msg<bool>(value, "isEqual:", it->second)))
            return false;
    }
    return true;
}

unsigned long hash(id self, SEL)
{
    return state(self).map.size();
}

// Keys print sorted by their description, so that the text does not depend on hash order.
id descriptionWithIndent(id self, SEL, id, unsigned long indent)
{
    std::vector<std::pair<std::string, std::string>> lines;
    for (auto &[key, value] : state(self).map)
        lines.emplace_back(describeIndented(key, static_cast<int>(indent) + 1),
                           describeIndented(value, static_cast<int>(indent) + 1));
    std::sort(lines.begin(), lines.end());
    std::string pad(4 * indent, ' ');
    std::string out = "{\n";
    for (auto &[key, value] : lines)
        out += pad + "    " + key + " = " + value + ";\n";
    out += pad + "}";
    return autoString(out);
}

id description(id self, SEL cmd)
{
    return descriptionWithIndent(self, cmd, nil, 0);
}

id copyWithZone(id self, SEL, void *)
{
    if (!isKind(self, gNSMutableDictionary))
        return objc_retain(self);
    Pairs pairs = pairsOf(self);
    return newOfClass(gDictionaryI, pairs.values.data(), pairs.keys.data(), pairs.keys.size());
}

id mutableCopyWithZone(id self, SEL, void *)
{
    Pairs pairs = pairsOf(self);
    return newOfClass(gDictionaryM, pairs.values.data(), pairs.keys.data(), pairs.keys.size());
}

void setObjectForKey(id self, SEL cmd, id object, id key)
{
    if (!key)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: key cannot be nil", object_getClassName(self),
                              sel_getName(cmd));
    if (!object)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: object cannot be nil (key: %s)",
                              object_getClassName(self), sel_getName(cmd), describe(key).c_str());
    put(self, key, object, true);
}

void removeObjectForKey(id self, SEL cmd, id key)
{
    if (!key)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: key cannot be nil", object_getClassName(self),
                              sel_getName(cmd));
    auto &map = state(self).map;
    auto it = map.find(key);
    if (it == map.end())
        return;
    id oldKey = it->first, oldValue = it->second;
    map.erase(it);
    objc_release(oldKey);
    objc_release(oldValue);
}

void removeAllObjects(id self, SEL)
{
    std::unordered_map<id, id, KeyHash, KeyEqual> old;
    old.swap(state(self).map);
    for (auto &[key, value] : old) {
        objc_release(key);
        objc_release(value);
    }
}

void addEntriesFromDictionary(id self, SEL, id other)
{
    Pairs pairs = pairsOf(other);
    for (size_t i = 0; i < pairs.keys.size(); ++i)
        put(self, pairs.keys[i], pairs.values[i], true);
}


CFHashCode hashCallBack(const void *value)
{
    return CFHash(value);
}

const void *copyStringCallBack(CFAllocatorRef, const void *value)
{
    return fakeobjc::msg<id>(reinterpret_cast<id>(const_cast<void *>(value)), "copy");
}

} // namespace

void declareDictionaryClasses()
{
    gNSDictionary = fakeobjc::ClassDef("NSDictionary", "NSObject")
                        .stateIvar()
                        .classMethod("alloc", allocDictionary)
                        .classMethod("allocWithZone:", allocDictionaryWithZone)
                        .classMethod("dictionary", dictionary)
                        .classMethod("dictionaryWithObject:forKey:", dictionaryWithObjectForKey)
                        .classMethod("dictionaryWithObjects:forKeys:count:", dictionaryWithObjectsForKeysCount)
                        .classMethod("dictionaryWithDictionary:", dictionaryWithDictionary)
                        .method("init", init)
                        .method("initWithObjects:forKeys:count:", initWithObjectsForKeysCount)
                        .method("initWithDictionary:", initWithDictionary)
                        .method("dealloc", dealloc)
                        .method("count", count)
                        .method("objectForKey:", objectForKey)
                        .method("objectForKeyedSubscript:", objectForKey)
                        .method("allKeys", allKeys)
                        .method("allValues", allValues)
                        .method("isEqual:", isEqualToDictionary)
                        .method("isEqualToDictionary:", isEqualToDictionary)
                        .method("hash", hash)
                        .method("description", description)
                        .method("descriptionWithLocale:indent:", descriptionWithIndent)
                        .method("copyWithZone:", copyWithZone)
                        .method("mutableCopyWithZone:", mutableCopyWithZone)
                        .registerWith(gSlot);
    gNSMutableDictionary = fakeobjc::ClassDef("NSMutableDictionary", "NSDictionary")
                               .classMethod("dictionaryWithCapacity:", dictionaryWithCapacity)
                               .method("initWithCapacity:", initWithCapacity)
                               .method("setObject:forKey:", setObjectForKey)
                               .method("setObject:forKeyedSubscript:", setObjectForKey)
                               .method("removeObjectForKey:", removeObjectForKey)
                               .method("removeAllObjects", removeAllObjects)
                               .method("addEntriesFromDictionary:", addEntriesFromDictionary)
                               .registerClass();
    gDictionaryI = fakeobjc::ClassDef("__NSDictionaryI", "NSDictionary").registerClass();
    gDictionaryM = fakeobjc::ClassDef("__NSDictionaryM", "NSMutableDictionary").registerClass();
    typeIDForClass(gNSDictionary);
}

id newMutableDictionary()
{
    return newOfClass(gDictionaryM, nullptr, nullptr, 0);
}

void dictionarySet(id dictionary, id key, id object, bool copyKey)
{
    put(dictionary, key, object, copyKey);
}

} // namespace fakecf

using namespace fakecf;

namespace {

void checkCallBacks(const CFDictionaryKeyCallBacks *keys, const CFDictionaryValueCallBacks *values)
{
    if ((keys != &kCFTypeDictionaryKeyCallBacks && keys != &kCFCopyStringDictionaryKeyCallBacks) ||
        values != &kCFTypeDictionaryValueCallBacks) {
        std::fprintf(stderr, "fakesdk: CFDictionary supports only the kCFType key and value callbacks\n");
        std::abort();
    }
}

id asObject(const void *cf)
{
    return reinterpret_cast<id>(const_cast<void *>(cf));
}

} // namespace

extern "C" {

const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {
    0, retainCallBack, releaseCallBack, copyDescriptionCallBack, equalCallBack, hashCallBack};
const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks = {
    0, copyStringCallBack, releaseCallBack, copyDescriptionCallBack, equalCallBack, hashCallBack};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {0, retainCallBack, releaseCallBack,
                                                                    copyDescriptionCallBack, equalCallBack};

CFTypeID CFDictionaryGetTypeID(void)
{
    return typeIDForClass(gNSDictionary);
}

CFDictionaryRef CFDictionaryCreate(CFAllocatorRef, const void **keys, const void **values, CFIndex numValues,
                                   const CFDictionaryKeyCallBacks *keyCallBacks,
                                   const CFDictionaryValueCallBacks *valueCallBacks)
{
    if (numValues > 0)
        checkCallBacks(keyCallBacks, valueCallBacks);
    id dict = class_createInstance(gDictionaryI, 0);
    bool copyKeys = keyCallBacks == &kCFCopyStringDictionaryKeyCallBacks;
    for (CFIndex i = 0; i < numValues; ++i)
        put(dict, asObject(keys[i]), asObject(values[i]), copyKeys);
    return reinterpret_cast<CFDictionaryRef>(dict);
}

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks *keyCallBacks,
                                                 const CFDictionaryValueCallBacks *valueCallBacks)
{
    checkCallBacks(keyCallBacks, valueCallBacks);
    id dict = newMutableDictionary();
    state(dict).cfCopiesKeys = keyCallBacks == &kCFCopyStringDictionaryKeyCallBacks;
    if (capacity > 0)
        state(dict).map.reserve(static_cast<size_t>(capacity));
    return reinterpret_cast<CFMutableDictionaryRef>(dict);
}

CFIndex CFDictionaryGetCount(CFDictionaryRef theDict)
{
    return static_cast<CFIndex>(fakeobjc::msg<unsigned long>(asObject(theDict), "count"));
}

const void *CFDictionaryGetValue(CFDictionaryRef theDict, const void *key)
{
    return fakeobjc::msg<id>(asObject(theDict), "objectForKey:", asObject(key));
}

// CF's mutable dictionaries made with the kCFType callbacks retain (not copy) their keys.
void CFDictionarySetValue(CFMutableDictionaryRef theDict, const void *key, const void *value)
{
    if (!key || !value) {
        std::fprintf(stderr, "fakesdk: CFDictionarySetValue with a NULL %s\n", key ? "value" : "key");
        std::abort();
    }
    id dict = asObject(theDict);
    put(dict, asObject(key), asObject(value), state(dict).cfCopiesKeys);
}

void CFDictionaryRemoveValue(CFMutableDictionaryRef theDict, const void *key)
{
    fakeobjc::msg<void>(asObject(theDict), "removeObjectForKey:", asObject(key));
}

} // extern "C"
