// The private hand-over between libdispatch and CoreFoundation's run loop: the main queue is
// drained only by the main thread's run loop, which libdispatch wakes when main-queue work
// arrives (Apple's counterpart is _dispatch_main_queue_callback_4CF and the main queue's port).
#pragma once

extern "C" {

// Runs the main-queue work that was pending when called (work added meanwhile waits for the
// next call); returns whether any ran. Main thread only.
__attribute__((visibility("default"))) bool _dispatch_main_queue_drain_4CF(void);

// Whether main-queue work is pending.
__attribute__((visibility("default"))) bool _dispatch_main_queue_has_work_4CF(void);

// Called from any thread, outside libdispatch's locks, after work is added to the main queue.
__attribute__((visibility("default"))) void _dispatch_main_queue_set_wakeup_4CF(void (*wakeup)(void));
}
