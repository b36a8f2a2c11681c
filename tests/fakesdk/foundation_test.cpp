// fakesdk's CoreFoundation and Foundation as the library and the other fake frameworks use them:
// ownership of what collections store, autoreleased convenience results, strict UTF-8, byte
// ranges at their boundaries, the %@ formatter, NSLog's line, weak hash tables, Apple's exception
// names and reasons, and the CF functions over the same (toll-free bridged) objects.
#include <CoreFoundation/CoreFoundation.h>
#include "FakesdkTestSupport.h"

#include <fakesdk/foundation_np.h>
#include <fakesdk/objc_np.h>
#include <objc/runtime.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>

extern "C" {
void NSLog(id format, ...);
id NSTemporaryDirectory(void);
extern id const NSInternalInconsistencyException;
}

// Apple's declaration (Foundation's NSRange.h), which the methods' own type must match exactly.
typedef struct _NSRange {
    unsigned long location;
    unsigned long length;
} NSRange;

namespace {

using Range = NSRange;
constexpr unsigned long kNotFound = LONG_MAX;

using namespace fakesdk_test;

// Format methods are C-variadic IMPs and must be called through a variadic function type.
template <typename... A>
id sendFormat(id receiver, const char *name, id format, A... args)
{
    SEL s = sel_registerName(name);
    auto imp = reinterpret_cast<id (*)(id, SEL, id, ...)>(class_getMethodImplementation(object_getClass(receiver), s));
    return imp(receiver, s, format, args...);
}

template <typename... A>
std::string format(const char *f, A... args)
{
    return text(sendFormat(cls("NSString"), "stringWithFormat:", str(f), args...));
}

using FoundationTest = PooledTest;

// ---- ownership

TEST_F(FoundationTest, CollectionsRetainWhatTheyStoreAndReleaseOnRemovalAndDealloc)
{
    id item = make("NSObject");
    objc_trackRetains_np(item);
    id array = send(cls("NSMutableArray"), "new");
    send<void>(array, "addObject:", item);
    send<void>(array, "insertObject:atIndex:", item, 0ul);
    EXPECT_EQ(objc_retainCount_np(item), 3);
    send<void>(array, "removeObject:", item); // every equal entry goes
    EXPECT_EQ(send<unsigned long>(array, "count"), 0ul);
    long retains = 0, releases = 0;
    objc_retainCounts_np(item, &retains, &releases);
    EXPECT_EQ(retains, 2);
    EXPECT_EQ(releases, 2);

    id dict = send(cls("NSMutableDictionary"), "new");
    id key = send(cls("NSMutableString"), "new");
    send<void>(key, "appendString:", str("k"));
    send<void>(dict, "setObject:forKey:", item, key);
    id storedKey = send(send(dict, "allKeys"), "firstObject");
    EXPECT_NE(storedKey, key) << "a mutable key is copied";
    EXPECT_EQ(objc_retainCount_np(key), 1);
    send<void>(dict, "setObject:forKey:", make("NSObject"), str("k")); // replaces: item released
    EXPECT_EQ(objc_retainCount_np(item), 1);
    objc_release(send(dict, "objectForKey:", str("k"))); // drop new's own +1: the dictionary holds it

    id weak = nil;
    objc_initWeak(&weak, send(dict, "objectForKey:", str("k")));
    send<void>(array, "addObject:", item);
    objc_release(dict);
    EXPECT_EQ(objc_loadWeakRetained(&weak), nil) << "dealloc of the dictionary released its value";
    objc_release(array);
    EXPECT_EQ(objc_retainCount_np(item), 1) << "dealloc of the array released its element";
    objc_destroyWeak(&weak);
    objc_release(key);
    objc_release(item);
}

TEST_F(FoundationTest, ConvenienceConstructorsAreAutoreleasedAndInitResultsOwned)
{
    id item = make("NSObject");
    id weakConvenience = nil, weakOwned = nil;
    void *inner = objc_autoreleasePoolPush();
    objc_initWeak(&weakConvenience, send(cls("NSArray"), "arrayWithObject:", item));
    id owned = send(send(cls("NSArray"), "alloc"), "initWithObjects:count:", (const id *)&item, 1ul);
    objc_initWeak(&weakOwned, owned);
    EXPECT_EQ(objc_retainCount_np(item), 3);
    objc_autoreleasePoolPop(inner);
    EXPECT_EQ(objc_loadWeakRetained(&weakConvenience), nil);
    id alive = objc_loadWeakRetained(&weakOwned);
    EXPECT_EQ(alive, owned);
    objc_release(alive);
    EXPECT_EQ(objc_retainCount_np(owned), 1);
    objc_release(owned);
    EXPECT_EQ(objc_retainCount_np(item), 1);
    objc_destroyWeak(&weakConvenience);
    objc_destroyWeak(&weakOwned);
    objc_release(item);
}

TEST_F(FoundationTest, CFFunctionsWorkOnTheSameObjects)
{
    id item = make("NSObject");
    const void *values[] = {item, str("two")};
    CFArrayRef array = CFArrayCreate(kCFAllocatorDefault, values, 2, &kCFTypeArrayCallBacks);
    EXPECT_EQ(CFArrayGetCount(array), 2);
    EXPECT_EQ(CFArrayGetValueAtIndex(array, 0), item);
    EXPECT_EQ(send((id)array, "objectAtIndex:", 0ul), item);
    EXPECT_EQ(objc_retainCount_np(item), 2);
    EXPECT_EQ(CFRetain(array), array);
    EXPECT_EQ(CFGetRetainCount(array), 2);
    CFRelease(array);
    CFRelease(array);
    EXPECT_EQ(objc_retainCount_np(item), 1);

    CFMutableDictionaryRef dict = CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                                            &kCFTypeDictionaryValueCallBacks);
    id key = send(send(cls("NSMutableString"), "new"), "autorelease");
    CFDictionarySetValue(dict, key, item);
    EXPECT_EQ(send(send((id)dict, "allKeys"), "firstObject"), key) << "CF retains keys, it does not copy them";
    EXPECT_EQ(CFDictionaryGetValue(dict, key), item);
    EXPECT_EQ(send((id)dict, "objectForKey:", key), item);
    EXPECT_EQ(CFDictionaryGetCount(dict), 1);
    EXPECT_TRUE(CFEqual(CFSTR("a"), str("a")));
    EXPECT_EQ(CFHash(CFSTR("a")), send<unsigned long>(str("a"), "hash"));
    EXPECT_NE(CFGetTypeID(dict), CFGetTypeID(CFSTR("a")));
    EXPECT_EQ(CFGetTypeID(CFSTR("a")), CFStringGetTypeID());
    CFRelease(dict);
    EXPECT_EQ(objc_retainCount_np(item), 1);
    objc_release(item);
}

// ---- strings

TEST_F(FoundationTest, UTF8IsValidatedStrictly)
{
    struct Case {
        const char *name;
        std::string bytes;
        bool valid;
        unsigned long utf16Length;
    } cases[] = {
        {"ascii", "abc", true, 3},
        {"two-byte", "\xC3\xA9", true, 1},
        {"astral (surrogate pair)", "\xF0\x9F\x98\x80", true, 2},
        {"embedded NUL", std::string("a\0b", 3), true, 3},
        {"lone 0xFF", "\xFF", false, 0},
        {"lone continuation", "\x80", false, 0},
        {"truncated two-byte", "\xC3", false, 0},
        {"truncated four-byte", "\xF0\x9F\x98", false, 0},
        {"overlong slash", "\xC0\xAF", false, 0},
        {"overlong three-byte", "\xE0\x80\xAF", false, 0},
        {"surrogate D800", "\xED\xA0\x80", false, 0},
        {"beyond U+10FFFF", "\xF4\x90\x80\x80", false, 0},
        {"largest code point", "\xF4\x8F\xBF\xBF", true, 2},
    };
    for (const Case &c : cases) {
        id s = send(send(cls("NSString"), "alloc"), "initWithBytes:length:encoding:", (const void *)c.bytes.data(),
                    (unsigned long)c.bytes.size(), 4ul);
        id d = send(cls("NSData"), "dataWithBytes:length:", (const void *)c.bytes.data(), (unsigned long)c.bytes.size());
        id viaData = send(send(cls("NSString"), "alloc"), "initWithData:encoding:", d, 4ul);
        EXPECT_EQ(s != nil, c.valid) << c.name;
        EXPECT_EQ(viaData != nil, c.valid) << c.name;
        if (s)
            EXPECT_EQ(send<unsigned long>(s, "length"), c.utf16Length) << c.name;
        objc_release(s);
        objc_release(viaData);
    }
    EXPECT_EQ(raised([] { send(cls("NSString"), "stringWithUTF8String:", (const char *)nullptr); }),
              Raised("NSInvalidArgumentException", "*** +[NSString stringWithUTF8String:]: NULL cString"))
        << "Apple raises for NULL; only invalid bytes give nil";
    EXPECT_EQ(CFStringCreateWithCString(nullptr, "\xFF", kCFStringEncodingUTF8), nullptr);
}

TEST_F(FoundationTest, StringQueriesCountUTF16Units)
{
    id s = str("a\xF0\x9F\x98\x80" "b\xC3\xA9");
    EXPECT_EQ(send<unsigned short>(s, "characterAtIndex:", 1ul), 0xD83D);
    EXPECT_EQ(send<unsigned short>(s, "characterAtIndex:", 2ul), 0xDE00);
    EXPECT_EQ(send<unsigned short>(s, "characterAtIndex:", 4ul), 0xE9);
    Range r = send<Range>(s, "rangeOfString:", str("b"));
    EXPECT_EQ(r.location, 3ul);
    EXPECT_EQ(r.length, 1ul);
    EXPECT_EQ(send<Range>(s, "rangeOfString:", str("zz")).location, kNotFound);
    EXPECT_EQ(raised([&] { send<unsigned short>(s, "characterAtIndex:", 5ul); }).first, "NSRangeException");

    struct Path {
        const char *path, *last, *extension, *appended;
    } paths[] = {
        {"/tmp/scratch.tiff", "scratch.tiff", "tiff", "/tmp/scratch.tiff/x"},
        {"/tmp/", "tmp", "", "/tmp/x"},
        {"/", "/", "", "/x"},
        {"archive.tar.gz", "archive.tar.gz", "gz", "archive.tar.gz/x"},
        {"", "", "", "x"},
    };
    for (const Path &p : paths) {
        EXPECT_EQ(text(send(str(p.path), "lastPathComponent")), p.last) << p.path;
        EXPECT_EQ(text(send(str(p.path), "pathExtension")), p.extension) << p.path;
        EXPECT_EQ(text(send(str(p.path), "stringByAppendingPathComponent:", str("x"))), p.appended) << p.path;
    }
    EXPECT_EQ(send<long>(str("  -42xyz"), "integerValue"), -42);
    EXPECT_EQ(send<long>(str("99999999999999999999"), "integerValue"), LONG_MAX);
    EXPECT_EQ(send<int>(str("99999999999"), "intValue"), INT_MAX);
    EXPECT_DOUBLE_EQ(send<double>(str(" 2.5e1"), "doubleValue"), 25.0);
    EXPECT_TRUE(send<bool>(str(" yes"), "boolValue"));
    EXPECT_TRUE(send<bool>(str("007"), "boolValue"));
    EXPECT_FALSE(send<bool>(str("000"), "boolValue"));
    EXPECT_EQ(send<long>(str("abc"), "compare:", str("abd")), -1);
    // U+FF61 sorts after U+1F600 by code point, but before it in UTF-16 (the surrogate D83D).
    EXPECT_EQ(send<long>(str("\xEF\xBD\xA1"), "compare:", str("\xF0\x9F\x98\x80")), 1);
}

TEST_F(FoundationTest, FormatterHandlesObjectsAndCConversions)
{
    EXPECT_EQ(format("%@|%@|%@", str("s"), num(-3), (id) nil), "s|-3|(null)");
    EXPECT_EQ(format("[%5d|%-4ld|%05.1f|%x|%X|%lu|%zu|%lld|%c|%s|%%]", 42, -7L, 3.14159, 255u, 255u, 18446744073709551615ul,
                     (size_t)7, -9000000000LL, 'z', "str"),
              "[   42|-7  |003.1|ff|FF|18446744073709551615|7|-9000000000|z|str|%]");
    EXPECT_EQ(format("%*d|%.*s|%g|%e", 4, 7, 2, "abcdef", 0.0001, 12345.678), "   7|ab|0.0001|1.234568e+04");
    EXPECT_EQ(format("%s|%@", (const char *)nullptr, num(1)), "(null)|1");
    EXPECT_EQ(format("%ld|%d|%lu", 1099511627776L, -1, 4294967296ul), "1099511627776|-1|4294967296");
    void *p = reinterpret_cast<void *>(0x1234);
    EXPECT_EQ(format("%p", p), "0x1234");
    id array = send(cls("NSArray"), "arrayWithObject:", str("two words"));
    EXPECT_EQ(format("%@", array), "(\n    \"two words\"\n)");
    EXPECT_EQ(format("%@", send(cls("NSNumber"), "numberWithDouble:", 0.1)), "0.1");
    EXPECT_EQ(format("%@", send(cls("NSData"), "dataWithBytes:length:", (const void *)"\xFF\xD8\xFF\xE0\x01", 5ul)),
              "<ffd8ffe0 01>");
}

// ---- data

TEST_F(FoundationTest, DataRangesAtTheirBoundaries)
{
    id data = send(cls("NSData"), "dataWithBytes:length:", (const void *)"abcabc", 6ul);
    auto find = [&](const char *needle, unsigned long options, Range within) {
        id n = send(cls("NSData"), "dataWithBytes:length:", (const void *)needle, (unsigned long)strlen(needle));
        return send<Range>(data, "rangeOfData:options:range:", n, options, within);
    };
    EXPECT_EQ(find("bc", 0, {0, 6}).location, 1ul);
    EXPECT_EQ(find("bc", 1, {0, 6}).location, 4ul) << "backwards";
    EXPECT_EQ(find("bc", 0, {2, 4}).location, 4ul) << "only within the range";
    EXPECT_EQ(find("bc", 0, {0, 2}).location, kNotFound) << "a match must end inside the range";
    EXPECT_EQ(find("c", 0, {5, 1}).location, 5ul) << "at the very end";
    EXPECT_EQ(find("c", 0, {6, 0}).location, kNotFound) << "empty range at the end";
    EXPECT_EQ(find("ab", 2, {1, 5}).location, kNotFound) << "anchored";
    EXPECT_EQ(raised([&] { find("c", 0, {6, 1}); }).first, "NSRangeException");
    EXPECT_EQ(raised([&] { find("", 0, {0, 6}); }).first, "NSInvalidArgumentException");

    EXPECT_EQ(send<unsigned long>(send(data, "subdataWithRange:", Range{6, 0}), "length"), 0ul);
    EXPECT_EQ(std::memcmp(send<const void *>(send(data, "subdataWithRange:", Range{4, 2}), "bytes"), "bc", 2), 0);
    EXPECT_EQ(raised([&] { send(data, "subdataWithRange:", Range{6, 1}); }).first, "NSRangeException");
    EXPECT_EQ(raised([&] { send(data, "subdataWithRange:", Range{1, ULONG_MAX}); }).first, "NSRangeException");
}

TEST_F(FoundationTest, MutableDataGrowsGeometricallyAndRoundTripsThroughAFile)
{
    id data = send(cls("NSMutableData"), "data");
    std::string chunk(32 * 1024, 'x');
    int moves = 0;
    const void *last = nullptr;
    for (int i = 0; i < 64; ++i) {
        chunk[0] = static_cast<char>(i);
        send<void>(data, "appendBytes:length:", (const void *)chunk.data(), (unsigned long)chunk.size());
        const void *now = send<const void *>(data, "bytes");
        moves += now != last;
        last = now;
    }
    EXPECT_LE(moves, 12) << "appending must reallocate O(log n) times";
    ASSERT_EQ(send<unsigned long>(data, "length"), 64ul * chunk.size());
    auto *bytes = static_cast<const unsigned char *>(send<const void *>(data, "bytes"));
    EXPECT_EQ(bytes[63 * chunk.size()], 63);
    send<void>(data, "appendBytes:length:", (const void *)bytes, 4ul); // from its own buffer
    EXPECT_EQ(static_cast<const unsigned char *>(send<const void *>(data, "bytes"))[64 * chunk.size()], 0);

    std::string path = text(NSTemporaryDirectory()) + "fakesdk-data-" + std::to_string(getpid());
    ASSERT_TRUE(send<bool>(data, "writeToFile:atomically:", str(path.c_str()), true));
    id back = send(cls("NSData"), "dataWithContentsOfFile:", str(path.c_str()));
    EXPECT_TRUE(send<bool>(back, "isEqualToData:", data));
    EXPECT_TRUE(send<bool>(send(cls("NSFileManager"), "defaultManager"), "removeItemAtPath:error:", str(path.c_str()),
                           (id *)nullptr));
    EXPECT_EQ(send(cls("NSData"), "dataWithContentsOfFile:", str(path.c_str())), nil);
}

// ---- misuse raises Apple's exceptions

TEST_F(FoundationTest, MisuseRaisesApplesExceptions)
{
    const id two[] = {num(1), num(2)};
    id pair = send(cls("NSArray"), "arrayWithObjects:count:", two, 2ul);
    EXPECT_EQ(raised([&] { send(pair, "objectAtIndex:", 3ul); }),
              Raised("NSRangeException", "*** -[__NSArrayI objectAtIndex:]: index 3 beyond bounds [0 .. 1]"));
    id mutableArray = send(cls("NSMutableArray"), "array");
    EXPECT_EQ(raised([&] { send<void>(mutableArray, "addObject:", (id) nil); }),
              Raised("NSInvalidArgumentException", "*** -[__NSArrayM insertObject:atIndex:]: object cannot be nil"));
    EXPECT_EQ(raised([&] { send<void>(mutableArray, "removeObjectAtIndex:", 0ul); }),
              Raised("NSRangeException", "*** -[__NSArrayM removeObjectAtIndex:]: index 0 beyond bounds for empty array"));
    EXPECT_FALSE(class_respondsToSelector(object_getClass(pair), sel_registerName("addObject:")))
        << "immutable arrays have no mutators";
    const id withNil[] = {num(1), nil};
    EXPECT_EQ(raised([&] { send(cls("NSArray"), "arrayWithObjects:count:", withNil, 2ul); }).first,
              "NSInvalidArgumentException");

    id dict = send(cls("NSMutableDictionary"), "dictionary");
    EXPECT_EQ(raised([&] { send<void>(dict, "setObject:forKey:", (id) nil, str("k")); }).second,
              "*** -[__NSDictionaryM setObject:forKey:]: object cannot be nil (key: k)");
    EXPECT_EQ(raised([&] { send<void>(dict, "setObject:forKey:", num(1), (id) nil); }).first,
              "NSInvalidArgumentException");

    EXPECT_EQ(raised([&] {
                  SEL s = sel_registerName("raise:format:");
                  auto imp = reinterpret_cast<void (*)(id, SEL, id, id, ...)>(
                      class_getMethodImplementation(object_getClass(cls("NSException")), s));
                  imp(cls("NSException"), s, NSInternalInconsistencyException, str("bad %@ %d"), str("state"), 7);
              }),
              Raised("NSInternalInconsistencyException", "bad state 7"));
}

// ---- numbers and constants

TEST_F(FoundationTest, BooleansAreTheCFSingletonsAndNumbersCompareByValue)
{
    EXPECT_EQ(send(cls("NSNumber"), "numberWithBool:", true), (id)kCFBooleanTrue);
    EXPECT_EQ(send(cls("NSNumber"), "numberWithBool:", false), (id)kCFBooleanFalse);
    EXPECT_EQ(send(send(cls("NSNumber"), "alloc"), "initWithBool:", true), (id)kCFBooleanTrue);
    EXPECT_STREQ(object_getClassName((id)kCFBooleanTrue), "__NSCFBoolean");
    EXPECT_TRUE(send<bool>((id)kCFBooleanTrue, "boolValue"));
    EXPECT_FALSE(send<bool>((id)kCFBooleanFalse, "boolValue"));
    EXPECT_TRUE(CFBooleanGetValue(kCFBooleanTrue));
    EXPECT_EQ(objc_retainCount_np((id)kCFBooleanTrue), LONG_MAX);

    id three = send(cls("NSNumber"), "numberWithInt:", 3);
    id threeDouble = send(cls("NSNumber"), "numberWithDouble:", 3.0);
    EXPECT_TRUE(send<bool>(three, "isEqual:", threeDouble));
    EXPECT_EQ(send<unsigned long>(three, "hash"), send<unsigned long>(threeDouble, "hash"));
    EXPECT_EQ(send<long>(send(cls("NSNumber"), "numberWithUnsignedLong:", ULONG_MAX), "compare:", num(-1)), 1);
    EXPECT_EQ(send<int>(send(cls("NSNumber"), "numberWithDouble:", 1e300), "intValue"), INT_MAX);

    double half = 2.5;
    CFNumberRef n = CFNumberCreate(nullptr, kCFNumberDoubleType, &half);
    int asInt = 0;
    EXPECT_FALSE(CFNumberGetValue(n, kCFNumberIntType, &asInt)) << "2.5 does not fit an int exactly";
    EXPECT_EQ(asInt, 2);
    double back = 0;
    EXPECT_TRUE(CFNumberGetValue(n, kCFNumberFloat64Type, &back));
    EXPECT_EQ(back, 2.5);
    CFRelease(n);
}

TEST_F(FoundationTest, CFSTRInternsImmortalStrings)
{
    CFStringRef a = CFSTR("camera");
    EXPECT_EQ(a, CFSTR("camera"));
    EXPECT_NE(a, CFSTR("camera2"));
    EXPECT_EQ(CFRetain(a), a);
    CFRelease(a);
    CFRelease(a);
    EXPECT_EQ(CFStringGetLength(a), 6);
    EXPECT_TRUE(send<bool>(str("camera"), "isEqual:", (id)a));
    char buffer[7];
    EXPECT_TRUE(CFStringGetCString(a, buffer, sizeof buffer, kCFStringEncodingUTF8));
    EXPECT_STREQ(buffer, "camera");
    EXPECT_FALSE(CFStringGetCString(a, buffer, 6, kCFStringEncodingUTF8)) << "no room for the terminator";
    EXPECT_EQ(send((id)a, "copy"), (id)a);
}

// ---- Foundation

TEST_F(FoundationTest, NSLogWritesApplesLineFormat)
{
    NSLogCapture_np(true);
    NSLog(str("frame %d from %@: %@"), 42, str("cam"), (id) nil);
    std::thread([] { NSLog(str("second")); }).join();
    char *captured = NSLogCopyCaptured_np();
    std::string lines = captured;
    std::free(captured);
    NSLogCapture_np(false);

    std::regex line(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) fakesdk_foundation_test\[(\d+):([0-9a-f]+)\] (.*)\n)");
    std::smatch first, second;
    ASSERT_TRUE(std::regex_search(lines, first, line)) << lines;
    EXPECT_EQ(first.position(0), 0);
    EXPECT_EQ(first[2].str(), std::to_string(getpid()));
    EXPECT_EQ(std::stoul(first[3].str(), nullptr, 16), static_cast<unsigned long>(syscall(SYS_gettid)));
    EXPECT_EQ(first[4].str(), "frame 42 from cam: (null)");
    std::string rest = first.suffix();
    ASSERT_TRUE(std::regex_match(rest, second, line)) << lines;
    EXPECT_EQ(second[4].str(), "second");
    EXPECT_NE(second[3].str(), first[3].str()) << "each thread logs its own id";
}

TEST_F(FoundationTest, WeakHashTableForgetsDeadObjects)
{
    id table = send(cls("NSHashTable"), "weakObjectsHashTable");
    id kept = make("NSObject"), dying = make("NSObject");
    send<void>(table, "addObject:", kept);
    send<void>(table, "addObject:", dying);
    send<void>(table, "addObject:", kept);
    EXPECT_EQ(objc_retainCount_np(dying), 1) << "weak memory does not retain";
    EXPECT_EQ(send<unsigned long>(table, "count"), 2ul);
    objc_release(dying);
    EXPECT_EQ(send<unsigned long>(table, "count"), 1ul);
    id all = send(table, "allObjects");
    ASSERT_EQ(send<unsigned long>(all, "count"), 1ul);
    EXPECT_EQ(send(all, "firstObject"), kept);
    EXPECT_TRUE(send<bool>(table, "containsObject:", kept));
    send<void>(table, "removeObject:", kept);
    EXPECT_EQ(send(table, "anyObject"), nil);

    id strong = send(cls("NSHashTable"), "hashTableWithOptions:", 0ul);
    send<void>(strong, "addObject:", kept);
    EXPECT_EQ(objc_retainCount_np(kept), 3) << "strong memory retains (plus allObjects' array)";
    objc_release(kept);
}

TEST_F(FoundationTest, ProcessFilesURLsAndErrors)
{
    setenv("FAKESDK_FOUNDATION_TEST", "value \xC3\xA9", 1);
    id env = send(send(cls("NSProcessInfo"), "processInfo"), "environment");
    EXPECT_EQ(text(send(env, "objectForKey:", str("FAKESDK_FOUNDATION_TEST"))), "value \xC3\xA9");
    EXPECT_EQ(send<int>(send(cls("NSProcessInfo"), "processInfo"), "processIdentifier"), getpid());

    std::string uuid = text(send(send(cls("NSUUID"), "UUID"), "UUIDString"));
    EXPECT_TRUE(std::regex_match(uuid, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
        << uuid;

    const char *oldTmp = getenv("TMPDIR");
    std::string saved = oldTmp ? oldTmp : "";
    setenv("TMPDIR", "/var/tmp", 1);
    EXPECT_EQ(text(NSTemporaryDirectory()), "/var/tmp/");
    oldTmp ? setenv("TMPDIR", saved.c_str(), 1) : unsetenv("TMPDIR");

    id dirURL = send(cls("NSURL"), "fileURLWithPath:", str("/tmp"));
    EXPECT_EQ(text(send(dirURL, "absoluteString")), "file:///tmp/");
    EXPECT_EQ(text(send(dirURL, "path")), "/tmp");
    id fileURL = send(cls("NSURL"), "fileURLWithPath:", str("/no such/clip.mov"));
    EXPECT_EQ(text(send(fileURL, "absoluteString")), "file:///no%20such/clip.mov");
    EXPECT_EQ(text(send(fileURL, "lastPathComponent")), "clip.mov");
    EXPECT_TRUE(send<bool>(fileURL, "isFileURL"));
    id web = send(cls("NSURL"), "URLWithString:", str("http://127.0.0.1:47654/frame?x=1"));
    EXPECT_EQ(text(send(web, "path")), "/frame");
    EXPECT_FALSE(send<bool>(web, "isFileURL"));
    EXPECT_EQ(send(cls("NSURL"), "URLWithString:", str("not a url")), nil);

    id error = nil;
    EXPECT_FALSE(send<bool>(send(cls("NSFileManager"), "defaultManager"), "removeItemAtPath:error:",
                            str("/nonexistent/fakesdk"), &error));
    ASSERT_NE(error, nil);
    EXPECT_EQ(text(send(error, "domain")), "NSCocoaErrorDomain");
    EXPECT_EQ(send<long>(error, "code"), 4);
    id plain = send(cls("NSError"), "errorWithDomain:code:userInfo:", str("Zerlan"), -3L, (id) nil);
    EXPECT_EQ(text(send(plain, "localizedDescription")), "The operation couldn\u2019t be completed. (Zerlan error -3.)");
}

} // namespace
