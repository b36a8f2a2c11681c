// CMTime arithmetic and the host clock. Exact rational arithmetic on 128-bit intermediates;
// results that do not fit are rounded to a smaller timescale and flagged HasBeenRounded.
#include "CoreFoundation/cfinternal.h"
#include "objc/define.h"

#include <CoreMedia/CoreMedia.h>

#include <cmath>
#include <ctime>
#include <limits>
#include <numeric>

using namespace fakeobjc;

namespace {

using i128 = __int128;

constexpr CMTime make(CMTimeValue value, CMTimeScale timescale, CMTimeFlags flags, CMTimeEpoch epoch)
{
    return CMTime{value, timescale, flags, epoch};
}

bool isNumeric(const CMTime &t)
{
    return CMTIME_IS_NUMERIC(t);
}

// Divides n by d (d > 0) with the given rounding; inexact is set when a remainder was dropped.
i128 divideRounded(i128 n, i128 d, CMTimeRoundingMethod method, bool &inexact)
{
    i128 q = n / d, r = n % d;
    inexact = r != 0;
    if (!inexact)
        return q;
    bool negative = n < 0;
    i128 awayFromZero = negative ? q - 1 : q + 1;
    switch (method) {
    case kCMTimeRoundingMethod_RoundTowardZero:
        return q;
    case kCMTimeRoundingMethod_RoundAwayFromZero:
        return awayFromZero;
    case kCMTimeRoundingMethod_RoundTowardPositiveInfinity:
        return negative ? q : q + 1;
    case kCMTimeRoundingMethod_RoundTowardNegativeInfinity:
        return negative ? q - 1 : q;
    case kCMTimeRoundingMethod_RoundHalfAwayFromZero:
    default: {
        i128 twice = (r < 0 ? -r : r) * 2;
        return twice >= d ? awayFromZero : q;
    }
    }
}

bool fitsValue(i128 v)
{
    return v >= std::numeric_limits<int64_t>::min() && v <= std::numeric_limits<int64_t>::max();
}

// value/timescale as a CMTime, halving the timescale until the value fits into 64 bits.
CMTime fromRational(i128 value, i128 timescale, CMTimeFlags flags, CMTimeEpoch epoch)
{
    while (!fitsValue(value) || timescale > kCMTimeMaxTimescale) {
        if (timescale <= 1)
            return value > 0 ? kCMTimePositiveInfinity : kCMTimeNegativeInfinity;
        bool inexact = false;
        value = divideRounded(value, 2, kCMTimeRoundingMethod_RoundHalfAwayFromZero, inexact);
        timescale /= 2;
        flags |= kCMTimeFlags_HasBeenRounded;
    }
    return make(CMTimeValue(value), CMTimeScale(timescale), flags, epoch);
}

// -inf < numeric < indefinite < +inf < invalid.
int rank(const CMTime &t)
{
    if (!CMTIME_IS_VALID(t))
        return 4;
    if (t.flags & kCMTimeFlags_NegativeInfinity)
        return 0;
    if (t.flags & kCMTimeFlags_PositiveInfinity)
        return 3;
    if (t.flags & kCMTimeFlags_Indefinite)
        return 2;
    return 1;
}

CMTime addSigned(CMTime lhs, CMTime rhs, int sign)
{
    if (!CMTIME_IS_VALID(lhs) || !CMTIME_IS_VALID(rhs))
        return kCMTimeInvalid;
    if (CMTIME_IS_INDEFINITE(lhs) || CMTIME_IS_INDEFINITE(rhs))
        return kCMTimeIndefinite;
    bool lPos = CMTIME_IS_POSITIVE_INFINITY(lhs), lNeg = CMTIME_IS_NEGATIVE_INFINITY(lhs);
    // Subtracting +inf is adding -inf.
    bool rPos = sign > 0 ? CMTIME_IS_POSITIVE_INFINITY(rhs) : CMTIME_IS_NEGATIVE_INFINITY(rhs);
    bool rNeg = sign > 0 ? CMTIME_IS_NEGATIVE_INFINITY(rhs) : CMTIME_IS_POSITIVE_INFINITY(rhs);
    if ((lPos && rNeg) || (lNeg && rPos))
        return kCMTimeInvalid;
    if (lPos || rPos)
        return kCMTimePositiveInfinity;
    if (lNeg || rNeg)
        return kCMTimeNegativeInfinity;
    if (lhs.epoch != rhs.epoch || lhs.timescale <= 0 || rhs.timescale <= 0)
        return kCMTimeInvalid;
    CMTimeFlags rounded = (lhs.flags | rhs.flags) & kCMTimeFlags_HasBeenRounded;
    i128 scale = std::lcm(int64_t(lhs.timescale), int64_t(rhs.timescale));
    if (scale > kCMTimeMaxTimescale) {
        // No common timescale fits: use the finer of the two and round the other operand.
        scale = std::max(lhs.timescale, rhs.timescale);
        CMTimeFlags flags = kCMTimeFlags_Valid | rounded;
        bool inexactL = false, inexactR = false;
        i128 l = divideRounded(i128(lhs.value) * scale, lhs.timescale, kCMTimeRoundingMethod_Default, inexactL);
        i128 r = divideRounded(i128(rhs.value) * scale, rhs.timescale, kCMTimeRoundingMethod_Default, inexactR);
        if (inexactL || inexactR)
            flags |= kCMTimeFlags_HasBeenRounded;
        return fromRational(l + sign * r, scale, flags, lhs.epoch);
    }
    i128 l = i128(lhs.value) * (scale / lhs.timescale);
    i128 r = i128(rhs.value) * (scale / rhs.timescale);
    return fromRational(l + sign * r, scale, kCMTimeFlags_Valid | rounded, lhs.epoch);
}

struct ClockState { };
StateSlot<ClockState> gClockSlot;
Class gClockClass;
id gHostClock;

__attribute__((constructor)) void declareClock()
{
    gClockClass = ClassDef("OpaqueCMClock", "NSObject").stateIvar().registerWith(gClockSlot);
    gHostClock = class_createInstance(gClockClass, 0);
    makeImmortal(gHostClock);
}

} // namespace

extern "C" {

const CMTime kCMTimeInvalid = make(0, 0, 0, 0);
const CMTime kCMTimeIndefinite = make(0, 0, kCMTimeFlags_Valid | kCMTimeFlags_Indefinite, 0);
const CMTime kCMTimePositiveInfinity = make(0, 0, kCMTimeFlags_Valid | kCMTimeFlags_PositiveInfinity, 0);
const CMTime kCMTimeNegativeInfinity = make(0, 0, kCMTimeFlags_Valid | kCMTimeFlags_NegativeInfinity, 0);
const CMTime kCMTimeZero = make(0, 1, kCMTimeFlags_Valid, 0);

CMTime CMTimeMake(int64_t value, int32_t timescale)
{
    return CMTimeMakeWithEpoch(value, timescale, 0);
}

CMTime CMTimeMakeWithEpoch(int64_t value, int32_t timescale, int64_t epoch)
{
    if (timescale <= 0)
        return kCMTimeInvalid;
    return make(value, timescale, kCMTimeFlags_Valid, epoch);
}

CMTime CMTimeMakeWithSeconds(Float64 seconds, int32_t preferredTimescale)
{
    if (std::isnan(seconds) || preferredTimescale <= 0)
        return kCMTimeInvalid;
    if (std::isinf(seconds))
        return seconds > 0 ? kCMTimePositiveInfinity : kCMTimeNegativeInfinity;
    CMTimeFlags flags = kCMTimeFlags_Valid;
    int32_t timescale = preferredTimescale;
    // Too many seconds for this timescale: coarsen it until the value fits.
    while (std::fabs(seconds * timescale) >= 9.2e18) {
        if (timescale == 1)
            return seconds > 0 ? kCMTimePositiveInfinity : kCMTimeNegativeInfinity;
        timescale /= 2;
        flags |= kCMTimeFlags_HasBeenRounded;
    }
    double exact = seconds * timescale;
    double rounded = std::round(exact);
    if (rounded != exact)
        flags |= kCMTimeFlags_HasBeenRounded;
    return make(int64_t(rounded), timescale, flags, 0);
}

Float64 CMTimeGetSeconds(CMTime time)
{
    if (!CMTIME_IS_VALID(time) || CMTIME_IS_INDEFINITE(time))
        return std::numeric_limits<double>::quiet_NaN();
    if (CMTIME_IS_POSITIVE_INFINITY(time))
        return std::numeric_limits<double>::infinity();
    if (CMTIME_IS_NEGATIVE_INFINITY(time))
        return -std::numeric_limits<double>::infinity();
    if (time.timescale == 0)
        return std::numeric_limits<double>::quiet_NaN();
    return double(time.value) / double(time.timescale);
}

CMTime CMTimeConvertScale(CMTime time, int32_t newTimescale, CMTimeRoundingMethod method)
{
    if (!isNumeric(time))
        return time;
    if (newTimescale <= 0 || time.timescale <= 0)
        return kCMTimeInvalid;
    if (newTimescale == time.timescale)
        return time;
    CMTimeRoundingMethod effective = method;
    if (method == kCMTimeRoundingMethod_QuickTime)
        effective = newTimescale < time.timescale ? kCMTimeRoundingMethod_RoundTowardZero
                                                  : kCMTimeRoundingMethod_RoundAwayFromZero;
    bool inexact = false;
    i128 value = divideRounded(i128(time.value) * newTimescale, time.timescale, effective, inexact);
    // QuickTime rounding never turns a negative time into zero.
    if (method == kCMTimeRoundingMethod_QuickTime && value == 0 && time.value < 0)
        value = -1;
    CMTimeFlags flags = time.flags | (inexact ? kCMTimeFlags_HasBeenRounded : 0);
    if (!fitsValue(value))
        return value > 0 ? kCMTimePositiveInfinity : kCMTimeNegativeInfinity;
    return make(CMTimeValue(value), newTimescale, flags, time.epoch);
}

CMTime CMTimeAdd(CMTime lhs, CMTime rhs)
{
    return addSigned(lhs, rhs, 1);
}

CMTime CMTimeSubtract(CMTime lhs, CMTime rhs)
{
    return addSigned(lhs, rhs, -1);
}

int32_t CMTimeCompare(CMTime time1, CMTime time2)
{
    int r1 = rank(time1), r2 = rank(time2);
    if (r1 != r2)
        return r1 < r2 ? -1 : 1;
    if (r1 != 1)
        return 0;
    if (time1.epoch != time2.epoch)
        return time1.epoch < time2.epoch ? -1 : 1;
    i128 a = i128(time1.value) * time2.timescale;
    i128 b = i128(time2.value) * time1.timescale;
    return a < b ? -1 : (a > b ? 1 : 0);
}

CFTypeID CMClockGetTypeID(void)
{
    return fakecf::typeIDForClass(gClockClass);
}

CMClockRef CMClockGetHostTimeClock(void)
{
    return reinterpret_cast<CMClockRef>(gHostClock);
}

// The host clock counts CLOCK_MONOTONIC nanoseconds, the Linux counterpart of mach_absolute_time
// on Apple silicon simulators' ns-like timebase.
CMTime CMClockGetTime(CMClockRef clock)
{
    if (!clock || reinterpret_cast<id>(clock) != gHostClock)
        return kCMTimeInvalid;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return CMClockMakeHostTimeFromSystemUnits(uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec));
}

uint64_t CMClockConvertHostTimeToSystemUnits(CMTime hostTime)
{
    if (!isNumeric(hostTime))
        return 0;
    CMTime ns = CMTimeConvertScale(hostTime, 1000000000, kCMTimeRoundingMethod_Default);
    return ns.value < 0 ? 0 : uint64_t(ns.value);
}

CMTime CMClockMakeHostTimeFromSystemUnits(uint64_t hostTime)
{
    return CMTimeMake(int64_t(hostTime), 1000000000);
}

} // extern "C"
