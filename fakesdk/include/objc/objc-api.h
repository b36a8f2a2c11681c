// Declarations of Apple's <objc/objc-api.h>: the macros that mark the runtime's exports.
#pragma once

#ifdef __cplusplus
#define OBJC_EXTERN extern "C"
#else
#define OBJC_EXTERN extern
#endif
#define OBJC_VISIBLE __attribute__((visibility("default")))
#define OBJC_EXPORT OBJC_EXTERN OBJC_VISIBLE

#define OBJC_UNAVAILABLE(_msg) __attribute__((unavailable(_msg)))

// The struct-return (stret) dispatch exists on every architecture but arm64, where a struct's
// result address travels in x8 and never displaces the receiver.
#if defined(__arm64__)
#define OBJC_ARM64_UNAVAILABLE OBJC_UNAVAILABLE("not available in arm64")
#else
#define OBJC_ARM64_UNAVAILABLE
#endif
