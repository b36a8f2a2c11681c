// NSProcessInfo (one shared instance) and NSUUID (random version 4 identifiers).
#include "CoreFoundation/cfinternal.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sys/random.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

using fakecf::autoString;

void randomBytes(unsigned char *out, size_t n)
{
    while (n) {
        ssize_t got = getrandom(out, n, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            std::abort();
        out += got;
        n -= static_cast<size_t>(got);
    }
}

std::string uuidText(const unsigned char *b)
{
    char text[37];
    std::snprintf(text, sizeof text, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                  b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return text;
}

// ---- NSProcessInfo

id processInfo(id self, SEL)
{
    static id shared = [self] {
        id obj = class_createInstance(reinterpret_cast<Class>(self), 0);
        fakeobjc::makeImmortal(obj);
        return obj;
    }();
    return shared;
}

id environment(id, SEL)
{
    id dict = fakecf::newMutableDictionary();
    for (char **entry = environ; entry && *entry; ++entry) {
        const char *eq = std::strchr(*entry, '=');
        if (!eq)
            continue;
        std::string_view key(*entry, static_cast<size_t>(eq - *entry));
        std::string_view value(eq + 1);
        auto valid = [](std::string_view s) {
            return fakecf::isValidUTF8(reinterpret_cast<const unsigned char *>(s.data()), s.size());
        };
        if (!valid(key) || !valid(value))
            continue;
        fakecf::dictionarySet(dict, autoString(key), autoString(value), true);
    }
    id result = fakeobjc::msg<id>(dict, "copy");
    objc_release(dict);
    return objc_autorelease(result);
}

int processIdentifier(id, SEL)
{
    return static_cast<int>(getpid());
}

id processName(id, SEL)
{
    return autoString(program_invocation_short_name);
}

id arguments(id, SEL)
{
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<id> args;
    for (size_t start = 0; start < all.size();) {
        size_t end = all.find('\0', start);
        if (end == std::string::npos)
            end = all.size();
        args.push_back(autoString(std::string_view(all).substr(start, end - start)));
        start = end + 1;
    }
    return objc_autorelease(fakecf::newArray(args.data(), args.size()));
}

// Unique across processes and calls: a fresh UUID, the pid and a per-process counter.
id globallyUniqueString(id, SEL)
{
    static std::atomic<unsigned long> counter{0};
    unsigned char bytes[16];
    randomBytes(bytes, sizeof bytes);
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
    char tail[64];
    std::snprintf(tail, sizeof tail, "-%d-%016lX", static_cast<int>(getpid()), counter.fetch_add(1) + 1);
    return autoString(uuidText(bytes) + tail);
}

double systemUptime(id, SEL)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + now.tv_nsec * 1e-9;
}

unsigned long processorCount(id, SEL)
{
    return std::max(1u, std::thread::hardware_concurrency());
}

// ---- NSUUID

struct UUIDState {
    unsigned char bytes[16] = {};
};

fakeobjc::StateSlot<UUIDState> gUUIDSlot;

id initUUID(id self, SEL)
{
    unsigned char *b = gUUIDSlot.get(self).bytes;
    randomBytes(b, 16);
    b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);
    b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);
    return self;
}

id uuid(id self, SEL cmd)
{
    return objc_autorelease(initUUID(class_createInstance(reinterpret_cast<Class>(self), 0), cmd));
}

id initWithUUIDString(id self, SEL, id string)
{
    std::string text = fakecf::utf8Of(string);
    unsigned char *b = gUUIDSlot.get(self).bytes;
    size_t k = 0;
    bool ok = text.size() == 36;
    for (size_t i = 0; ok && i < text.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash) {
            ok = text[i] == '-';
            continue;
        }
        if (!std::isxdigit(static_cast<unsigned char>(text[i])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 1]))) {
            ok = false;
            break;
        }
        b[k++] = static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16));
        ++i;
    }
    if (!ok || k != 16) {
        objc_release(self);
        return nil;
    }
    return self;
}

id uuidString(id self, SEL)
{
    return autoString(uuidText(gUUIDSlot.get(self).bytes));
}

bool uuidIsEqual(id self, SEL, id other)
{
    if (self == other)
        return true;
    if (!other || object_getClass(other) != object_getClass(self))
        return false;
    return std::memcmp(gUUIDSlot.get(self).bytes, gUUIDSlot.get(other).bytes, 16) == 0;
}

unsigned long uuidHash(id self, SEL)
{
    unsigned long h;
    std::memcpy(&h, gUUIDSlot.get(self).bytes, sizeof h);
    return h;
}

id uuidCopy(id self, SEL, void *)
{
    return objc_retain(self);
}

void uuidDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gUUIDSlot, "NSUUID", self);
}

__attribute__((constructor(120))) void declareProcessInfo()
{
    fakeobjc::ClassDef("NSProcessInfo", "NSObject")
        .classMethod("processInfo", processInfo)
        .method("environment", environment)
        .method("processIdentifier", processIdentifier)
        .method("processName", processName)
        .method("arguments", arguments)
        .method("globallyUniqueString", globallyUniqueString)
        .method("systemUptime", systemUptime)
        .method("processorCount", processorCount)
        .method("activeProcessorCount", processorCount)
        .registerClass();
    fakeobjc::ClassDef("NSUUID", "NSObject")
        .stateIvar()
        .classMethod("UUID", uuid)
        .method("init", initUUID)
        .method("initWithUUIDString:", initWithUUIDString)
        .method("UUIDString", uuidString)
        .method("description", uuidString)
        .method("isEqual:", uuidIsEqual)
        .method("hash", uuidHash)
        .method("copyWithZone:", uuidCopy)
        .method("dealloc", uuidDealloc)
        .registerWith(gUUIDSlot);
}

} // namespace
