// CoreImage's QR path: CIImage over a CGImage, a minimal CIContext, and CIDetector, which finds
// every QR code in an image with zxing-cpp and answers CIQRCodeFeature objects in reading order
// (rows from top to bottom, left to right within a row), so repeated calls list them the same way.
#define ZX_USE_UTF8 1

#include "CoreFoundation/cfinternal.h"
#include "CoreGraphics/CGPrivate.h"
#include "objc/define.h"

#include <CoreGraphics/CoreGraphics.h>

#include <ZXing/ReadBarcode.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

using namespace fakeobjc;

FAKEOBJC_ENCODING(CGImageRef, "^{CGImage=}");
FAKEOBJC_ENCODING(CGRect, "{CGRect={CGPoint=dd}{CGSize=dd}}");
FAKEOBJC_ENCODING(CGPoint, "{CGPoint=dd}");

#define CI_CONSTANT(name, text)                                                                                        \
    extern "C" __attribute__((visibility("default"))) id const name = fakecf::constantString(text)

CI_CONSTANT(CIDetectorTypeFace, "CIDetectorTypeFace");
CI_CONSTANT(CIDetectorTypeRectangle, "CIDetectorTypeRectangle");
CI_CONSTANT(CIDetectorTypeQRCode, "CIDetectorTypeQRCode");
CI_CONSTANT(CIDetectorTypeText, "CIDetectorTypeText");
CI_CONSTANT(CIDetectorAccuracy, "CIDetectorAccuracy");
CI_CONSTANT(CIDetectorAccuracyLow, "CIDetectorAccuracyLow");
CI_CONSTANT(CIDetectorAccuracyHigh, "CIDetectorAccuracyHigh");
CI_CONSTANT(CIDetectorTracking, "CIDetectorTracking");
CI_CONSTANT(CIDetectorMinFeatureSize, "CIDetectorMinFeatureSize");
CI_CONSTANT(CIDetectorMaxFeatureCount, "CIDetectorMaxFeatureCount");
CI_CONSTANT(CIFeatureTypeFace, "Face");
CI_CONSTANT(CIFeatureTypeRectangle, "Rectangle");
CI_CONSTANT(CIFeatureTypeQRCode, "QRCode");
CI_CONSTANT(CIFeatureTypeText, "Text");

namespace {

// ---- CIImage

struct ImageState {
    CGImageRef image = nullptr;
    ~ImageState() { CGImageRelease(image); }
};

StateSlot<ImageState> gImageSlot;

id initWithCGImage(id self, SEL, CGImageRef image)
{
    if (!image) {
        objc_release(self);
        return nil;
    }
    ImageState &st = gImageSlot.get(self);
    CGImageRef old = st.image;
    st.image = CGImageRetain(image);
    CGImageRelease(old);
    return self;
}

id initWithCGImageOptions(id self, SEL, CGImageRef image, id)
{
    return initWithCGImage(self, nullptr, image);
}

// A UIImage without a bitmap (CIImage-backed) gives nil, as on iOS.
id initWithImageOptions(id self, SEL, id image, id)
{
    return initWithCGImage(self, nullptr, msg<CGImageRef>(image, "CGImage"));
}

id initWithImage(id self, SEL, id image)
{
    return initWithImageOptions(self, nullptr, image, nil);
}

id imageWithCGImage(id cls, SEL, CGImageRef image)
{
    return objc_autorelease(msg<id>(msg<id>(cls, "alloc"), "initWithCGImage:", image));
}

id imageWithCGImageOptions(id cls, SEL, CGImageRef image, id options)
{
    return objc_autorelease(msg<id>(msg<id>(cls, "alloc"), "initWithCGImage:options:", image, options));
}

CGImageRef ciImageCGImage(id self, SEL)
{
    ImageState *st = gImageSlot.peek(self);
    return st ? st->image : nullptr;
}

CGRect extent(id self, SEL)
{
    ImageState *st = gImageSlot.peek(self);
    if (!st || !st->image)
        return CGRectZero;
    return CGRectMake(0, 0, double(CGImageGetWidth(st->image)), double(CGImageGetHeight(st->image)));
}

void imageDealloc(id self, SEL)
{
    destroyStateThenSuper(gImageSlot, "CIImage", self);
}

// ---- CIContext

id contextWithOptions(id cls, SEL, id)
{
    return objc_autorelease(msg<id>(msg<id>(cls, "alloc"), "init"));
}

id context(id cls, SEL)
{
    return contextWithOptions(cls, nullptr, nil);
}

// ---- CIFeature and CIQRCodeFeature

struct FeatureState {
    id type = nil;    // a constant string
    id message = nil; // retained
    CGRect bounds = {{0, 0}, {0, 0}};
    CGPoint topLeft = {0, 0}, topRight = {0, 0}, bottomLeft = {0, 0}, bottomRight = {0, 0};
    ~FeatureState() { objc_release(message); }
};

StateSlot<FeatureState> gFeatureSlot;

id featureType(id self, SEL)
{
    FeatureState *st = gFeatureSlot.peek(self);
    return st ? st->type : nil;
}

CGRect featureBounds(id self, SEL)
{
    FeatureState *st = gFeatureSlot.peek(self);
    return st ? st->bounds : CGRectZero;
}

id messageString(id self, SEL)
{
    FeatureState *st = gFeatureSlot.peek(self);
    return st ? st->message : nil;
}

template <CGPoint FeatureState::*Corner> CGPoint corner(id self, SEL)
{
    FeatureState *st = gFeatureSlot.peek(self);
    return st ? st->*Corner : CGPoint{0, 0};
}

void featureDealloc(id self, SEL)
{
    destroyStateThenSuper(gFeatureSlot, "CIFeature", self);
}

// ---- CIDetector

struct DetectorState {
    bool highAccuracy = false;
};

StateSlot<DetectorState> gDetectorSlot;

id detectorOfType(id cls, SEL, id type, id, id options)
{
    if (!msg<bool>(type, "isEqual:", CIDetectorTypeQRCode))
        return nil;
    id detector = msg<id>(msg<id>(cls, "alloc"), "init");
    id accuracy = msg<id>(options, "objectForKey:", CIDetectorAccuracy);
    gDetectorSlot.get(detector).highAccuracy = msg<bool>(accuracy, "isEqual:", CIDetectorAccuracyHigh);
    return objc_autorelease(detector);
}

struct Found {
    std::string text;
    ZXing::Position position;
    int minX, minY, maxX, maxY;
};

// Rows first: a code belongs to the current row while its top lies above the middle of the row's
// first code; inside a row, left to right.
void sortReadingOrder(std::vector<Found> &found)
{
    std::sort(found.begin(), found.end(),
        [](const Found &a, const Found &b) { return a.minY != b.minY ? a.minY < b.minY : a.minX < b.minX; });
    for (size_t rowStart = 0; rowStart < found.size();) {
        int rowMiddle = (found[rowStart].minY + found[rowStart].maxY) / 2;
        size_t rowEnd = rowStart + 1;
        while (rowEnd < found.size() && found[rowEnd].minY <= rowMiddle)
            ++rowEnd;
        std::stable_sort(found.begin() + long(rowStart), found.begin() + long(rowEnd),
            [](const Found &a, const Found &b) { return a.minX < b.minX; });
        rowStart = rowEnd;
    }
}

// f in the detector's input, mapped into the image's coordinates (the input may be a reduced
// picture, sx and sy times smaller); Core Image's origin is at the bottom left of the image.
id makeFeature(const Found &f, double sx, double sy, double imageHeight)
{
    id feature = msg<id>(msg<id>(fakeobjc::cls("CIQRCodeFeature"), "alloc"), "init");
    FeatureState &st = gFeatureSlot.get(feature);
    st.type = CIFeatureTypeQRCode;
    st.message = fakecf::newString(f.text);
    auto flip = [=](ZXing::PointI p) { return CGPointMake(p.x * sx, imageHeight - p.y * sy); };
    st.topLeft = flip(f.position.topLeft());
    st.topRight = flip(f.position.topRight());
    st.bottomLeft = flip(f.position.bottomLeft());
    st.bottomRight = flip(f.position.bottomRight());
    st.bounds = CGRectMake(f.minX * sx, imageHeight - f.maxY * sy, (f.maxX - f.minX) * sx, (f.maxY - f.minY) * sy);
    return feature;
}

// The detector looks at a picture of at most 2048 x 2048 pixels' worth: a larger image is scaled
// down first, as Core Image works on a reduced input for large images, so that detection costs
// the same for any picture and its sizes stay far from zxing's 32-bit arithmetic.
constexpr size_t kMaxDetectorPixels = size_t(2048) * 2048;

std::vector<Found> findCodes(const uint8_t *bgra, size_t width, size_t height, size_t stride, bool highAccuracy)
{
    ZXing::DecodeHints hints;
    hints.setFormats(ZXing::BarcodeFormat::QRCode);
    hints.setTryHarder(highAccuracy);
    hints.setTryRotate(true);
    ZXing::ImageView view(bgra, int(width), int(height), ZXing::ImageFormat::BGRX, int(stride));
    std::vector<Found> found;
    for (const ZXing::Result &result : ZXing::ReadBarcodes(view, hints)) {
        if (!result.isValid())
            continue;
        const ZXing::Position &p = result.position();
        Found f{result.text(), p, p[0].x, p[0].y, p[0].x, p[0].y};
        for (const ZXing::PointI &pt : p) {
            f.minX = std::min(f.minX, pt.x);
            f.minY = std::min(f.minY, pt.y);
            f.maxX = std::max(f.maxX, pt.x);
            f.maxY = std::max(f.maxY, pt.y);
        }
        found.push_back(std::move(f));
    }
    sortReadingOrder(found);
    return found;
}

id featuresInImageOptions(id self, SEL, id image, id)
{
    CGImageRef cg = msg<CGImageRef>(image, "CGImage");
    size_t width = CGImageGetWidth(cg), height = CGImageGetHeight(cg);
    std::vector<id> features;
    fakecg::Bitmap drawn;
    size_t stride = 0, inWidth = 0, inHeight = 0;
    const uint8_t *bgra = fakecg::storedBGRA(cg, &stride, &inWidth, &inHeight);
    if ((!bgra || inWidth * inHeight > kMaxDetectorPixels) && width && height) {
        double scale = std::min(1.0, std::sqrt(double(kMaxDetectorPixels) / (double(width) * double(height))));
        size_t w = std::max<size_t>(1, size_t(double(width) * scale)), h = std::max<size_t>(1, size_t(double(height) * scale));
        bgra = fakecg::drawBGRA(cg, w, h, drawn) ? drawn.pixels.get() : nullptr;
        stride = w * 4, inWidth = w, inHeight = h;
    }
    if (bgra) {
        DetectorState *st = gDetectorSlot.peek(self);
        try {
            double sx = double(width) / double(inWidth), sy = double(height) / double(inHeight);
            for (const Found &f : findCodes(bgra, inWidth, inHeight, stride, st && st->highAccuracy))
                features.push_back(makeFeature(f, sx, sy, double(height)));
        } catch (const std::bad_alloc &) {
            // No memory for the search: nothing found, as nothing would be on a device.
        }
    }
    id array = fakecf::newArray(features.data(), features.size());
    for (id feature : features)
        objc_release(feature);
    return objc_autorelease(array);
}

id featuresInImage(id self, SEL, id image)
{
    return featuresInImageOptions(self, nullptr, image, nil);
}

void detectorDealloc(id self, SEL)
{
    destroyStateThenSuper(gDetectorSlot, "CIDetector", self);
}

__attribute__((constructor)) void declareCoreImage()
{
    ClassDef("CIImage", "NSObject")
        .stateIvar()
        .classMethod("imageWithCGImage:", imageWithCGImage)
        .classMethod("imageWithCGImage:options:", imageWithCGImageOptions)
        .method("initWithCGImage:", initWithCGImage)
        .method("initWithCGImage:options:", initWithCGImageOptions)
        .method("initWithImage:", initWithImage)
        .method("initWithImage:options:", initWithImageOptions)
        .method("CGImage", ciImageCGImage)
        .method("extent", extent)
        .method("dealloc", imageDealloc)
        .registerWith(gImageSlot);
    ClassDef("CIContext", "NSObject")
        .classMethod("context", context)
        .classMethod("contextWithOptions:", contextWithOptions)
        .registerClass();
    ClassDef("CIFeature", "NSObject")
        .stateIvar()
        .method("type", featureType)
        .method("bounds", featureBounds)
        .method("dealloc", featureDealloc)
        .registerWith(gFeatureSlot);
    ClassDef("CIQRCodeFeature", "CIFeature")
        .method("messageString", messageString)
        .method("topLeft", corner<&FeatureState::topLeft>)
        .method("topRight", corner<&FeatureState::topRight>)
        .method("bottomLeft", corner<&FeatureState::bottomLeft>)
        .method("bottomRight", corner<&FeatureState::bottomRight>)
        .registerClass();
    ClassDef("CIDetector", "NSObject")
        .stateIvar()
        .classMethod("detectorOfType:context:options:", detectorOfType)
        .method("featuresInImage:", featuresInImage)
        .method("featuresInImage:options:", featuresInImageOptions)
        .method("dealloc", detectorDealloc)
        .registerWith(gDetectorSlot);
}

} // namespace
