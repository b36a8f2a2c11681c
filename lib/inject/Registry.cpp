#include "inject/Registry.h"

#include "objc/Frameworks.h"

#include <utility>

using namespace zerlan::objc;

const char kFakeDeviceKey = 0;
const char kFakeInputKey = 0;
const char kFakeConnectionKey = 0;
const char kConnectionOutputKey = 0;
const char kOutputConnectionKey = 0;
const char kConnectionOrientationKey = 0;
const char kVideoOutputKey = 0;
const char kPhotoOutputKey = 0;
const char kMetadataOutputKey = 0;
const char kFakeSessionKey = 0;
const char kSessionInputsKey = 0;
const char kSessionOutputsKey = 0;
const char kVideoDelegateKey = 0;
const char kVideoQueueKey = 0;
const char kMetadataDelegateKey = 0;
const char kMetadataQueueKey = 0;
const char kVirtualImagePickerKey = 0;
const char kVirtualImagePickerDeviceKey = 0;
const char kVirtualImagePickerModeKey = 0;
const char kVirtualImagePickerProxyKey = 0;
const char kFakeFormatKey = 0;
const char kFakePortKey = 0;

id gRetainedFakeObjects = nullptr;

void ZerlanMark(id object, const void *key)
{
    objc_setAssociatedObject(object, key, bridge(kCFBooleanTrue), OBJC_ASSOCIATION_RETAIN_NONATOMIC);
}

bool ZerlanMarked(id object, const void *key)
{
    return send<BOOL>(objc_getAssociatedObject(object, key), sel<"boolValue">());
}

id ZerlanRetainFake(id object)
{
    id list = gRetainedFakeObjects;
    {
        ObjectLock lock(list);
        try {
            send<void>(list, sel<"addObject:">(), object);
        } catch (...) {
            // The lock is released by the guard; a failed append loses only the keep-alive.
        }
    }
    return objc_autorelease(objc_retain(object));
}

void ZerlanResetRetainedFakeObjects()
{
    objc_release(std::exchange(gRetainedFakeObjects, allocInit<"init">("NSMutableArray").leak()));
}
