// NSArray (instances of __NSArrayI) and NSMutableArray (__NSArrayM): a vector of retained
// objects, equality by -isEqual:, Apple's exception names and reasons on misuse, no locking (as
// on Apple's platforms, callers serialise access). CFArray's C API works on the same objects.
#include "cfinternal.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace fakecf {
namespace {

struct ArrayState {
    std::vector<id> objects;
    ~ArrayState()
    {
        for (id obj : objects)
            objc_release(obj);
    }
};

fakeobjc::StateSlot<ArrayState> gSlot;
Class gNSArray;
Class gNSMutableArray;
Class gArrayI;
Class gArrayM;

ArrayState &state(id self)
{
    return gSlot.get(self);
}

Class concreteOf(id self)
{
    Class cls = reinterpret_cast<Class>(self);
    return cls == gNSArray ? gArrayI : cls == gNSMutableArray ? gArrayM : cls;
}

[[noreturn]] void indexBeyond(id self, SEL cmd, unsigned long index, size_t count)
{
    if (count == 0)
        fakeobjc::raiseFormat("NSRangeException", "*** -[%s %s]: index %lu beyond bounds for empty array",
                              object_getClassName(self), sel_getName(cmd), index);
    fakeobjc::raiseFormat("NSRangeException", "*** -[%s %s]: index %lu beyond bounds [0 .. %zu]",
                          object_getClassName(self), sel_getName(cmd), index, count - 1);
}

[[noreturn]] void nilObject(id self, SEL cmd)
{
    fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: object cannot be nil", object_getClassName(self),
                          sel_getName(cmd));
}

// Fills a fresh instance; a nil among objects raises as Apple's placeholder initialiser does.
void fill(id self, const id *objects, unsigned long count)
{
    for (unsigned long i = 0; i < count; ++i)
        if (!objects[i])
            fakeobjc::raiseFormat("NSInvalidArgumentException",
                                  "*** -[__NSPlaceholderArray initWithObjects:count:]: attempt to insert nil object "
                                  "from objects[%lu]",
                                  i);
    auto &vec = state(self).objects;
    vec.reserve(vec.size() + count);
    for (unsigned long i = 0; i < count; ++i)
        vec.push_back(objc_retain(objects[i]));
}

id newOfClass(Class cls, const id *objects, unsigned long count)
{
    id obj = class_createInstance(cls, 0);
    try {
        fill(obj, objects, count);
    } catch (...) {
        objc_release(obj);
        throw;
    }
    return obj;
}

std::vector<id> snapshot(id array)
{
    if (!array)
        return {};
    if (isKind(array, gNSArray))
        return state(array).objects;
    std::vector<id> out;
    auto count = fakeobjc::msg<unsigned long>(array, "count");
    for (unsigned long i = 0; i < count; ++i)
        out.push_back(fakeobjc::msg<id>(array, "objectAtIndex:", i));
    return out;
}

bool equalObjects(id a, id b)
{
    return a == b || fakeobjc::msg<bool>(a, "isEqual:", b);
}

// ---- class methods

id allocArray(id self, SEL)
{
    return class_createInstance(concreteOf(self), 0);
}

id allocArrayWithZone(id self, SEL cmd, void *)
{
    return allocArray(self, cmd);
}

id array(id self, SEL)
{
    return objc_autorelease(newOfClass(concreteOf(self), nullptr, 0));
}

id arrayWithObject(id self, SEL, id object)
{
    return objc_autorelease(newOfClass(concreteOf(self), &object, 1));
}

id arrayWithObjectsCount(id self, SEL, const id *objects, unsigned long count)
{
    return objc_autorelease(newOfClass(concreteOf(self), objects, count));
}

id arrayWithObjects(id self, SEL, id first, ...)
{
    std::vector<id> objects;
    va_list args;
    va_start(args, first);
    for (id obj = first; obj; obj = va_arg(args, id))
        objects.push_back(obj);
    va_end(args);
    return objc_autorelease(newOfClass(concreteOf(self), objects.data(), objects.size()));
}

id arrayWithArray(id self, SEL, id other)
{
    std::vector<id> objects = snapshot(other);
    return objc_autorelease(newOfClass(concreteOf(self), objects.data(), objects.size()));
}

id arrayWithCapacity(id self, SEL, unsigned long capacity)
{
    id obj = newOfClass(concreteOf(self), nullptr, 0);
    state(obj).objects.reserve(capacity);
    return objc_autorelease(obj);
}

// ---- initialisers

id init(id self, SEL)
{
    state(self);
    return self;
}

id initWithCapacity(id self, SEL, unsigned long capacity)
{
    state(self).objects.reserve(capacity);
    return self;
}

id initWithObjectsCount(id self, SEL, const id *objects, unsigned long count)
{
    try {
        fill(self, objects, count);
    } catch (...) {
        objc_release(self);
        throw;
    }
    return self;
}

id initWithArray(id self, SEL, id other)
{
    std::vector<id> objects = snapshot(other);
    fill(self, objects.data(), objects.size());
    return self;
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSArray", self);
}

// ---- queries

unsigned long count(id self, SEL)
{
    return state(self).objects.size();
}

id objectAtIndex(id self, SEL cmd, unsigned long index)
{
    const auto &objects = state(self).objects;
    if (index >= objects.size())
        indexBeyond(self, cmd, index, objects.size());
    return objects[index];
}

id firstObject(id self, SEL)
{
    const auto &objects = state(self).objects;
    return objects.empty() ? nil : objects.front();
}

id lastObject(id self, SEL)
{
    const auto &objects = state(self).objects;
    return objects.empty() ? nil : objects.back();
}

unsigned long indexOfObject(id self, SEL, id object)
{
    const auto &objects = state(self).objects;
    if (object)
        for (size_t i = 0; i < objects.size(); ++i)
            if (equalObjects(object, objects[i]))
                return i;
    return static_cast<unsigned long>(NSNotFound);
}

unsigned long indexOfObjectIdenticalTo(id self, SEL, id object)
{
    const auto &objects = state(self).objects;
    for (size_t i = 0; i < objects.size(); ++i)
        if (objects[i] == object)
            return i;
    return static_cast<unsigned long>(NSNotFound);
}

bool containsObject(id self, SEL cmd, id object)
{
    return indexOfObject(self, cmd, object) != static_cast<unsigned long>(NSNotFound);
}

bool isEqualToArray(id self, SEL, id other)
{
    if (self == other)
        return true;
    if (!other)
        return false;
    const auto &mine = state(self).objects;
    std::vector<id> theirs = snapshot(other);
    if (mine.size() != theirs.size())
        return false;
    for (size_t i = 0; i < mine.size(); ++i)
        if (!equalObjects(mine[i], theirs[i]))
            return false;
    return true;
}

bool isEqual(id self, SEL cmd, id other)
{
    return self == other || (other && isKind(other, gNSArray) && isEqualToArray(self, cmd, other));
}

unsigned long hash(id self, SEL)
{
    return state(self).objects.size();
}

id arrayByAddingObject(id self, SEL cmd, id object)
{
    if (!object)
        nilObject(self, cmd);
    std::vector<id> objects = state(self).objects;
    objects.push_back(object);
    return objc_autorelease(newOfClass(gArrayI, objects.data(), objects.size()));
}

id subarrayWithRange(id self, SEL cmd, NSRange range)
{
    const auto &objects = state(self).objects;
    if (range.location > objects.size() || range.length > objects.size() - range.location)
        fakeobjc::raiseFormat("NSRangeException", "*** -[%s %s]: range {%lu, %lu} extends beyond bounds [0 .. %zd]",
                              object_getClassName(self), sel_getName(cmd), range.location, range.length,
                              static_cast<ssize_t>(objects.size()) - 1);
    return objc_autorelease(newOfClass(gArrayI, objects.data() + range.location, range.length));
}

id componentsJoinedByString(id self, SEL, id separator)
{
    std::string glue = utf8Of(separator), out;
    const auto &objects = state(self).objects;
    for (size_t i = 0; i < objects.size(); ++i) {
        if (i)
            out += glue;
        out += describe(objects[i]);
    }
    return autoString(out);
}

id descriptionWithIndent(id self, SEL, id, unsigned long indent)
{
    std::string pad(4 * indent, ' ');
    std::string out = "(\n";
    const auto &objects = state(self).objects;
    for (size_t i = 0; i < objects.size(); ++i) {
        out += pad + "    " + describeIndented(objects[i], static_cast<int>(indent) + 1);
        out += i + 1 < objects.size() ? ",\n" : "\n";
    }
    out += pad + ")";
    return autoString(out);
}

id description(id self, SEL cmd)
{
    return descriptionWithIndent(self, cmd, nil, 0);
}

id copyWithZone(id self, SEL, void *)
{
    if (!isKind(self, gNSMutableArray))
        return objc_retain(self);
    const auto &objects = state(self).objects;
    return newOfClass(gArrayI, objects.data(), objects.size());
}

id mutableCopyWithZone(id self, SEL, void *)
{
    const auto &objects = state(self).objects;
    return newOfClass(gArrayM, objects.data(), objects.size());
}

// ---- NSMutableArray: every removal releases after the array is consistent again, since a
// released object's dealloc may look at the array.

void insertObjectAtIndex(id self, SEL cmd, id object, unsigned long index)
{
    if (!object)
        nilObject(self, cmd);
    auto &objects = state(self).objects;
    if (index > objects.size())
        indexBeyond(self, cmd, index, objects.size());
    objects.insert(objects.begin() + static_cast<long>(index), objc_retain(object));
}

void addObject(id self, SEL cmd, id object)
{
    insertObjectAtIndex(self, sel_registerName("insertObject:atIndex:"), object, state(self).objects.size());
}

void addObjectsFromArray(id self, SEL, id other)
{
    std::vector<id> incoming = snapshot(other);
    auto &objects = state(self).objects;
    for (id obj : incoming)
        objects.push_back(objc_retain(obj));
}

void releaseAll(const std::vector<id> &removed)
{
    for (id obj : removed)
        objc_release(obj);
}

template <typename Match>
void removeWhere(id self, Match match)
{
    auto &objects = state(self).objects;
    std::vector<id> kept, removed;
    for (id obj : objects)
        (match(obj) ? removed : kept).push_back(obj);
    objects.swap(kept);
    releaseAll(removed);
}

void removeObject(id self, SEL, id object)
{
    if (object)
        removeWhere(self, [&](id obj) { return equalObjects(object, obj); });
}

void removeObjectIdenticalTo(id self, SEL, id object)
{
    removeWhere(self, [&](id obj) { return obj == object; });
}

void removeObjectAtIndex(id self, SEL cmd, unsigned long index)
{
    auto &objects = state(self).objects;
    if (index >= objects.size())
        indexBeyond(self, cmd, index, objects.size());
    id removed = objects[index];
    objects.erase(objects.begin() + static_cast<long>(index));
    objc_release(removed);
}

void removeLastObject(id self, SEL cmd)
{
    auto &objects = state(self).objects;
    if (objects.empty())
        indexBeyond(self, cmd, 0, 0);
    id removed = objects.back();
    objects.pop_back();
    objc_release(removed);
}

void removeAllObjects(id self, SEL)
{
    std::vector<id> removed;
    removed.swap(state(self).objects);
    releaseAll(removed);
}

void replaceObjectAtIndex(id self, SEL cmd, unsigned long index, id object)
{
    if (!object)
        nilObject(self, cmd);
    auto &objects = state(self).objects;
    if (index >= objects.size())
        indexBeyond(self, cmd, index, objects.size());
    id old = objects[index];
    objects[index] = objc_retain(object);
    objc_release(old);
}

void setObjectAtIndexedSubscript(id self, SEL cmd, id object, unsigned long index)
{
    if (index == state(self).objects.size())
        insertObjectAtIndex(self, cmd, object, index);
    else
        replaceObjectAtIndex(self, cmd, index, object);
}


} // namespace

void declareArrayClasses()
{
    fakeobjc::ClassDef def("NSArray", "NSObject");
    def.stateIvar()
        .classMethod("alloc", allocArray)
        .classMethod("allocWithZone:", allocArrayWithZone)
        .classMethod("array", array)
        .classMethod("arrayWithObject:", arrayWithObject)
        .classMethod("arrayWithObjects:count:", arrayWithObjectsCount)
        .classMethod("arrayWithArray:", arrayWithArray)
        .method("init", init)
        .method("initWithObjects:count:", initWithObjectsCount)
        .method("initWithArray:", initWithArray)
        .method("dealloc", dealloc)
        .method("count", count)
        .method("objectAtIndex:", objectAtIndex)
        .method("objectAtIndexedSubscript:", objectAtIndex)
        .method("firstObject", firstObject)
        .method("lastObject", lastObject)
        .method("containsObject:", containsObject)
        .method("indexOfObject:", indexOfObject)
        .method("indexOfObjectIdenticalTo:", indexOfObjectIdenticalTo)
        .method("isEqual:", isEqual)
        .method("isEqualToArray:", isEqualToArray)
        .method("hash", hash)
        .method("arrayByAddingObject:", arrayByAddingObject)
        .method("subarrayWithRange:", subarrayWithRange)
        .method("componentsJoinedByString:", componentsJoinedByString)
        .method("description", description)
        .method("descriptionWithLocale:indent:", descriptionWithIndent)
        .method("copyWithZone:", copyWithZone)
        .method("mutableCopyWithZone:", mutableCopyWithZone);
    addVariadicMethod(def.cls(), true, "arrayWithObjects:", reinterpret_cast<IMP>(arrayWithObjects), "@@:@");
    gNSArray = def.registerWith(gSlot);

    gNSMutableArray = fakeobjc::ClassDef("NSMutableArray", "NSArray")
                          .classMethod("arrayWithCapacity:", arrayWithCapacity)
                          .method("initWithCapacity:", initWithCapacity)
                          .method("addObject:", addObject)
                          .method("insertObject:atIndex:", insertObjectAtIndex)
                          .method("addObjectsFromArray:", addObjectsFromArray)
                          .method("removeObject:", removeObject)
                          .method("removeObjectIdenticalTo:", removeObjectIdenticalTo)
                          .method("removeObjectAtIndex:", removeObjectAtIndex)
                          .method("removeLastObject", removeLastObject)
                          .method("removeAllObjects", removeAllObjects)
                          .method("replaceObjectAtIndex:withObject:", replaceObjectAtIndex)
                          .method("setObject:atIndexedSubscript:", setObjectAtIndexedSubscript)
                          .registerClass();
    gArrayI = fakeobjc::ClassDef("__NSArrayI", "NSArray").registerClass();
    gArrayM = fakeobjc::ClassDef("__NSArrayM", "NSMutableArray").registerClass();
    typeIDForClass(gNSArray);
}

id newArray(const id *objects, size_t count)
{
    return newOfClass(gArrayI, objects, count);
}

id newMutableArray()
{
    return newOfClass(gArrayM, nullptr, 0);
}

// Strings that are not plain words print quoted, as in Apple's collection descriptions.
std::string describeIndented(id object, int indent)
{
    static SEL indented = sel_registerName("descriptionWithLocale:indent:");
    if (object && class_respondsToSelector(object_getClass(object), indented))
        return utf8Of(fakeobjc::msg<id>(object, indented, id(nil), static_cast<unsigned long>(indent)));
    std::string text = describe(object);
    if (!object || !isKind(object, objc_getClass("NSString")))
        return text;
    bool plain = !text.empty();
    for (unsigned char c : text)
        if (!(std::isalnum(c) || std::strchr("_$+/:.-", c)))
            plain = false;
    if (plain)
        return text;
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            quoted.push_back('\\');
        if (c == '\n') {
            quoted += "\\n";
            continue;
        }
        quoted.push_back(c);
    }
    return quoted + "\"";
}

} // namespace fakecf

using namespace fakecf;

extern "C" {

const CFArrayCallBacks kCFTypeArrayCallBacks = {0, retainCallBack, releaseCallBack, copyDescriptionCallBack,
                                                equalCallBack};

CFTypeID CFArrayGetTypeID(void)
{
    return typeIDForClass(gNSArray);
}

CFArrayRef CFArrayCreate(CFAllocatorRef, const void **values, CFIndex numValues, const CFArrayCallBacks *callBacks)
{
    if (numValues > 0 && callBacks != &kCFTypeArrayCallBacks) {
        std::fprintf(stderr, "fakesdk: CFArrayCreate supports only kCFTypeArrayCallBacks\n");
        std::abort();
    }
    return reinterpret_cast<CFArrayRef>(
        newArray(reinterpret_cast<const id *>(const_cast<void **>(values)), static_cast<size_t>(numValues > 0 ? numValues : 0)));
}

CFIndex CFArrayGetCount(CFArrayRef theArray)
{
    return static_cast<CFIndex>(fakeobjc::msg<unsigned long>(reinterpret_cast<id>(const_cast<__CFArray *>(theArray)),
                                                             "count"));
}

const void *CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx)
{
    return fakeobjc::msg<id>(reinterpret_cast<id>(const_cast<__CFArray *>(theArray)), "objectAtIndex:",
                             static_cast<unsigned long>(idx));
}

} // extern "C"
