// Declarations of Apple's <objc/objc-sync.h>.
#pragma once

#include <objc/objc.h>

enum {
    OBJC_SYNC_SUCCESS = 0,
    OBJC_SYNC_NOT_OWNING_THREAD_ERROR = -1
};

// Recursive per-object lock; obj nil is a no-op.
OBJC_EXPORT int objc_sync_enter(id obj);
OBJC_EXPORT int objc_sync_exit(id obj);
