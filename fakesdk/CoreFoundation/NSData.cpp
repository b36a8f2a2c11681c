// NSData (instances of NSConcreteData) and NSMutableData (NSConcreteMutableData) over one
// malloc'd buffer that mutable data grows geometrically, so appending chunk by chunk is
// amortised O(1); CFData's C API works on the same objects.
#include "cfinternal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fakecf {
namespace {

struct DataState {
    uint8_t *bytes = nullptr;
    size_t length = 0;
    size_t capacity = 0;
    // False only for a caller's buffer given with freeWhenDone:NO: never freed nor grown in place.
    bool owned = true;

    ~DataState()
    {
        if (owned)
            std::free(bytes);
    }

    void reserve(size_t needed)
    {
        if (owned && needed <= capacity)
            return;
        size_t grown = std::max({needed, owned ? capacity * 2 : 0, size_t{16}});
        uint8_t *fresh;
        if (owned) {
            fresh = static_cast<uint8_t *>(std::realloc(bytes, grown));
        } else {
            fresh = static_cast<uint8_t *>(std::malloc(grown));
            if (fresh && length)
                std::memcpy(fresh, bytes, length);
        }
        if (!fresh)
            std::abort();
        bytes = fresh;
        capacity = grown;
        owned = true;
    }

    void append(const void *src, size_t n)
    {
        if (!n)
            return;
        // The source may lie inside this very buffer, which reserve() can move.
        auto *s = static_cast<const uint8_t *>(src);
        bool inside = bytes && s >= bytes && s < bytes + capacity;
        size_t offset = inside ? static_cast<size_t>(s - bytes) : 0;
        reserve(length + n);
        std::memmove(bytes + length, inside ? bytes + offset : s, n);
        length += n;
    }

    void resize(size_t n)
    {
        if (n > length) {
            reserve(n);
            std::memset(bytes + length, 0, n - length);
        }
        length = n;
    }
};

fakeobjc::StateSlot<DataState> gSlot;
Class gNSData;
Class gNSMutableData;
Class gConcreteData;
Class gConcreteMutableData;

enum : unsigned long {
    NSDataSearchBackwards = 1ul << 0,
    NSDataSearchAnchored = 1ul << 1,
};

DataState &state(id self)
{
    return gSlot.get(self);
}

Class concreteOf(id self)
{
    Class cls = reinterpret_cast<Class>(self);
    return cls == gNSData ? gConcreteData : cls == gNSMutableData ? gConcreteMutableData : cls;
}

bool isMutable(id self)
{
    return isKind(self, gNSMutableData);
}

// releaseSelf: an initialiser's +1 instance, which must not outlive the raise.
void requireBytes(id self, SEL cmd, const void *bytes, unsigned long length, bool releaseSelf = false)
{
    if (bytes || !length)
        return;
    const char *className = object_getClassName(self);
    if (releaseSelf)
        objc_release(self);
    fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: NULL bytes with length %lu", className,
                          sel_getName(cmd), length);
}

id newOfClass(Class cls, const void *bytes, size_t length)
{
    id obj = class_createInstance(cls, 0);
    state(obj).append(bytes, length);
    return obj;
}

bool readFile(const std::string &path, DataState &st)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) {
        ::close(fd);
        return false;
    }
    st.reserve(static_cast<size_t>(info.st_size) + 1);
    for (;;) {
        if (st.length == st.capacity)
            st.reserve(st.capacity * 2);
        ssize_t n = ::read(fd, st.bytes + st.length, st.capacity - st.length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            ::close(fd);
            return false;
        }
        if (n == 0)
            break;
        st.length += static_cast<size_t>(n);
    }
    ::close(fd);
    return true;
}

bool writeAll(int fd, const uint8_t *p, size_t n)
{
    while (n) {
        ssize_t w = ::write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// ---- class methods

id allocData(id self, SEL)
{
    return class_createInstance(concreteOf(self), 0);
}

id allocDataWithZone(id self, SEL cmd, void *)
{
    return allocData(self, cmd);
}

id data(id self, SEL)
{
    return objc_autorelease(newOfClass(concreteOf(self), nullptr, 0));
}

id dataWithBytesLength(id self, SEL cmd, const void *bytes, unsigned long length)
{
    requireBytes(self, cmd, bytes, length);
    return objc_autorelease(newOfClass(concreteOf(self), bytes, length));
}

id initWithBytesNoCopy(id self, SEL cmd, void *bytes, unsigned long length, bool freeWhenDone)
{
    requireBytes(self, cmd, bytes, length, true);
    DataState &st = state(self);
    if (isMutable(self)) {
        // Mutable data must be able to grow the buffer: it takes a copy.
        st.append(bytes, length);
        if (freeWhenDone)
            std::free(bytes);
        return self;
    }
    st.bytes = static_cast<uint8_t *>(bytes);
    st.length = length;
    st.capacity = length;
    st.owned = freeWhenDone;
    return self;
}

id dataWithBytesNoCopyFree(id self, SEL cmd, void *bytes, unsigned long length, bool freeWhenDone)
{
    id obj = class_createInstance(concreteOf(self), 0);
    return objc_autorelease(initWithBytesNoCopy(obj, cmd, bytes, length, freeWhenDone));
}

id dataWithBytesNoCopy(id self, SEL cmd, void *bytes, unsigned long length)
{
    return dataWithBytesNoCopyFree(self, cmd, bytes, length, true);
}

id dataWithContentsOfFile(id self, SEL, id path)
{
    id obj = class_createInstance(concreteOf(self), 0);
    if (!path || !readFile(utf8Of(path), state(obj))) {
        objc_release(obj);
        return nil;
    }
    return objc_autorelease(obj);
}

id dataWithData(id self, SEL, id other)
{
    auto *bytes = fakeobjc::msg<const void *>(other, "bytes");
    auto length = fakeobjc::msg<unsigned long>(other, "length");
    return objc_autorelease(newOfClass(concreteOf(self), bytes, length));
}

id dataWithCapacity(id self, SEL, unsigned long capacity)
{
    id obj = newOfClass(concreteOf(self), nullptr, 0);
    state(obj).reserve(capacity);
    return objc_autorelease(obj);
}

id dataWithLength(id self, SEL, unsigned long length)
{
    id obj = newOfClass(concreteOf(self), nullptr, 0);
    state(obj).resize(length);
    return objc_autorelease(obj);
}

// ---- initialisers

id init(id self, SEL)
{
    state(self);
    return self;
}

id initWithBytesLength(id self, SEL cmd, const void *bytes, unsigned long length)
{
    requireBytes(self, cmd, bytes, length, true);
    state(self).append(bytes, length);
    return self;
}

id initWithData(id self, SEL cmd, id other)
{
    return initWithBytesLength(self, cmd, fakeobjc::msg<const void *>(other, "bytes"),
                               fakeobjc::msg<unsigned long>(other, "length"));
}

id initWithContentsOfFile(id self, SEL, id path)
{
    if (!path || !readFile(utf8Of(path), state(self))) {
        objc_release(self);
        return nil;
    }
    return self;
}

id initWithCapacity(id self, SEL, unsigned long capacity)
{
    state(self).reserve(capacity);
    return self;
}

id initWithLength(id self, SEL, unsigned long length)
{
    state(self).resize(length);
    return self;
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSData", self);
}

// ---- queries

const void *bytes(id self, SEL)
{
    return state(self).bytes;
}

unsigned long length(id self, SEL)
{
    return state(self).length;
}

void getBytesLength(id self, SEL, void *buffer, unsigned long length)
{
    const DataState &st = state(self);
    if (buffer && st.length)
        std::memcpy(buffer, st.bytes, std::min<size_t>(length, st.length));
}

void checkRange(id self, SEL cmd, NSRange range)
{
    size_t n = state(self).length;
    if (range.location > n || range.length > n - range.location)
        fakeobjc::raiseFormat("NSRangeException", "*** -[%s %s]: range {%lu, %lu} exceeds data length %zu",
                              object_getClassName(self), sel_getName(cmd), range.location, range.length, n);
}

void getBytesRange(id self, SEL cmd, void *buffer, NSRange range)
{
    checkRange(self, cmd, range);
    if (range.length)
        std::memcpy(buffer, state(self).bytes + range.location, range.length);
}

bool isEqualToData(id self, SEL, id other)
{
    if (self == other)
        return true;
    if (!other)
        return false;
    const DataState &st = state(self);
    auto *theirs = static_cast<const uint8_t *>(fakeobjc::msg<const void *>(other, "bytes"));
    auto theirLength = fakeobjc::msg<unsigned long>(other, "length");
    return theirLength == st.length && (st.length == 0 || std::memcmp(st.bytes, theirs, st.length) == 0);
}

bool isEqual(id self, SEL cmd, id other)
{
    return self == other || (other && isKind(other, gNSData) && isEqualToData(self, cmd, other));
}

// Like CFData's hash, only a prefix of the bytes counts.
unsigned long hash(id self, SEL)
{
    const DataState &st = state(self);
    unsigned long h = 1469598103934665603ul ^ st.length;
    for (size_t i = 0; i < std::min<size_t>(st.length, 80); ++i) {
        h ^= st.bytes[i];
        h *= 1099511628211ul;
    }
    return h;
}

id subdataWithRange(id self, SEL cmd, NSRange range)
{
    checkRange(self, cmd, range);
    return objc_autorelease(newOfClass(gConcreteData, state(self).bytes + range.location, range.length));
}

NSRange rangeOfData(id self, SEL cmd, id needle, unsigned long options, NSRange range)
{
    if (!needle)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: nil data argument", object_getClassName(self),
                              sel_getName(cmd));
    checkRange(self, cmd, range);
    auto *find = static_cast<const uint8_t *>(fakeobjc::msg<const void *>(needle, "bytes"));
    auto findLength = fakeobjc::msg<unsigned long>(needle, "length");
    if (findLength == 0)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: data to find is empty",
                              object_getClassName(self), sel_getName(cmd));
    const NSRange notFound{static_cast<NSUInteger>(NSNotFound), 0};
    if (findLength > range.length)
        return notFound;
    const uint8_t *base = state(self).bytes + range.location;
    size_t last = range.length - findLength;
    bool backwards = options & NSDataSearchBackwards;
    bool anchored = options & NSDataSearchAnchored;
    auto matchesAt = [&](size_t at) { return std::memcmp(base + at, find, findLength) == 0; };
    if (anchored) {
        size_t at = backwards ? last : 0;
        return matchesAt(at) ? NSRange{range.location + at, findLength} : notFound;
    }
    if (backwards) {
        for (size_t at = last + 1; at-- > 0;)
            if (matchesAt(at))
                return {range.location + at, findLength};
        return notFound;
    }
    auto *hit = static_cast<const uint8_t *>(memmem(base, range.length, find, findLength));
    return hit ? NSRange{range.location + static_cast<size_t>(hit - base), findLength} : notFound;
}

bool writeToFile(id self, SEL, id path, bool atomically)
{
    if (!path)
        return false;
    std::string target = utf8Of(path);
    const DataState &st = state(self);
    if (!atomically) {
        int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0)
            return false;
        bool ok = writeAll(fd, st.bytes, st.length);
        return ::close(fd) == 0 && ok;
    }
    // A reader sees the old file or the complete new one, never a prefix.
    std::string temp = target + ".XXXXXX";
    int fd = ::mkstemp(temp.data());
    if (fd < 0)
        return false;
    bool ok = writeAll(fd, st.bytes, st.length) && ::fchmod(fd, 0644) == 0;
    ok = ::close(fd) == 0 && ok;
    if (ok && ::rename(temp.c_str(), target.c_str()) == 0)
        return true;
    ::unlink(temp.c_str());
    return false;
}

id description(id self, SEL)
{
    const DataState &st = state(self);
    static const char digits[] = "0123456789abcdef";
    std::string out = "<";
    for (size_t i = 0; i < st.length; ++i) {
        if (i && i % 4 == 0)
            out.push_back(' ');
        out.push_back(digits[st.bytes[i] >> 4]);
        out.push_back(digits[st.bytes[i] & 0xF]);
    }
    out.push_back('>');
    return autoString(out);
}

id copyWithZone(id self, SEL, void *)
{
    if (!isMutable(self))
        return objc_retain(self);
    return newOfClass(gConcreteData, state(self).bytes, state(self).length);
}

id mutableCopyWithZone(id self, SEL, void *)
{
    return newOfClass(gConcreteMutableData, state(self).bytes, state(self).length);
}

// ---- NSMutableData

void *mutableBytes(id self, SEL)
{
    DataState &st = state(self);
    if (!st.owned)
        st.reserve(st.length);
    return st.bytes;
}

void appendBytes(id self, SEL cmd, const void *bytes, unsigned long length)
{
    requireBytes(self, cmd, bytes, length);
    state(self).append(bytes, length);
}

void appendData(id self, SEL, id other)
{
    state(self).append(fakeobjc::msg<const void *>(other, "bytes"), fakeobjc::msg<unsigned long>(other, "length"));
}

void setLength(id self, SEL, unsigned long length)
{
    state(self).resize(length);
}

void increaseLengthBy(id self, SEL, unsigned long extra)
{
    DataState &st = state(self);
    st.resize(st.length + extra);
}

} // namespace

void declareDataClasses()
{
    gNSData = fakeobjc::ClassDef("NSData", "NSObject")
                  .stateIvar()
                  .classMethod("alloc", allocData)
                  .classMethod("allocWithZone:", allocDataWithZone)
                  .classMethod("data", data)
                  .classMethod("dataWithBytes:length:", dataWithBytesLength)
                  .classMethod("dataWithBytesNoCopy:length:", dataWithBytesNoCopy)
                  .classMethod("dataWithBytesNoCopy:length:freeWhenDone:", dataWithBytesNoCopyFree)
                  .classMethod("dataWithContentsOfFile:", dataWithContentsOfFile)
                  .classMethod("dataWithData:", dataWithData)
                  .method("init", init)
                  .method("initWithBytes:length:", initWithBytesLength)
                  .method("initWithBytesNoCopy:length:freeWhenDone:", initWithBytesNoCopy)
                  .method("initWithData:", initWithData)
                  .method("initWithContentsOfFile:", initWithContentsOfFile)
                  .method("dealloc", dealloc)
                  .method("bytes", bytes)
                  .method("length", length)
                  .method("getBytes:length:", getBytesLength)
                  .method("getBytes:range:", getBytesRange)
                  .method("isEqual:", isEqual)
                  .method("isEqualToData:", isEqualToData)
                  .method("hash", hash)
                  .method("subdataWithRange:", subdataWithRange)
                  .method("rangeOfData:options:range:", rangeOfData)
                  .method("writeToFile:atomically:", writeToFile)
                  .method("description", description)
                  .method("copyWithZone:", copyWithZone)
                  .method("mutableCopyWithZone:", mutableCopyWithZone)
                  .registerWith(gSlot);
    gNSMutableData = fakeobjc::ClassDef("NSMutableData", "NSData")
                         .classMethod("dataWithCapacity:", dataWithCapacity)
                         .classMethod("dataWithLength:", dataWithLength)
                         .method("initWithCapacity:", initWithCapacity)
                         .method("initWithLength:", initWithLength)
                         .method("mutableBytes", mutableBytes)
                         .method("appendBytes:length:", appendBytes)
                         .method("appendData:", appendData)
                         .method("setLength:", setLength)
                         .method("increaseLengthBy:", increaseLengthBy)
                         .registerClass();
    gConcreteData = fakeobjc::ClassDef("NSConcreteData", "NSData").registerClass();
    gConcreteMutableData = fakeobjc::ClassDef("NSConcreteMutableData", "NSMutableData").registerClass();
    typeIDForClass(gNSData);
}

id newData(const void *bytes, size_t length)
{
    return newOfClass(gConcreteData, bytes, length);
}

} // namespace fakecf

using namespace fakecf;

namespace {

id asObject(const void *cf)
{
    return reinterpret_cast<id>(const_cast<void *>(cf));
}

} // namespace

extern "C" {

CFTypeID CFDataGetTypeID(void)
{
    return typeIDForClass(gNSData);
}

CFDataRef CFDataCreate(CFAllocatorRef, const UInt8 *bytes, CFIndex length)
{
    return reinterpret_cast<CFDataRef>(newData(bytes, length > 0 ? static_cast<size_t>(length) : 0));
}

CFMutableDataRef CFDataCreateMutable(CFAllocatorRef, CFIndex capacity)
{
    id obj = newOfClass(gConcreteMutableData, nullptr, 0);
    if (capacity > 0)
        state(obj).reserve(static_cast<size_t>(capacity));
    return reinterpret_cast<CFMutableDataRef>(obj);
}

CFIndex CFDataGetLength(CFDataRef theData)
{
    return static_cast<CFIndex>(fakeobjc::msg<unsigned long>(asObject(theData), "length"));
}

const UInt8 *CFDataGetBytePtr(CFDataRef theData)
{
    return static_cast<const UInt8 *>(fakeobjc::msg<const void *>(asObject(theData), "bytes"));
}

UInt8 *CFDataGetMutableBytePtr(CFMutableDataRef theData)
{
    return static_cast<UInt8 *>(fakeobjc::msg<void *>(asObject(theData), "mutableBytes"));
}

void CFDataAppendBytes(CFMutableDataRef theData, const UInt8 *bytes, CFIndex length)
{
    fakeobjc::msg<void>(asObject(theData), "appendBytes:length:", static_cast<const void *>(bytes),
                        static_cast<unsigned long>(length > 0 ? length : 0));
}

void CFDataSetLength(CFMutableDataRef theData, CFIndex length)
{
    fakeobjc::msg<void>(asObject(theData), "setLength:", static_cast<unsigned long>(length > 0 ? length : 0));
}

} // extern "C"
