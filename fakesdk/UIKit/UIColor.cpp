// UIColor (extended sRGB components) and UIFont (the system font by size and weight), with the
// exported UIFontWeight constants.
#include "UIKitPrivate.h"

#include <utility>

#include <cmath>
#include <cstdio>

// UIFontWeight is CGFloat; iOS declares the constants as float literals widened to double.
UIKIT_EXPORT const double UIFontWeightUltraLight = double(-0.8f);
UIKIT_EXPORT const double UIFontWeightThin = double(-0.6f);
UIKIT_EXPORT const double UIFontWeightLight = double(-0.4f);
UIKIT_EXPORT const double UIFontWeightRegular = 0.0;
UIKIT_EXPORT const double UIFontWeightMedium = double(0.23f);
UIKIT_EXPORT const double UIFontWeightSemibold = double(0.3f);
UIKIT_EXPORT const double UIFontWeightBold = double(0.4f);
UIKIT_EXPORT const double UIFontWeightHeavy = double(0.56f);
UIKIT_EXPORT const double UIFontWeightBlack = double(0.62f);

namespace uik {
namespace {

// The CGColor a UIColor hands out (+0, owned by the colour). Copying a state leaves the copy's
// cache empty, so no two states own one CGColor.
struct CachedCGColor {
    CGColorRef color = nullptr;
    CachedCGColor() = default;
    CachedCGColor(const CachedCGColor &) {}
    CachedCGColor &operator=(const CachedCGColor &)
    {
        CGColorRelease(std::exchange(color, nullptr));
        return *this;
    }
    ~CachedCGColor() { CGColorRelease(color); }
};

struct ColorState {
    double red = 0, green = 0, blue = 0, alpha = 0;
    CachedCGColor cgColor;
};

struct FontState {
    double pointSize = 0;
    double weight = 0;
    Ref name;
};

fakeobjc::StateSlot<ColorState> gColorSlot;
fakeobjc::StateSlot<FontState> gFontSlot;

// ---- UIColor

id colorInitRGBA(id self, SEL, double red, double green, double blue, double alpha)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("UIColor"), self, "init");
    if (self)
        gColorSlot.get(self) = ColorState{red, green, blue, alpha, {}};
    return self;
}

id colorInitWhite(id self, SEL, double white, double alpha)
{
    return msg<id>(self, "initWithRed:green:blue:alpha:", white, white, white, alpha);
}

id colorWithRGBA(id self, SEL, double red, double green, double blue, double alpha)
{
    return objc_autorelease(msg<id>(msg<id>(self, "alloc"), "initWithRed:green:blue:alpha:", red, green, blue, alpha));
}

id colorWithWhite(id self, SEL, double white, double alpha)
{
    return objc_autorelease(msg<id>(msg<id>(self, "alloc"), "initWithWhite:alpha:", white, alpha));
}

template <int R, int G, int B, int A = 255>
id namedColor(id self, SEL)
{
    return colorWithRGBA(self, nullptr, R / 255.0, G / 255.0, B / 255.0, A / 255.0);
}

id grayColor(id self, SEL)
{
    return colorWithWhite(self, nullptr, 0.5, 1);
}

id darkGrayColor(id self, SEL)
{
    return colorWithWhite(self, nullptr, 1.0 / 3.0, 1);
}

id lightGrayColor(id self, SEL)
{
    return colorWithWhite(self, nullptr, 2.0 / 3.0, 1);
}

bool colorGetRGBA(id self, SEL, double *red, double *green, double *blue, double *alpha)
{
    ColorState *s = gColorSlot.peek(self);
    if (!s)
        return false;
    if (red)
        *red = s->red;
    if (green)
        *green = s->green;
    if (blue)
        *blue = s->blue;
    if (alpha)
        *alpha = s->alpha;
    return true;
}

bool colorGetWhite(id self, SEL, double *white, double *alpha)
{
    ColorState *s = gColorSlot.peek(self);
    if (!s || s->red != s->green || s->green != s->blue)
        return false;
    if (white)
        *white = s->red;
    if (alpha)
        *alpha = s->alpha;
    return true;
}

id colorWithAlphaComponent(id self, SEL, double alpha)
{
    ColorState *s = gColorSlot.peek(self);
    ColorState c = s ? *s : ColorState{};
    return colorWithRGBA(reinterpret_cast<id>(object_getClass(self)), nullptr, c.red, c.green, c.blue, alpha);
}

bool colorIsEqual(id self, SEL, id other)
{
    if (self == other)
        return true;
    if (!isKind(other, "UIColor"))
        return false;
    ColorState *a = gColorSlot.peek(self);
    ColorState *b = gColorSlot.peek(other);
    ColorState x = a ? *a : ColorState{}, y = b ? *b : ColorState{};
    return x.red == y.red && x.green == y.green && x.blue == y.blue && x.alpha == y.alpha;
}

unsigned long colorHash(id self, SEL)
{
    ColorState *s = gColorSlot.peek(self);
    if (!s)
        return 0;
    auto q = [](double v) { return static_cast<unsigned long>(std::lround(v * 255)); };
    return (q(s->red) << 24) | (q(s->green) << 16) | (q(s->blue) << 8) | q(s->alpha);
}

id colorDescription(id self, SEL)
{
    ColorState *s = gColorSlot.peek(self);
    ColorState c = s ? *s : ColorState{};
    char text[128];
    std::snprintf(text, sizeof text, "UIExtendedSRGBColorSpace %g %g %g %g", c.red, c.green, c.blue, c.alpha);
    return str(text);
}

id colorCopy(id self, SEL, void *)
{
    return objc_retain(self);
}

CGColorRef colorCGColor(id self, SEL)
{
    ColorState &s = gColorSlot.get(self);
    if (!s.cgColor.color)
        s.cgColor.color = CGColorCreateSRGB(s.red, s.green, s.blue, s.alpha);
    return s.cgColor.color;
}

void colorDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gColorSlot, "UIColor", self);
}

// ---- UIFont

const char *systemFontName(double weight)
{
    struct Name {
        double weight;
        const char *name;
    };
    static const Name names[] = {
        {double(-0.8f), ".SFUI-Ultralight"}, {double(-0.6f), ".SFUI-Thin"},  {double(-0.4f), ".SFUI-Light"},
        {0.0, ".SFUI-Regular"},              {double(0.23f), ".SFUI-Medium"}, {double(0.3f), ".SFUI-Semibold"},
        {double(0.4f), ".SFUI-Bold"},        {double(0.56f), ".SFUI-Heavy"},  {double(0.62f), ".SFUI-Black"},
    };
    const Name *best = &names[3];
    for (const Name &n : names)
        if (std::fabs(n.weight - weight) < std::fabs(best->weight - weight))
            best = &n;
    return best->name;
}

id makeFont(id fontClass, double size, double weight, id name)
{
    id font = msg<id>(msg<id>(fontClass, "alloc"), "init");
    FontState &s = gFontSlot.get(font);
    s.pointSize = size;
    s.weight = weight;
    s.name = name ? Ref::adopt(msg<id>(name, "copy")) : Ref(str(systemFontName(weight)));
    return objc_autorelease(font);
}

id systemFontOfSizeWeight(id self, SEL, double size, double weight)
{
    return makeFont(self, size, weight, nullptr);
}

id systemFontOfSize(id self, SEL, double size)
{
    return makeFont(self, size, 0.0, nullptr);
}

id boldSystemFontOfSize(id self, SEL, double size)
{
    return makeFont(self, size, double(0.4f), nullptr);
}

id fontWithNameSize(id self, SEL, id name, double size)
{
    return name ? makeFont(self, size, 0.0, name) : nullptr;
}

double fontPointSize(id self, SEL)
{
    FontState *s = gFontSlot.peek(self);
    return s ? s->pointSize : 0;
}

id fontName(id self, SEL)
{
    FontState *s = gFontSlot.peek(self);
    return s ? s->name.get() : nullptr;
}

id fontWithSize(id self, SEL, double size)
{
    FontState *s = gFontSlot.peek(self);
    return makeFont(reinterpret_cast<id>(object_getClass(self)), size, s ? s->weight : 0, s ? s->name.get() : nullptr);
}

id fontCopy(id self, SEL, void *)
{
    return objc_retain(self);
}

void fontDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gFontSlot, "UIFont", self);
}

__attribute__((constructor)) void declareColorAndFont()
{
    fakeobjc::ClassDef("UIColor", "NSObject")
        .classMethod("colorWithRed:green:blue:alpha:", colorWithRGBA)
        .classMethod("colorWithWhite:alpha:", colorWithWhite)
        .classMethod("blackColor", namedColor<0, 0, 0>)
        .classMethod("whiteColor", namedColor<255, 255, 255>)
        .classMethod("redColor", namedColor<255, 0, 0>)
        .classMethod("greenColor", namedColor<0, 255, 0>)
        .classMethod("blueColor", namedColor<0, 0, 255>)
        .classMethod("yellowColor", namedColor<255, 255, 0>)
        .classMethod("orangeColor", namedColor<255, 128, 0>)
        .classMethod("clearColor", namedColor<0, 0, 0, 0>)
        .classMethod("grayColor", grayColor)
        .classMethod("darkGrayColor", darkGrayColor)
        .classMethod("lightGrayColor", lightGrayColor)
        .classMethod("systemRedColor", namedColor<255, 59, 48>)
        .classMethod("systemGreenColor", namedColor<52, 199, 89>)
        .classMethod("systemBlueColor", namedColor<0, 122, 255>)
        .classMethod("systemYellowColor", namedColor<255, 204, 0>)
        .classMethod("systemBackgroundColor", namedColor<255, 255, 255>)
        .classMethod("labelColor", namedColor<0, 0, 0>)
        .classMethod("secondaryLabelColor", namedColor<60, 60, 67, 153>)
        .method("initWithRed:green:blue:alpha:", colorInitRGBA)
        .method("initWithWhite:alpha:", colorInitWhite)
        .method("getRed:green:blue:alpha:", colorGetRGBA)
        .method("getWhite:alpha:", colorGetWhite)
        .method("colorWithAlphaComponent:", colorWithAlphaComponent)
        .method("isEqual:", colorIsEqual)
        .method("hash", colorHash)
        .method("description", colorDescription)
        .method("copyWithZone:", colorCopy)
        .method("CGColor", colorCGColor)
        .method("dealloc", colorDealloc)
        .stateIvar()
        .registerWith(gColorSlot);

    fakeobjc::ClassDef("UIFont", "NSObject")
        .classMethod("systemFontOfSize:", systemFontOfSize)
        .classMethod("systemFontOfSize:weight:", systemFontOfSizeWeight)
        .classMethod("boldSystemFontOfSize:", boldSystemFontOfSize)
        .classMethod("fontWithName:size:", fontWithNameSize)
        .method("pointSize", fontPointSize)
        .method("fontName", fontName)
        .method("fontWithSize:", fontWithSize)
        .method("copyWithZone:", fontCopy)
        .method("dealloc", fontDealloc)
        .stateIvar()
        .registerWith(gFontSlot);
}

} // namespace
} // namespace uik
