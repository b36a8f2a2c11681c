// fakesdk's non-portable hooks into Foundation, for tests only. Nothing that must build against
// Apple's SDK may include this header.
#pragma once

#include <objc/objc.h>

// on = true starts capturing NSLog's lines into a buffer instead of writing them to standard error
// (the buffer starts empty); on = false writes to standard error again and drops the buffer.
OBJC_EXPORT void NSLogCapture_np(bool on);

// Every line NSLog wrote since capturing began, exactly as it would have reached standard error
// (each ends with a newline). A malloc'd copy: the caller frees it. "" when nothing was captured.
OBJC_EXPORT char *NSLogCopyCaptured_np(void);
