#include "objc/Runtime.h"

using namespace zerlan::objc;

// Sends `devices` from inside an image under /System/Library/.
// No tail call: the return address seen by the callee must lie in this image.
extern "C" __attribute__((visibility("default"), disable_tail_calls)) id SystemCallerDevices(id discoverySession)
{
    return send<id>(discoverySession, sel<"devices">());
}

// Sends `connections` and `connectionWithMediaType:` to an output from the same image.
extern "C" __attribute__((visibility("default"), disable_tail_calls)) id SystemCallerConnections(id output)
{
    return send<id>(output, sel<"connections">());
}

extern "C" __attribute__((visibility("default"), disable_tail_calls)) id SystemCallerConnectionWithMediaType(id output,
                                                                                                          id mediaType)
{
    return send<id>(output, sel<"connectionWithMediaType:">(), mediaType);
}
