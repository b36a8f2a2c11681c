#include "inject/Diagnostics.h"

#include <cstdlib>

bool ZerlanDebugEnabled()
{
    static dispatch_once_t once;
    static bool enabled;
    // Presence alone counts: ZERLAN_DEBUG=0 and an empty value turn logging on too.
    dispatch_once(&once, ^{
        enabled = std::getenv("ZERLAN_DEBUG") != nullptr;
    });
    return enabled;
}
