// A frame's bytes as the library receives them, through what it and the host tools do with them:
// the host's header check, the platform's decode (UIImage imageWithData:), then as the poll cycle
// consumes a frame, a sample buffer and QR detection. Whatever the bytes (JPEG and PNG headers
// that claim any size among them), nothing crashes or throws, memory stays bounded (libFuzzer's
// RSS limit), a picture that decodes has the size both header readers state, and it fills a
// 640 x 480 sample buffer.
#include "frames/SampleBuffer.h"
#include "objc/Frameworks.h"
#include "server/image.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

using namespace zerlan::objc;

namespace {

id detector()
{
    static id made = [] {
        id options = send<id>(cls("NSDictionary"), sel<"dictionaryWithObject:forKey:">(), CIDetectorAccuracyHigh,
                              CIDetectorAccuracy);
        return objc_retain(send<id>(cls("CIDetector"), sel<"detectorOfType:context:options:">(), CIDetectorTypeQRCode,
                                    static_cast<id>(nil), options));
    }();
    return made;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    AutoreleasePool pool;
    std::string_view bytes(reinterpret_cast<const char *>(data), size);
    auto header = zerlan::server::readPictureHeader(bytes);
    if (header)
        (void)zerlan::server::checkPictureSize(header->size, "picture");

    id frame = send<id>(cls("NSData"), sel<"dataWithBytes:length:">(), static_cast<const void *>(data),
                        static_cast<unsigned long>(size));
    id image = send<id>(cls("UIImage"), sel<"imageWithData:">(), frame);
    if (!image)
        return 0;
    CGSize decoded = send<CGSize>(image, sel<"size">());
    if (!header || decoded.width != header->size.width || decoded.height != header->size.height)
        std::abort();

    CMSampleBufferRef buffer = ZerlanCreateSampleBuffer(image, 3);
    if (!buffer)
        std::abort();
    CVImageBufferRef pixels = CMSampleBufferGetImageBuffer(buffer);
    if (CVPixelBufferGetWidth(pixels) != 640 || CVPixelBufferGetHeight(pixels) != 480)
        std::abort();
    CFRelease(buffer);

    Strong<> coreImage = allocInit<"initWithImage:">("CIImage", image);
    send<id>(detector(), sel<"featuresInImage:">(), coreImage.get());
    return 0;
}
