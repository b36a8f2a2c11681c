// NSException: a name, reason and user info; raising it is a C++ throw of the object (type id),
// which is how fakesdk's runtime implements objc_exception_throw.
#include "cfinternal.h"

namespace fakecf {
namespace {

struct ExceptionState {
    id name = nil;
    id reason = nil;
    id userInfo = nil;
    ~ExceptionState()
    {
        objc_release(name);
        objc_release(reason);
        objc_release(userInfo);
    }
};

fakeobjc::StateSlot<ExceptionState> gSlot;

ExceptionState &state(id self)
{
    return gSlot.get(self);
}

id initWithName(id self, SEL, id name, id reason, id userInfo)
{
    ExceptionState &st = state(self);
    st.name = fakeobjc::msg<id>(name, "copy");
    st.reason = fakeobjc::msg<id>(reason, "copy");
    st.userInfo = objc_retain(userInfo);
    return self;
}

id exceptionWithName(id self, SEL cmd, id name, id reason, id userInfo)
{
    id obj = class_createInstance(reinterpret_cast<Class>(self), 0);
    return objc_autorelease(initWithName(obj, cmd, name, reason, userInfo));
}

// +raise:format: builds the exception in the caller's pool and throws it.
void raiseFormat(id self, SEL, id name, id format, ...)
{
    va_list args;
    va_start(args, format);
    std::string reason = formatV(utf8Of(format).c_str(), args);
    va_end(args);
    id obj = class_createInstance(reinterpret_cast<Class>(self), 0);
    initWithName(obj, nullptr, name, autoString(reason), nil);
    objc_exception_throw(objc_autorelease(obj));
}

void raise(id self, SEL)
{
    objc_exception_throw(self);
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSException", self);
}

id name(id self, SEL)
{
    return state(self).name;
}

id reason(id self, SEL)
{
    return state(self).reason;
}

id userInfo(id self, SEL)
{
    return state(self).userInfo;
}

} // namespace

void declareExceptionClasses()
{
    fakeobjc::ClassDef def("NSException", "NSObject");
    def.stateIvar()
        .classMethod("exceptionWithName:reason:userInfo:", exceptionWithName)
        .method("initWithName:reason:userInfo:", initWithName)
        .method("raise", raise)
        .method("dealloc", dealloc)
        .method("name", name)
        .method("reason", reason)
        .method("userInfo", userInfo)
        .method("description", reason);
    addVariadicMethod(def.cls(), true, "raise:format:", reinterpret_cast<IMP>(raiseFormat), "v@:@@");
    def.registerWith(gSlot);
}

} // namespace fakecf

extern "C" {
extern id const NSInvalidArgumentException;
extern id const NSRangeException;
extern id const NSInternalInconsistencyException;
extern id const NSGenericException;
extern id const NSMallocException;

id const NSInvalidArgumentException = fakecf::constantString("NSInvalidArgumentException");
id const NSRangeException = fakecf::constantString("NSRangeException");
id const NSInternalInconsistencyException = fakecf::constantString("NSInternalInconsistencyException");
id const NSGenericException = fakecf::constantString("NSGenericException");
id const NSMallocException = fakecf::constantString("NSMallocException");
}
