// CGGeometry and CGAffineTransform: the exported functions and constants (the Make functions of
// points, sizes and rectangles are inline in the header).
#include <CoreGraphics/CoreGraphics.h>

#include <cmath>
#include <limits>

extern "C" {

const CGPoint CGPointZero = {0, 0};
const CGSize CGSizeZero = {0, 0};
const CGRect CGRectZero = {{0, 0}, {0, 0}};
const CGRect CGRectNull = {{std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity()}, {0, 0}};
const CGAffineTransform CGAffineTransformIdentity = {1, 0, 0, 1, 0, 0};

CGFloat CGRectGetMinX(CGRect r)
{
    return r.size.width < 0 ? r.origin.x + r.size.width : r.origin.x;
}

CGFloat CGRectGetMaxX(CGRect r)
{
    return r.size.width < 0 ? r.origin.x : r.origin.x + r.size.width;
}

CGFloat CGRectGetMidX(CGRect r)
{
    return r.origin.x + r.size.width / 2;
}

CGFloat CGRectGetMinY(CGRect r)
{
    return r.size.height < 0 ? r.origin.y + r.size.height : r.origin.y;
}

CGFloat CGRectGetMaxY(CGRect r)
{
    return r.size.height < 0 ? r.origin.y : r.origin.y + r.size.height;
}

CGFloat CGRectGetMidY(CGRect r)
{
    return r.origin.y + r.size.height / 2;
}

CGFloat CGRectGetWidth(CGRect r)
{
    return std::fabs(r.size.width);
}

CGFloat CGRectGetHeight(CGRect r)
{
    return std::fabs(r.size.height);
}

bool CGPointEqualToPoint(CGPoint a, CGPoint b)
{
    return a.x == b.x && a.y == b.y;
}

bool CGSizeEqualToSize(CGSize a, CGSize b)
{
    return a.width == b.width && a.height == b.height;
}

bool CGRectIsNull(CGRect r)
{
    return std::isinf(r.origin.x) || std::isinf(r.origin.y);
}

bool CGRectEqualToRect(CGRect a, CGRect b)
{
    if (CGRectIsNull(a) || CGRectIsNull(b))
        return CGRectIsNull(a) && CGRectIsNull(b);
    return CGRectGetMinX(a) == CGRectGetMinX(b) && CGRectGetMinY(a) == CGRectGetMinY(b)
        && CGRectGetWidth(a) == CGRectGetWidth(b) && CGRectGetHeight(a) == CGRectGetHeight(b);
}

bool CGRectIsEmpty(CGRect r)
{
    return CGRectIsNull(r) || r.size.width == 0 || r.size.height == 0;
}

CGAffineTransform CGAffineTransformMake(CGFloat a, CGFloat b, CGFloat c, CGFloat d, CGFloat tx, CGFloat ty)
{
    return {a, b, c, d, tx, ty};
}

CGAffineTransform CGAffineTransformMakeTranslation(CGFloat tx, CGFloat ty)
{
    return {1, 0, 0, 1, tx, ty};
}

CGAffineTransform CGAffineTransformMakeScale(CGFloat sx, CGFloat sy)
{
    return {sx, 0, 0, sy, 0, 0};
}

CGAffineTransform CGAffineTransformMakeRotation(CGFloat angle)
{
    CGFloat s = std::sin(angle), c = std::cos(angle);
    return {c, s, -s, c, 0, 0};
}

bool CGAffineTransformIsIdentity(CGAffineTransform t)
{
    return CGAffineTransformEqualToTransform(t, CGAffineTransformIdentity);
}

// t1 then t2, in CG's row-vector convention.
CGAffineTransform CGAffineTransformConcat(CGAffineTransform t1, CGAffineTransform t2)
{
    return {t1.a * t2.a + t1.b * t2.c, t1.a * t2.b + t1.b * t2.d, t1.c * t2.a + t1.d * t2.c, t1.c * t2.b + t1.d * t2.d,
        t1.tx * t2.a + t1.ty * t2.c + t2.tx, t1.tx * t2.b + t1.ty * t2.d + t2.ty};
}

CGAffineTransform CGAffineTransformTranslate(CGAffineTransform t, CGFloat tx, CGFloat ty)
{
    return CGAffineTransformConcat(CGAffineTransformMakeTranslation(tx, ty), t);
}

CGAffineTransform CGAffineTransformScale(CGAffineTransform t, CGFloat sx, CGFloat sy)
{
    return CGAffineTransformConcat(CGAffineTransformMakeScale(sx, sy), t);
}

CGAffineTransform CGAffineTransformRotate(CGAffineTransform t, CGFloat angle)
{
    return CGAffineTransformConcat(CGAffineTransformMakeRotation(angle), t);
}

bool CGAffineTransformEqualToTransform(CGAffineTransform t1, CGAffineTransform t2)
{
    return t1.a == t2.a && t1.b == t2.b && t1.c == t2.c && t1.d == t2.d && t1.tx == t2.tx && t1.ty == t2.ty;
}

CGPoint CGPointApplyAffineTransform(CGPoint p, CGAffineTransform t)
{
    return {t.a * p.x + t.c * p.y + t.tx, t.b * p.x + t.d * p.y + t.ty};
}

} // extern "C"
