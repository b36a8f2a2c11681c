// AVCaptureInput, AVCaptureDeviceInput and AVCaptureInputPort. An input can only be opened on a
// connected device; without a camera that means never, unless a test registered one. The
// convenience constructor goes through -initWithDevice:error: by message send, as Apple's does.
#include "AVFPrivate.h"

namespace avf {
namespace {

struct InputState {
    Ref device;
    std::vector<Ref> ports;
    Weak session;
};

struct PortState {
    Ref mediaType;
    Ref deviceType;
    long position = 0;
    bool enabled = false;
    Weak input;
};

fakeobjc::StateSlot<InputState> gInputSlot;
fakeobjc::StateSlot<PortState> gPortSlot;

// ---- AVCaptureInput / AVCaptureDeviceInput

id inputPorts(id self, SEL)
{
    auto *s = gInputSlot.peek(self);
    return s ? array(s->ports) : array(std::vector<id>{});
}

id inputDevice(id self, SEL)
{
    auto *s = gInputSlot.peek(self);
    return s ? s->device.get() : nullptr;
}

id deviceInputInitWithDevice(id self, SEL, id device, id *outError)
{
    if (!isRegisteredDevice(device)) {
        if (outError)
            *outError = deviceNotConnectedError();
        objc_release(self);
        return nullptr;
    }
    self = fakeobjc::msgSuper<id>(objc_getClass("AVCaptureDeviceInput"), self, "init");
    if (!self)
        return nullptr;
    InputState &s = gInputSlot.get(self);
    s.device = Ref(device);
    s.ports.push_back(Ref::adopt(makeInputPort(self, device)));
    return self;
}

id deviceInputInit(id self, SEL)
{
    return msg<id>(self, "initWithDevice:error:", static_cast<id>(nullptr), static_cast<id *>(nullptr));
}

id deviceInputWithDevice(id self, SEL, id device, id *outError)
{
    id input = msg<id>(msg<id>(self, "alloc"), "initWithDevice:error:", device, outError);
    return input ? objc_autorelease(input) : nullptr;
}

id inputDescription(id self, SEL)
{
    char text[256];
    id device = inputDevice(self, nullptr);
    id name = device ? msg<id>(device, "localizedName") : nullptr;
    snprintf(text, sizeof text, "<%s: %p [%s]>", object_getClassName(self), static_cast<void *>(self),
             name ? msg<const char *>(name, "UTF8String") : "");
    return str(text);
}

void inputDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gInputSlot, "AVCaptureInput", self);
}

// ---- AVCaptureInputPort

id portInput(id self, SEL)
{
    auto *s = gPortSlot.peek(self);
    return s ? s->input.get() : nullptr;
}

id portMediaType(id self, SEL)
{
    auto *s = gPortSlot.peek(self);
    return s ? s->mediaType.get() : nullptr;
}

CMFormatDescriptionRef portFormatDescription(id self, SEL)
{
    auto *s = gPortSlot.peek(self);
    if (!s)
        return nullptr;
    Ref input = s->input.load();
    id device = deviceInputDevice(input.get());
    return msg<CMFormatDescriptionRef>(msg<id>(device, "activeFormat"), "formatDescription");
}

bool portIsEnabled(id self, SEL)
{
    auto *s = gPortSlot.peek(self);
    return s && s->enabled;
}

void portSetEnabled(id self, SEL, bool enabled)
{
    gPortSlot.get(self).enabled = enabled;
}

long portSourcePosition(id self, SEL)
{
    auto *s = gPortSlot.peek(self);
    return s ? s->position : 0;
}

id portSourceType(id self, SEL)
{
    auto *s = gPortSlot.peek(self);
    return s ? s->deviceType.get() : nullptr;
}

void portDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gPortSlot, "AVCaptureInputPort", self);
}

__attribute__((constructor)) void declareInputClasses()
{
    fakeobjc::ClassDef("AVCaptureInput", "NSObject")
        .method("ports", inputPorts)
        .method("description", inputDescription)
        .method("dealloc", inputDealloc)
        .stateIvar()
        .registerWith(gInputSlot);

    // `ports` is declared again on the subclass: the device input's own method is the one apps
    // (and method exchanges) find first.
    fakeobjc::ClassDef("AVCaptureDeviceInput", "AVCaptureInput")
        .classMethod("deviceInputWithDevice:error:", deviceInputWithDevice)
        .method("initWithDevice:error:", deviceInputInitWithDevice)
        .method("init", deviceInputInit)
        .method("device", inputDevice)
        .method("ports", inputPorts)
        .registerClass();

    fakeobjc::ClassDef("AVCaptureInputPort", "NSObject")
        .method("input", portInput)
        .method("mediaType", portMediaType)
        .method("formatDescription", portFormatDescription)
        .method("isEnabled", portIsEnabled)
        .method("setEnabled:", portSetEnabled)
        .method("sourceDevicePosition", portSourcePosition)
        .method("sourceDeviceType", portSourceType)
        .method("dealloc", portDealloc)
        .stateIvar()
        .registerWith(gPortSlot);
}

} // namespace

id makeInputPort(id input, id device)
{
    id port = class_createInstance(objc_getClass("AVCaptureInputPort"), 0);
    PortState &s = gPortSlot.get(port);
    s.mediaType = Ref(AVMediaTypeVideo);
    s.deviceType = Ref(msg<id>(device, "deviceType"));
    s.position = msg<long>(device, "position");
    s.enabled = true;
    s.input.set(input);
    return port;
}

id deviceInputDevice(id input)
{
    if (!input || !isKind(input, "AVCaptureDeviceInput"))
        return nullptr;
    auto *s = gInputSlot.peek(input);
    return s ? s->device.get() : nullptr;
}

id inputSession(id input)
{
    auto *s = input ? gInputSlot.peek(input) : nullptr;
    return s ? s->session.get() : nullptr;
}

void inputSetSession(id input, id session)
{
    if (input)
        gInputSlot.get(input).session.set(session);
}

} // namespace avf
