// The Objective-C runtime of fakesdk: classes, selectors, methods, instances with a hidden
// header (retain count and flags), side tables for associations, weak references and object
// locks, and per-thread autorelease pools. Modelled on the data model of GNUstep's libobjc2.
#include "internal.h"

#include <fakesdk/objc_np.h>

#include <dlfcn.h>
#include <execinfo.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

struct objc_method {
    SEL name;
    std::atomic<IMP> imp;
    std::string types;
};

struct objc_ivar {
    std::string name;
    std::string types;
    ptrdiff_t offset;
};

// A class object is itself an object: isa first, then the class data. Class objects are
// allocated with an object header like every other object and are immortal.
struct objc_class {
    Class isa;
    Class superclass;
    std::string name;
    size_t instanceSize;
    bool meta;
    bool registered;
    std::unordered_map<SEL, objc_method *> methods;
    std::vector<objc_ivar *> ivars;
};

namespace {

enum : uint32_t {
    kHasAssociations = 1u << 0,
    kHasWeakReferences = 1u << 1,
    kImmortal = 1u << 2,
    kTracked = 1u << 3,
    kDeallocating = 1u << 4,
};

// Lives immediately before every object the runtime allocates.
struct alignas(16) Header {
    std::atomic<long> retainCount;
    std::atomic<uint32_t> flags;
    std::atomic<long> retains;
    std::atomic<long> releases;
};

Header *headerOf(id obj)
{
    return reinterpret_cast<Header *>(reinterpret_cast<char *>(obj) - sizeof(Header));
}

id allocateObject(size_t size)
{
    void *memory = std::calloc(1, sizeof(Header) + size);
    if (!memory)
        std::abort();
    auto *header = new (memory) Header();
    header->retainCount.store(1, std::memory_order_relaxed);
    return reinterpret_cast<id>(reinterpret_cast<char *>(memory) + sizeof(Header));
}

std::atomic<long> gLiveObjects{0};

// The tables live as long as the process and are never destroyed: worker threads may still
// release objects while exit() runs static destructors.
// Method tables change rarely (class set-up, exchange at load); lookups happen on every send.
std::shared_mutex &classLock()
{
    static auto *lock = new std::shared_mutex();
    return *lock;
}

std::unordered_map<std::string, Class> &classTable()
{
    static auto *table = new std::unordered_map<std::string, Class>();
    return *table;
}

std::mutex &selectorLock()
{
    static auto *lock = new std::mutex();
    return *lock;
}

std::unordered_set<std::string> &selectorTable()
{
    static auto *table = new std::unordered_set<std::string>();
    return *table;
}

// Every registered selector's address, so that forwarding can tell a selector from whatever else
// a register may hold.
std::unordered_set<const void *> &selectorAddresses()
{
    static auto *table = new std::unordered_set<const void *>();
    return *table;
}

objc_method *findMethodLocked(Class cls, SEL sel)
{
    for (Class c = cls; c; c = c->superclass) {
        auto it = c->methods.find(sel);
        if (it != c->methods.end())
            return it->second;
    }
    return nullptr;
}

// Main Thread Checker. The implementations of UI classes' methods that may run on the main thread
// only, with the method each was declared as ("-[UIView setHidden:]"). Keyed by implementation,
// not by method record, so a check follows an implementation through method exchanges, as the
// platform's checker (which patches the implementations themselves) does. Under classLock().
std::unordered_map<IMP, std::string> &mainThreadOnly()
{
    static auto *table = new std::unordered_map<IMP, std::string>();
    return *table;
}

std::atomic<bool> gCheckingMainThread{false};

bool onMainThread()
{
    thread_local const bool isMain = getpid() == static_cast<pid_t>(syscall(SYS_gettid));
    return isMain;
}

// What Xcode's checker prints when it is told to stop on an issue, then the stop: abort, so that
// whatever made the call (a test, a sample app) fails.
[[noreturn]] void reportOffMainThread(const std::string &method)
{
    char thread[64] = "(none)";
    pthread_getname_np(pthread_self(), thread, sizeof thread);
    // libdispatch sits above the runtime; look its label function up only when reporting.
    using LabelFunction = const char *(*)(void *);
    auto label = reinterpret_cast<LabelFunction>(dlsym(RTLD_DEFAULT, "dispatch_queue_get_label"));
    const char *queue = label ? label(nullptr) : nullptr;
    std::fprintf(stderr,
                 "Main Thread Checker: UI API called on a background thread: %s\n"
                 "PID: %d, TID: %ld, Thread name: %s, Queue name: %s\nBacktrace:\n",
                 method.c_str(), getpid(), static_cast<long>(syscall(SYS_gettid)), thread,
                 queue && *queue ? queue : "(none)");
    void *frames[64];
    backtrace_symbols_fd(frames, backtrace(frames, 64), 2);
    std::abort();
}

// The lookup for a send: the implementation, checked against the thread (under classLock()).
IMP checkedLocked(IMP imp)
{
    if (gCheckingMainThread.load(std::memory_order_relaxed) && !onMainThread()) {
        auto it = mainThreadOnly().find(imp);
        if (it != mainThreadOnly().end())
            reportOffMainThread(it->second);
    }
    return imp;
}

struct Association {
    id value;
    objc_AssociationPolicy policy;
};

std::mutex &associationLock()
{
    static auto *lock = new std::mutex();
    return *lock;
}

std::unordered_map<id, std::unordered_map<const void *, Association>> &associationTable()
{
    static auto *table = new std::unordered_map<id, std::unordered_map<const void *, Association>>();
    return *table;
}

bool policyRetains(objc_AssociationPolicy policy)
{
    return (policy & 0xff) == OBJC_ASSOCIATION_RETAIN_NONATOMIC || (policy & 0xff) == OBJC_ASSOCIATION_COPY_NONATOMIC;
}

void releaseAssociation(const Association &a)
{
    if (a.value && policyRetains(a.policy))
        objc_release(a.value);
}

std::mutex &weakLock()
{
    static auto *lock = new std::mutex();
    return *lock;
}

std::unordered_map<id, std::unordered_set<id *>> &weakTable()
{
    static auto *table = new std::unordered_map<id, std::unordered_set<id *>>();
    return *table;
}

void weakUnregisterLocked(id obj, id *location)
{
    auto it = weakTable().find(obj);
    if (it == weakTable().end())
        return;
    it->second.erase(location);
    if (it->second.empty())
        weakTable().erase(it);
}

struct SyncData {
    std::recursive_mutex mutex;
    std::thread::id owner;
    long depth = 0;
};

std::mutex &syncLock()
{
    static auto *lock = new std::mutex();
    return *lock;
}

std::unordered_map<id, std::unique_ptr<SyncData>> &syncTable()
{
    static auto *table = new std::unordered_map<id, std::unique_ptr<SyncData>>();
    return *table;
}

struct PoolStack {
    std::vector<id> objects;
    ~PoolStack()
    {
        while (!objects.empty()) {
            id obj = objects.back();
            objects.pop_back();
            objc_release(obj);
        }
    }
};

PoolStack &pool()
{
    thread_local PoolStack stack;
    return stack;
}

void deallocate(id obj)
{
    static SEL deallocSel = sel_registerName("dealloc");
    IMP imp = class_getMethodImplementation(object_getClass(obj), deallocSel);
    reinterpret_cast<void (*)(id, SEL)>(imp)(obj, deallocSel);
}

Class newClassObject(Class isa, Class superclass, const char *name, size_t instanceSize, bool meta)
{
    id memory = allocateObject(sizeof(objc_class));
    headerOf(memory)->flags.fetch_or(kImmortal);
    auto *cls = new (memory) objc_class();
    cls->isa = isa;
    cls->superclass = superclass;
    cls->name = name;
    cls->instanceSize = instanceSize;
    cls->meta = meta;
    cls->registered = false;
    return cls;
}

} // namespace

namespace fakeobjc {

bool isSelector(const void *candidate)
{
    std::lock_guard<std::mutex> guard(selectorLock());
    return selectorAddresses().count(candidate) != 0;
}

void makeImmortal(id obj)
{
    if (obj)
        headerOf(obj)->flags.fetch_or(kImmortal);
}

void requireMainThread(Class cls)
{
    static SEL dealloc = sel_registerName("dealloc");
    std::unique_lock<std::shared_mutex> guard(classLock());
    for (Class side : {cls, cls->isa})
        for (const auto &[sel, method] : side->methods)
            if (sel != dealloc)
                mainThreadOnly().emplace(method->imp.load(), std::string(side->meta ? "+[" : "-[") + cls->name + " " +
                                                                 sel_getName(sel) + "]");
    gCheckingMainThread.store(true, std::memory_order_relaxed);
}

void raise(const char *name, const char *reason)
{
    Class stringClass = objc_getClass("NSString");
    Class exceptionClass = objc_getClass("NSException");
    if (!stringClass || !exceptionClass) {
        std::fprintf(stderr, "*** Terminating: %s: %s\n", name, reason);
        std::abort();
    }
    id nameString = msg<id>(reinterpret_cast<id>(stringClass), "stringWithUTF8String:", name);
    id reasonString = msg<id>(reinterpret_cast<id>(stringClass), "stringWithUTF8String:", reason);
    id exception = msg<id>(reinterpret_cast<id>(exceptionClass), "exceptionWithName:reason:userInfo:", nameString,
                           reasonString, id(nullptr));
    objc_exception_throw(exception);
}

void raiseFormat(const char *name, const char *format, ...)
{
    char reason[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(reason, sizeof reason, format, args);
    va_end(args);
    raise(name, reason);
}

} // namespace fakeobjc

extern "C" {

// ---- selectors

SEL sel_registerName(const char *str)
{
    if (!str)
        return nullptr;
    std::lock_guard<std::mutex> guard(selectorLock());
    auto [it, inserted] = selectorTable().emplace(str);
    if (inserted)
        selectorAddresses().insert(it->c_str());
    return reinterpret_cast<SEL>(const_cast<char *>(it->c_str()));
}

const char *sel_getName(SEL sel)
{
    return sel ? reinterpret_cast<const char *>(sel) : "<null selector>";
}

BOOL sel_isEqual(SEL lhs, SEL rhs)
{
    return lhs == rhs;
}

// ---- classes

Class objc_getClass(const char *name)
{
    if (!name)
        return nullptr;
    std::shared_lock<std::shared_mutex> guard(classLock());
    auto it = classTable().find(name);
    return it != classTable().end() && it->second->registered ? it->second : nullptr;
}

Class objc_lookUpClass(const char *name)
{
    return objc_getClass(name);
}

Class objc_getMetaClass(const char *name)
{
    Class cls = objc_getClass(name);
    return cls ? cls->isa : nullptr;
}

Class objc_allocateClassPair(Class superclass, const char *name, size_t extraBytes)
{
    if (!name)
        return nullptr;
    std::unique_lock<std::shared_mutex> guard(classLock());
    if (classTable().count(name))
        return nullptr;
    Class rootMeta = nullptr;
    if (superclass) {
        Class root = superclass;
        while (root->superclass)
            root = root->superclass;
        rootMeta = root->isa;
    }
    Class meta = newClassObject(rootMeta, superclass ? superclass->isa : nullptr, name, sizeof(objc_class), true);
    Class cls = newClassObject(meta, superclass, name, superclass ? superclass->instanceSize : sizeof(id), false);
    if (!superclass) {
        // A root class: its metaclass is its own isa and inherits from the root class, so class
        // objects answer the root's instance methods.
        meta->isa = meta;
        meta->superclass = cls;
    }
    classTable()[name] = cls;
    return cls;
}

void objc_registerClassPair(Class cls)
{
    if (!cls)
        return;
    std::unique_lock<std::shared_mutex> guard(classLock());
    cls->registered = true;
    cls->isa->registered = true;
}

void objc_disposeClassPair(Class cls)
{
    if (!cls)
        return;
    std::unique_lock<std::shared_mutex> guard(classLock());
    classTable().erase(cls->name);
    // Instances may still point at the class; keep the memory, as freeing it would only turn a
    // misuse into a use after free.
    cls->registered = false;
    cls->isa->registered = false;
}

const char *class_getName(Class cls)
{
    return cls ? cls->name.c_str() : "nil";
}

BOOL class_isMetaClass(Class cls)
{
    return cls && cls->meta;
}

Class class_getSuperclass(Class cls)
{
    return cls ? cls->superclass : nullptr;
}

size_t class_getInstanceSize(Class cls)
{
    return cls ? cls->instanceSize : 0;
}

BOOL class_addIvar(Class cls, const char *name, size_t size, uint8_t alignment, const char *types)
{
    if (!cls || cls->meta || !name)
        return NO;
    std::unique_lock<std::shared_mutex> guard(classLock());
    if (cls->registered)
        return NO;
    for (auto *ivar : cls->ivars)
        if (ivar->name == name)
            return NO;
    size_t align = size_t{1} << alignment;
    size_t offset = (cls->instanceSize + align - 1) & ~(align - 1);
    cls->ivars.push_back(new objc_ivar{name, types ? types : "", static_cast<ptrdiff_t>(offset)});
    cls->instanceSize = offset + size;
    return YES;
}

Ivar class_getInstanceVariable(Class cls, const char *name)
{
    if (!name)
        return nullptr;
    std::shared_lock<std::shared_mutex> guard(classLock());
    for (Class c = cls; c; c = c->superclass)
        for (auto *ivar : c->ivars)
            if (ivar->name == name)
                return ivar;
    return nullptr;
}

const char *ivar_getName(Ivar v)
{
    return v ? v->name.c_str() : nullptr;
}

const char *ivar_getTypeEncoding(Ivar v)
{
    return v ? v->types.c_str() : nullptr;
}

ptrdiff_t ivar_getOffset(Ivar v)
{
    return v ? v->offset : 0;
}

// ---- methods

BOOL class_addMethod(Class cls, SEL name, IMP imp, const char *types)
{
    if (!cls || !name || !imp)
        return NO;
    std::unique_lock<std::shared_mutex> guard(classLock());
    if (cls->methods.count(name))
        return NO;
    auto *method = new objc_method{name, {imp}, types ? types : ""};
    cls->methods[name] = method;
    return YES;
}

IMP class_replaceMethod(Class cls, SEL name, IMP imp, const char *types)
{
    if (!cls || !name || !imp)
        return nullptr;
    std::unique_lock<std::shared_mutex> guard(classLock());
    auto it = cls->methods.find(name);
    if (it == cls->methods.end()) {
        cls->methods[name] = new objc_method{name, {imp}, types ? types : ""};
        return nullptr;
    }
    return it->second->imp.exchange(imp);
}

Method class_getInstanceMethod(Class cls, SEL name)
{
    if (!cls || !name)
        return nullptr;
    std::shared_lock<std::shared_mutex> guard(classLock());
    return findMethodLocked(cls, name);
}

Method class_getClassMethod(Class cls, SEL name)
{
    if (!cls)
        return nullptr;
    return class_getInstanceMethod(cls->meta ? cls : cls->isa, name);
}

IMP class_getMethodImplementation(Class cls, SEL name)
{
    if (!cls)
        return nullptr;
    std::shared_lock<std::shared_mutex> guard(classLock());
    objc_method *method = findMethodLocked(cls, name);
    return method ? checkedLocked(method->imp.load(std::memory_order_acquire)) : _objc_msgForward;
}

IMP class_getMethodImplementation_stret(Class cls, SEL name)
{
    if (!cls)
        return nullptr;
    std::shared_lock<std::shared_mutex> guard(classLock());
    objc_method *method = findMethodLocked(cls, name);
    return method ? checkedLocked(method->imp.load(std::memory_order_acquire)) : _objc_msgForward_stret;
}

BOOL class_respondsToSelector(Class cls, SEL sel)
{
    return class_getInstanceMethod(cls, sel) != nullptr;
}

SEL method_getName(Method m)
{
    return m ? m->name : nullptr;
}

IMP method_getImplementation(Method m)
{
    return m ? m->imp.load(std::memory_order_acquire) : nullptr;
}

const char *method_getTypeEncoding(Method m)
{
    return m ? m->types.c_str() : nullptr;
}

IMP method_setImplementation(Method m, IMP imp)
{
    if (!m || !imp)
        return nullptr;
    std::unique_lock<std::shared_mutex> guard(classLock());
    return m->imp.exchange(imp);
}

void method_exchangeImplementations(Method m1, Method m2)
{
    if (!m1 || !m2)
        return;
    std::unique_lock<std::shared_mutex> guard(classLock());
    IMP first = m1->imp.load();
    m1->imp.store(m2->imp.load());
    m2->imp.store(first);
}

// ---- objects

id class_createInstance(Class cls, size_t extraBytes)
{
    if (!cls)
        return nullptr;
    id obj = allocateObject(cls->instanceSize + extraBytes);
    obj->isa = cls;
    gLiveObjects.fetch_add(1, std::memory_order_relaxed);
    return obj;
}

Class object_getClass(id obj)
{
    return obj ? obj->isa : nullptr;
}

Class object_setClass(id obj, Class cls)
{
    if (!obj)
        return nullptr;
    Class old = obj->isa;
    obj->isa = cls;
    return old;
}

BOOL object_isClass(id obj)
{
    return obj && obj->isa->meta;
}

const char *object_getClassName(id obj)
{
    return class_getName(object_getClass(obj));
}

id object_dispose(id obj)
{
    if (!obj)
        return nullptr;
    Header *header = headerOf(obj);
    uint32_t flags = header->flags.load();
    if (flags & kImmortal)
        return nullptr;
    if (flags & kHasAssociations)
        objc_removeAssociatedObjects(obj);
    if (flags & kHasWeakReferences) {
        std::lock_guard<std::mutex> guard(weakLock());
        auto it = weakTable().find(obj);
        if (it != weakTable().end()) {
            for (id *location : it->second)
                *location = nullptr;
            weakTable().erase(it);
        }
    }
    {
        std::lock_guard<std::mutex> guard(syncLock());
        syncTable().erase(obj);
    }
    header->~Header();
    std::free(header);
    gLiveObjects.fetch_sub(1, std::memory_order_relaxed);
    return nullptr;
}

// ---- reference counting

id objc_retain(id obj)
{
    if (!obj)
        return nullptr;
    Header *header = headerOf(obj);
    uint32_t flags = header->flags.load(std::memory_order_relaxed);
    if (flags & kImmortal)
        return obj;
    header->retainCount.fetch_add(1, std::memory_order_relaxed);
    if (flags & kTracked)
        header->retains.fetch_add(1, std::memory_order_relaxed);
    return obj;
}

void objc_release(id obj)
{
    if (!obj)
        return;
    Header *header = headerOf(obj);
    uint32_t flags = header->flags.load(std::memory_order_relaxed);
    if (flags & kImmortal)
        return;
    if (flags & kTracked)
        header->releases.fetch_add(1, std::memory_order_relaxed);
    long old = header->retainCount.load(std::memory_order_relaxed);
    for (;;) {
        if (old > 1) {
            if (header->retainCount.compare_exchange_weak(old, old - 1, std::memory_order_release,
                                                          std::memory_order_relaxed))
                return;
            continue;
        }
        if (old <= 0) {
            std::fprintf(stderr, "fakesdk: over-release of %s %p\n", object_getClassName(obj), static_cast<void *>(obj));
            std::abort();
        }
        // The last reference: weak loads must not revive the object, so the count drops to zero
        // under the weak table's lock and loads see zero from then on.
        if (header->flags.load() & kHasWeakReferences) {
            std::lock_guard<std::mutex> guard(weakLock());
            if (!header->retainCount.compare_exchange_strong(old, 0))
                continue;
        } else if (!header->retainCount.compare_exchange_weak(old, 0, std::memory_order_acq_rel)) {
            continue;
        }
        header->flags.fetch_or(kDeallocating);
        deallocate(obj);
        return;
    }
}

id objc_autorelease(id obj)
{
    if (obj)
        pool().objects.push_back(obj);
    return obj;
}

id objc_retainAutoreleasedReturnValue(id obj)
{
    return objc_retain(obj);
}

void *objc_autoreleasePoolPush(void)
{
    return reinterpret_cast<void *>(pool().objects.size() + 1);
}

void objc_autoreleasePoolPop(void *token)
{
    size_t mark = reinterpret_cast<size_t>(token) - 1;
    auto &objects = pool().objects;
    // Releasing can autorelease more objects into this pool; keep draining until back at the mark.
    while (objects.size() > mark) {
        id obj = objects.back();
        objects.pop_back();
        objc_release(obj);
    }
}

// ---- weak references

id objc_storeWeak(id *location, id obj)
{
    if (!location)
        return obj;
    std::lock_guard<std::mutex> guard(weakLock());
    if (*location)
        weakUnregisterLocked(*location, location);
    if (obj && (headerOf(obj)->flags.load() & kImmortal) == 0) {
        if (headerOf(obj)->retainCount.load() <= 0) {
            *location = nullptr;
            return nullptr;
        }
        headerOf(obj)->flags.fetch_or(kHasWeakReferences);
        weakTable()[obj].insert(location);
    }
    *location = obj;
    return obj;
}

id objc_initWeak(id *location, id value)
{
    if (!location)
        return value;
    *location = nullptr;
    return objc_storeWeak(location, value);
}

void objc_destroyWeak(id *location)
{
    objc_storeWeak(location, nullptr);
}

id objc_loadWeakRetained(id *location)
{
    if (!location)
        return nullptr;
    std::lock_guard<std::mutex> guard(weakLock());
    id obj = *location;
    if (!obj)
        return nullptr;
    Header *header = headerOf(obj);
    if (header->flags.load() & kImmortal)
        return obj;
    long count = header->retainCount.load();
    do {
        if (count <= 0)
            return nullptr;
    } while (!header->retainCount.compare_exchange_weak(count, count + 1));
    if (header->flags.load() & kTracked)
        header->retains.fetch_add(1, std::memory_order_relaxed);
    return obj;
}

id objc_loadWeak(id *location)
{
    return objc_autorelease(objc_loadWeakRetained(location));
}

// ---- associated objects

void objc_setAssociatedObject(id object, const void *key, id value, objc_AssociationPolicy policy)
{
    if (!object || !key)
        return;
    Association incoming{value, policy};
    if (value && policyRetains(policy)) {
        if ((policy & 0xff) == OBJC_ASSOCIATION_COPY_NONATOMIC)
            incoming.value = fakeobjc::msg<id>(value, "copy");
        else
            objc_retain(value);
    }
    Association previous{nullptr, OBJC_ASSOCIATION_ASSIGN};
    {
        std::lock_guard<std::mutex> guard(associationLock());
        auto &slots = associationTable()[object];
        auto it = slots.find(key);
        if (it != slots.end()) {
            previous = it->second;
            if (incoming.value)
                it->second = incoming;
            else
                slots.erase(it);
        } else if (incoming.value) {
            slots.emplace(key, incoming);
        }
        if (slots.empty())
            associationTable().erase(object);
        else
            headerOf(object)->flags.fetch_or(kHasAssociations);
    }
    releaseAssociation(previous);
}

id objc_getAssociatedObject(id object, const void *key)
{
    if (!object || !key)
        return nullptr;
    id value = nullptr;
    bool atomic = false;
    {
        std::lock_guard<std::mutex> guard(associationLock());
        auto table = associationTable().find(object);
        if (table == associationTable().end())
            return nullptr;
        auto it = table->second.find(key);
        if (it == table->second.end())
            return nullptr;
        value = it->second.value;
        atomic = (it->second.policy & 0x300) != 0;
        if (atomic)
            objc_retain(value);
    }
    return atomic ? objc_autorelease(value) : value;
}

void objc_removeAssociatedObjects(id object)
{
    if (!object)
        return;
    std::unordered_map<const void *, Association> slots;
    {
        std::lock_guard<std::mutex> guard(associationLock());
        auto it = associationTable().find(object);
        if (it == associationTable().end())
            return;
        slots = std::move(it->second);
        associationTable().erase(it);
    }
    for (auto &[key, association] : slots)
        releaseAssociation(association);
}

// ---- object locks

int objc_sync_enter(id obj)
{
    if (!obj)
        return OBJC_SYNC_SUCCESS;
    SyncData *data;
    {
        std::lock_guard<std::mutex> guard(syncLock());
        auto &slot = syncTable()[obj];
        if (!slot)
            slot = std::make_unique<SyncData>();
        data = slot.get();
    }
    data->mutex.lock();
    data->owner = std::this_thread::get_id();
    data->depth++;
    return OBJC_SYNC_SUCCESS;
}

int objc_sync_exit(id obj)
{
    if (!obj)
        return OBJC_SYNC_SUCCESS;
    SyncData *data;
    {
        std::lock_guard<std::mutex> guard(syncLock());
        auto it = syncTable().find(obj);
        if (it == syncTable().end())
            return OBJC_SYNC_NOT_OWNING_THREAD_ERROR;
        data = it->second.get();
    }
    if (data->depth == 0 || data->owner != std::this_thread::get_id())
        return OBJC_SYNC_NOT_OWNING_THREAD_ERROR;
    if (--data->depth == 0)
        data->owner = std::thread::id();
    data->mutex.unlock();
    return OBJC_SYNC_SUCCESS;
}

// ---- exceptions

void objc_exception_throw(id exception)
{
    throw exception;
}

// ---- test hooks

long objc_retainCount_np(id obj)
{
    if (!obj)
        return 0;
    Header *header = headerOf(obj);
    return (header->flags.load() & kImmortal) ? LONG_MAX : header->retainCount.load();
}

void objc_trackRetains_np(id obj)
{
    if (!obj)
        return;
    Header *header = headerOf(obj);
    header->retains.store(0);
    header->releases.store(0);
    header->flags.fetch_or(kTracked);
}

void objc_retainCounts_np(id obj, long *retains, long *releases)
{
    Header *header = headerOf(obj);
    if (retains)
        *retains = header->retains.load();
    if (releases)
        *releases = header->releases.load();
}

long objc_liveObjects_np(void)
{
    return gLiveObjects.load();
}

BOOL objc_hasAssociation_np(id obj, const void *key)
{
    std::lock_guard<std::mutex> guard(associationLock());
    auto table = associationTable().find(obj);
    return table != associationTable().end() && table->second.count(key) != 0;
}

} // extern "C"
