// fakesdk's non-portable hooks into its Objective-C runtime, for tests only. Nothing that must
// build against Apple's SDK may include this header.
#pragma once

#include <objc/objc.h>

// The object's current retain count (immortal objects report LONG_MAX).
OBJC_EXPORT long objc_retainCount_np(id obj);

// Starts counting retains and releases of obj from zero; objc_retainCounts_np reads them.
OBJC_EXPORT void objc_trackRetains_np(id obj);
OBJC_EXPORT void objc_retainCounts_np(id obj, long *retains, long *releases);

// Number of objects alive that were created by class_createInstance, and the number ever
// deallocated: tests compare before and after to find leaks and over-releases.
OBJC_EXPORT long objc_liveObjects_np(void);

// Whether obj carries an association under key (whatever its value).
OBJC_EXPORT BOOL objc_hasAssociation_np(id obj, const void *key);
