// NSHashTable with strong or zeroing-weak memory. Weak entries are runtime weak slots at stable
// addresses, so an entry reads nil as soon as its object starts deallocating; dead entries are
// dropped lazily. No locking, as on Apple's platforms (callers serialise access).
#include "CoreFoundation/cfinternal.h"

#include <memory>
#include <vector>

namespace {

enum : unsigned long {
    NSPointerFunctionsStrongMemory = 0,
    NSPointerFunctionsWeakMemory = 5ul << 0,
    NSPointerFunctionsObjectPointerPersonality = 1ul << 9,
};

struct Entry {
    id ref = nil;
};

struct HashTableState {
    bool weak = false;
    bool identity = false;
    std::vector<std::unique_ptr<Entry>> entries;

    ~HashTableState()
    {
        for (auto &entry : entries)
            drop(*entry);
    }

    void drop(Entry &entry) const
    {
        if (weak)
            objc_destroyWeak(&entry.ref);
        else
            objc_release(entry.ref);
    }

    // +1 reference to the entry's object, or nil when a weak entry's object has gone.
    id load(Entry &entry) const { return weak ? objc_loadWeakRetained(&entry.ref) : objc_retain(entry.ref); }

    bool matches(id stored, id object) const
    {
        return stored == object || (!identity && fakeobjc::msg<bool>(stored, "isEqual:", object));
    }

    // Index of the live entry matching object; dead weak entries found on the way are removed.
    long find(id object)
    {
        for (size_t i = 0; i < entries.size();) {
            id live = load(*entries[i]);
            if (!live) {
                drop(*entries[i]);
                entries.erase(entries.begin() + static_cast<long>(i));
                continue;
            }
            bool hit = matches(live, object);
            objc_release(live);
            if (hit)
                return static_cast<long>(i);
            ++i;
        }
        return -1;
    }

    std::vector<id> liveObjects()
    {
        std::vector<id> out;
        for (size_t i = 0; i < entries.size();) {
            id live = load(*entries[i]);
            if (!live) {
                drop(*entries[i]);
                entries.erase(entries.begin() + static_cast<long>(i));
                continue;
            }
            out.push_back(live);
            ++i;
        }
        return out;
    }
};

fakeobjc::StateSlot<HashTableState> gSlot;

HashTableState &state(id self)
{
    return gSlot.get(self);
}

id initWithOptions(id self, SEL, unsigned long options, unsigned long capacity)
{
    HashTableState &st = state(self);
    st.weak = (options & 0xFF) == NSPointerFunctionsWeakMemory;
    st.identity = (options & NSPointerFunctionsObjectPointerPersonality) != 0;
    st.entries.reserve(capacity);
    return self;
}

id hashTableWithOptions(id self, SEL cmd, unsigned long options)
{
    id obj = class_createInstance(reinterpret_cast<Class>(self), 0);
    return objc_autorelease(initWithOptions(obj, cmd, options, 0));
}

id weakObjectsHashTable(id self, SEL cmd)
{
    return hashTableWithOptions(self, cmd, NSPointerFunctionsWeakMemory);
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSHashTable", self);
}

void addObject(id self, SEL, id object)
{
    if (!object)
        return;
    HashTableState &st = state(self);
    if (st.find(object) >= 0)
        return;
    auto entry = std::make_unique<Entry>();
    if (st.weak)
        objc_initWeak(&entry->ref, object);
    else
        entry->ref = objc_retain(object);
    st.entries.push_back(std::move(entry));
}

void removeObject(id self, SEL, id object)
{
    if (!object)
        return;
    HashTableState &st = state(self);
    long at = st.find(object);
    if (at < 0)
        return;
    std::unique_ptr<Entry> entry = std::move(st.entries[static_cast<size_t>(at)]);
    st.entries.erase(st.entries.begin() + at);
    st.drop(*entry);
}

void removeAllObjects(id self, SEL)
{
    HashTableState &st = state(self);
    std::vector<std::unique_ptr<Entry>> old;
    old.swap(st.entries);
    for (auto &entry : old)
        st.drop(*entry);
}

bool containsObject(id self, SEL, id object)
{
    return object && state(self).find(object) >= 0;
}

id allObjects(id self, SEL)
{
    std::vector<id> live = state(self).liveObjects();
    id array = fakecf::newArray(live.data(), live.size());
    for (id obj : live)
        objc_release(obj);
    return objc_autorelease(array);
}

unsigned long count(id self, SEL)
{
    std::vector<id> live = state(self).liveObjects();
    for (id obj : live)
        objc_release(obj);
    return live.size();
}

id anyObject(id self, SEL)
{
    HashTableState &st = state(self);
    std::vector<id> live = st.liveObjects();
    id first = live.empty() ? nil : live.front();
    for (size_t i = 1; i < live.size(); ++i)
        objc_release(live[i]);
    return objc_autorelease(first);
}

__attribute__((constructor(120))) void declareNSHashTable()
{
    fakeobjc::ClassDef("NSHashTable", "NSObject")
        .stateIvar()
        .classMethod("hashTableWithOptions:", hashTableWithOptions)
        .classMethod("weakObjectsHashTable", weakObjectsHashTable)
        .method("initWithOptions:capacity:", initWithOptions)
        .method("dealloc", dealloc)
        .method("addObject:", addObject)
        .method("removeObject:", removeObject)
        .method("removeAllObjects", removeAllObjects)
        .method("containsObject:", containsObject)
        .method("allObjects", allObjects)
        .method("count", count)
        .method("anyObject", anyObject)
        .registerWith(gSlot);
}

} // namespace
