// CVPixelBuffer: a hidden runtime class ("OpaqueCVPixelBuffer") whose state owns the pixel memory
// (or wraps the caller's), the attributes it was created with, a lock count and attachments.
#include "CoreFoundation/cfinternal.h"
#include "objc/define.h"

#include <CoreVideo/CoreVideo.h>
#include <fakesdk/media_np.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

using namespace fakeobjc;

namespace {

struct Plane {
    size_t offset = 0;
    size_t width = 0;
    size_t height = 0;
    size_t bytesPerRow = 0;
};

struct Attachment {
    id key;
    id value;
    CVAttachmentMode mode;
};

struct PixelBufferState {
    size_t width = 0;
    size_t height = 0;
    OSType format = 0;
    size_t bytesPerRow = 0;
    size_t dataSize = 0;
    uint8_t *memory = nullptr; // base of the pixels, or of the planar header for planar formats
    bool ownsMemory = false;
    CVPixelBufferReleaseBytesCallback releaseCallback = nullptr;
    void *releaseRefCon = nullptr;
    std::vector<Plane> planes;
    id attributes = nil;
    bool ioSurface = false;

    std::mutex lock;
    long readOnlyLocks = 0;
    long readWriteLocks = 0;
    std::vector<Attachment> attachments;

    ~PixelBufferState()
    {
        if (ownsMemory)
            std::free(memory);
        else if (releaseCallback)
            releaseCallback(releaseRefCon, memory);
        objc_release(attributes);
        for (auto &a : attachments) {
            objc_release(a.key);
            objc_release(a.value);
        }
    }
};

StateSlot<PixelBufferState> gSlot;
Class gPixelBufferClass;

void pixelBufferDealloc(id self, SEL)
{
    destroyStateThenSuper(gSlot, "OpaqueCVPixelBuffer", self);
}

__attribute__((constructor)) void declareCoreVideo()
{
    gPixelBufferClass = ClassDef("OpaqueCVPixelBuffer", "NSObject")
                            .stateIvar()
                            .method("dealloc", pixelBufferDealloc)
                            .registerWith(gSlot);
}

PixelBufferState *stateOf(CVBufferRef buffer)
{
    id obj = reinterpret_cast<id>(buffer);
    if (!obj || !gPixelBufferClass)
        return nullptr;
    for (Class c = object_getClass(obj); c; c = class_getSuperclass(c))
        if (c == gPixelBufferClass)
            return &gSlot.get(obj);
    return nullptr;
}

constexpr size_t kRowAlignment = 64;
// Apple's planar base address points at a CVPlanarPixelBufferInfo_YCbCrBiPlanar: two
// {int32 offset, uint32 rowBytes} records, big-endian.
constexpr size_t kPlanarHeader = 16;

size_t alignUp(size_t value, size_t alignment)
{
    return (value + alignment - 1) / alignment * alignment;
}

size_t bytesPerPixel(OSType format)
{
    switch (format) {
    case kCVPixelFormatType_32ARGB:
    case kCVPixelFormatType_32BGRA:
    case kCVPixelFormatType_32ABGR:
    case kCVPixelFormatType_32RGBA:
        return 4;
    default:
        return 0;
    }
}

bool isBiPlanar(OSType format)
{
    return format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange
        || format == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
}

void putBigEndian32(uint8_t *out, uint32_t value)
{
    out[0] = uint8_t(value >> 24);
    out[1] = uint8_t(value >> 16);
    out[2] = uint8_t(value >> 8);
    out[3] = uint8_t(value);
}

id makeBuffer(size_t width, size_t height, OSType format, CFDictionaryRef attributes)
{
    id obj = class_createInstance(gPixelBufferClass, 0);
    PixelBufferState &st = gSlot.get(obj);
    st.width = width;
    st.height = height;
    st.format = format;
    if (attributes) {
        st.attributes = msg<id>(reinterpret_cast<id>(const_cast<__CFDictionary *>(attributes)), "copy");
        st.ioSurface = CFDictionaryGetValue(attributes, kCVPixelBufferIOSurfacePropertiesKey) != nullptr;
    }
    return obj;
}

CVReturn validate(size_t width, size_t height, OSType format, CVPixelBufferRef *out)
{
    if (!out)
        return kCVReturnInvalidArgument;
    *out = nullptr;
    if (width == 0 || height == 0 || width > (1u << 16) || height > (1u << 16))
        return kCVReturnInvalidSize;
    if (!bytesPerPixel(format) && !isBiPlanar(format))
        return kCVReturnInvalidPixelFormat;
    return kCVReturnSuccess;
}

} // namespace

extern "C" {

const CFStringRef kCVPixelBufferPixelFormatTypeKey
    = reinterpret_cast<CFStringRef>(fakecf::constantString("PixelFormatType"));
const CFStringRef kCVPixelBufferWidthKey = reinterpret_cast<CFStringRef>(fakecf::constantString("Width"));
const CFStringRef kCVPixelBufferHeightKey = reinterpret_cast<CFStringRef>(fakecf::constantString("Height"));
const CFStringRef kCVPixelBufferBytesPerRowAlignmentKey
    = reinterpret_cast<CFStringRef>(fakecf::constantString("BytesPerRowAlignment"));
const CFStringRef kCVPixelBufferCGImageCompatibilityKey
    = reinterpret_cast<CFStringRef>(fakecf::constantString("CGImageCompatibility"));
const CFStringRef kCVPixelBufferCGBitmapContextCompatibilityKey
    = reinterpret_cast<CFStringRef>(fakecf::constantString("CGBitmapContextCompatibility"));
const CFStringRef kCVPixelBufferIOSurfacePropertiesKey
    = reinterpret_cast<CFStringRef>(fakecf::constantString("IOSurfaceProperties"));

CFTypeID CVPixelBufferGetTypeID(void)
{
    return fakecf::typeIDForClass(gPixelBufferClass);
}

CVBufferRef CVBufferRetain(CVBufferRef buffer)
{
    return buffer ? reinterpret_cast<CVBufferRef>(objc_retain(reinterpret_cast<id>(buffer))) : nullptr;
}

void CVBufferRelease(CVBufferRef buffer)
{
    if (buffer)
        objc_release(reinterpret_cast<id>(buffer));
}

CVPixelBufferRef CVPixelBufferRetain(CVPixelBufferRef texture)
{
    return CVBufferRetain(texture);
}

void CVPixelBufferRelease(CVPixelBufferRef texture)
{
    CVBufferRelease(texture);
}

CVReturn CVPixelBufferCreate(CFAllocatorRef, size_t width, size_t height, OSType pixelFormatType,
    CFDictionaryRef pixelBufferAttributes, CVPixelBufferRef *pixelBufferOut)
{
    if (CVReturn status = validate(width, height, pixelFormatType, pixelBufferOut))
        return status;
    id obj = makeBuffer(width, height, pixelFormatType, pixelBufferAttributes);
    PixelBufferState &st = gSlot.get(obj);
    if (isBiPlanar(pixelFormatType)) {
        size_t chromaWidth = (width + 1) / 2, chromaHeight = (height + 1) / 2;
        Plane luma{kPlanarHeader, width, height, alignUp(width, kRowAlignment)};
        Plane chroma{0, chromaWidth, chromaHeight, alignUp(chromaWidth * 2, kRowAlignment)};
        chroma.offset = alignUp(luma.offset + luma.bytesPerRow * height, kRowAlignment);
        st.planes = {luma, chroma};
        st.dataSize = chroma.offset + chroma.bytesPerRow * chromaHeight;
        st.bytesPerRow = 0;
    } else {
        st.bytesPerRow = alignUp(width * bytesPerPixel(pixelFormatType), kRowAlignment);
        st.dataSize = st.bytesPerRow * height;
    }
    // Not cleared, as on Apple: a new buffer's pixels are whatever the memory held.
    st.memory = static_cast<uint8_t *>(std::malloc(st.dataSize));
    if (!st.memory) {
        objc_release(obj);
        return kCVReturnAllocationFailed;
    }
    st.ownsMemory = true;
    for (size_t i = 0; i < st.planes.size(); ++i) {
        putBigEndian32(st.memory + i * 8, uint32_t(st.planes[i].offset));
        putBigEndian32(st.memory + i * 8 + 4, uint32_t(st.planes[i].bytesPerRow));
    }
    *pixelBufferOut = reinterpret_cast<CVPixelBufferRef>(obj);
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferCreateWithBytes(CFAllocatorRef, size_t width, size_t height, OSType pixelFormatType,
    void *baseAddress, size_t bytesPerRow, CVPixelBufferReleaseBytesCallback releaseCallback, void *releaseRefCon,
    CFDictionaryRef pixelBufferAttributes, CVPixelBufferRef *pixelBufferOut)
{
    if (CVReturn status = validate(width, height, pixelFormatType, pixelBufferOut))
        return status;
    // Planar formats need CVPixelBufferCreateWithPlanarBytes on Apple's platforms too.
    if (!baseAddress || isBiPlanar(pixelFormatType) || bytesPerRow < width * bytesPerPixel(pixelFormatType))
        return kCVReturnInvalidArgument;
    id obj = makeBuffer(width, height, pixelFormatType, pixelBufferAttributes);
    PixelBufferState &st = gSlot.get(obj);
    st.memory = static_cast<uint8_t *>(baseAddress);
    st.bytesPerRow = bytesPerRow;
    st.dataSize = bytesPerRow * height;
    st.releaseCallback = releaseCallback;
    st.releaseRefCon = releaseRefCon;
    *pixelBufferOut = reinterpret_cast<CVPixelBufferRef>(obj);
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags lockFlags)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    if (!st)
        return kCVReturnInvalidArgument;
    std::lock_guard<std::mutex> guard(st->lock);
    (lockFlags & kCVPixelBufferLock_ReadOnly ? st->readOnlyLocks : st->readWriteLocks) += 1;
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags unlockFlags)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    if (!st)
        return kCVReturnInvalidArgument;
    std::lock_guard<std::mutex> guard(st->lock);
    long &count = unlockFlags & kCVPixelBufferLock_ReadOnly ? st->readOnlyLocks : st->readWriteLocks;
    if (count == 0)
        return kCVReturnError;
    --count;
    return kCVReturnSuccess;
}

size_t CVPixelBufferGetWidth(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st ? st->width : 0;
}

size_t CVPixelBufferGetHeight(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st ? st->height : 0;
}

OSType CVPixelBufferGetPixelFormatType(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st ? st->format : 0;
}

void *CVPixelBufferGetBaseAddress(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st ? st->memory : nullptr;
}

size_t CVPixelBufferGetBytesPerRow(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st ? st->bytesPerRow : 0;
}

size_t CVPixelBufferGetDataSize(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st ? st->dataSize : 0;
}

Boolean CVPixelBufferIsPlanar(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st && !st->planes.empty();
}

size_t CVPixelBufferGetPlaneCount(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st ? st->planes.size() : 0;
}

size_t CVPixelBufferGetWidthOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st && planeIndex < st->planes.size() ? st->planes[planeIndex].width : 0;
}

size_t CVPixelBufferGetHeightOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st && planeIndex < st->planes.size() ? st->planes[planeIndex].height : 0;
}

void *CVPixelBufferGetBaseAddressOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st && planeIndex < st->planes.size() ? st->memory + st->planes[planeIndex].offset : nullptr;
}

size_t CVPixelBufferGetBytesPerRowOfPlane(CVPixelBufferRef pixelBuffer, size_t planeIndex)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st && planeIndex < st->planes.size() ? st->planes[planeIndex].bytesPerRow : 0;
}

CFTypeRef CVBufferGetAttachment(CVBufferRef buffer, CFStringRef key, CVAttachmentMode *attachmentMode)
{
    PixelBufferState *st = stateOf(buffer);
    if (!st || !key)
        return nullptr;
    std::lock_guard<std::mutex> guard(st->lock);
    for (auto &a : st->attachments)
        if (CFEqual(a.key, key)) {
            if (attachmentMode)
                *attachmentMode = a.mode;
            return a.value;
        }
    return nullptr;
}

void CVBufferSetAttachment(CVBufferRef buffer, CFStringRef key, CFTypeRef value, CVAttachmentMode attachmentMode)
{
    PixelBufferState *st = stateOf(buffer);
    if (!st || !key || !value)
        return;
    id newKey = msg<id>(reinterpret_cast<id>(const_cast<__CFString *>(key)), "copy");
    id newValue = objc_retain(reinterpret_cast<id>(const_cast<void *>(value)));
    id oldKey = nil, oldValue = nil;
    {
        std::lock_guard<std::mutex> guard(st->lock);
        for (auto &a : st->attachments)
            if (CFEqual(a.key, key)) {
                oldKey = std::exchange(a.key, newKey);
                oldValue = std::exchange(a.value, newValue);
                a.mode = attachmentMode;
                newKey = nil;
                break;
            }
        if (newKey)
            st->attachments.push_back({newKey, newValue, attachmentMode});
    }
    objc_release(oldKey);
    objc_release(oldValue);
}

void CVBufferRemoveAttachment(CVBufferRef buffer, CFStringRef key)
{
    PixelBufferState *st = stateOf(buffer);
    if (!st || !key)
        return;
    Attachment removed{nil, nil, 0};
    {
        std::lock_guard<std::mutex> guard(st->lock);
        for (auto it = st->attachments.begin(); it != st->attachments.end(); ++it)
            if (CFEqual(it->key, key)) {
                removed = *it;
                st->attachments.erase(it);
                break;
            }
    }
    objc_release(removed.key);
    objc_release(removed.value);
}

void CVBufferRemoveAllAttachments(CVBufferRef buffer)
{
    PixelBufferState *st = stateOf(buffer);
    if (!st)
        return;
    std::vector<Attachment> removed;
    {
        std::lock_guard<std::mutex> guard(st->lock);
        removed.swap(st->attachments);
    }
    for (auto &a : removed) {
        objc_release(a.key);
        objc_release(a.value);
    }
}

CFDictionaryRef CVPixelBufferCopyCreationAttributes_np(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st && st->attributes ? reinterpret_cast<CFDictionaryRef>(objc_retain(st->attributes)) : nullptr;
}

Boolean CVPixelBufferIsIOSurfaceBacked_np(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    return st && st->ioSurface;
}

long CVPixelBufferLockCount_np(CVPixelBufferRef pixelBuffer)
{
    PixelBufferState *st = stateOf(pixelBuffer);
    if (!st)
        return 0;
    std::lock_guard<std::mutex> guard(st->lock);
    return st->readOnlyLocks + st->readWriteLocks;
}

} // extern "C"
