// Apple's <CoreGraphics/CoreGraphics.h> (the part the project uses): geometry, affine transforms,
// colour spaces, data providers, images (JPEG and PNG decoding) and bitmap contexts. CG objects
// are CF types; the Release functions of CG accept NULL, CFRelease does not.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <float.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CG_EXTERN extern __attribute__((visibility("default")))
#define CG_INLINE static inline

// ---- CGBase.h: LP64, so CGFloat is double.

#define CGFLOAT_TYPE double
#define CGFLOAT_IS_DOUBLE 1
#define CGFLOAT_MIN DBL_MIN
#define CGFLOAT_MAX DBL_MAX
typedef CGFLOAT_TYPE CGFloat;

// ---- CGGeometry.h

struct CGPoint {
    CGFloat x;
    CGFloat y;
};
typedef struct CGPoint CGPoint;

struct CGSize {
    CGFloat width;
    CGFloat height;
};
typedef struct CGSize CGSize;

struct CGRect {
    CGPoint origin;
    CGSize size;
};
typedef struct CGRect CGRect;

CG_EXTERN const CGPoint CGPointZero;
CG_EXTERN const CGSize CGSizeZero;
CG_EXTERN const CGRect CGRectZero;
CG_EXTERN const CGRect CGRectNull;

CG_INLINE CGPoint CGPointMake(CGFloat x, CGFloat y)
{
    CGPoint p;
    p.x = x;
    p.y = y;
    return p;
}

CG_INLINE CGSize CGSizeMake(CGFloat width, CGFloat height)
{
    CGSize size;
    size.width = width;
    size.height = height;
    return size;
}

CG_INLINE CGRect CGRectMake(CGFloat x, CGFloat y, CGFloat width, CGFloat height)
{
    CGRect rect;
    rect.origin.x = x;
    rect.origin.y = y;
    rect.size.width = width;
    rect.size.height = height;
    return rect;
}

CG_EXTERN CGFloat CGRectGetMinX(CGRect rect);
CG_EXTERN CGFloat CGRectGetMidX(CGRect rect);
CG_EXTERN CGFloat CGRectGetMaxX(CGRect rect);
CG_EXTERN CGFloat CGRectGetMinY(CGRect rect);
CG_EXTERN CGFloat CGRectGetMidY(CGRect rect);
CG_EXTERN CGFloat CGRectGetMaxY(CGRect rect);
CG_EXTERN CGFloat CGRectGetWidth(CGRect rect);
CG_EXTERN CGFloat CGRectGetHeight(CGRect rect);
CG_EXTERN bool CGPointEqualToPoint(CGPoint point1, CGPoint point2);
CG_EXTERN bool CGSizeEqualToSize(CGSize size1, CGSize size2);
CG_EXTERN bool CGRectEqualToRect(CGRect rect1, CGRect rect2);
CG_EXTERN bool CGRectIsEmpty(CGRect rect);
CG_EXTERN bool CGRectIsNull(CGRect rect);

// ---- CGAffineTransform.h

struct CGAffineTransform {
    CGFloat a, b, c, d;
    CGFloat tx, ty;
};
typedef struct CGAffineTransform CGAffineTransform;

CG_EXTERN const CGAffineTransform CGAffineTransformIdentity;
CG_EXTERN CGAffineTransform CGAffineTransformMake(CGFloat a, CGFloat b, CGFloat c, CGFloat d, CGFloat tx, CGFloat ty);
CG_EXTERN CGAffineTransform CGAffineTransformMakeTranslation(CGFloat tx, CGFloat ty);
CG_EXTERN CGAffineTransform CGAffineTransformMakeScale(CGFloat sx, CGFloat sy);
CG_EXTERN CGAffineTransform CGAffineTransformMakeRotation(CGFloat angle);
CG_EXTERN bool CGAffineTransformIsIdentity(CGAffineTransform t);
CG_EXTERN CGAffineTransform CGAffineTransformTranslate(CGAffineTransform t, CGFloat tx, CGFloat ty);
CG_EXTERN CGAffineTransform CGAffineTransformScale(CGAffineTransform t, CGFloat sx, CGFloat sy);
CG_EXTERN CGAffineTransform CGAffineTransformRotate(CGAffineTransform t, CGFloat angle);
CG_EXTERN CGAffineTransform CGAffineTransformConcat(CGAffineTransform t1, CGAffineTransform t2);
CG_EXTERN bool CGAffineTransformEqualToTransform(CGAffineTransform t1, CGAffineTransform t2);
CG_EXTERN CGPoint CGPointApplyAffineTransform(CGPoint point, CGAffineTransform t);

// ---- CGColorSpace.h

typedef struct CGColorSpace *CGColorSpaceRef;

typedef enum CGColorRenderingIntent : int32_t {
    kCGRenderingIntentDefault,
    kCGRenderingIntentAbsoluteColorimetric,
    kCGRenderingIntentRelativeColorimetric,
    kCGRenderingIntentPerceptual,
    kCGRenderingIntentSaturation
} CGColorRenderingIntent;

CG_EXTERN CFTypeID CGColorSpaceGetTypeID(void);
// +1; NULL-safe Retain/Release.
CG_EXTERN CGColorSpaceRef CGColorSpaceCreateDeviceRGB(void);
CG_EXTERN CGColorSpaceRef CGColorSpaceCreateDeviceGray(void);
CG_EXTERN CGColorSpaceRef CGColorSpaceRetain(CGColorSpaceRef space);
CG_EXTERN void CGColorSpaceRelease(CGColorSpaceRef space);
CG_EXTERN size_t CGColorSpaceGetNumberOfComponents(CGColorSpaceRef space);

// ---- CGColor.h

typedef struct CGColor *CGColorRef;

CG_EXTERN CFTypeID CGColorGetTypeID(void);
// +1; NULL-safe Retain/Release. Components are the space's, then alpha.
CG_EXTERN CGColorRef CGColorCreate(CGColorSpaceRef space, const CGFloat *components);
CG_EXTERN CGColorRef CGColorCreateGenericGray(CGFloat gray, CGFloat alpha);
CG_EXTERN CGColorRef CGColorCreateGenericRGB(CGFloat red, CGFloat green, CGFloat blue, CGFloat alpha);
CG_EXTERN CGColorRef CGColorCreateSRGB(CGFloat red, CGFloat green, CGFloat blue, CGFloat alpha);
CG_EXTERN CGColorRef CGColorRetain(CGColorRef color);
CG_EXTERN void CGColorRelease(CGColorRef color);
CG_EXTERN bool CGColorEqualToColor(CGColorRef color1, CGColorRef color2);
CG_EXTERN size_t CGColorGetNumberOfComponents(CGColorRef color);
CG_EXTERN const CGFloat *CGColorGetComponents(CGColorRef color);
CG_EXTERN CGFloat CGColorGetAlpha(CGColorRef color);
CG_EXTERN CGColorSpaceRef CGColorGetColorSpace(CGColorRef color);

// ---- CGImage.h

typedef struct CGImage *CGImageRef;

typedef enum CGImageAlphaInfo : uint32_t {
    kCGImageAlphaNone,
    kCGImageAlphaPremultipliedLast,
    kCGImageAlphaPremultipliedFirst,
    kCGImageAlphaLast,
    kCGImageAlphaFirst,
    kCGImageAlphaNoneSkipLast,
    kCGImageAlphaNoneSkipFirst,
    kCGImageAlphaOnly
} CGImageAlphaInfo;

typedef enum CGImageByteOrderInfo : uint32_t {
    kCGImageByteOrderMask = 0x7000,
    kCGImageByteOrderDefault = (0 << 12),
    kCGImageByteOrder16Little = (1 << 12),
    kCGImageByteOrder32Little = (2 << 12),
    kCGImageByteOrder16Big = (3 << 12),
    kCGImageByteOrder32Big = (4 << 12)
} CGImageByteOrderInfo;

typedef uint32_t CGBitmapInfo;
enum : uint32_t {
    kCGBitmapAlphaInfoMask = 0x1F,
    kCGBitmapFloatInfoMask = 0xF00,
    kCGBitmapFloatComponents = (1 << 8),
    kCGBitmapByteOrderMask = (uint32_t)kCGImageByteOrderMask,
    kCGBitmapByteOrderDefault = (uint32_t)kCGImageByteOrderDefault,
    kCGBitmapByteOrder16Little = (uint32_t)kCGImageByteOrder16Little,
    kCGBitmapByteOrder32Little = (uint32_t)kCGImageByteOrder32Little,
    kCGBitmapByteOrder16Big = (uint32_t)kCGImageByteOrder16Big,
    kCGBitmapByteOrder32Big = (uint32_t)kCGImageByteOrder32Big
};
#define kCGBitmapByteOrder16Host kCGBitmapByteOrder16Little
#define kCGBitmapByteOrder32Host kCGBitmapByteOrder32Little

// ---- CGDataProvider.h

typedef struct CGDataProvider *CGDataProviderRef;
typedef void (*CGDataProviderReleaseDataCallback)(void *info, const void *data, size_t size);

CG_EXTERN CFTypeID CGDataProviderGetTypeID(void);
// +1. The provider reads data in place until it is freed, then calls releaseData (may be NULL).
CG_EXTERN CGDataProviderRef CGDataProviderCreateWithData(
    void *info, const void *data, size_t size, CGDataProviderReleaseDataCallback releaseData);
// +1; retains data.
CG_EXTERN CGDataProviderRef CGDataProviderCreateWithCFData(CFDataRef data);
CG_EXTERN CGDataProviderRef CGDataProviderRetain(CGDataProviderRef provider);
CG_EXTERN void CGDataProviderRelease(CGDataProviderRef provider);
// +1 copy of the provider's bytes.
CG_EXTERN CFDataRef CGDataProviderCopyData(CGDataProviderRef provider);

// ---- CGImage.h (functions)

CG_EXTERN CFTypeID CGImageGetTypeID(void);
// +1; NULL for unsupported layouts (8 bits per component and 32 bits per pixel with RGB are
// supported) or a provider with too few bytes.
CG_EXTERN CGImageRef CGImageCreate(size_t width, size_t height, size_t bitsPerComponent, size_t bitsPerPixel,
    size_t bytesPerRow, CGColorSpaceRef space, CGBitmapInfo bitmapInfo, CGDataProviderRef provider,
    const CGFloat *decode, bool shouldInterpolate, CGColorRenderingIntent intent);
// +1, decoded at once; NULL when the bytes are not a JPEG (or PNG) image.
CG_EXTERN CGImageRef CGImageCreateWithJPEGDataProvider(
    CGDataProviderRef source, const CGFloat *decode, bool shouldInterpolate, CGColorRenderingIntent intent);
CG_EXTERN CGImageRef CGImageCreateWithPNGDataProvider(
    CGDataProviderRef source, const CGFloat *decode, bool shouldInterpolate, CGColorRenderingIntent intent);
CG_EXTERN CGImageRef CGImageRetain(CGImageRef image);
CG_EXTERN void CGImageRelease(CGImageRef image);
CG_EXTERN size_t CGImageGetWidth(CGImageRef image);
CG_EXTERN size_t CGImageGetHeight(CGImageRef image);
CG_EXTERN size_t CGImageGetBitsPerComponent(CGImageRef image);
CG_EXTERN size_t CGImageGetBitsPerPixel(CGImageRef image);
CG_EXTERN size_t CGImageGetBytesPerRow(CGImageRef image);
CG_EXTERN CGColorSpaceRef CGImageGetColorSpace(CGImageRef image);
CG_EXTERN CGImageAlphaInfo CGImageGetAlphaInfo(CGImageRef image);
CG_EXTERN CGBitmapInfo CGImageGetBitmapInfo(CGImageRef image);
CG_EXTERN CGImageByteOrderInfo CGImageGetByteOrderInfo(CGImageRef image);
// +0: the image keeps it.
CG_EXTERN CGDataProviderRef CGImageGetDataProvider(CGImageRef image);

// ---- CGContext.h

typedef struct CGContext *CGContextRef;

typedef enum CGInterpolationQuality : int32_t {
    kCGInterpolationDefault = 0,
    kCGInterpolationNone = 1,
    kCGInterpolationLow = 2,
    kCGInterpolationMedium = 4,
    kCGInterpolationHigh = 3
} CGInterpolationQuality;

CG_EXTERN CFTypeID CGContextGetTypeID(void);
CG_EXTERN CGContextRef CGContextRetain(CGContextRef c);
CG_EXTERN void CGContextRelease(CGContextRef c);
CG_EXTERN void CGContextSaveGState(CGContextRef c);
CG_EXTERN void CGContextRestoreGState(CGContextRef c);
CG_EXTERN void CGContextTranslateCTM(CGContextRef c, CGFloat tx, CGFloat ty);
CG_EXTERN void CGContextScaleCTM(CGContextRef c, CGFloat sx, CGFloat sy);
CG_EXTERN void CGContextRotateCTM(CGContextRef c, CGFloat angle);
CG_EXTERN void CGContextConcatCTM(CGContextRef c, CGAffineTransform transform);
CG_EXTERN CGAffineTransform CGContextGetCTM(CGContextRef c);
CG_EXTERN void CGContextSetInterpolationQuality(CGContextRef c, CGInterpolationQuality quality);
CG_EXTERN CGInterpolationQuality CGContextGetInterpolationQuality(CGContextRef c);
CG_EXTERN void CGContextSetRGBFillColor(CGContextRef c, CGFloat red, CGFloat green, CGFloat blue, CGFloat alpha);
CG_EXTERN void CGContextFillRect(CGContextRef c, CGRect rect);
CG_EXTERN void CGContextClearRect(CGContextRef c, CGRect rect);
// Scales image into rect (user space, origin bottom-left) with bilinear filtering, clipped to the
// context, composited source-over.
CG_EXTERN void CGContextDrawImage(CGContextRef c, CGRect rect, CGImageRef image);

// ---- CGBitmapContext.h

typedef void (*CGBitmapContextReleaseDataCallback)(void *releaseInfo, void *data);

// +1; NULL for unsupported parameter combinations. data NULL: the context allocates (zeroed)
// memory itself. Supported: 8 bits per component, 32 bits per pixel, RGB with alpha or skip
// first/last in either 32-bit byte order. bytesPerRow 0 means width * 4.
CG_EXTERN CGContextRef CGBitmapContextCreate(void *data, size_t width, size_t height, size_t bitsPerComponent,
    size_t bytesPerRow, CGColorSpaceRef space, uint32_t bitmapInfo);
CG_EXTERN CGContextRef CGBitmapContextCreateWithData(void *data, size_t width, size_t height, size_t bitsPerComponent,
    size_t bytesPerRow, CGColorSpaceRef space, uint32_t bitmapInfo, CGBitmapContextReleaseDataCallback releaseCallback,
    void *releaseInfo);
CG_EXTERN void *CGBitmapContextGetData(CGContextRef context);
CG_EXTERN size_t CGBitmapContextGetWidth(CGContextRef context);
CG_EXTERN size_t CGBitmapContextGetHeight(CGContextRef context);
CG_EXTERN size_t CGBitmapContextGetBitsPerComponent(CGContextRef context);
CG_EXTERN size_t CGBitmapContextGetBitsPerPixel(CGContextRef context);
CG_EXTERN size_t CGBitmapContextGetBytesPerRow(CGContextRef context);
CG_EXTERN CGColorSpaceRef CGBitmapContextGetColorSpace(CGContextRef context);
CG_EXTERN CGImageAlphaInfo CGBitmapContextGetAlphaInfo(CGContextRef context);
CG_EXTERN CGBitmapInfo CGBitmapContextGetBitmapInfo(CGContextRef context);
// +1 snapshot of the context's pixels.
CG_EXTERN CGImageRef CGBitmapContextCreateImage(CGContextRef context);

#ifdef __cplusplus
}
#endif
