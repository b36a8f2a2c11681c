// NSString and NSMutableString over UTF-8 storage, with lengths and indexes in UTF-16 code units
// as Apple's API counts them; CFString's C functions over the same objects; constant strings.
#include "cfinternal.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

namespace fakecf {
namespace {

struct StringState {
    std::string utf8;
    size_t length16 = 0;
    bool ascii = true;

    void assign(std::string text)
    {
        utf8 = std::move(text);
        length16 = 0;
        ascii = true;
        for (unsigned char byte : utf8) {
            if (byte >= 0x80)
                ascii = false;
            if ((byte & 0xC0) != 0x80)
                length16 += byte >= 0xF0 ? 2 : 1;
        }
    }
};

fakeobjc::StateSlot<StringState> gSlot;
Class gNSString;
Class gNSMutableString;
Class gCFString;
Class gConstantString;

StringState &state(id self)
{
    return gSlot.get(self);
}

bool isMutable(id self)
{
    return isKind(self, gNSMutableString);
}

id newOfClass(Class cls, std::string utf8)
{
    id obj = class_createInstance(cls, 0);
    state(obj).assign(std::move(utf8));
    return obj;
}

// Decodes the code point that starts at bytes[i] (valid UTF-8) and advances i.
uint32_t decodeAt(const std::string &s, size_t &i)
{
    auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    uint32_t c = byte(i);
    if (c < 0x80) {
        i += 1;
        return c;
    }
    if (c < 0xE0) {
        uint32_t cp = ((c & 0x1F) << 6) | (byte(i + 1) & 0x3F);
        i += 2;
        return cp;
    }
    if (c < 0xF0) {
        uint32_t cp = ((c & 0x0F) << 12) | ((byte(i + 1) & 0x3F) << 6) | (byte(i + 2) & 0x3F);
        i += 3;
        return cp;
    }
    uint32_t cp = ((c & 0x07) << 18) | ((byte(i + 1) & 0x3F) << 12) | ((byte(i + 2) & 0x3F) << 6) | (byte(i + 3) & 0x3F);
    i += 4;
    return cp;
}

std::u16string toUTF16(const std::string &s)
{
    std::u16string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) {
        uint32_t cp = decodeAt(s, i);
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
    }
    return out;
}

// Byte offset of a UTF-16 offset; an offset inside a surrogate pair rounds to the pair's start.
size_t byteOffsetOf(const StringState &st, size_t units)
{
    if (st.ascii)
        return std::min(units, st.utf8.size());
    size_t i = 0, seen = 0;
    while (i < st.utf8.size()) {
        size_t next = i;
        uint32_t cp = decodeAt(st.utf8, next);
        size_t width = cp >= 0x10000 ? 2 : 1;
        if (seen + width > units)
            break;
        seen += width;
        i = next;
    }
    return i;
}

size_t unitOffsetOf(const StringState &st, size_t bytes)
{
    if (st.ascii)
        return bytes;
    size_t units = 0;
    for (size_t i = 0; i < bytes && i < st.utf8.size(); ++i) {
        auto byte = static_cast<unsigned char>(st.utf8[i]);
        if ((byte & 0xC0) != 0x80)
            units += byte >= 0xF0 ? 2 : 1;
    }
    return units;
}

std::string argText(id self, SEL cmd, id string)
{
    if (!string)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: nil argument", object_getClassName(self),
                              sel_getName(cmd));
    return utf8Of(string);
}

void requireMutable(id self, SEL cmd)
{
    if (!isMutable(self))
        fakeobjc::raiseFormat("NSInvalidArgumentException", "Attempt to mutate immutable object with %s",
                              sel_getName(cmd));
}

// Converts bytes in an NSStringEncoding to UTF-8; false when they are not valid in it.
bool decodeBytes(const void *bytes, size_t length, unsigned long encoding, std::string &out)
{
    auto *p = static_cast<const unsigned char *>(bytes);
    if (length && !p)
        return false;
    switch (encoding) {
    case NSUTF8StringEncoding:
        if (!isValidUTF8(p, length))
            return false;
        out.assign(reinterpret_cast<const char *>(p), length);
        return true;
    case NSASCIIStringEncoding:
        if (std::any_of(p, p + length, [](unsigned char c) { return c >= 0x80; }))
            return false;
        out.assign(reinterpret_cast<const char *>(p), length);
        return true;
    case NSISOLatin1StringEncoding:
        out.clear();
        for (size_t i = 0; i < length; ++i) {
            if (p[i] < 0x80) {
                out.push_back(static_cast<char>(p[i]));
            } else {
                out.push_back(static_cast<char>(0xC0 | (p[i] >> 6)));
                out.push_back(static_cast<char>(0x80 | (p[i] & 0x3F)));
            }
        }
        return true;
    default:
        return false;
    }
}

// Converts UTF-8 to an NSStringEncoding; false when a character has no representation in it.
bool encodeText(const std::string &utf8, unsigned long encoding, std::string &out)
{
    switch (encoding) {
    case NSUTF8StringEncoding:
        out = utf8;
        return true;
    case NSASCIIStringEncoding:
        if (std::any_of(utf8.begin(), utf8.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }))
            return false;
        out = utf8;
        return true;
    case NSISOLatin1StringEncoding:
        out.clear();
        for (size_t i = 0; i < utf8.size();) {
            uint32_t cp = decodeAt(utf8, i);
            if (cp > 0xFF)
                return false;
            out.push_back(static_cast<char>(cp));
        }
        return true;
    default:
        return false;
    }
}

unsigned long nsEncodingOf(CFStringEncoding encoding)
{
    switch (encoding) {
    case kCFStringEncodingUTF8:
        return NSUTF8StringEncoding;
    case kCFStringEncodingASCII:
        return NSASCIIStringEncoding;
    case kCFStringEncodingISOLatin1:
        return NSISOLatin1StringEncoding;
    default:
        return 0;
    }
}

// Leading whitespace, then an optional sign and digits, as -integerValue reads them; saturates.
long long parseInteger(const std::string &s, long long min, long long max)
{
    size_t i = 0;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i])))
        ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-'))
        negative = s[i++] == '-';
    long long value = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        int digit = s[i] - '0';
        if (!negative && value > (max - digit) / 10)
            return max;
        if (negative && value < (min + digit) / 10)
            return min;
        value = negative ? value * 10 - digit : value * 10 + digit;
    }
    return value;
}

std::string normalisedPath(std::string path)
{
    std::string out;
    for (char c : path)
        if (!(c == '/' && !out.empty() && out.back() == '/'))
            out.push_back(c);
    while (out.size() > 1 && out.back() == '/')
        out.pop_back();
    return out;
}

// ---- class methods

id allocString(id self, SEL)
{
    return allocConcrete(self, gNSString, gCFString);
}

id allocStringWithZone(id self, SEL, void *)
{
    return allocConcrete(self, gNSString, gCFString);
}

Class concreteOf(id self)
{
    Class cls = reinterpret_cast<Class>(self);
    return cls == gNSString ? gCFString : cls;
}

id string(id self, SEL)
{
    return objc_autorelease(newOfClass(concreteOf(self), ""));
}

id stringWithUTF8String(id self, SEL cmd, const char *text)
{
    if (!text)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** +[%s %s]: NULL cString",
                              class_getName(reinterpret_cast<Class>(self)), sel_getName(cmd));
    if (!isValidUTF8(reinterpret_cast<const unsigned char *>(text), std::strlen(text)))
        return nil;
    return objc_autorelease(newOfClass(concreteOf(self), text));
}

id stringWithCString(id self, SEL, const char *text, unsigned long encoding)
{
    std::string utf8;
    if (!text || !decodeBytes(text, std::strlen(text), encoding, utf8))
        return nil;
    return objc_autorelease(newOfClass(concreteOf(self), std::move(utf8)));
}

id stringWithString(id self, SEL cmd, id other)
{
    return objc_autorelease(newOfClass(concreteOf(self), argText(self, cmd, other)));
}

id stringWithCapacity(id self, SEL, unsigned long)
{
    return objc_autorelease(newOfClass(concreteOf(self), ""));
}

id stringWithFormat(id self, SEL, id format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = formatV(utf8Of(format).c_str(), args);
    va_end(args);
    return objc_autorelease(newOfClass(concreteOf(self), std::move(text)));
}

// ---- initialisers (self is the +1 result of alloc; on failure it is released and nil returned)

id initEmpty(id self, SEL)
{
    state(self).assign("");
    return self;
}

id initWithUTF8String(id self, SEL, const char *text)
{
    if (!text || !isValidUTF8(reinterpret_cast<const unsigned char *>(text), std::strlen(text))) {
        objc_release(self);
        return nil;
    }
    state(self).assign(text);
    return self;
}

id initWithString(id self, SEL cmd, id other)
{
    if (!other) {
        const char *className = object_getClassName(self);
        objc_release(self);
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: nil argument", className, sel_getName(cmd));
    }
    state(self).assign(utf8Of(other));
    return self;
}

id initWithBytes(id self, SEL, const void *bytes, unsigned long length, unsigned long encoding)
{
    std::string text;
    if (!decodeBytes(bytes, length, encoding, text)) {
        objc_release(self);
        return nil;
    }
    state(self).assign(std::move(text));
    return self;
}

id initWithData(id self, SEL cmd, id data, unsigned long encoding)
{
    auto *bytes = fakeobjc::msg<const void *>(data, "bytes");
    auto length = fakeobjc::msg<unsigned long>(data, "length");
    return initWithBytes(self, cmd, bytes, length, encoding);
}

id initWithFormat(id self, SEL, id format, ...)
{
    va_list args;
    va_start(args, format);
    state(self).assign(formatV(utf8Of(format).c_str(), args));
    va_end(args);
    return self;
}

id initWithFormatArguments(id self, SEL, id format, va_list args)
{
    state(self).assign(formatV(utf8Of(format).c_str(), args));
    return self;
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSString", self);
}

// ---- queries

const char *utf8String(id self, SEL)
{
    return state(self).utf8.c_str();
}

unsigned long length(id self, SEL)
{
    return state(self).length16;
}

unichar characterAtIndex(id self, SEL cmd, unsigned long index)
{
    const StringState &st = state(self);
    if (index >= st.length16)
        fakeobjc::raiseFormat("NSRangeException", "-[%s %s]: Range or index out of bounds", object_getClassName(self),
                              sel_getName(cmd));
    if (st.ascii)
        return static_cast<unsigned char>(st.utf8[index]);
    size_t units = 0;
    for (size_t i = 0; i < st.utf8.size();) {
        uint32_t cp = decodeAt(st.utf8, i);
        if (cp < 0x10000) {
            if (units == index)
                return static_cast<unichar>(cp);
            units += 1;
        } else {
            cp -= 0x10000;
            if (units == index)
                return static_cast<unichar>(0xD800 + (cp >> 10));
            if (units + 1 == index)
                return static_cast<unichar>(0xDC00 + (cp & 0x3FF));
            units += 2;
        }
    }
    return 0;
}

bool isEqualToString(id self, SEL, id other)
{
    if (self == other)
        return true;
    if (!other)
        return false;
    return state(self).utf8 == utf8Of(other);
}

bool isEqual(id self, SEL cmd, id other)
{
    return self == other || (other && isKind(other, gNSString) && isEqualToString(self, cmd, other));
}

unsigned long hash(id self, SEL)
{
    unsigned long h = 1469598103934665603ul;
    for (unsigned char byte : state(self).utf8) {
        h ^= byte;
        h *= 1099511628211ul;
    }
    return h;
}

long compare(id self, SEL cmd, id other)
{
    if (!other)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: nil argument", object_getClassName(self),
                              sel_getName(cmd));
    const StringState &a = state(self);
    std::string b = utf8Of(other);
    int order;
    if (a.ascii && std::none_of(b.begin(), b.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; })) {
        order = a.utf8.compare(b);
    } else {
        // UTF-16 order differs from code-point order above U+E000 (surrogates sort lower).
        order = toUTF16(a.utf8).compare(toUTF16(b));
    }
    return order < 0 ? NSOrderedAscending : order > 0 ? NSOrderedDescending : NSOrderedSame;
}

bool hasPrefix(id self, SEL, id prefix)
{
    std::string p = utf8Of(prefix);
    const std::string &s = state(self).utf8;
    return !p.empty() && s.size() >= p.size() && s.compare(0, p.size(), p) == 0;
}

bool hasSuffix(id self, SEL, id suffix)
{
    std::string p = utf8Of(suffix);
    const std::string &s = state(self).utf8;
    return !p.empty() && s.size() >= p.size() && s.compare(s.size() - p.size(), p.size(), p) == 0;
}

NSRange rangeOfString(id self, SEL cmd, id other)
{
    std::string needle = argText(self, cmd, other);
    const StringState &st = state(self);
    size_t at = needle.empty() ? std::string::npos : st.utf8.find(needle);
    if (at == std::string::npos)
        return {static_cast<NSUInteger>(NSNotFound), 0};
    size_t start = unitOffsetOf(st, at);
    return {start, unitOffsetOf(st, at + needle.size()) - start};
}

bool containsString(id self, SEL cmd, id other)
{
    return rangeOfString(self, cmd, other).location != static_cast<NSUInteger>(NSNotFound);
}

id substringFromIndex(id self, SEL cmd, unsigned long index)
{
    const StringState &st = state(self);
    if (index > st.length16)
        fakeobjc::raiseFormat("NSRangeException", "-[%s %s]: Index %lu out of bounds; string length %zu",
                              object_getClassName(self), sel_getName(cmd), index, st.length16);
    return autoString(std::string_view(st.utf8).substr(byteOffsetOf(st, index)));
}

id substringToIndex(id self, SEL cmd, unsigned long index)
{
    const StringState &st = state(self);
    if (index > st.length16)
        fakeobjc::raiseFormat("NSRangeException", "-[%s %s]: Index %lu out of bounds; string length %zu",
                              object_getClassName(self), sel_getName(cmd), index, st.length16);
    return autoString(std::string_view(st.utf8).substr(0, byteOffsetOf(st, index)));
}

id substringWithRange(id self, SEL cmd, NSRange range)
{
    const StringState &st = state(self);
    if (range.location > st.length16 || range.length > st.length16 - range.location)
        fakeobjc::raiseFormat("NSRangeException", "-[%s %s]: Range {%lu, %lu} out of bounds; string length %zu",
                              object_getClassName(self), sel_getName(cmd), range.location, range.length, st.length16);
    size_t begin = byteOffsetOf(st, range.location);
    size_t end = byteOffsetOf(st, range.location + range.length);
    return autoString(std::string_view(st.utf8).substr(begin, end - begin));
}

id stringByAppendingString(id self, SEL cmd, id other)
{
    return autoString(state(self).utf8 + argText(self, cmd, other));
}

id stringByAppendingPathComponent(id self, SEL cmd, id component)
{
    std::string base = state(self).utf8;
    std::string tail = argText(self, cmd, component);
    if (base.empty())
        return autoString(normalisedPath(tail));
    if (tail.empty())
        return autoString(normalisedPath(base));
    return autoString(normalisedPath(base + "/" + tail));
}

std::string lastComponentOf(const std::string &path)
{
    std::string p = path;
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    if (p == "/")
        return p;
    size_t slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

id lastPathComponent(id self, SEL)
{
    return autoString(lastComponentOf(state(self).utf8));
}

id pathExtension(id self, SEL)
{
    std::string last = lastComponentOf(state(self).utf8);
    size_t dot = last.rfind('.');
    if (dot == std::string::npos || dot == 0 || last == "/")
        return autoString("");
    return autoString(last.substr(dot + 1));
}

id stringByDeletingPathExtension(id self, SEL)
{
    std::string path = normalisedPath(state(self).utf8);
    std::string last = lastComponentOf(path);
    size_t dot = last.rfind('.');
    if (dot == std::string::npos || dot == 0)
        return autoString(path);
    return autoString(path.substr(0, path.size() - (last.size() - dot)));
}

id stringByDeletingLastPathComponent(id self, SEL)
{
    std::string path = normalisedPath(state(self).utf8);
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return autoString("");
    return autoString(slash == 0 ? "/" : path.substr(0, slash));
}

id dataUsingEncoding(id self, SEL, unsigned long encoding)
{
    std::string bytes;
    if (!encodeText(state(self).utf8, encoding, bytes))
        return nil;
    return objc_autorelease(newData(bytes.data(), bytes.size()));
}

// The bytes live in an autoreleased buffer, as Apple's inner pointer lives with the pool.
const char *cStringUsingEncoding(id self, SEL, unsigned long encoding)
{
    std::string bytes;
    if (!encodeText(state(self).utf8, encoding, bytes))
        return nullptr;
    id data = newData(bytes.c_str(), bytes.size() + 1);
    objc_autorelease(data);
    return static_cast<const char *>(fakeobjc::msg<const void *>(data, "bytes"));
}

bool getCString(id self, SEL, char *buffer, unsigned long maxLength, unsigned long encoding)
{
    std::string bytes;
    if (!buffer || !encodeText(state(self).utf8, encoding, bytes) || bytes.size() + 1 > maxLength)
        return false;
    std::memcpy(buffer, bytes.c_str(), bytes.size() + 1);
    return true;
}

long integerValue(id self, SEL)
{
    return parseInteger(state(self).utf8, LONG_MIN, LONG_MAX);
}

long long longLongValue(id self, SEL)
{
    return parseInteger(state(self).utf8, LLONG_MIN, LLONG_MAX);
}

int intValue(id self, SEL)
{
    return static_cast<int>(parseInteger(state(self).utf8, INT_MIN, INT_MAX));
}

double doubleValue(id self, SEL)
{
    const std::string &s = state(self).utf8;
    const char *begin = s.c_str();
    char *end = nullptr;
    double value = std::strtod(begin, &end);
    return end == begin ? 0.0 : value;
}

float floatValue(id self, SEL cmd)
{
    return static_cast<float>(doubleValue(self, cmd));
}

bool boolValue(id self, SEL)
{
    const std::string &s = state(self).utf8;
    size_t i = 0;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i])))
        ++i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-'))
        ++i;
    while (i < s.size() && s[i] == '0')
        ++i;
    return i < s.size() && std::strchr("YyTt123456789", s[i]) != nullptr;
}

id description(id self, SEL)
{
    return self;
}

id copyWithZone(id self, SEL, void *)
{
    if (isMutable(self))
        return newOfClass(gCFString, state(self).utf8);
    return objc_retain(self);
}

id mutableCopyWithZone(id self, SEL, void *)
{
    return newOfClass(gNSMutableString, state(self).utf8);
}

// ---- NSMutableString

void appendString(id self, SEL cmd, id other)
{
    requireMutable(self, cmd);
    std::string tail = argText(self, cmd, other);
    StringState &st = state(self);
    st.assign(st.utf8 + tail);
}

void appendFormat(id self, SEL cmd, id format, ...)
{
    requireMutable(self, cmd);
    va_list args;
    va_start(args, format);
    std::string tail = formatV(utf8Of(format).c_str(), args);
    va_end(args);
    StringState &st = state(self);
    st.assign(st.utf8 + tail);
}

void setString(id self, SEL cmd, id other)
{
    requireMutable(self, cmd);
    state(self).assign(utf8Of(other));
}

} // namespace

void declareStringClasses()
{
    fakeobjc::ClassDef def("NSString", "NSObject");
    def.stateIvar()
        .classMethod("alloc", allocString)
        .classMethod("allocWithZone:", allocStringWithZone)
        .classMethod("string", string)
        .classMethod("stringWithUTF8String:", stringWithUTF8String)
        .classMethod("stringWithString:", stringWithString)
        .classMethod("stringWithCString:encoding:", stringWithCString)
        .method("init", initEmpty)
        .method("initWithUTF8String:", initWithUTF8String)
        .method("initWithString:", initWithString)
        .method("initWithBytes:length:encoding:", initWithBytes)
        .method("initWithData:encoding:", initWithData)
        .method("initWithFormat:arguments:", initWithFormatArguments)
        .method("dealloc", dealloc)
        .method("UTF8String", utf8String)
        .method("length", length)
        .method("characterAtIndex:", characterAtIndex)
        .method("isEqualToString:", isEqualToString)
        .method("isEqual:", isEqual)
        .method("hash", hash)
        .method("compare:", compare)
        .method("hasPrefix:", hasPrefix)
        .method("hasSuffix:", hasSuffix)
        .method("rangeOfString:", rangeOfString)
        .method("containsString:", containsString)
        .method("substringFromIndex:", substringFromIndex)
        .method("substringToIndex:", substringToIndex)
        .method("substringWithRange:", substringWithRange)
        .method("stringByAppendingString:", stringByAppendingString)
        .method("stringByAppendingPathComponent:", stringByAppendingPathComponent)
        .method("stringByDeletingLastPathComponent", stringByDeletingLastPathComponent)
        .method("stringByDeletingPathExtension", stringByDeletingPathExtension)
        .method("lastPathComponent", lastPathComponent)
        .method("pathExtension", pathExtension)
        .method("dataUsingEncoding:", dataUsingEncoding)
        .method("getCString:maxLength:encoding:", getCString)
        .method("cStringUsingEncoding:", cStringUsingEncoding)
        .method("integerValue", integerValue)
        .method("longLongValue", longLongValue)
        .method("intValue", intValue)
        .method("doubleValue", doubleValue)
        .method("floatValue", floatValue)
        .method("boolValue", boolValue)
        .method("description", description)
        .method("copyWithZone:", copyWithZone)
        .method("mutableCopyWithZone:", mutableCopyWithZone);
    addVariadicMethod(def.cls(), true, "stringWithFormat:", reinterpret_cast<IMP>(stringWithFormat), "@@:@");
    addVariadicMethod(def.cls(), false, "initWithFormat:", reinterpret_cast<IMP>(initWithFormat), "@@:@");
    gNSString = def.registerWith(gSlot);

    fakeobjc::ClassDef mutableDef("NSMutableString", "NSString");
    mutableDef.classMethod("stringWithCapacity:", stringWithCapacity)
        .method("appendString:", appendString)
        .method("setString:", setString);
    addVariadicMethod(mutableDef.cls(), false, "appendFormat:", reinterpret_cast<IMP>(appendFormat), "v@:@");
    gNSMutableString = mutableDef.registerClass();

    gCFString = fakeobjc::ClassDef("__NSCFString", "NSString").registerClass();
    gConstantString = fakeobjc::ClassDef("__NSCFConstantString", "__NSCFString").registerClass();
    typeIDForClass(gNSString);
}

bool isValidUTF8(const unsigned char *s, size_t n)
{
    size_t i = 0;
    auto cont = [&](size_t k, unsigned char lo = 0x80, unsigned char hi = 0xBF) {
        return k < n && s[k] >= lo && s[k] <= hi;
    };
    while (i < n) {
        unsigned char c = s[i];
        if (c < 0x80) {
            i += 1;
        } else if (c >= 0xC2 && c <= 0xDF) {
            if (!cont(i + 1))
                return false;
            i += 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            // E0 excludes overlong forms, ED excludes the UTF-16 surrogates.
            unsigned char lo = c == 0xE0 ? 0xA0 : 0x80;
            unsigned char hi = c == 0xED ? 0x9F : 0xBF;
            if (!cont(i + 1, lo, hi) || !cont(i + 2))
                return false;
            i += 3;
        } else if (c >= 0xF0 && c <= 0xF4) {
            // F0 excludes overlong forms, F4 caps the code point at U+10FFFF.
            unsigned char lo = c == 0xF0 ? 0x90 : 0x80;
            unsigned char hi = c == 0xF4 ? 0x8F : 0xBF;
            if (!cont(i + 1, lo, hi) || !cont(i + 2) || !cont(i + 3))
                return false;
            i += 4;
        } else {
            return false;
        }
    }
    return true;
}

id newString(std::string_view utf8)
{
    return newOfClass(gCFString, std::string(utf8));
}

id autoString(std::string_view utf8)
{
    return objc_autorelease(newString(utf8));
}

id constantString(const char *text)
{
    ensureClasses();
    static auto *lock = new std::mutex(); // never destroyed: threads may use it during exit()
    static auto *interned = new std::unordered_map<std::string, id>();
    std::lock_guard<std::mutex> guard(*lock);
    auto [it, inserted] = interned->emplace(text ? text : "", nullptr);
    if (inserted) {
        it->second = newOfClass(gConstantString, it->first);
        fakeobjc::makeImmortal(it->second);
    }
    return it->second;
}

std::string utf8Of(id string)
{
    if (!string)
        return {};
    if (isKind(string, gNSString))
        return state(string).utf8;
    const char *text = fakeobjc::msg<const char *>(string, "UTF8String");
    return text ? text : "";
}

std::string describe(id object)
{
    if (!object)
        return "(null)";
    return utf8Of(fakeobjc::msg<id>(object, "description"));
}

} // namespace fakecf

using namespace fakecf;

extern "C" {

CFStringRef __CFStringMakeConstantString(const char *cStr)
{
    return reinterpret_cast<CFStringRef>(constantString(cStr));
}

CFTypeID CFStringGetTypeID(void)
{
    return typeIDForClass(gNSString);
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char *cStr, CFStringEncoding encoding)
{
    std::string text;
    if (!cStr || !decodeBytes(cStr, std::strlen(cStr), nsEncodingOf(encoding), text))
        return nullptr;
    return reinterpret_cast<CFStringRef>(newString(text));
}

Boolean CFStringGetCString(CFStringRef theString, char *buffer, CFIndex bufferSize, CFStringEncoding encoding)
{
    if (bufferSize <= 0)
        return false;
    return getCString(reinterpret_cast<id>(const_cast<__CFString *>(theString)), nullptr, buffer,
                      static_cast<unsigned long>(bufferSize), nsEncodingOf(encoding));
}

CFIndex CFStringGetLength(CFStringRef theString)
{
    return static_cast<CFIndex>(fakeobjc::msg<unsigned long>(reinterpret_cast<id>(const_cast<__CFString *>(theString)),
                                                             "length"));
}

} // extern "C"
