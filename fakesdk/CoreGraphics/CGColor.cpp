// CGColor: a colour space and its component values (alpha last). What UIKit hands to layers.
#include "CGInternal.h"

#include <algorithm>

using namespace fakeobjc;

namespace fakecg {
namespace {

struct ColorState {
    std::vector<CGFloat> components;
    id space = nil;
    ~ColorState() { objc_release(space); }
};

Class gColorClass;
StateSlot<ColorState> gColorSlot;

void colorDealloc(id self, SEL)
{
    destroyStateThenSuper(gColorSlot, "OpaqueCGColor", self);
}

__attribute__((constructor)) void declareColorClass()
{
    gColorClass = ClassDef("OpaqueCGColor", "NSObject").stateIvar().method("dealloc", colorDealloc).registerWith(gColorSlot);
}

ColorState *colorOf(CGColorRef color)
{
    id obj = instanceOf(color, gColorClass);
    return obj ? &gColorSlot.get(obj) : nullptr;
}

CGColorRef createColor(CGColorSpaceRef space, std::vector<CGFloat> components)
{
    id obj = class_createInstance(gColorClass, 0);
    ColorState &s = gColorSlot.get(obj);
    s.components = std::move(components);
    s.space = reinterpret_cast<id>(space);
    return reinterpret_cast<CGColorRef>(obj);
}

} // namespace
} // namespace fakecg

using namespace fakecg;

extern "C" {

CFTypeID CGColorGetTypeID(void)
{
    return fakecf::typeIDForClass(gColorClass);
}

CGColorRef CGColorCreate(CGColorSpaceRef space, const CGFloat *components)
{
    size_t count = CGColorSpaceGetNumberOfComponents(space);
    if (!space || !components || count == 0)
        return nullptr;
    return createColor(CGColorSpaceRetain(space), std::vector<CGFloat>(components, components + count + 1));
}

CGColorRef CGColorCreateGenericGray(CGFloat gray, CGFloat alpha)
{
    return createColor(CGColorSpaceCreateDeviceGray(), {gray, alpha});
}

CGColorRef CGColorCreateGenericRGB(CGFloat red, CGFloat green, CGFloat blue, CGFloat alpha)
{
    return createColor(CGColorSpaceCreateDeviceRGB(), {red, green, blue, alpha});
}

CGColorRef CGColorCreateSRGB(CGFloat red, CGFloat green, CGFloat blue, CGFloat alpha)
{
    return CGColorCreateGenericRGB(red, green, blue, alpha);
}

CGColorRef CGColorRetain(CGColorRef color)
{
    if (color)
        objc_retain(reinterpret_cast<id>(color));
    return color;
}

void CGColorRelease(CGColorRef color)
{
    if (color)
        objc_release(reinterpret_cast<id>(color));
}

bool CGColorEqualToColor(CGColorRef color1, CGColorRef color2)
{
    if (color1 == color2)
        return true;
    ColorState *a = colorOf(color1), *b = colorOf(color2);
    return a && b && a->components == b->components &&
           CGColorSpaceGetNumberOfComponents(reinterpret_cast<CGColorSpaceRef>(a->space)) ==
               CGColorSpaceGetNumberOfComponents(reinterpret_cast<CGColorSpaceRef>(b->space));
}

size_t CGColorGetNumberOfComponents(CGColorRef color)
{
    ColorState *s = colorOf(color);
    return s ? s->components.size() : 0;
}

const CGFloat *CGColorGetComponents(CGColorRef color)
{
    ColorState *s = colorOf(color);
    return s && !s->components.empty() ? s->components.data() : nullptr;
}

CGFloat CGColorGetAlpha(CGColorRef color)
{
    ColorState *s = colorOf(color);
    return s && !s->components.empty() ? s->components.back() : 0;
}

CGColorSpaceRef CGColorGetColorSpace(CGColorRef color)
{
    ColorState *s = colorOf(color);
    return s ? reinterpret_cast<CGColorSpaceRef>(s->space) : nullptr;
}

} // extern "C"
