// NSNumber (class __NSCFNumber) and its two booleans (__NSCFBoolean, which are kCFBooleanTrue and
// kCFBooleanFalse and what +numberWithBool: returns), with CFNumber's and CFBoolean's C API.
#include "cfinternal.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace fakecf {
namespace {

enum class Kind { Signed, Unsigned, Floating, Boolean };

struct NumberState {
    Kind kind = Kind::Signed;
    long long i = 0;
    unsigned long long u = 0;
    double d = 0;
    const char *objCType = "i";
};

fakeobjc::StateSlot<NumberState> gSlot;
Class gNSNumber;
Class gCFNumber;
Class gCFBoolean;
id gTrue;
id gFalse;

NumberState &state(id self)
{
    return gSlot.get(self);
}

// The @encode of the stored type; NSNumber reports a BOOL as a char ("c"), as Apple's does.
template <typename T>
const char *typeCode()
{
    if constexpr (std::is_same_v<T, bool>) {
        return "c";
    } else {
        static const std::string code = fakeobjc::Encoding<T>::get();
        return code.c_str();
    }
}

template <typename T>
void store(NumberState &st, T value)
{
    st.objCType = typeCode<T>();
    if constexpr (std::is_floating_point_v<T>) {
        st.kind = Kind::Floating;
        st.d = value;
    } else if constexpr (std::is_signed_v<T>) {
        st.kind = Kind::Signed;
        st.i = value;
    } else {
        st.kind = Kind::Unsigned;
        st.u = value;
    }
}

// Floating to integer saturates (as arm64 converts), so out-of-range values are not undefined.
template <typename T>
T fromDouble(double d)
{
    if (std::isnan(d))
        return 0;
    if (d <= static_cast<double>(std::numeric_limits<T>::min()))
        return std::numeric_limits<T>::min();
    if (d >= static_cast<double>(std::numeric_limits<T>::max()))
        return std::numeric_limits<T>::max();
    return static_cast<T>(d);
}

template <typename T>
T valueOf(const NumberState &st)
{
    if constexpr (std::is_same_v<T, bool>) {
        switch (st.kind) {
        case Kind::Floating:
            return st.d != 0;
        case Kind::Unsigned:
            return st.u != 0;
        default:
            return st.i != 0;
        }
    } else if constexpr (std::is_floating_point_v<T>) {
        return st.kind == Kind::Floating   ? static_cast<T>(st.d)
               : st.kind == Kind::Unsigned ? static_cast<T>(st.u)
                                           : static_cast<T>(st.i);
    } else {
        switch (st.kind) {
        case Kind::Floating:
            return fromDouble<T>(st.d);
        case Kind::Unsigned:
            return static_cast<T>(st.u);
        default:
            return static_cast<T>(st.i);
        }
    }
}

id newNumber(const NumberState &st)
{
    id obj = class_createInstance(gCFNumber, 0);
    state(obj) = st;
    return obj;
}

template <typename T>
id numberWith(id self, SEL, T value)
{
    if constexpr (std::is_same_v<T, bool>)
        return value ? gTrue : gFalse;
    NumberState st;
    store(st, value);
    return objc_autorelease(newNumber(st));
}

template <typename T>
id initWith(id self, SEL, T value)
{
    if constexpr (std::is_same_v<T, bool>) {
        objc_release(self);
        return value ? gTrue : gFalse;
    }
    store(state(self), value);
    return self;
}

template <typename T>
T accessor(id self, SEL)
{
    return valueOf<T>(state(self));
}

int compareStates(const NumberState &a, const NumberState &b)
{
    if (a.kind == Kind::Floating || b.kind == Kind::Floating) {
        double x = valueOf<double>(a), y = valueOf<double>(b);
        return x < y ? -1 : x > y ? 1 : 0;
    }
    auto wide = [](const NumberState &s) -> __int128 {
        return s.kind == Kind::Unsigned ? static_cast<__int128>(s.u) : static_cast<__int128>(s.i);
    };
    __int128 x = wide(a), y = wide(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

id allocNumber(id self, SEL)
{
    return allocConcrete(self, gNSNumber, gCFNumber);
}

id allocNumberWithZone(id self, SEL, void *)
{
    return allocConcrete(self, gNSNumber, gCFNumber);
}

bool isEqualToNumber(id self, SEL, id other)
{
    if (self == other)
        return true;
    if (!other || !isKind(other, gNSNumber))
        return false;
    return compareStates(state(self), state(other)) == 0;
}

long compare(id self, SEL cmd, id other)
{
    if (!other)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[%s %s]: nil argument", object_getClassName(self),
                              sel_getName(cmd));
    return compareStates(state(self), state(other));
}

// Equal numbers hash equally whatever their kind: integral doubles hash as their integer.
unsigned long hash(id self, SEL)
{
    const NumberState &st = state(self);
    if (st.kind == Kind::Unsigned)
        return static_cast<unsigned long>(st.u);
    if (st.kind != Kind::Floating)
        return static_cast<unsigned long>(st.i);
    if (std::trunc(st.d) == st.d && std::fabs(st.d) < 9.2e18)
        return static_cast<unsigned long>(static_cast<long long>(st.d));
    unsigned long bits;
    std::memcpy(&bits, &st.d, sizeof bits);
    return bits * 0x9E3779B97F4A7C15ul;
}

// The shortest %g text that reads back as the same value, as Apple prints doubles.
std::string shortestDouble(double d, bool single)
{
    char text[64];
    for (int precision = 1; precision <= 17; ++precision) {
        std::snprintf(text, sizeof text, "%.*g", precision, d);
        double back = std::strtod(text, nullptr);
        if (single ? static_cast<float>(back) == static_cast<float>(d) : back == d)
            break;
    }
    return text;
}

std::string textOf(const NumberState &st)
{
    switch (st.kind) {
    case Kind::Boolean:
    case Kind::Signed:
        return std::to_string(st.i);
    case Kind::Unsigned:
        return std::to_string(st.u);
    case Kind::Floating:
        return shortestDouble(st.d, st.objCType[0] == 'f');
    }
    return {};
}

id description(id self, SEL)
{
    return autoString(textOf(state(self)));
}

const char *objCType(id self, SEL)
{
    return state(self).objCType;
}

id copyWithZone(id self, SEL, void *)
{
    return objc_retain(self);
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSNumber", self);
}

id makeBoolean(bool value)
{
    id obj = class_createInstance(gCFBoolean, 0);
    NumberState &st = state(obj);
    st.kind = Kind::Boolean;
    st.i = value;
    st.objCType = "c";
    fakeobjc::makeImmortal(obj);
    return obj;
}

} // namespace

void declareNumberClasses()
{
    gNSNumber = fakeobjc::ClassDef("NSNumber", "NSObject")
                    .stateIvar()
                    .classMethod("alloc", allocNumber)
                    .classMethod("allocWithZone:", allocNumberWithZone)
                    .classMethod("numberWithBool:", numberWith<bool>)
                    .classMethod("numberWithChar:", numberWith<char>)
                    .classMethod("numberWithUnsignedChar:", numberWith<unsigned char>)
                    .classMethod("numberWithShort:", numberWith<short>)
                    .classMethod("numberWithUnsignedShort:", numberWith<unsigned short>)
                    .classMethod("numberWithInt:", numberWith<int>)
                    .classMethod("numberWithUnsignedInt:", numberWith<unsigned int>)
                    .classMethod("numberWithLong:", numberWith<long>)
                    .classMethod("numberWithUnsignedLong:", numberWith<unsigned long>)
                    .classMethod("numberWithLongLong:", numberWith<long long>)
                    .classMethod("numberWithUnsignedLongLong:", numberWith<unsigned long long>)
                    .classMethod("numberWithInteger:", numberWith<long>)
                    .classMethod("numberWithUnsignedInteger:", numberWith<unsigned long>)
                    .classMethod("numberWithFloat:", numberWith<float>)
                    .classMethod("numberWithDouble:", numberWith<double>)
                    .method("initWithBool:", initWith<bool>)
                    .method("initWithChar:", initWith<char>)
                    .method("initWithUnsignedChar:", initWith<unsigned char>)
                    .method("initWithShort:", initWith<short>)
                    .method("initWithUnsignedShort:", initWith<unsigned short>)
                    .method("initWithInt:", initWith<int>)
                    .method("initWithUnsignedInt:", initWith<unsigned int>)
                    .method("initWithLong:", initWith<long>)
                    .method("initWithUnsignedLong:", initWith<unsigned long>)
                    .method("initWithLongLong:", initWith<long long>)
                    .method("initWithUnsignedLongLong:", initWith<unsigned long long>)
                    .method("initWithInteger:", initWith<long>)
                    .method("initWithUnsignedInteger:", initWith<unsigned long>)
                    .method("initWithFloat:", initWith<float>)
                    .method("initWithDouble:", initWith<double>)
                    .method("boolValue", accessor<bool>)
                    .method("charValue", accessor<char>)
                    .method("unsignedCharValue", accessor<unsigned char>)
                    .method("shortValue", accessor<short>)
                    .method("unsignedShortValue", accessor<unsigned short>)
                    .method("intValue", accessor<int>)
                    .method("unsignedIntValue", accessor<unsigned int>)
                    .method("longValue", accessor<long>)
                    .method("unsignedLongValue", accessor<unsigned long>)
                    .method("longLongValue", accessor<long long>)
                    .method("unsignedLongLongValue", accessor<unsigned long long>)
                    .method("integerValue", accessor<long>)
                    .method("unsignedIntegerValue", accessor<unsigned long>)
                    .method("floatValue", accessor<float>)
                    .method("doubleValue", accessor<double>)
                    .method("isEqual:", isEqualToNumber)
                    .method("isEqualToNumber:", isEqualToNumber)
                    .method("compare:", compare)
                    .method("hash", hash)
                    .method("description", description)
                    .method("stringValue", description)
                    .method("objCType", objCType)
                    .method("copyWithZone:", copyWithZone)
                    .method("dealloc", dealloc)
                    .registerWith(gSlot);
    gCFNumber = fakeobjc::ClassDef("__NSCFNumber", "NSNumber").registerClass();
    gCFBoolean = fakeobjc::ClassDef("__NSCFBoolean", "NSNumber").registerClass();
    gTrue = makeBoolean(true);
    gFalse = makeBoolean(false);
    typeIDForClass(gCFNumber);
    typeIDForClass(gCFBoolean);
}

} // namespace fakecf

using namespace fakecf;

namespace {

id booleanConstant(bool value)
{
    ensureClasses();
    return value ? gTrue : gFalse;
}

id asObject(const void *cf)
{
    return reinterpret_cast<id>(const_cast<void *>(cf));
}

// Reads a value of a CFNumberType into a number's state; false for an unknown type.
bool readNumber(CFNumberType type, const void *p, NumberState &st)
{
    switch (type) {
    case kCFNumberSInt8Type:
    case kCFNumberCharType:
        store(st, *static_cast<const signed char *>(p));
        return true;
    case kCFNumberSInt16Type:
    case kCFNumberShortType:
        store(st, *static_cast<const short *>(p));
        return true;
    case kCFNumberSInt32Type:
    case kCFNumberIntType:
        store(st, *static_cast<const int *>(p));
        return true;
    case kCFNumberSInt64Type:
    case kCFNumberLongLongType:
        store(st, *static_cast<const long long *>(p));
        return true;
    case kCFNumberLongType:
    case kCFNumberCFIndexType:
    case kCFNumberNSIntegerType:
        store(st, *static_cast<const long *>(p));
        return true;
    case kCFNumberFloat32Type:
    case kCFNumberFloatType:
        store(st, *static_cast<const float *>(p));
        return true;
    case kCFNumberFloat64Type:
    case kCFNumberDoubleType:
    case kCFNumberCGFloatType:
        store(st, *static_cast<const double *>(p));
        return true;
    default:
        return false;
    }
}

template <typename T>
Boolean writeValue(const NumberState &st, void *p)
{
    T value = valueOf<T>(st);
    *static_cast<T *>(p) = value;
    NumberState back;
    store(back, value);
    if (st.kind == Kind::Floating && !std::is_floating_point_v<T>)
        return static_cast<double>(value) == st.d;
    return compareStates(back, st) == 0;
}

} // namespace

extern "C" {

const CFBooleanRef kCFBooleanTrue = reinterpret_cast<CFBooleanRef>(booleanConstant(true));
const CFBooleanRef kCFBooleanFalse = reinterpret_cast<CFBooleanRef>(booleanConstant(false));

CFTypeID CFBooleanGetTypeID(void)
{
    return typeIDForClass(gCFBoolean);
}

Boolean CFBooleanGetValue(CFBooleanRef boolean)
{
    return fakeobjc::msg<bool>(asObject(boolean), "boolValue");
}

CFTypeID CFNumberGetTypeID(void)
{
    return typeIDForClass(gCFNumber);
}

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType theType, const void *valuePtr)
{
    NumberState st;
    if (!valuePtr || !readNumber(theType, valuePtr, st))
        return nullptr;
    return reinterpret_cast<CFNumberRef>(newNumber(st));
}

CFNumberType CFNumberGetType(CFNumberRef number)
{
    const NumberState &st = state(asObject(number));
    switch (st.objCType[0]) {
    case 'c':
    case 'C':
        return kCFNumberSInt8Type;
    case 's':
    case 'S':
        return kCFNumberSInt16Type;
    case 'i':
    case 'I':
        return kCFNumberSInt32Type;
    case 'f':
        return kCFNumberFloat32Type;
    case 'd':
        return kCFNumberFloat64Type;
    default:
        return kCFNumberSInt64Type;
    }
}

Boolean CFNumberIsFloatType(CFNumberRef number)
{
    return state(asObject(number)).kind == Kind::Floating;
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void *valuePtr)
{
    const NumberState &st = state(asObject(number));
    switch (theType) {
    case kCFNumberSInt8Type:
    case kCFNumberCharType:
        return writeValue<signed char>(st, valuePtr);
    case kCFNumberSInt16Type:
    case kCFNumberShortType:
        return writeValue<short>(st, valuePtr);
    case kCFNumberSInt32Type:
    case kCFNumberIntType:
        return writeValue<int>(st, valuePtr);
    case kCFNumberSInt64Type:
    case kCFNumberLongLongType:
        return writeValue<long long>(st, valuePtr);
    case kCFNumberLongType:
    case kCFNumberCFIndexType:
    case kCFNumberNSIntegerType:
        return writeValue<long>(st, valuePtr);
    case kCFNumberFloat32Type:
    case kCFNumberFloatType:
        return writeValue<float>(st, valuePtr);
    case kCFNumberFloat64Type:
    case kCFNumberDoubleType:
    case kCFNumberCGFloatType:
        return writeValue<double>(st, valuePtr);
    default:
        return false;
    }
}

} // extern "C"
