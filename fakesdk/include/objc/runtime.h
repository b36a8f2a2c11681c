// Declarations of Apple's <objc/runtime.h> (the subset the project uses), implemented by fakesdk.
#pragma once

#include <objc/objc.h>

typedef struct objc_method *Method;
typedef struct objc_ivar *Ivar;
typedef struct objc_category *Category;
typedef struct objc_property *objc_property_t;
typedef struct objc_object Protocol;

#define _C_ID '@'
#define _C_CLASS '#'
#define _C_SEL ':'
#define _C_CHR 'c'
#define _C_UCHR 'C'
#define _C_SHT 's'
#define _C_USHT 'S'
#define _C_INT 'i'
#define _C_UINT 'I'
#define _C_LNG 'l'
#define _C_ULNG 'L'
#define _C_LNG_LNG 'q'
#define _C_ULNG_LNG 'Q'
#define _C_FLT 'f'
#define _C_DBL 'd'
#define _C_BOOL 'B'
#define _C_VOID 'v'
#define _C_PTR '^'
#define _C_CHARPTR '*'
#define _C_UNDEF '?'
#define _C_STRUCT_B '{'
#define _C_STRUCT_E '}'
#define _C_CONST 'r'

OBJC_EXPORT id object_dispose(id obj);
OBJC_EXPORT Class object_getClass(id obj);
OBJC_EXPORT Class object_setClass(id obj, Class cls);
OBJC_EXPORT BOOL object_isClass(id obj);

OBJC_EXPORT Class objc_getClass(const char *name);
OBJC_EXPORT Class objc_getMetaClass(const char *name);
OBJC_EXPORT Class objc_lookUpClass(const char *name);

OBJC_EXPORT const char *class_getName(Class cls);
OBJC_EXPORT BOOL class_isMetaClass(Class cls);
OBJC_EXPORT Class class_getSuperclass(Class cls);
OBJC_EXPORT size_t class_getInstanceSize(Class cls);
OBJC_EXPORT Ivar class_getInstanceVariable(Class cls, const char *name);
OBJC_EXPORT Method class_getInstanceMethod(Class cls, SEL name);
OBJC_EXPORT Method class_getClassMethod(Class cls, SEL name);
OBJC_EXPORT IMP class_getMethodImplementation(Class cls, SEL name);
// For messages whose struct result comes back through memory: the same implementation, or for an
// unimplemented selector _objc_msgForward_stret instead of _objc_msgForward.
OBJC_EXPORT IMP class_getMethodImplementation_stret(Class cls, SEL name) OBJC_ARM64_UNAVAILABLE;
OBJC_EXPORT BOOL class_respondsToSelector(Class cls, SEL sel);
OBJC_EXPORT BOOL class_addMethod(Class cls, SEL name, IMP imp, const char *types);
OBJC_EXPORT IMP class_replaceMethod(Class cls, SEL name, IMP imp, const char *types);
OBJC_EXPORT BOOL class_addIvar(Class cls, const char *name, size_t size, uint8_t alignment, const char *types);

OBJC_EXPORT id class_createInstance(Class cls, size_t extraBytes);

OBJC_EXPORT Class objc_allocateClassPair(Class superclass, const char *name, size_t extraBytes);
OBJC_EXPORT void objc_registerClassPair(Class cls);
OBJC_EXPORT void objc_disposeClassPair(Class cls);

OBJC_EXPORT SEL method_getName(Method m);
OBJC_EXPORT IMP method_getImplementation(Method m);
OBJC_EXPORT const char *method_getTypeEncoding(Method m);
OBJC_EXPORT IMP method_setImplementation(Method m, IMP imp);
OBJC_EXPORT void method_exchangeImplementations(Method m1, Method m2);

OBJC_EXPORT const char *ivar_getName(Ivar v);
OBJC_EXPORT const char *ivar_getTypeEncoding(Ivar v);
OBJC_EXPORT ptrdiff_t ivar_getOffset(Ivar v);



enum objc_AssociationPolicy : uintptr_t {
    OBJC_ASSOCIATION_ASSIGN = 0,
    OBJC_ASSOCIATION_RETAIN_NONATOMIC = 1,
    OBJC_ASSOCIATION_COPY_NONATOMIC = 3,
    OBJC_ASSOCIATION_RETAIN = 01401,
    OBJC_ASSOCIATION_COPY = 01403
};
typedef enum objc_AssociationPolicy objc_AssociationPolicy;

OBJC_EXPORT void objc_setAssociatedObject(id object, const void *key, id value, objc_AssociationPolicy policy);
OBJC_EXPORT id objc_getAssociatedObject(id object, const void *key);
OBJC_EXPORT void objc_removeAssociatedObjects(id object);

OBJC_EXPORT id objc_loadWeak(id *location);
OBJC_EXPORT id objc_storeWeak(id *location, id obj);
