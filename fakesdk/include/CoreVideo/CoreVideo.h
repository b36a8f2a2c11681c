// Apple's <CoreVideo/CoreVideo.h> (the part the project uses): pixel buffers. CF types, so
// CFRetain/CFRelease apply; CVPixelBufferRetain/Release and CVBufferRetain/Release accept NULL.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CV_EXPORT extern __attribute__((visibility("default")))

typedef int32_t CVReturn;
enum {
    kCVReturnSuccess = 0,
    kCVReturnFirst = -6660,
    kCVReturnError = kCVReturnFirst,
    kCVReturnInvalidArgument = -6661,
    kCVReturnAllocationFailed = -6662,
    kCVReturnUnsupported = -6663,
    kCVReturnInvalidPixelFormat = -6680,
    kCVReturnInvalidSize = -6681,
    kCVReturnInvalidPixelBufferAttributes = -6682,
    kCVReturnLast = -6699
};

typedef uint64_t CVOptionFlags;

typedef struct __CVBuffer *CVBufferRef;
typedef CVBufferRef CVImageBufferRef;
typedef CVImageBufferRef CVPixelBufferRef;

typedef uint32_t CVAttachmentMode;
enum { kCVAttachmentMode_ShouldNotPropagate = 0, kCVAttachmentMode_ShouldPropagate = 1 };

CV_EXPORT CVBufferRef CVBufferRetain(CVBufferRef buffer);
CV_EXPORT void CVBufferRelease(CVBufferRef buffer);
// +0: the buffer keeps the value. attachmentMode may be NULL.
CV_EXPORT CFTypeRef CVBufferGetAttachment(CVBufferRef buffer, CFStringRef key, CVAttachmentMode *attachmentMode);
CV_EXPORT void CVBufferSetAttachment(
    CVBufferRef buffer, CFStringRef key, CFTypeRef value, CVAttachmentMode attachmentMode);
CV_EXPORT void CVBufferRemoveAttachment(CVBufferRef buffer, CFStringRef key);
CV_EXPORT void CVBufferRemoveAllAttachments(CVBufferRef buffer);

typedef CVOptionFlags CVPixelBufferLockFlags;
enum : CVOptionFlags { kCVPixelBufferLock_ReadOnly = 0x00000001 };

enum : OSType {
    kCVPixelFormatType_32ARGB = 0x00000020,
    kCVPixelFormatType_32BGRA = 'BGRA',
    kCVPixelFormatType_32ABGR = 'ABGR',
    kCVPixelFormatType_32RGBA = 'RGBA',
    kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange = '420v',
    kCVPixelFormatType_420YpCbCr8BiPlanarFullRange = '420f'
};

CV_EXPORT const CFStringRef kCVPixelBufferPixelFormatTypeKey;
CV_EXPORT const CFStringRef kCVPixelBufferWidthKey;
CV_EXPORT const CFStringRef kCVPixelBufferHeightKey;
CV_EXPORT const CFStringRef kCVPixelBufferBytesPerRowAlignmentKey;
CV_EXPORT const CFStringRef kCVPixelBufferCGImageCompatibilityKey;
CV_EXPORT const CFStringRef kCVPixelBufferCGBitmapContextCompatibilityKey;
CV_EXPORT const CFStringRef kCVPixelBufferIOSurfacePropertiesKey;

typedef void (*CVPixelBufferReleaseBytesCallback)(void *releaseRefCon, const void *baseAddress);

CV_EXPORT CFTypeID CVPixelBufferGetTypeID(void);
CV_EXPORT CVPixelBufferRef CVPixelBufferRetain(CVPixelBufferRef texture);
CV_EXPORT void CVPixelBufferRelease(CVPixelBufferRef texture);

// *pixelBufferOut is +1. Rows are padded to a multiple of 64 bytes.
CV_EXPORT CVReturn CVPixelBufferCreate(CFAllocatorRef allocator, size_t width, size_t height, OSType pixelFormatType,
    CFDictionaryRef pixelBufferAttributes, CVPixelBufferRef *pixelBufferOut);
// Wraps caller memory; releaseCallback (may be NULL) runs when the buffer is freed.
CV_EXPORT CVReturn CVPixelBufferCreateWithBytes(CFAllocatorRef allocator, size_t width, size_t height,
    OSType pixelFormatType, void *baseAddress, size_t bytesPerRow, CVPixelBufferReleaseBytesCallback releaseCallback,
    void *releaseRefCon, CFDictionaryRef pixelBufferAttributes, CVPixelBufferRef *pixelBufferOut);

// Unlock must pass the flags of the matching lock.
CV_EXPORT CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags lockFlags);
CV_EXPORT CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags unlockFlags);

CV_EXPORT size_t CVPixelBufferGetWidth(CVPixelBufferRef pixelBuffer);
CV_EXPORT size_t CVPixelBufferGetHeight(CVPixelBufferRef pixelBuffer);
CV_EXPORT OSType CVPixelBufferGetPixelFormatType(CVPixelBufferRef pixelBuffer);
CV_EXPORT void *CVPixelBufferGetBaseAddress(CVPixelBufferRef pixelBuffer);
CV_EXPORT size_t CVPixelBufferGetBytesPerRow(CVPixelBufferRef pixelBuffer);
CV_EXPORT size_t CVPixelBufferGetDataSize(CVPixelBufferRef pixelBuffer);
CV_EXPORT Boolean CVPixelBufferIsPlanar(CVPixelBufferRef pixelBuffer);
CV_EXPORT size_t CVPixelBufferGetPlaneCount(CVPixelBufferRef pixelBuffer);
CV_EXPORT size_t CVPixelBufferGetWidthOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex);
CV_EXPORT size_t CVPixelBufferGetHeightOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex);
CV_EXPORT void *CVPixelBufferGetBaseAddressOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex);
CV_EXPORT size_t CVPixelBufferGetBytesPerRowOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex);

#ifdef __cplusplus
}
#endif
