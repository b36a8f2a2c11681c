// Bitmap contexts. Drawing is pixman over the context's memory: images are scaled with bilinear
// filtering (edge pixels clamped inside the destination rectangle), fractional rectangle edges
// get partial coverage, and everything is clipped to the bitmap. CG's user space has its origin
// at the bottom left while bitmap memory starts with the top row, so row 0 of an image drawn
// into the whole context lands in row 0 of memory.
#include "CGInternal.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

using namespace fakeobjc;
using namespace fakecg;

namespace {

struct GState {
    CGAffineTransform ctm = {1, 0, 0, 1, 0, 0};
    std::array<double, 4> fill = {0, 0, 0, 1};
    CGInterpolationQuality interpolation = kCGInterpolationDefault;
};

struct ContextState {
    uint8_t *data = nullptr;
    bool ownsData = false;
    CGBitmapContextReleaseDataCallback releaseCallback = nullptr;
    void *releaseInfo = nullptr;
    size_t width = 0;
    size_t height = 0;
    size_t bytesPerRow = 0;
    CGBitmapInfo bitmapInfo = 0;
    pixman_format_code_t format = PIXMAN_a8r8g8b8;
    id colorSpace = nil;
    GState gstate;
    std::vector<GState> saved;

    ~ContextState()
    {
        if (ownsData)
            std::free(data);
        else if (releaseCallback)
            releaseCallback(releaseInfo, data);
        objc_release(colorSpace);
    }
};

StateSlot<ContextState> gContextSlot;
Class gContextClass;

void contextDealloc(id self, SEL)
{
    destroyStateThenSuper(gContextSlot, "OpaqueCGContext", self);
}

__attribute__((constructor)) void declareContextClass()
{
    gContextClass = ClassDef("OpaqueCGContext", "NSObject")
                        .stateIvar()
                        .method("dealloc", contextDealloc)
                        .registerWith(gContextSlot);
}

ContextState *contextOf(CGContextRef c)
{
    id obj = instanceOf(c, gContextClass);
    return obj ? &gContextSlot.get(obj) : nullptr;
}

// A row-vector affine map x' = a x + c y + tx, y' = b x + d y + ty, as CGAffineTransform.
using Affine = CGAffineTransform;

Affine then(const Affine &first, const Affine &second)
{
    return CGAffineTransformConcat(first, second);
}

// User space to memory coordinates (x right, y down from the top row).
Affine userToMemory(const ContextState &st)
{
    Affine flip = {1, 0, 0, -1, 0, double(st.height)};
    return then(st.gstate.ctm, flip);
}

struct Span {
    int start;
    int end;
    double coverage;
};

// The pixel spans of [lo, hi) inside [0, limit): whole pixels with coverage 1 and at most one
// partial pixel at each end.
std::vector<Span> spans(double lo, double hi, int limit)
{
    auto snap = [](double v) {
        double r = std::round(v);
        return std::fabs(v - r) < 1e-6 ? r : v;
    };
    lo = std::max(snap(lo), 0.0);
    hi = std::min(snap(hi), double(limit));
    std::vector<Span> out;
    if (!(hi > lo))
        return out;
    int a = int(std::floor(lo)), b = int(std::floor(hi));
    if (a == b) {
        out.push_back({a, a + 1, hi - lo});
        return out;
    }
    if (lo > a) {
        out.push_back({a, a + 1, (a + 1) - lo});
        ++a;
    }
    if (b > a)
        out.push_back({a, b, 1.0});
    if (hi > b)
        out.push_back({b, b + 1, hi - b});
    return out;
}

struct Quad {
    double left, top, right, bottom;
    bool axisAligned;
};

Quad boundsOf(const Affine &m, double w, double h)
{
    CGPoint corners[4] = {{0, 0}, {w, 0}, {0, h}, {w, h}};
    Quad q{INFINITY, INFINITY, -INFINITY, -INFINITY, true};
    for (CGPoint p : corners) {
        CGPoint t = CGPointApplyAffineTransform(p, m);
        q.left = std::min(q.left, t.x);
        q.right = std::max(q.right, t.x);
        q.top = std::min(q.top, t.y);
        q.bottom = std::max(q.bottom, t.y);
    }
    q.axisAligned = std::fabs(m.b) < 1e-9 && std::fabs(m.c) < 1e-9;
    return q;
}

pixman_image_t *destinationImage(ContextState &st)
{
    return pixman_image_create_bits(
        st.format, int(st.width), int(st.height), reinterpret_cast<uint32_t *>(st.data), int(st.bytesPerRow));
}

pixman_image_t *solid(double r, double g, double b, double a)
{
    auto channel = [](double v) { return uint16_t(std::lround(std::clamp(v, 0.0, 1.0) * 0xffff)); };
    // pixman's solid colours are premultiplied.
    pixman_color_t color{channel(r * a), channel(g * a), channel(b * a), channel(a)};
    return pixman_image_create_solid_fill(&color);
}

// Composites src (whose coordinates are memory coordinates after its transform) into the area q,
// with partial coverage at fractional edges of axis-aligned areas.
void compositeArea(ContextState &st, pixman_op_t op, pixman_image_t *src, const Quad &q)
{
    pixman_image_t *dst = destinationImage(st);
    if (!dst)
        return;
    if (!q.axisAligned) {
        int x0 = std::max(0, int(std::floor(q.left))), y0 = std::max(0, int(std::floor(q.top)));
        int x1 = std::min(int(st.width), int(std::ceil(q.right))),
            y1 = std::min(int(st.height), int(std::ceil(q.bottom)));
        if (x1 > x0 && y1 > y0)
            pixman_image_composite32(op, src, nullptr, dst, x0, y0, 0, 0, x0, y0, x1 - x0, y1 - y0);
    } else {
        for (const Span &row : spans(q.top, q.bottom, int(st.height)))
            for (const Span &col : spans(q.left, q.right, int(st.width))) {
                double coverage = row.coverage * col.coverage;
                if (coverage < 1.0 / 512)
                    continue;
                pixman_image_t *mask = coverage < 1.0 ? solid(0, 0, 0, coverage) : nullptr;
                pixman_image_composite32(op, src, mask, dst, col.start, row.start, 0, 0, col.start, row.start,
                    col.end - col.start, row.end - row.start);
                if (mask)
                    pixman_image_unref(mask);
            }
    }
    pixman_image_unref(dst);
}

// The memory-space area of a user-space rectangle and the map from image pixels (top row first)
// into memory.
Affine imageToMemory(const ContextState &st, CGRect rect, double imageWidth, double imageHeight)
{
    Affine toRect = {rect.size.width / imageWidth, 0, 0, -rect.size.height / imageHeight, rect.origin.x,
        rect.origin.y + rect.size.height};
    return then(toRect, userToMemory(st));
}

Affine rectToMemory(const ContextState &st, CGRect rect)
{
    Affine toRect = {rect.size.width, 0, 0, rect.size.height, rect.origin.x, rect.origin.y};
    return then(toRect, userToMemory(st));
}

bool usable(CGRect rect)
{
    return std::isfinite(rect.origin.x) && std::isfinite(rect.origin.y) && std::isfinite(rect.size.width)
        && std::isfinite(rect.size.height) && rect.size.width != 0 && rect.size.height != 0;
}

CGContextRef createContext(void *data, size_t width, size_t height, size_t bitsPerComponent, size_t bytesPerRow,
    CGColorSpaceRef space, uint32_t bitmapInfo, CGBitmapContextReleaseDataCallback callback, void *releaseInfo)
{
    pixman_format_code_t format;
    if (width == 0 || height == 0 || width > (1u << 15) || height > (1u << 15) || bitsPerComponent != 8
        || CGColorSpaceGetNumberOfComponents(space) != 3 || !pixmanFormatFor(bitmapInfo, format))
        return nullptr;
    if (bytesPerRow == 0)
        bytesPerRow = width * 4;
    if (bytesPerRow < width * 4 || bytesPerRow % 4 != 0)
        return nullptr;
    id obj = class_createInstance(gContextClass, 0);
    ContextState &st = gContextSlot.get(obj);
    st.width = width;
    st.height = height;
    st.bytesPerRow = bytesPerRow;
    st.bitmapInfo = bitmapInfo;
    st.format = format;
    st.colorSpace = objc_retain(reinterpret_cast<id>(space));
    if (data) {
        st.data = static_cast<uint8_t *>(data);
        st.releaseCallback = callback;
        st.releaseInfo = releaseInfo;
    } else {
        st.data = static_cast<uint8_t *>(std::calloc(height, bytesPerRow));
        st.ownsData = true;
        if (!st.data) {
            objc_release(obj);
            return nullptr;
        }
    }
    return reinterpret_cast<CGContextRef>(obj);
}

} // namespace

extern "C" {

CFTypeID CGContextGetTypeID(void)
{
    return fakecf::typeIDForClass(gContextClass);
}

CGContextRef CGContextRetain(CGContextRef c)
{
    return c ? reinterpret_cast<CGContextRef>(objc_retain(reinterpret_cast<id>(c))) : nullptr;
}

void CGContextRelease(CGContextRef c)
{
    if (c)
        objc_release(reinterpret_cast<id>(c));
}

CGContextRef CGBitmapContextCreate(void *data, size_t width, size_t height, size_t bitsPerComponent, size_t bytesPerRow,
    CGColorSpaceRef space, uint32_t bitmapInfo)
{
    return createContext(data, width, height, bitsPerComponent, bytesPerRow, space, bitmapInfo, nullptr, nullptr);
}

CGContextRef CGBitmapContextCreateWithData(void *data, size_t width, size_t height, size_t bitsPerComponent,
    size_t bytesPerRow, CGColorSpaceRef space, uint32_t bitmapInfo, CGBitmapContextReleaseDataCallback releaseCallback,
    void *releaseInfo)
{
    return createContext(
        data, width, height, bitsPerComponent, bytesPerRow, space, bitmapInfo, releaseCallback, releaseInfo);
}

void *CGBitmapContextGetData(CGContextRef context)
{
    ContextState *st = contextOf(context);
    return st ? st->data : nullptr;
}

size_t CGBitmapContextGetWidth(CGContextRef context)
{
    ContextState *st = contextOf(context);
    return st ? st->width : 0;
}

size_t CGBitmapContextGetHeight(CGContextRef context)
{
    ContextState *st = contextOf(context);
    return st ? st->height : 0;
}

size_t CGBitmapContextGetBitsPerComponent(CGContextRef context)
{
    return contextOf(context) ? 8 : 0;
}

size_t CGBitmapContextGetBitsPerPixel(CGContextRef context)
{
    return contextOf(context) ? 32 : 0;
}

size_t CGBitmapContextGetBytesPerRow(CGContextRef context)
{
    ContextState *st = contextOf(context);
    return st ? st->bytesPerRow : 0;
}

CGColorSpaceRef CGBitmapContextGetColorSpace(CGContextRef context)
{
    ContextState *st = contextOf(context);
    return st ? reinterpret_cast<CGColorSpaceRef>(st->colorSpace) : nullptr;
}

CGImageAlphaInfo CGBitmapContextGetAlphaInfo(CGContextRef context)
{
    ContextState *st = contextOf(context);
    return st ? CGImageAlphaInfo(st->bitmapInfo & kCGBitmapAlphaInfoMask) : kCGImageAlphaNone;
}

CGBitmapInfo CGBitmapContextGetBitmapInfo(CGContextRef context)
{
    ContextState *st = contextOf(context);
    return st ? st->bitmapInfo : 0;
}

CGImageRef CGBitmapContextCreateImage(CGContextRef context)
{
    ContextState *st = contextOf(context);
    if (!st)
        return nullptr;
    size_t stride = st->width * 4;
    std::vector<uint8_t> pixels;
    try {
        pixels.resize(stride * st->height);
    } catch (const std::bad_alloc &) {
        return nullptr; // no memory for the copy: no image, as CoreGraphics answers
    }
    for (size_t y = 0; y < st->height; ++y)
        std::memcpy(pixels.data() + y * stride, st->data + y * st->bytesPerRow, stride);
    return createOwnedImage(std::move(pixels), st->width, st->height, stride, st->bitmapInfo,
        reinterpret_cast<CGColorSpaceRef>(st->colorSpace));
}

void CGContextSaveGState(CGContextRef c)
{
    if (ContextState *st = contextOf(c))
        st->saved.push_back(st->gstate);
}

void CGContextRestoreGState(CGContextRef c)
{
    ContextState *st = contextOf(c);
    if (st && !st->saved.empty()) {
        st->gstate = st->saved.back();
        st->saved.pop_back();
    }
}

void CGContextConcatCTM(CGContextRef c, CGAffineTransform transform)
{
    if (ContextState *st = contextOf(c))
        st->gstate.ctm = CGAffineTransformConcat(transform, st->gstate.ctm);
}

void CGContextTranslateCTM(CGContextRef c, CGFloat tx, CGFloat ty)
{
    CGContextConcatCTM(c, CGAffineTransformMakeTranslation(tx, ty));
}

void CGContextScaleCTM(CGContextRef c, CGFloat sx, CGFloat sy)
{
    CGContextConcatCTM(c, CGAffineTransformMakeScale(sx, sy));
}

void CGContextRotateCTM(CGContextRef c, CGFloat angle)
{
    CGContextConcatCTM(c, CGAffineTransformMakeRotation(angle));
}

CGAffineTransform CGContextGetCTM(CGContextRef c)
{
    ContextState *st = contextOf(c);
    return st ? st->gstate.ctm : CGAffineTransformIdentity;
}

void CGContextSetInterpolationQuality(CGContextRef c, CGInterpolationQuality quality)
{
    if (ContextState *st = contextOf(c))
        st->gstate.interpolation = quality;
}

CGInterpolationQuality CGContextGetInterpolationQuality(CGContextRef c)
{
    ContextState *st = contextOf(c);
    return st ? st->gstate.interpolation : kCGInterpolationDefault;
}

void CGContextSetRGBFillColor(CGContextRef c, CGFloat red, CGFloat green, CGFloat blue, CGFloat alpha)
{
    if (ContextState *st = contextOf(c))
        st->gstate.fill = {red, green, blue, alpha};
}

void CGContextFillRect(CGContextRef c, CGRect rect)
{
    ContextState *st = contextOf(c);
    if (!st || !usable(rect))
        return;
    const auto &f = st->gstate.fill;
    pixman_image_t *src = solid(f[0], f[1], f[2], f[3]);
    compositeArea(*st, PIXMAN_OP_OVER, src, boundsOf(rectToMemory(*st, rect), 1, 1));
    pixman_image_unref(src);
}

void CGContextClearRect(CGContextRef c, CGRect rect)
{
    ContextState *st = contextOf(c);
    if (!st || !usable(rect))
        return;
    // dst * (1 - coverage): OUT_REVERSE with an opaque source, the coverage coming from the mask.
    pixman_image_t *src = solid(0, 0, 0, 1);
    compositeArea(*st, PIXMAN_OP_OUT_REVERSE, src, boundsOf(rectToMemory(*st, rect), 1, 1));
    pixman_image_unref(src);
}

void CGContextDrawImage(CGContextRef c, CGRect rect, CGImageRef image)
{
    ContextState *st = contextOf(c);
    ImageState *img = imageOf(image);
    if (!st || !img || !usable(rect))
        return;
    // A picture decoded reduced draws its kept pixels over the same rectangle.
    double width = double(img->pixelWidth), height = double(img->pixelHeight);
    if (img->pixelWidth > INT32_MAX || img->pixelHeight > INT32_MAX || img->drawStride > INT32_MAX)
        return;
    Affine forward = imageToMemory(*st, rect, width, height);
    Quad area = boundsOf(forward, width, height);

    pixman_image_t *src = pixman_image_create_bits(img->drawFormat, int(img->pixelWidth), int(img->pixelHeight),
        reinterpret_cast<uint32_t *>(const_cast<uint8_t *>(img->drawPixels)), int(img->drawStride));
    if (!src)
        return;
    pixman_f_transform f{};
    pixman_f_transform_init_identity(&f);
    f.m[0][0] = forward.a;
    f.m[0][1] = forward.c;
    f.m[0][2] = forward.tx;
    f.m[1][0] = forward.b;
    f.m[1][1] = forward.d;
    f.m[1][2] = forward.ty;
    pixman_f_transform inverse;
    pixman_transform fixed;
    if (!pixman_f_transform_invert(&inverse, &f) || !pixman_transform_from_pixman_f_transform(&fixed, &inverse)) {
        pixman_image_unref(src);
        return;
    }
    pixman_image_set_transform(src, &fixed);
    bool nearest = !img->interpolate || st->gstate.interpolation == kCGInterpolationNone;
    pixman_image_set_filter(src, nearest ? PIXMAN_FILTER_NEAREST : PIXMAN_FILTER_BILINEAR, nullptr, 0);
    // Inside an axis-aligned rectangle the edge pixels are clamped; a rotated one fades out.
    pixman_image_set_repeat(src, area.axisAligned ? PIXMAN_REPEAT_PAD : PIXMAN_REPEAT_NONE);
    compositeArea(*st, PIXMAN_OP_OVER, src, area);
    pixman_image_unref(src);
}

} // extern "C"
