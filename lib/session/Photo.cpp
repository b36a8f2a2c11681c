#include "session/Photo.h"

#include "frames/FrameClient.h"
#include "inject/Registry.h"
#include "objc/Frameworks.h"
#include "transport/FetchJPEG.h"

using namespace zerlan::objc;

namespace {

constexpr const char *kDataIvar = "_zerlanData";

id zerlanData(id self, SEL)
{
    return objectIvar(self, kDataIvar);
}

void setZerlanData(id self, SEL, id data)
{
    setObjectIvar(self, kDataIvar, data, IvarStore::retain);
}

id fileDataRepresentation(id self, SEL)
{
    return send<id>(self, sel<"zerlanData">());
}

void dealloc(id self, SEL)
{
    releaseObjectIvar(self, kDataIvar);
    sendSuper<void>(ZerlanPhotoClass(), self, sel<"dealloc">());
}

} // namespace

Class ZerlanPhotoClass()
{
    static dispatch_once_t once;
    static Class cls;
    dispatch_once(&once, ^{
        cls = ClassBuilder("ZerlanPhoto", "AVCapturePhoto")
                  .objectIvar(kDataIvar)
                  .method(sel<"zerlanData">(), imp(zerlanData), "@@:")
                  .method(sel<"setZerlanData:">(), imp(setZerlanData), "v@:@")
                  .override(sel<"fileDataRepresentation">(), imp(fileDataRepresentation))
                  .override(sel<"dealloc">(), imp(dealloc))
                  .registerClass();
    });
    return cls;
}

void zerlan_capturePhotoWithSettings_delegate(id self, SEL, id settings, id delegate)
{
    if (!ZerlanMarked(self, &kPhotoOutputKey)) {
        send<void>(self, sel<"zerlan_capturePhotoWithSettings:delegate:">(), settings, delegate);
        return;
    }
    Strong<> jpeg = ZerlanFrameClient::shared().latestJPEG();
    if (!jpeg)
        jpeg = ZerlanFetchJPEG();
    Strong<> photo = Strong<>::adopt(class_createInstance(ZerlanPhotoClass(), 0));
    ZerlanRetainFake(photo);
    send<void>(photo.get(), sel<"setZerlanData:">(), jpeg ? jpeg.get() : send<id>(cls("NSData"), sel<"data">()));

    Strong<> target = Strong<>::retain(delegate);
    Strong<> output = Strong<>::retain(self);
    dispatch_async(dispatch_get_global_queue(QOS_CLASS_USER_INITIATED, 0), ^{
        AutoreleasePool pool;
        SEL callback = sel<"captureOutput:didFinishProcessingPhoto:error:">();
        if (send<BOOL>(target.get(), sel<"respondsToSelector:">(), callback))
            send<void>(target.get(), callback, output.get(), photo.get(), static_cast<id>(nil));
    });
}
