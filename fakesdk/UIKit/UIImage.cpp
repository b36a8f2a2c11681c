// UIImage: an immutable bitmap (a CGImage kept for the image's life) with scale and orientation,
// decoded eagerly from JPEG or PNG data (see CGImageCreateWithJPEGDataProvider for large
// pictures), and the JPEG/PNG representation functions.
#include "CoreFoundation/cfinternal.h"
#include "CoreGraphics/CGPrivate.h"
#include "objc/define.h"

#include <CoreGraphics/CoreGraphics.h>

#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

using namespace fakeobjc;

FAKEOBJC_ENCODING(CGImageRef, "^{CGImage=}");
FAKEOBJC_ENCODING(CGSize, "{CGSize=dd}");

namespace {

struct ImageState {
    CGImageRef image = nullptr;
    double scale = 1;
    long orientation = 0; // UIImageOrientationUp

    ~ImageState() { CGImageRelease(image); }
};

StateSlot<ImageState> gSlot;

// UIImageOrientation values that turn the bitmap a quarter: Left, Right and their mirrors.
bool isQuarterTurn(long orientation)
{
    return orientation == 2 || orientation == 3 || orientation == 6 || orientation == 7;
}

id initWithCGImageScaleOrientation(id self, SEL, CGImageRef image, double scale, long orientation)
{
    if (!image) {
        objc_release(self);
        return nil;
    }
    ImageState &st = gSlot.get(self);
    CGImageRef old = st.image;
    st.image = CGImageRetain(image);
    CGImageRelease(old);
    st.scale = scale > 0 ? scale : 1;
    st.orientation = orientation;
    return self;
}

id initWithCGImage(id self, SEL, CGImageRef image)
{
    return initWithCGImageScaleOrientation(self, nullptr, image, 1, 0);
}

CGImageRef decode(id data)
{
    CGDataProviderRef provider = CGDataProviderCreateWithCFData(reinterpret_cast<CFDataRef>(data));
    if (!provider)
        return nullptr;
    CGImageRef image = CGImageCreateWithJPEGDataProvider(provider, nullptr, true, kCGRenderingIntentDefault);
    if (!image)
        image = CGImageCreateWithPNGDataProvider(provider, nullptr, true, kCGRenderingIntentDefault);
    CGDataProviderRelease(provider);
    return image;
}

id initWithData(id self, SEL, id data)
{
    CGImageRef image = data ? decode(data) : nullptr;
    id result = initWithCGImageScaleOrientation(self, nullptr, image, 1, 0);
    CGImageRelease(image);
    return result;
}

id imageWithData(id cls, SEL, id data)
{
    return objc_autorelease(msg<id>(msg<id>(cls, "alloc"), "initWithData:", data));
}

id imageWithCGImage(id cls, SEL, CGImageRef image)
{
    return objc_autorelease(msg<id>(msg<id>(cls, "alloc"), "initWithCGImage:", image));
}

id imageWithCGImageScaleOrientation(id cls, SEL, CGImageRef image, double scale, long orientation)
{
    return objc_autorelease(
        msg<id>(msg<id>(cls, "alloc"), "initWithCGImage:scale:orientation:", image, scale, orientation));
}

CGImageRef cgImage(id self, SEL)
{
    ImageState *st = gSlot.peek(self);
    return st ? st->image : nullptr;
}

CGSize size(id self, SEL)
{
    ImageState *st = gSlot.peek(self);
    if (!st || !st->image)
        return CGSizeZero;
    double w = double(CGImageGetWidth(st->image)) / st->scale, h = double(CGImageGetHeight(st->image)) / st->scale;
    return isQuarterTurn(st->orientation) ? CGSizeMake(h, w) : CGSizeMake(w, h);
}

double scale(id self, SEL)
{
    ImageState *st = gSlot.peek(self);
    return st ? st->scale : 1;
}

long imageOrientation(id self, SEL)
{
    ImageState *st = gSlot.peek(self);
    return st ? st->orientation : 0;
}

void dealloc(id self, SEL)
{
    destroyStateThenSuper(gSlot, "UIImage", self);
}

__attribute__((constructor)) void declareUIImage()
{
    ClassDef("UIImage", "NSObject")
        .stateIvar()
        .classMethod("imageWithData:", imageWithData)
        .classMethod("imageWithCGImage:", imageWithCGImage)
        .classMethod("imageWithCGImage:scale:orientation:", imageWithCGImageScaleOrientation)
        .method("initWithData:", initWithData)
        .method("initWithCGImage:", initWithCGImage)
        .method("initWithCGImage:scale:orientation:", initWithCGImageScaleOrientation)
        .method("CGImage", cgImage)
        .method("size", size)
        .method("scale", scale)
        .method("imageOrientation", imageOrientation)
        .method("dealloc", dealloc)
        .registerWith(gSlot);
}

id autoreleasedData(const uint8_t *bytes, size_t length)
{
    return objc_autorelease(fakecf::newData(bytes, length));
}

} // namespace

// Both return autoreleased NSData, or nil for a nil image or one without a bitmap.
extern "C" __attribute__((visibility("default"))) id UIImageJPEGRepresentation(id image, CGFloat compressionQuality)
{
    fakecg::Bitmap bitmap;
    if (!fakecg::copyBGRA(msg<CGImageRef>(image, "CGImage"), bitmap))
        return nil;
    double quality = std::isnan(compressionQuality) ? 0 : std::clamp(compressionQuality, 0.0, 1.0);
    std::unique_ptr<void, int (*)(tjhandle)> handle(tjInitCompress(), tjDestroy);
    if (!handle)
        return nil;
    unsigned char *jpeg = nullptr;
    unsigned long jpegSize = 0;
    int width = int(bitmap.width), height = int(bitmap.height);
    if (tjCompress2(handle.get(), bitmap.pixels.get(), width, width * 4, height, TJPF_BGRA, &jpeg, &jpegSize,
            TJSAMP_420, std::max(1, int(std::lround(quality * 100))), TJFLAG_ACCURATEDCT)
        != 0) {
        tjFree(jpeg);
        return nil;
    }
    id data = autoreleasedData(jpeg, jpegSize);
    tjFree(jpeg);
    return data;
}

extern "C" __attribute__((visibility("default"))) id UIImagePNGRepresentation(id image)
{
    std::vector<uint8_t> file;
    if (!fakecg::encodePNG(msg<CGImageRef>(image, "CGImage"), file))
        return nil;
    return autoreleasedData(file.data(), file.size());
}
