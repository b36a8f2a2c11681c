// The diagnostic switch and the one way the library writes a line: through the system log, only
// when ZERLAN_DEBUG was present in the environment when the switch was first read.
#pragma once

#include "objc/Frameworks.h"

bool ZerlanDebugEnabled();

// Writes "[ZerlanInject] ..." (the format must carry the tag) when diagnostics are on.
template <typename... Args>
inline void ZerlanLog(CFStringRef format, Args... args)
{
    if (ZerlanDebugEnabled())
        NSLog(zerlan::objc::bridge(format), args...);
}
