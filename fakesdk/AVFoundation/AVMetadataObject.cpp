// AVMetadataObject and AVMetadataMachineReadableCodeObject. Apps never create them (init is
// unavailable); a metadata output hands them out, and tests make them with the _np constructor.
#include "AVFPrivate.h"

#include <fakesdk/avfoundation_np.h>

namespace avf {
namespace {

struct MetadataObjectState {
    Ref type;
    CGRect bounds{};
    CMTime time{};
    Ref stringValue;
};

fakeobjc::StateSlot<MetadataObjectState> gMetadataSlot;

id objectType(id self, SEL)
{
    auto *s = gMetadataSlot.peek(self);
    return s ? s->type.get() : nullptr;
}

CGRect objectBounds(id self, SEL)
{
    auto *s = gMetadataSlot.peek(self);
    return s ? s->bounds : CGRect{};
}

CMTime objectTime(id self, SEL)
{
    auto *s = gMetadataSlot.peek(self);
    return s ? s->time : kCMTimeInvalid;
}

CMTime objectDuration(id self, SEL)
{
    return gMetadataSlot.peek(self) ? kCMTimeZero : kCMTimeInvalid;
}

id codeStringValue(id self, SEL)
{
    auto *s = gMetadataSlot.peek(self);
    return s ? s->stringValue.get() : nullptr;
}

// Corners clockwise from the top left, as dictionaries with X and Y, like CGPointCreateDictionaryRepresentation.
id codeCorners(id self, SEL)
{
    auto *s = gMetadataSlot.peek(self);
    if (!s)
        return array(std::vector<id>{});
    CGRect b = s->bounds;
    auto point = [](double x, double y) {
        return dictionary({{str("X"), msg<id>(cls("NSNumber"), "numberWithDouble:", x)},
                           {str("Y"), msg<id>(cls("NSNumber"), "numberWithDouble:", y)}});
    };
    double x0 = b.origin.x, y0 = b.origin.y, x1 = b.origin.x + b.size.width, y1 = b.origin.y + b.size.height;
    return array(std::vector<id>{point(x0, y0), point(x1, y0), point(x1, y1), point(x0, y1)});
}

void objectDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gMetadataSlot, "AVMetadataObject", self);
}

__attribute__((constructor)) void declareMetadataObjects()
{
    fakeobjc::ClassDef("AVMetadataObject", "NSObject")
        .method("type", objectType)
        .method("bounds", objectBounds)
        .method("time", objectTime)
        .method("duration", objectDuration)
        .method("dealloc", objectDealloc)
        .stateIvar()
        .registerWith(gMetadataSlot);

    fakeobjc::ClassDef("AVMetadataMachineReadableCodeObject", "AVMetadataObject")
        .method("stringValue", codeStringValue)
        .method("corners", codeCorners)
        .registerClass();
}

} // namespace
} // namespace avf

using namespace avf;

AVF_EXPORT id AVMetadataMachineReadableCodeObjectCreate_np(id type, id stringValue, double x, double y, double width,
                                                           double height)
{
    id object = class_createInstance(objc_getClass("AVMetadataMachineReadableCodeObject"), 0);
    MetadataObjectState &s = gMetadataSlot.get(object);
    s.type = Ref(type);
    s.stringValue = Ref::adopt(msg<id>(stringValue, "copy"));
    s.bounds = CGRect{{x, y}, {width, height}};
    s.time = CMClockGetTime(CMClockGetHostTimeClock());
    return object;
}
