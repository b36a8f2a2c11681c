// fakesdk's recorders for the media frameworks (CoreVideo, QuartzCore), for tests only. Nothing
// that must build against Apple's SDK may include this header.
#pragma once

#include <CoreVideo/CoreVideo.h>
#include <objc/objc.h>

#ifdef __cplusplus
extern "C" {
#endif

// +1 copy of the attributes dictionary the buffer was created with; NULL when none was given.
CV_EXPORT CFDictionaryRef CVPixelBufferCopyCreationAttributes_np(CVPixelBufferRef pixelBuffer);
// True when the creation attributes held kCVPixelBufferIOSurfacePropertiesKey.
CV_EXPORT Boolean CVPixelBufferIsIOSurfaceBacked_np(CVPixelBufferRef pixelBuffer);
// Locks taken and not yet released (read-only and read-write together).
CV_EXPORT long CVPixelBufferLockCount_np(CVPixelBufferRef pixelBuffer);

// How many times -setContents: was sent to the layer, and whether the last one ran on the main
// thread (false when never set).
OBJC_EXPORT long CALayerContentsSetCount_np(id layer);
OBJC_EXPORT bool CALayerContentsLastSetOnMainThread_np(id layer);

#ifdef __cplusplus
}
#endif
