// NSDate: an immutable instant, seconds since 2001-01-01 00:00:00 GMT (CFAbsoluteTime).
#include "CoreFoundation/cfinternal.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace {

using fakecf::NSInteger;

struct DateState {
    double interval = 0;
};

fakeobjc::StateSlot<DateState> gSlot;
Class gDateClass;

// Apple's values: 4001-01-01 and 0001-01-01 (proleptic Gregorian), both at midnight GMT.
constexpr double kDistantFuture = 63113904000.0;
constexpr double kDistantPast = -63114076800.0;

double intervalOf(id date)
{
    return gSlot.get(date).interval;
}

id newDate(Class cls, double interval)
{
    id date = class_createInstance(cls, 0);
    gSlot.get(date).interval = interval;
    return date;
}

id autoDate(id self, double interval)
{
    return objc_autorelease(newDate(reinterpret_cast<Class>(self), interval));
}

id date(id self, SEL)
{
    return autoDate(self, CFAbsoluteTimeGetCurrent());
}

id dateWithTimeIntervalSinceNow(id self, SEL, double seconds)
{
    return autoDate(self, CFAbsoluteTimeGetCurrent() + seconds);
}

id dateWithTimeIntervalSinceReferenceDate(id self, SEL, double seconds)
{
    return autoDate(self, seconds);
}

id dateWithTimeIntervalSince1970(id self, SEL, double seconds)
{
    return autoDate(self, seconds - kCFAbsoluteTimeIntervalSince1970);
}

id distantFuture(id, SEL)
{
    static id shared = [] {
        id d = newDate(gDateClass, kDistantFuture);
        fakeobjc::makeImmortal(d);
        return d;
    }();
    return shared;
}

id distantPast(id, SEL)
{
    static id shared = [] {
        id d = newDate(gDateClass, kDistantPast);
        fakeobjc::makeImmortal(d);
        return d;
    }();
    return shared;
}

double classTimeIntervalSinceReferenceDate(id, SEL)
{
    return CFAbsoluteTimeGetCurrent();
}

id init(id self, SEL)
{
    gSlot.get(self).interval = CFAbsoluteTimeGetCurrent();
    return self;
}

id initWithTimeIntervalSinceNow(id self, SEL, double seconds)
{
    gSlot.get(self).interval = CFAbsoluteTimeGetCurrent() + seconds;
    return self;
}

id initWithTimeIntervalSinceReferenceDate(id self, SEL, double seconds)
{
    gSlot.get(self).interval = seconds;
    return self;
}

id initWithTimeIntervalSince1970(id self, SEL, double seconds)
{
    gSlot.get(self).interval = seconds - kCFAbsoluteTimeIntervalSince1970;
    return self;
}

double timeIntervalSinceReferenceDate(id self, SEL)
{
    return intervalOf(self);
}

double timeIntervalSinceNow(id self, SEL)
{
    return intervalOf(self) - CFAbsoluteTimeGetCurrent();
}

double timeIntervalSince1970(id self, SEL)
{
    return intervalOf(self) + kCFAbsoluteTimeIntervalSince1970;
}

double timeIntervalSinceDate(id self, SEL, id other)
{
    return intervalOf(self) - intervalOf(other);
}

id dateByAddingTimeInterval(id self, SEL, double seconds)
{
    return objc_autorelease(newDate(object_getClass(self), intervalOf(self) + seconds));
}

NSInteger compare(id self, SEL, id other)
{
    double a = intervalOf(self);
    double b = intervalOf(other);
    return a < b ? fakecf::NSOrderedAscending : a > b ? fakecf::NSOrderedDescending : fakecf::NSOrderedSame;
}

bool isEqualToDate(id self, SEL, id other)
{
    return other && intervalOf(self) == intervalOf(other);
}

bool isEqual(id self, SEL, id other)
{
    return self == other || (other && fakecf::isKind(other, gDateClass) && intervalOf(self) == intervalOf(other));
}

unsigned long hash(id self, SEL)
{
    return static_cast<unsigned long>(static_cast<long>(intervalOf(self)));
}

id earlierDate(id self, SEL, id other)
{
    return other && intervalOf(other) < intervalOf(self) ? other : self;
}

id laterDate(id self, SEL, id other)
{
    return other && intervalOf(other) > intervalOf(self) ? other : self;
}

// "2001-01-01 00:00:00 +0000", as -[NSDate description] prints in GMT.
id description(id self, SEL)
{
    double seconds = std::floor(intervalOf(self) + kCFAbsoluteTimeIntervalSince1970);
    time_t t = static_cast<time_t>(seconds);
    struct tm parts {};
    gmtime_r(&t, &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d +0000", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return fakecf::autoString(text);
}

// Immutable: a copy is the same object.
id copyWithZone(id self, SEL, void *)
{
    return objc_retain(self);
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSDate", self);
}

__attribute__((constructor(120))) void declareNSDate()
{
    gDateClass = fakeobjc::ClassDef("NSDate", "NSObject")
                     .stateIvar()
                     .classMethod("date", date)
                     .classMethod("dateWithTimeIntervalSinceNow:", dateWithTimeIntervalSinceNow)
                     .classMethod("dateWithTimeIntervalSinceReferenceDate:", dateWithTimeIntervalSinceReferenceDate)
                     .classMethod("dateWithTimeIntervalSince1970:", dateWithTimeIntervalSince1970)
                     .classMethod("distantFuture", distantFuture)
                     .classMethod("distantPast", distantPast)
                     .classMethod("timeIntervalSinceReferenceDate", classTimeIntervalSinceReferenceDate)
                     .method("init", init)
                     .method("initWithTimeIntervalSinceNow:", initWithTimeIntervalSinceNow)
                     .method("initWithTimeIntervalSinceReferenceDate:", initWithTimeIntervalSinceReferenceDate)
                     .method("initWithTimeIntervalSince1970:", initWithTimeIntervalSince1970)
                     .method("timeIntervalSinceReferenceDate", timeIntervalSinceReferenceDate)
                     .method("timeIntervalSinceNow", timeIntervalSinceNow)
                     .method("timeIntervalSince1970", timeIntervalSince1970)
                     .method("timeIntervalSinceDate:", timeIntervalSinceDate)
                     .method("dateByAddingTimeInterval:", dateByAddingTimeInterval)
                     .method("compare:", compare)
                     .method("isEqualToDate:", isEqualToDate)
                     .method("isEqual:", isEqual)
                     .method("hash", hash)
                     .method("earlierDate:", earlierDate)
                     .method("laterDate:", laterDate)
                     .method("description", description)
                     .method("copyWithZone:", copyWithZone)
                     .method("dealloc", dealloc)
                     .registerWith(gSlot);
}

} // namespace
