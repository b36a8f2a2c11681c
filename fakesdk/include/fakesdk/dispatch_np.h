// fakesdk's non-portable helpers around libdispatch and the run loop, for tests and fakesdk's
// sample apps only. Nothing that must build against Apple's SDK may include this header.
#pragma once

#include <stdbool.h>

extern "C" {

// Runs the current thread's run loop in the default mode, in short slices, until condition
// returns true or timeoutSeconds passed; returns whether the condition held. The condition is
// checked first (a true condition runs nothing) and after each slice, on the calling thread.
// Built on CFRunLoopRunInMode, so main-queue work and timers run exactly as in an app's loop.
__attribute__((visibility("default"))) bool CFRunLoopRunUntil_np(double timeoutSeconds, bool (^condition)(void));
}
