// Declarations of Apple's <objc/objc.h> for the LP64 iOS Simulator, implemented by fakesdk.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <objc/objc-api.h>

typedef struct objc_class *Class;
struct objc_object {
    Class isa;
};
typedef struct objc_object *id;
typedef struct objc_selector *SEL;
typedef void (*IMP)(void);

// LP64 iOS (device and Simulator) uses C++/C99 bool for BOOL; its type encoding is 'B'.
typedef bool BOOL;
#define YES ((BOOL)1)
#define NO ((BOOL)0)

#ifdef __cplusplus
#define nil nullptr
#define Nil nullptr
#else
#define nil ((void *)0)
#define Nil ((void *)0)
#endif

OBJC_EXPORT const char *sel_getName(SEL sel);
OBJC_EXPORT SEL sel_registerName(const char *str);
OBJC_EXPORT const char *object_getClassName(id obj);
OBJC_EXPORT BOOL sel_isEqual(SEL lhs, SEL rhs);
