// CMFormatDescription and CMSampleBuffer as hidden runtime classes. A sample buffer holds one
// sample: its image buffer and format description (both retained) and one timing record.
#include "CoreFoundation/cfinternal.h"
#include "objc/define.h"

#include <CoreMedia/CoreMedia.h>

using namespace fakeobjc;

namespace {

struct FormatDescriptionState {
    CMMediaType mediaType = 0;
    FourCharCode subType = 0;
    CMVideoDimensions dimensions{0, 0};
    id extensions = nil;

    ~FormatDescriptionState() { objc_release(extensions); }
};

struct SampleBufferState {
    id imageBuffer = nil;
    id formatDescription = nil;
    CMSampleTimingInfo timing{};
    bool dataReady = false;
    CMSampleBufferMakeDataReadyCallback makeDataReady = nullptr;
    void *makeDataReadyRefcon = nullptr;

    ~SampleBufferState()
    {
        objc_release(imageBuffer);
        objc_release(formatDescription);
    }
};

StateSlot<FormatDescriptionState> gFormatSlot;
StateSlot<SampleBufferState> gSampleSlot;
Class gFormatClass;
Class gSampleClass;

void formatDealloc(id self, SEL)
{
    destroyStateThenSuper(gFormatSlot, "OpaqueCMFormatDescription", self);
}

void sampleDealloc(id self, SEL)
{
    destroyStateThenSuper(gSampleSlot, "OpaqueCMSampleBuffer", self);
}

bool isEqualTo(id self, SEL, id other);

__attribute__((constructor)) void declareCoreMedia()
{
    gFormatClass = ClassDef("OpaqueCMFormatDescription", "NSObject")
                       .stateIvar()
                       .method("dealloc", formatDealloc)
                       .method("isEqual:", isEqualTo)
                       .registerWith(gFormatSlot);
    gSampleClass = ClassDef("OpaqueCMSampleBuffer", "NSObject")
                       .stateIvar()
                       .method("dealloc", sampleDealloc)
                       .registerWith(gSampleSlot);
}

bool isInstanceOf(const void *ref, Class cls)
{
    id obj = reinterpret_cast<id>(const_cast<void *>(ref));
    if (!obj || !cls)
        return false;
    for (Class c = object_getClass(obj); c; c = class_getSuperclass(c))
        if (c == cls)
            return true;
    return false;
}

FormatDescriptionState *formatOf(CMFormatDescriptionRef desc)
{
    return isInstanceOf(desc, gFormatClass)
        ? &gFormatSlot.get(reinterpret_cast<id>(const_cast<opaqueCMFormatDescription *>(desc)))
        : nullptr;
}

SampleBufferState *sampleOf(CMSampleBufferRef sbuf)
{
    return isInstanceOf(sbuf, gSampleClass) ? &gSampleSlot.get(reinterpret_cast<id>(sbuf)) : nullptr;
}

bool sameExtensions(id a, id b)
{
    if (!a || !b)
        return a == b;
    return CFEqual(a, b);
}

bool isEqualTo(id self, SEL, id other)
{
    return CMFormatDescriptionEqual(
        reinterpret_cast<CMFormatDescriptionRef>(self), reinterpret_cast<CMFormatDescriptionRef>(other));
}

OSStatus createFormat(CMMediaType mediaType, FourCharCode subType, CMVideoDimensions dimensions,
    CFDictionaryRef extensions, CMFormatDescriptionRef *out)
{
    id obj = class_createInstance(gFormatClass, 0);
    FormatDescriptionState &st = gFormatSlot.get(obj);
    st.mediaType = mediaType;
    st.subType = subType;
    st.dimensions = dimensions;
    if (extensions)
        st.extensions = msg<id>(reinterpret_cast<id>(const_cast<__CFDictionary *>(extensions)), "copy");
    *out = reinterpret_cast<CMFormatDescriptionRef>(obj);
    return 0;
}

OSStatus createSample(CVImageBufferRef imageBuffer, bool dataReady, CMSampleBufferMakeDataReadyCallback callback,
    void *refcon, CMVideoFormatDescriptionRef formatDescription, const CMSampleTimingInfo *timing,
    CMSampleBufferRef *out)
{
    if (!out)
        return kCMSampleBufferError_RequiredParameterMissing;
    *out = nullptr;
    if (!imageBuffer || !formatDescription || !timing)
        return kCMSampleBufferError_RequiredParameterMissing;
    if (!CMVideoFormatDescriptionMatchesImageBuffer(formatDescription, imageBuffer))
        return kCMSampleBufferError_InvalidMediaFormat;
    id obj = class_createInstance(gSampleClass, 0);
    SampleBufferState &st = gSampleSlot.get(obj);
    st.imageBuffer = objc_retain(reinterpret_cast<id>(imageBuffer));
    st.formatDescription
        = objc_retain(reinterpret_cast<id>(const_cast<opaqueCMFormatDescription *>(formatDescription)));
    st.timing = *timing;
    st.dataReady = dataReady;
    st.makeDataReady = callback;
    st.makeDataReadyRefcon = refcon;
    *out = reinterpret_cast<CMSampleBufferRef>(obj);
    return 0;
}

} // namespace

extern "C" {

const CMSampleTimingInfo kCMTimingInfoInvalid = {{0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}};

CFTypeID CMFormatDescriptionGetTypeID(void)
{
    return fakecf::typeIDForClass(gFormatClass);
}

OSStatus CMFormatDescriptionCreate(CFAllocatorRef, CMMediaType mediaType, FourCharCode mediaSubType,
    CFDictionaryRef extensions, CMFormatDescriptionRef *formatDescriptionOut)
{
    if (!formatDescriptionOut)
        return kCMFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = nullptr;
    return createFormat(mediaType, mediaSubType, {0, 0}, extensions, formatDescriptionOut);
}

OSStatus CMVideoFormatDescriptionCreate(CFAllocatorRef, CMVideoCodecType codecType, int32_t width, int32_t height,
    CFDictionaryRef extensions, CMVideoFormatDescriptionRef *formatDescriptionOut)
{
    if (!formatDescriptionOut)
        return kCMFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = nullptr;
    if (width < 0 || height < 0)
        return kCMFormatDescriptionError_InvalidParameter;
    return createFormat(kCMMediaType_Video, codecType, {width, height}, extensions, formatDescriptionOut);
}

OSStatus CMVideoFormatDescriptionCreateForImageBuffer(
    CFAllocatorRef, CVImageBufferRef imageBuffer, CMVideoFormatDescriptionRef *formatDescriptionOut)
{
    if (!formatDescriptionOut)
        return kCMFormatDescriptionError_InvalidParameter;
    *formatDescriptionOut = nullptr;
    if (!imageBuffer || CFGetTypeID(imageBuffer) != CVPixelBufferGetTypeID())
        return kCMFormatDescriptionError_InvalidParameter;
    CMVideoDimensions dimensions{
        int32_t(CVPixelBufferGetWidth(imageBuffer)), int32_t(CVPixelBufferGetHeight(imageBuffer))};
    return createFormat(
        kCMMediaType_Video, CVPixelBufferGetPixelFormatType(imageBuffer), dimensions, nullptr, formatDescriptionOut);
}

CMVideoDimensions CMVideoFormatDescriptionGetDimensions(CMVideoFormatDescriptionRef videoDesc)
{
    FormatDescriptionState *st = formatOf(videoDesc);
    return st && st->mediaType == kCMMediaType_Video ? st->dimensions : CMVideoDimensions{0, 0};
}

CMMediaType CMFormatDescriptionGetMediaType(CMFormatDescriptionRef desc)
{
    FormatDescriptionState *st = formatOf(desc);
    return st ? st->mediaType : 0;
}

FourCharCode CMFormatDescriptionGetMediaSubType(CMFormatDescriptionRef desc)
{
    FormatDescriptionState *st = formatOf(desc);
    return st ? st->subType : 0;
}

CFDictionaryRef CMFormatDescriptionGetExtensions(CMFormatDescriptionRef desc)
{
    FormatDescriptionState *st = formatOf(desc);
    return st ? reinterpret_cast<CFDictionaryRef>(st->extensions) : nullptr;
}

Boolean CMFormatDescriptionEqual(
    CMFormatDescriptionRef formatDescription, CMFormatDescriptionRef otherFormatDescription)
{
    if (formatDescription == otherFormatDescription)
        return formatDescription != nullptr;
    FormatDescriptionState *a = formatOf(formatDescription);
    FormatDescriptionState *b = formatOf(otherFormatDescription);
    if (!a || !b)
        return false;
    return a->mediaType == b->mediaType && a->subType == b->subType && a->dimensions.width == b->dimensions.width
        && a->dimensions.height == b->dimensions.height && sameExtensions(a->extensions, b->extensions);
}

Boolean CMVideoFormatDescriptionMatchesImageBuffer(CMVideoFormatDescriptionRef videoDesc, CVImageBufferRef imageBuffer)
{
    FormatDescriptionState *st = formatOf(videoDesc);
    if (!st || !imageBuffer || st->mediaType != kCMMediaType_Video)
        return false;
    if (CFGetTypeID(imageBuffer) != CVPixelBufferGetTypeID())
        return false;
    return size_t(st->dimensions.width) == CVPixelBufferGetWidth(imageBuffer)
        && size_t(st->dimensions.height) == CVPixelBufferGetHeight(imageBuffer)
        && st->subType == CVPixelBufferGetPixelFormatType(imageBuffer);
}

CFTypeID CMSampleBufferGetTypeID(void)
{
    return fakecf::typeIDForClass(gSampleClass);
}

OSStatus CMSampleBufferCreateReadyWithImageBuffer(CFAllocatorRef, CVImageBufferRef imageBuffer,
    CMVideoFormatDescriptionRef formatDescription, const CMSampleTimingInfo *sampleTiming,
    CMSampleBufferRef *sampleBufferOut)
{
    return createSample(imageBuffer, true, nullptr, nullptr, formatDescription, sampleTiming, sampleBufferOut);
}

OSStatus CMSampleBufferCreateForImageBuffer(CFAllocatorRef, CVImageBufferRef imageBuffer, Boolean dataReady,
    CMSampleBufferMakeDataReadyCallback makeDataReadyCallback, void *makeDataReadyRefcon,
    CMVideoFormatDescriptionRef formatDescription, const CMSampleTimingInfo *sampleTiming,
    CMSampleBufferRef *sampleBufferOut)
{
    return createSample(imageBuffer, dataReady, makeDataReadyCallback, makeDataReadyRefcon, formatDescription,
        sampleTiming, sampleBufferOut);
}

Boolean CMSampleBufferDataIsReady(CMSampleBufferRef sbuf)
{
    SampleBufferState *st = sampleOf(sbuf);
    return st && st->dataReady;
}

OSStatus CMSampleBufferMakeDataReady(CMSampleBufferRef sbuf)
{
    SampleBufferState *st = sampleOf(sbuf);
    if (!st)
        return kCMSampleBufferError_RequiredParameterMissing;
    if (st->dataReady)
        return 0;
    if (!st->makeDataReady)
        return kCMSampleBufferError_BufferNotReady;
    OSStatus status = st->makeDataReady(sbuf, st->makeDataReadyRefcon);
    if (status == 0)
        st->dataReady = true;
    return status;
}

CVImageBufferRef CMSampleBufferGetImageBuffer(CMSampleBufferRef sbuf)
{
    SampleBufferState *st = sampleOf(sbuf);
    return st ? reinterpret_cast<CVImageBufferRef>(st->imageBuffer) : nullptr;
}

CMFormatDescriptionRef CMSampleBufferGetFormatDescription(CMSampleBufferRef sbuf)
{
    SampleBufferState *st = sampleOf(sbuf);
    return st ? reinterpret_cast<CMFormatDescriptionRef>(st->formatDescription) : nullptr;
}

CMTime CMSampleBufferGetPresentationTimeStamp(CMSampleBufferRef sbuf)
{
    SampleBufferState *st = sampleOf(sbuf);
    return st ? st->timing.presentationTimeStamp : kCMTimeInvalid;
}

CMTime CMSampleBufferGetDecodeTimeStamp(CMSampleBufferRef sbuf)
{
    SampleBufferState *st = sampleOf(sbuf);
    return st ? st->timing.decodeTimeStamp : kCMTimeInvalid;
}

CMTime CMSampleBufferGetDuration(CMSampleBufferRef sbuf)
{
    SampleBufferState *st = sampleOf(sbuf);
    return st ? st->timing.duration : kCMTimeInvalid;
}

CMItemCount CMSampleBufferGetNumSamples(CMSampleBufferRef sbuf)
{
    return sampleOf(sbuf) ? 1 : 0;
}

OSStatus CMSampleBufferGetSampleTimingInfo(
    CMSampleBufferRef sbuf, CMItemIndex sampleIndex, CMSampleTimingInfo *timingInfoOut)
{
    SampleBufferState *st = sampleOf(sbuf);
    if (!st || !timingInfoOut)
        return kCMSampleBufferError_RequiredParameterMissing;
    if (sampleIndex != 0)
        return kCMSampleBufferError_SampleIndexOutOfRange;
    *timingInfoOut = st->timing;
    return 0;
}

} // extern "C"
