// What CoreFoundation's files share with each other and with the frameworks above it
// (Foundation, and fakesdk's other frameworks that make strings, numbers, arrays and errors):
// Foundation's scalar types, helpers that make the bridged objects from C++, and the formatter.
#pragma once

#include "objc/define.h"

#include <CoreFoundation/CoreFoundation.h>

#include <cstdarg>
#include <climits>
#include <string>
#include <string_view>

// Apple's declaration, at global scope: a method returning or taking NSRange must have the very
// type its callers cast the IMP to, or UBSan's -fsanitize=function flags the call.
typedef struct _NSRange {
    unsigned long location;
    unsigned long length;
} NSRange;

namespace fakecf {

using NSInteger = long;
using NSUInteger = unsigned long;
using unichar = unsigned short;
using ::NSRange;

inline constexpr NSInteger NSNotFound = LONG_MAX;

enum : NSUInteger {
    NSASCIIStringEncoding = 1,
    NSUTF8StringEncoding = 4,
    NSISOLatin1StringEncoding = 5,
};

enum : NSInteger {
    NSOrderedAscending = -1,
    NSOrderedSame = 0,
    NSOrderedDescending = 1,
};

// Declares every CoreFoundation class once; safe to call from any initialiser.
void ensureClasses();

// A type ID per bridged class (CFGetTypeID walks up the class chain to the first registered one).
CFTypeID typeIDForClass(Class cls);

// ---- strings

bool isValidUTF8(const unsigned char *bytes, size_t length);
// +1 immutable string over valid UTF-8 (the caller validated it).
id newString(std::string_view utf8);
// Autoreleased immutable string.
id autoString(std::string_view utf8);
// Interned, immortal string: the object behind CFSTR and the exported NSString constants.
id constantString(const char *text);
// The UTF-8 bytes of an NSString ("" for nil).
std::string utf8Of(id string);
// The description of any object as UTF-8; "(null)" for nil.
std::string describe(id object);

// printf-style formatting plus %@ (the object's description, "(null)" for nil), as
// +[NSString stringWithFormat:] does. The va_list is consumed by the caller's va_copy rules:
// this function copies it first, so the caller's list is left untouched.
std::string formatV(const char *format, va_list args);

// ---- other objects (+1 results)

id newData(const void *bytes, size_t length);
id newArray(const id *objects, size_t count);
id newMutableArray();
id newMutableDictionary();
// Sets object for key in a mutable dictionary; copyKey copies the key as -setObject:forKey: does.
void dictionarySet(id dictionary, id key, id object, bool copyKey);
id newError(id domain, NSInteger code, id userInfo);

// Indented description of collections, so that nested arrays and dictionaries print as Apple's do.
std::string describeIndented(id object, int indent);

} // namespace fakecf

FAKEOBJC_ENCODING(NSRange, "{_NSRange=QQ}");

namespace fakecf {

inline bool isKind(id object, Class cls)
{
    for (Class c = object_getClass(object); c; c = class_getSuperclass(c))
        if (c == cls)
            return true;
    return false;
}

// ClassDef derives encodings from non-variadic function types only; format methods
// (stringWithFormat:, raise:format:) are C-variadic IMPs and get their encoding spelled out.
inline void addVariadicMethod(Class cls, bool classMethod, const char *selector, IMP imp, const char *types)
{
    Class target = classMethod ? object_getClass(reinterpret_cast<id>(cls)) : cls;
    class_addMethod(target, sel_registerName(selector), imp, types);
}

// The class that +alloc of an abstract public class (NSArray, NSString, ...) instantiates.
inline id allocConcrete(id self, Class publicClass, Class concreteClass)
{
    Class cls = reinterpret_cast<Class>(self);
    return class_createInstance(cls == publicClass ? concreteClass : cls, 0);
}

// The kCFType collection callbacks, shared by CFArray and CFDictionary.
const void *retainCallBack(CFAllocatorRef, const void *value);
void releaseCallBack(CFAllocatorRef, const void *value);
CFStringRef copyDescriptionCallBack(const void *value);
Boolean equalCallBack(const void *a, const void *b);

} // namespace fakecf
