#include "session/Session.h"

#include "frames/FrameClient.h"
#include "inject/Connections.h"
#include "inject/Diagnostics.h"
#include "inject/Registry.h"

using namespace zerlan::objc;

namespace {

bool isFakeSession(id session)
{
    return ZerlanMarked(session, &kFakeSessionKey);
}

bool isFakeInput(id input)
{
    return ZerlanMarked(input, &kFakeInputKey);
}

bool isKind(id object, const char *className)
{
    return send<BOOL>(object, sel<"isKindOfClass:">(), cls(className));
}

// A nil object is neither listed nor removed: these mutations never raise.
void appendOnce(id list, id object)
{
    if (object && !send<BOOL>(list, sel<"containsObject:">(), object))
        send<void>(list, sel<"addObject:">(), object);
}

void removeAll(id list, id object)
{
    if (object)
        send<void>(list, sel<"removeObject:">(), object);
}

id immutableCopy(id list)
{
    return Strong<>::adopt(send<id>(list, sel<"copy">())).autorelease();
}

} // namespace

id ZerlanSessionObjects(id session, const void *key)
{
    if (id list = objc_getAssociatedObject(session, key))
        return list;
    Strong<> list = allocInit<"init">("NSMutableArray");
    objc_setAssociatedObject(session, key, list, OBJC_ASSOCIATION_RETAIN_NONATOMIC);
    return list.get();
}

void ZerlanAcceptOutput(id session, id output)
{
    appendOnce(ZerlanSessionObjects(session, &kSessionOutputsKey), output);
    if (isKind(output, "AVCaptureMetadataOutput")) {
        ZerlanMark(output, &kMetadataOutputKey);
        objc_setAssociatedObject(session, &kMetadataOutputKey, output, OBJC_ASSOCIATION_RETAIN_NONATOMIC);
        ZerlanLog(CFSTR("[ZerlanInject] accepted metadata output"));
    } else if (isKind(output, "AVCaptureVideoDataOutput")) {
        ZerlanMark(output, &kVideoOutputKey);
        ZerlanConnectionForOutput(output);
        ZerlanFrameClient::shared().setVideoOutput(output);
        ZerlanLog(CFSTR("[ZerlanInject] accepted video output"));
    } else if (isKind(output, "AVCapturePhotoOutput")) {
        ZerlanMark(output, &kPhotoOutputKey);
        ZerlanConnectionForOutput(output);
        ZerlanLog(CFSTR("[ZerlanInject] accepted photo output"));
    }
}

BOOL zerlan_canAddInput(id self, SEL, id input)
{
    if (!isFakeInput(input))
        return send<BOOL>(self, sel<"zerlan_canAddInput:">(), input);
    ZerlanMark(self, &kFakeSessionKey);
    ZerlanLog(CFSTR("[ZerlanInject] accepted fabricated camera input"));
    return YES;
}

// Deliberately leaves the session unmarked: only canAddInput: and addInputWithNoConnections:
// turn a session into a fabricated one.
void zerlan_addInput(id self, SEL, id input)
{
    if (isFakeInput(input))
        appendOnce(ZerlanSessionObjects(self, &kSessionInputsKey), input);
    else
        send<void>(self, sel<"zerlan_addInput:">(), input);
}

void zerlan_addInputWithNoConnections(id self, SEL, id input)
{
    if (!isFakeInput(input)) {
        send<void>(self, sel<"zerlan_addInputWithNoConnections:">(), input);
        return;
    }
    ZerlanMark(self, &kFakeSessionKey);
    appendOnce(ZerlanSessionObjects(self, &kSessionInputsKey), input);
    ZerlanLog(CFSTR("[ZerlanInject] accepted fabricated input without connections"));
}

BOOL zerlan_canAddOutput(id self, SEL, id output)
{
    return isFakeSession(self) ? YES : send<BOOL>(self, sel<"zerlan_canAddOutput:">(), output);
}

void zerlan_addOutput(id self, SEL, id output)
{
    if (isFakeSession(self))
        ZerlanAcceptOutput(self, output);
    else
        send<void>(self, sel<"zerlan_addOutput:">(), output);
}

void zerlan_addOutputWithNoConnections(id self, SEL, id output)
{
    if (isFakeSession(self))
        ZerlanAcceptOutput(self, output);
    else
        send<void>(self, sel<"zerlan_addOutputWithNoConnections:">(), output);
}

BOOL zerlan_canAddConnection(id self, SEL, id connection)
{
    return isFakeSession(self) ? YES : send<BOOL>(self, sel<"zerlan_canAddConnection:">(), connection);
}

void zerlan_addConnection(id self, SEL, id connection)
{
    if (!isFakeSession(self))
        send<void>(self, sel<"zerlan_addConnection:">(), connection);
}

BOOL zerlan_canSetSessionPreset(id self, SEL, id preset)
{
    return isFakeSession(self) ? YES : send<BOOL>(self, sel<"zerlan_canSetSessionPreset:">(), preset);
}

void zerlan_startRunning(id self, SEL)
{
    if (!isFakeSession(self)) {
        send<void>(self, sel<"zerlan_startRunning">());
        return;
    }
    ZerlanFrameClient::shared().start();
    ZerlanLog(CFSTR("[ZerlanInject] capture session started through bridge"));
}

void zerlan_stopRunning(id self, SEL)
{
    if (!isFakeSession(self))
        send<void>(self, sel<"zerlan_stopRunning">());
}

BOOL zerlan_isRunning(id self, SEL)
{
    return isFakeSession(self) ? YES : send<BOOL>(self, sel<"zerlan_isRunning">());
}

id zerlan_inputs(id self, SEL)
{
    return isFakeSession(self) ? immutableCopy(ZerlanSessionObjects(self, &kSessionInputsKey))
                               : send<id>(self, sel<"zerlan_inputs">());
}

id zerlan_outputs(id self, SEL)
{
    return isFakeSession(self) ? immutableCopy(ZerlanSessionObjects(self, &kSessionOutputsKey))
                               : send<id>(self, sel<"zerlan_outputs">());
}

void zerlan_removeInput(id self, SEL, id input)
{
    if (isFakeSession(self))
        removeAll(ZerlanSessionObjects(self, &kSessionInputsKey), input);
    else
        send<void>(self, sel<"zerlan_removeInput:">(), input);
}

void zerlan_removeOutput(id self, SEL, id output)
{
    if (isFakeSession(self))
        removeAll(ZerlanSessionObjects(self, &kSessionOutputsKey), output);
    else
        send<void>(self, sel<"zerlan_removeOutput:">(), output);
}
