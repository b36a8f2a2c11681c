// One decoded frame as a video sample buffer, the way a camera would deliver it.
#pragma once

#include "objc/Frameworks.h"

// A new ready 32BGRA sample buffer (480 x 640 for orientations 1 and 2, else 640 x 480) with the
// image's bitmap drawn aspect-fill and centred; duration 1/10 s, presentation time = the host
// clock now. The caller owns the result (CFRelease), or gets null. The image must have a bitmap.
CMSampleBufferRef ZerlanCreateSampleBuffer(id image, long orientation);
