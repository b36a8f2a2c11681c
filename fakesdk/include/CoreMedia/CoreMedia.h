// Apple's <CoreMedia/CoreMedia.h> (the part the project uses): CMTime, the host clock, video
// format descriptions and sample buffers. As in Apple's headers every struct is declared under
// 4-byte packing, so CMTime is 24 bytes with an alignment of 4.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreVideo/CoreVideo.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CM_EXPORT extern __attribute__((visibility("default")))

#pragma pack(push, 4)

typedef CFIndex CMItemCount;
typedef CFIndex CMItemIndex;

// ---- CMTime

typedef int64_t CMTimeValue;
typedef int32_t CMTimeScale;
typedef int64_t CMTimeEpoch;
#define kCMTimeMaxTimescale 0x7fffffffL

typedef uint32_t CMTimeFlags;
enum : CMTimeFlags {
    kCMTimeFlags_Valid = 1UL << 0,
    kCMTimeFlags_HasBeenRounded = 1UL << 1,
    kCMTimeFlags_PositiveInfinity = 1UL << 2,
    kCMTimeFlags_NegativeInfinity = 1UL << 3,
    kCMTimeFlags_Indefinite = 1UL << 4,
    kCMTimeFlags_ImpliedValueFlagsMask
    = kCMTimeFlags_PositiveInfinity | kCMTimeFlags_NegativeInfinity | kCMTimeFlags_Indefinite
};

typedef struct {
    CMTimeValue value;
    CMTimeScale timescale;
    CMTimeFlags flags;
    CMTimeEpoch epoch;
} CMTime;

#define CMTIME_IS_VALID(time) ((Boolean)(((time).flags & kCMTimeFlags_Valid) != 0))
#define CMTIME_IS_INVALID(time) (!CMTIME_IS_VALID(time))
#define CMTIME_IS_POSITIVE_INFINITY(time)                                                                              \
    ((Boolean)(CMTIME_IS_VALID(time) && (((time).flags & kCMTimeFlags_PositiveInfinity) != 0)))
#define CMTIME_IS_NEGATIVE_INFINITY(time)                                                                              \
    ((Boolean)(CMTIME_IS_VALID(time) && (((time).flags & kCMTimeFlags_NegativeInfinity) != 0)))
#define CMTIME_IS_INDEFINITE(time) ((Boolean)(CMTIME_IS_VALID(time) && (((time).flags & kCMTimeFlags_Indefinite) != 0)))
#define CMTIME_IS_NUMERIC(time)                                                                                        \
    ((Boolean)(((time).flags & (kCMTimeFlags_Valid | kCMTimeFlags_ImpliedValueFlagsMask)) == kCMTimeFlags_Valid))
#define CMTIME_HAS_BEEN_ROUNDED(time)                                                                                  \
    ((Boolean)(CMTIME_IS_NUMERIC(time) && (((time).flags & kCMTimeFlags_HasBeenRounded) != 0)))
#define CMTIME_COMPARE_INLINE(time1, comparator, time2) ((Boolean)(CMTimeCompare(time1, time2) comparator 0))

CM_EXPORT const CMTime kCMTimeInvalid;
CM_EXPORT const CMTime kCMTimeIndefinite;
CM_EXPORT const CMTime kCMTimePositiveInfinity;
CM_EXPORT const CMTime kCMTimeNegativeInfinity;
CM_EXPORT const CMTime kCMTimeZero;

typedef uint32_t CMTimeRoundingMethod;
enum : CMTimeRoundingMethod {
    kCMTimeRoundingMethod_RoundHalfAwayFromZero = 1,
    kCMTimeRoundingMethod_RoundTowardZero = 2,
    kCMTimeRoundingMethod_RoundAwayFromZero = 3,
    kCMTimeRoundingMethod_QuickTime = 4,
    kCMTimeRoundingMethod_RoundTowardPositiveInfinity = 5,
    kCMTimeRoundingMethod_RoundTowardNegativeInfinity = 6,
    kCMTimeRoundingMethod_Default = kCMTimeRoundingMethod_RoundHalfAwayFromZero
};

CM_EXPORT CMTime CMTimeMake(int64_t value, int32_t timescale);
CM_EXPORT CMTime CMTimeMakeWithEpoch(int64_t value, int32_t timescale, int64_t epoch);
CM_EXPORT CMTime CMTimeMakeWithSeconds(Float64 seconds, int32_t preferredTimescale);
CM_EXPORT Float64 CMTimeGetSeconds(CMTime time);
CM_EXPORT CMTime CMTimeConvertScale(CMTime time, int32_t newTimescale, CMTimeRoundingMethod method);
CM_EXPORT CMTime CMTimeAdd(CMTime lhs, CMTime rhs);
CM_EXPORT CMTime CMTimeSubtract(CMTime lhs, CMTime rhs);
CM_EXPORT int32_t CMTimeCompare(CMTime time1, CMTime time2);

// ---- Clocks

typedef struct OpaqueCMClock *CMClockRef;

enum {
    kCMClockError_MissingRequiredParameter = -12745,
    kCMClockError_InvalidParameter = -12746,
    kCMClockError_AllocationFailed = -12747,
    kCMClockError_UnsupportedOperation = -12756
};

CM_EXPORT CFTypeID CMClockGetTypeID(void);
// +0 singleton: never release it.
CM_EXPORT CMClockRef CMClockGetHostTimeClock(void);
CM_EXPORT CMTime CMClockGetTime(CMClockRef clock);
CM_EXPORT uint64_t CMClockConvertHostTimeToSystemUnits(CMTime hostTime);
CM_EXPORT CMTime CMClockMakeHostTimeFromSystemUnits(uint64_t hostTime);

// ---- Format descriptions

typedef const struct opaqueCMFormatDescription *CMFormatDescriptionRef;
typedef CMFormatDescriptionRef CMVideoFormatDescriptionRef;
typedef CMFormatDescriptionRef CMAudioFormatDescriptionRef;

enum {
    kCMFormatDescriptionError_InvalidParameter = -12710,
    kCMFormatDescriptionError_AllocationFailed = -12711,
    kCMFormatDescriptionError_ValueNotAvailable = -12718
};

typedef FourCharCode CMMediaType;
enum : CMMediaType {
    kCMMediaType_Video = 'vide',
    kCMMediaType_Audio = 'soun',
    kCMMediaType_Muxed = 'muxx',
    kCMMediaType_Text = 'text',
    kCMMediaType_ClosedCaption = 'clcp',
    kCMMediaType_Subtitle = 'sbtl',
    kCMMediaType_TimeCode = 'tmcd',
    kCMMediaType_Metadata = 'meta'
};

typedef FourCharCode CMPixelFormatType;
enum : CMPixelFormatType { kCMPixelFormat_32ARGB = 32, kCMPixelFormat_32BGRA = 'BGRA' };

typedef FourCharCode CMVideoCodecType;
enum : CMVideoCodecType {
    kCMVideoCodecType_JPEG = 'jpeg',
    kCMVideoCodecType_H264 = 'avc1',
    kCMVideoCodecType_HEVC = 'hvc1'
};

typedef struct {
    int32_t width;
    int32_t height;
} CMVideoDimensions;

CM_EXPORT CFTypeID CMFormatDescriptionGetTypeID(void);
// *formatDescriptionOut is +1; extensions (may be NULL) is copied.
CM_EXPORT OSStatus CMFormatDescriptionCreate(CFAllocatorRef allocator, CMMediaType mediaType, FourCharCode mediaSubType,
    CFDictionaryRef extensions, CMFormatDescriptionRef *formatDescriptionOut);
CM_EXPORT OSStatus CMVideoFormatDescriptionCreate(CFAllocatorRef allocator, CMVideoCodecType codecType, int32_t width,
    int32_t height, CFDictionaryRef extensions, CMVideoFormatDescriptionRef *formatDescriptionOut);
CM_EXPORT OSStatus CMVideoFormatDescriptionCreateForImageBuffer(
    CFAllocatorRef allocator, CVImageBufferRef imageBuffer, CMVideoFormatDescriptionRef *formatDescriptionOut);
CM_EXPORT CMVideoDimensions CMVideoFormatDescriptionGetDimensions(CMVideoFormatDescriptionRef videoDesc);
CM_EXPORT CMMediaType CMFormatDescriptionGetMediaType(CMFormatDescriptionRef desc);
CM_EXPORT FourCharCode CMFormatDescriptionGetMediaSubType(CMFormatDescriptionRef desc);
// +0, may be NULL.
CM_EXPORT CFDictionaryRef CMFormatDescriptionGetExtensions(CMFormatDescriptionRef desc);
CM_EXPORT Boolean CMFormatDescriptionEqual(
    CMFormatDescriptionRef formatDescription, CMFormatDescriptionRef otherFormatDescription);
CM_EXPORT Boolean CMVideoFormatDescriptionMatchesImageBuffer(
    CMVideoFormatDescriptionRef videoDesc, CVImageBufferRef imageBuffer);

// ---- Sample buffers

typedef struct opaqueCMSampleBuffer *CMSampleBufferRef;

enum {
    kCMSampleBufferError_AllocationFailed = -12730,
    kCMSampleBufferError_RequiredParameterMissing = -12731,
    kCMSampleBufferError_AlreadyHasDataBuffer = -12732,
    kCMSampleBufferError_BufferNotReady = -12733,
    kCMSampleBufferError_SampleIndexOutOfRange = -12734,
    kCMSampleBufferError_BufferHasNoSampleSizes = -12735,
    kCMSampleBufferError_BufferHasNoSampleTimingInfo = -12736,
    kCMSampleBufferError_ArrayTooSmall = -12737,
    kCMSampleBufferError_InvalidEntryCount = -12738,
    kCMSampleBufferError_CannotSubdivide = -12739,
    kCMSampleBufferError_SampleTimingInfoInvalid = -12740,
    kCMSampleBufferError_InvalidMediaTypeForOperation = -12741,
    kCMSampleBufferError_InvalidSampleData = -12742,
    kCMSampleBufferError_InvalidMediaFormat = -12743,
    kCMSampleBufferError_Invalidated = -12744,
    kCMSampleBufferError_DataFailed = -16750,
    kCMSampleBufferError_DataCanceled = -16751
};

// Duration comes first, as in Apple's header.
typedef struct {
    CMTime duration;
    CMTime presentationTimeStamp;
    CMTime decodeTimeStamp;
} CMSampleTimingInfo;

CM_EXPORT const CMSampleTimingInfo kCMTimingInfoInvalid;

typedef OSStatus (*CMSampleBufferMakeDataReadyCallback)(CMSampleBufferRef sbuf, void *makeDataReadyRefcon);

CM_EXPORT CFTypeID CMSampleBufferGetTypeID(void);
// *sampleBufferOut is +1; the sample buffer retains the image buffer and the format description,
// which must describe the image buffer (else kCMSampleBufferError_InvalidMediaFormat).
CM_EXPORT OSStatus CMSampleBufferCreateReadyWithImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer,
    CMVideoFormatDescriptionRef formatDescription, const CMSampleTimingInfo *sampleTiming,
    CMSampleBufferRef *sampleBufferOut);
CM_EXPORT OSStatus CMSampleBufferCreateForImageBuffer(CFAllocatorRef allocator, CVImageBufferRef imageBuffer,
    Boolean dataReady, CMSampleBufferMakeDataReadyCallback makeDataReadyCallback, void *makeDataReadyRefcon,
    CMVideoFormatDescriptionRef formatDescription, const CMSampleTimingInfo *sampleTiming,
    CMSampleBufferRef *sampleBufferOut);
CM_EXPORT Boolean CMSampleBufferDataIsReady(CMSampleBufferRef sbuf);
CM_EXPORT OSStatus CMSampleBufferMakeDataReady(CMSampleBufferRef sbuf);
// +0 results: the sample buffer keeps them.
CM_EXPORT CVImageBufferRef CMSampleBufferGetImageBuffer(CMSampleBufferRef sbuf);
CM_EXPORT CMFormatDescriptionRef CMSampleBufferGetFormatDescription(CMSampleBufferRef sbuf);
CM_EXPORT CMTime CMSampleBufferGetPresentationTimeStamp(CMSampleBufferRef sbuf);
CM_EXPORT CMTime CMSampleBufferGetDecodeTimeStamp(CMSampleBufferRef sbuf);
CM_EXPORT CMTime CMSampleBufferGetDuration(CMSampleBufferRef sbuf);
CM_EXPORT CMItemCount CMSampleBufferGetNumSamples(CMSampleBufferRef sbuf);
CM_EXPORT OSStatus CMSampleBufferGetSampleTimingInfo(
    CMSampleBufferRef sbuf, CMItemIndex sampleIndex, CMSampleTimingInfo *timingInfoOut);

#pragma pack(pop)

#ifdef __cplusplus
}
#endif
