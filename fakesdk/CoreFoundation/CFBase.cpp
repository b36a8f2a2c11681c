// CFBase and CFDate: reference counting over the Objective-C runtime (every CF object is a
// runtime object), type IDs per bridged class, and the wall clock in CF's epoch.
#include "cfinternal.h"

#include <fakesdk/objc_np.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <unordered_map>

namespace fakecf {

void declareStringClasses();
void declareNumberClasses();
void declareArrayClasses();
void declareDictionaryClasses();
void declareDataClasses();
void declareErrorClasses();
void declareExceptionClasses();

void ensureClasses()
{
    static std::once_flag once;
    std::call_once(once, [] {
        declareStringClasses();
        declareNumberClasses();
        declareArrayClasses();
        declareDictionaryClasses();
        declareDataClasses();
        declareErrorClasses();
        declareExceptionClasses();
    });
}

namespace {

// Before any default-priority initialiser of this library (other CoreFoundation files and the
// exported constants), after libobjc's NSObject.
__attribute__((constructor(110))) void declareCoreFoundation()
{
    ensureClasses();
}

std::mutex &typeIDLock()
{
    static auto *lock = new std::mutex(); // never destroyed: threads may use it during exit()
    return *lock;
}

std::unordered_map<Class, CFTypeID> &typeIDs()
{
    static auto *table = new std::unordered_map<Class, CFTypeID>();
    return *table;
}

[[noreturn]] void nullArgument(const char *function)
{
    std::fprintf(stderr, "*** %s() called with NULL ***\n", function);
    std::abort();
}

id asObject(CFTypeRef cf)
{
    return reinterpret_cast<id>(const_cast<void *>(cf));
}

} // namespace

CFTypeID typeIDForClass(Class cls)
{
    std::lock_guard<std::mutex> guard(typeIDLock());
    auto [it, inserted] = typeIDs().emplace(cls, typeIDs().size() + 1);
    return it->second;
}

} // namespace fakecf

using namespace fakecf;

extern "C" {

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFAllocatorRef kCFAllocatorSystemDefault = nullptr;
const CFAllocatorRef kCFAllocatorMalloc = nullptr;
const CFAllocatorRef kCFAllocatorNull = nullptr;

const CFTimeInterval kCFAbsoluteTimeIntervalSince1970 = 978307200.0;
const CFTimeInterval kCFAbsoluteTimeIntervalSince1904 = 3061152000.0;

CFTypeRef CFRetain(CFTypeRef cf)
{
    if (!cf)
        nullArgument("CFRetain");
    return objc_retain(asObject(cf));
}

void CFRelease(CFTypeRef cf)
{
    if (!cf)
        nullArgument("CFRelease");
    objc_release(asObject(cf));
}

CFTypeRef CFAutorelease(CFTypeRef cf)
{
    if (!cf)
        nullArgument("CFAutorelease");
    return objc_autorelease(asObject(cf));
}

CFIndex CFGetRetainCount(CFTypeRef cf)
{
    if (!cf)
        nullArgument("CFGetRetainCount");
    return objc_retainCount_np(asObject(cf));
}

Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2)
{
    if (!cf1 || !cf2)
        nullArgument("CFEqual");
    return cf1 == cf2 || fakeobjc::msg<bool>(asObject(cf1), "isEqual:", asObject(cf2));
}

CFHashCode CFHash(CFTypeRef cf)
{
    if (!cf)
        nullArgument("CFHash");
    return fakeobjc::msg<unsigned long>(asObject(cf), "hash");
}

CFStringRef CFCopyDescription(CFTypeRef cf)
{
    if (!cf)
        nullArgument("CFCopyDescription");
    return reinterpret_cast<CFStringRef>(newString(describe(asObject(cf))));
}

// The first class up the chain that has a type ID (a bridged class such as NSString) decides;
// an object of an unbridged class gets its own class's ID.
CFTypeID CFGetTypeID(CFTypeRef cf)
{
    if (!cf)
        nullArgument("CFGetTypeID");
    Class own = object_getClass(asObject(cf));
    {
        std::lock_guard<std::mutex> guard(typeIDLock());
        for (Class c = own; c; c = class_getSuperclass(c)) {
            auto it = typeIDs().find(c);
            if (it != typeIDs().end())
                return it->second;
        }
    }
    return typeIDForClass(own);
}

CFAbsoluteTime CFAbsoluteTimeGetCurrent(void)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) - kCFAbsoluteTimeIntervalSince1970 + now.tv_nsec * 1e-9;
}

} // extern "C"

namespace fakecf {

const void *retainCallBack(CFAllocatorRef, const void *value)
{
    return CFRetain(value);
}

void releaseCallBack(CFAllocatorRef, const void *value)
{
    CFRelease(value);
}

CFStringRef copyDescriptionCallBack(const void *value)
{
    return CFCopyDescription(value);
}

Boolean equalCallBack(const void *a, const void *b)
{
    return CFEqual(a, b);
}

} // namespace fakecf
