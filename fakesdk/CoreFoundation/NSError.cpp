// NSError: an immutable domain, code and user info, with Apple's fallback localized description.
// The error keys and domains are exported string constants, as Foundation exports them.
#include "cfinternal.h"

namespace fakecf {
namespace {

struct ErrorState {
    id domain = nil;
    NSInteger code = 0;
    id userInfo = nil;
    ~ErrorState()
    {
        objc_release(domain);
        objc_release(userInfo);
    }
};

fakeobjc::StateSlot<ErrorState> gSlot;
Class gNSError;

ErrorState &state(id self)
{
    return gSlot.get(self);
}

id initWithDomain(id self, SEL, id domain, long code, id userInfo)
{
    ErrorState &st = state(self);
    st.domain = fakeobjc::msg<id>(domain, "copy");
    st.code = code;
    st.userInfo = fakeobjc::msg<id>(userInfo, "copy");
    return self;
}

id errorWithDomain(id self, SEL cmd, id domain, long code, id userInfo)
{
    id obj = class_createInstance(reinterpret_cast<Class>(self), 0);
    return objc_autorelease(initWithDomain(obj, cmd, domain, code, userInfo));
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSError", self);
}

id domain(id self, SEL)
{
    return state(self).domain;
}

long code(id self, SEL)
{
    return state(self).code;
}

id userInfo(id self, SEL)
{
    ErrorState &st = state(self);
    if (!st.userInfo)
        return objc_autorelease(fakeobjc::msg<id>(fakeobjc::cls("NSDictionary"), "new"));
    return st.userInfo;
}

id userInfoValue(id self, const char *key)
{
    return fakeobjc::msg<id>(state(self).userInfo, "objectForKey:", constantString(key));
}

id localizedDescription(id self, SEL)
{
    if (id text = userInfoValue(self, "NSLocalizedDescription"))
        return text;
    const ErrorState &st = state(self);
    return autoString("The operation couldn\u2019t be completed. (" + describe(st.domain) + " error " +
                      std::to_string(st.code) + ".)");
}

id localizedFailureReason(id self, SEL)
{
    return userInfoValue(self, "NSLocalizedFailureReason");
}

id description(id self, SEL)
{
    const ErrorState &st = state(self);
    std::string text = "Error Domain=" + describe(st.domain) + " Code=" + std::to_string(st.code) + " \"" +
                       describe(userInfoValue(self, "NSLocalizedDescription")) + "\"";
    if (fakeobjc::msg<unsigned long>(st.userInfo, "count")) {
        // Apple prints the user info on one line: {key=value, key=value}.
        id keys = fakeobjc::msg<id>(st.userInfo, "allKeys");
        text += " UserInfo={";
        for (unsigned long i = 0, n = fakeobjc::msg<unsigned long>(keys, "count"); i < n; ++i) {
            id key = fakeobjc::msg<id>(keys, "objectAtIndex:", i);
            text += (i ? ", " : "") + describe(key) + "=" +
                    describe(fakeobjc::msg<id>(st.userInfo, "objectForKey:", key));
        }
        text += "}";
    }
    return autoString(text);
}

id copyWithZone(id self, SEL, void *)
{
    return objc_retain(self);
}

} // namespace

void declareErrorClasses()
{
    gNSError = fakeobjc::ClassDef("NSError", "NSObject")
                   .stateIvar()
                   .classMethod("errorWithDomain:code:userInfo:", errorWithDomain)
                   .method("initWithDomain:code:userInfo:", initWithDomain)
                   .method("dealloc", dealloc)
                   .method("domain", domain)
                   .method("code", code)
                   .method("userInfo", userInfo)
                   .method("localizedDescription", localizedDescription)
                   .method("localizedFailureReason", localizedFailureReason)
                   .method("description", description)
                   .method("copyWithZone:", copyWithZone)
                   .registerWith(gSlot);
    typeIDForClass(gNSError);
}

id newError(id domain, NSInteger code, id userInfo)
{
    return initWithDomain(class_createInstance(gNSError, 0), nullptr, domain, code, userInfo);
}

} // namespace fakecf

extern "C" {
extern id const NSLocalizedDescriptionKey;
extern id const NSLocalizedFailureReasonErrorKey;
extern id const NSUnderlyingErrorKey;
extern id const NSFilePathErrorKey;
extern id const NSCocoaErrorDomain;
extern id const NSPOSIXErrorDomain;
extern id const NSOSStatusErrorDomain;

id const NSLocalizedDescriptionKey = fakecf::constantString("NSLocalizedDescription");
id const NSLocalizedFailureReasonErrorKey = fakecf::constantString("NSLocalizedFailureReason");
id const NSUnderlyingErrorKey = fakecf::constantString("NSUnderlyingError");
id const NSFilePathErrorKey = fakecf::constantString("NSFilePath");
id const NSCocoaErrorDomain = fakecf::constantString("NSCocoaErrorDomain");
id const NSPOSIXErrorDomain = fakecf::constantString("NSPOSIXErrorDomain");
id const NSOSStatusErrorDomain = fakecf::constantString("NSOSStatusErrorDomain");
}
