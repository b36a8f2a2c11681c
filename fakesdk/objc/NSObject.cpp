// NSObject, the root class. As on Apple's platforms it lives in libobjc itself, so every other
// fakesdk library finds it registered before its own classes are declared.
#include "define.h"

#include <fakesdk/objc_np.h>

#include <cstdio>

using namespace fakeobjc;

namespace {

id stringFromUTF8(const char *text)
{
    return msg<id>(cls("NSString"), "stringWithUTF8String:", text);
}

id alloc(id self, SEL)
{
    return class_createInstance(reinterpret_cast<Class>(self), 0);
}

id allocWithZone(id self, SEL, void *)
{
    return class_createInstance(reinterpret_cast<Class>(self), 0);
}

id newObject(id self, SEL)
{
    return msg<id>(msg<id>(self, "alloc"), "init");
}

id classOfClass(id self, SEL)
{
    return self;
}

id identity(id self, SEL)
{
    return self;
}

id retain(id self, SEL)
{
    return objc_retain(self);
}

void release(id self, SEL)
{
    objc_release(self);
}

id autorelease(id self, SEL)
{
    return objc_autorelease(self);
}

unsigned long retainCount(id self, SEL)
{
    return static_cast<unsigned long>(objc_retainCount_np(self));
}

void dealloc(id self, SEL)
{
    object_dispose(self);
}

id objectClass(id self, SEL)
{
    return reinterpret_cast<id>(object_getClass(self));
}

id superclassOf(id self, SEL)
{
    return reinterpret_cast<id>(class_getSuperclass(object_getClass(self)));
}

id classSuperclass(id self, SEL)
{
    return reinterpret_cast<id>(class_getSuperclass(reinterpret_cast<Class>(self)));
}

bool isKindOfClass(id self, SEL, id other)
{
    for (Class c = object_getClass(self); c; c = class_getSuperclass(c))
        if (c == reinterpret_cast<Class>(other))
            return true;
    return false;
}

bool isMemberOfClass(id self, SEL, id other)
{
    return object_getClass(self) == reinterpret_cast<Class>(other);
}

bool respondsToSelector(id self, SEL, SEL sel)
{
    return class_respondsToSelector(object_getClass(self), sel);
}

bool instancesRespondToSelector(id self, SEL, SEL sel)
{
    return class_respondsToSelector(reinterpret_cast<Class>(self), sel);
}

bool isSubclassOfClass(id self, SEL, id other)
{
    for (Class c = reinterpret_cast<Class>(self); c; c = class_getSuperclass(c))
        if (c == reinterpret_cast<Class>(other))
            return true;
    return false;
}

bool isEqual(id self, SEL, id other)
{
    return self == other;
}

unsigned long hash(id self, SEL)
{
    return reinterpret_cast<unsigned long>(self);
}

id description(id self, SEL)
{
    char text[256];
    std::snprintf(text, sizeof text, "<%s: %p>", object_getClassName(self), static_cast<void *>(self));
    return stringFromUTF8(text);
}

id classDescription(id self, SEL)
{
    return stringFromUTF8(class_getName(reinterpret_cast<Class>(self)));
}

id copy(id self, SEL)
{
    return msg<id>(self, "copyWithZone:", static_cast<void *>(nullptr));
}

id mutableCopy(id self, SEL)
{
    return msg<id>(self, "mutableCopyWithZone:", static_cast<void *>(nullptr));
}

id performSelector(id self, SEL, SEL sel)
{
    return msg<id>(self, sel);
}

id performSelectorWithObject(id self, SEL, SEL sel, id object)
{
    return msg<id>(self, sel, object);
}

id performSelectorWithObjects(id self, SEL, SEL sel, id first, id second)
{
    return msg<id>(self, sel, first, second);
}

// Fast forwarding: NSObject forwards nothing; subclasses answer another object.
id forwardingTargetForSelector(id, SEL, SEL)
{
    return nil;
}

bool conformsToProtocol(id, SEL, void *)
{
    return false;
}

__attribute__((constructor(101))) void declareNSObject()
{
    ClassDef("NSObject", nullptr)
        .classMethod("alloc", alloc)
        .classMethod("allocWithZone:", allocWithZone)
        .classMethod("new", newObject)
        .classMethod("class", classOfClass)
        .classMethod("superclass", classSuperclass)
        .classMethod("description", classDescription)
        .classMethod("instancesRespondToSelector:", instancesRespondToSelector)
        .classMethod("isSubclassOfClass:", isSubclassOfClass)
        .classMethod("forwardingTargetForSelector:", forwardingTargetForSelector)
        .method("init", identity)
        .method("self", identity)
        .method("retain", retain)
        .method("release", release)
        .method("autorelease", autorelease)
        .method("retainCount", retainCount)
        .method("dealloc", dealloc)
        .method("class", objectClass)
        .method("superclass", superclassOf)
        .method("isKindOfClass:", isKindOfClass)
        .method("isMemberOfClass:", isMemberOfClass)
        .method("respondsToSelector:", respondsToSelector)
        .method("conformsToProtocol:", conformsToProtocol)
        .method("forwardingTargetForSelector:", forwardingTargetForSelector)
        .method("isEqual:", isEqual)
        .method("hash", hash)
        .method("description", description)
        .method("debugDescription", description)
        .method("copy", copy)
        .method("mutableCopy", mutableCopy)
        .method("performSelector:", performSelector)
        .method("performSelector:withObject:", performSelectorWithObject)
        .method("performSelector:withObject:withObject:", performSelectorWithObjects)
        .registerClass();
}

} // namespace
