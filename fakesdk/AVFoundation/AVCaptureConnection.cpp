// AVCaptureConnection: input ports joined to an output (or a preview layer). Real connections
// keep what they are given; a bare one (no initialiser ran) answers nil, zero and NO.
#include "AVFPrivate.h"

namespace avf {
namespace {

struct ConnectionState {
    std::vector<Ref> ports;
    Weak output;
    Weak previewLayer;
    Weak session;
    bool enabled = false;
    long orientation = 0;
    bool mirrored = false;
    bool adjustsMirroring = false;
    bool initialised = false;
};

fakeobjc::StateSlot<ConnectionState> gConnectionSlot;

ConnectionState *state(id self)
{
    return gConnectionSlot.peek(self);
}

void initCommon(id self, id ports, long orientation)
{
    ConnectionState &s = gConnectionSlot.get(self);
    for (id port : elements(ports))
        s.ports.emplace_back(port);
    s.enabled = true;
    s.orientation = orientation;
    s.adjustsMirroring = true;
    s.initialised = true;
}

bool anyVideoPort(ConnectionState *s)
{
    for (const Ref &port : s->ports)
        if (strEqual(msg<id>(port.get(), "mediaType"), AVMediaTypeVideo))
            return true;
    return false;
}

id initWithInputPortsOutput(id self, SEL, id ports, id output)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("AVCaptureConnection"), self, "init");
    if (!self)
        return nullptr;
    // Buffers leave the sensor in landscape; the preview layer's connection starts in portrait.
    initCommon(self, ports, 3);
    gConnectionSlot.get(self).output.set(output);
    return self;
}

id initWithInputPortVideoPreviewLayer(id self, SEL, id port, id layer)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("AVCaptureConnection"), self, "init");
    if (!self)
        return nullptr;
    initCommon(self, port ? array(std::vector<id>{port}) : array(std::vector<id>{}), 1);
    gConnectionSlot.get(self).previewLayer.set(layer);
    return self;
}

id connectionWithInputPortsOutput(id self, SEL, id ports, id output)
{
    id connection = msg<id>(msg<id>(self, "alloc"), "initWithInputPorts:output:", ports, output);
    return connection ? objc_autorelease(connection) : nullptr;
}

id connectionWithInputPortVideoPreviewLayer(id self, SEL, id port, id layer)
{
    id connection = msg<id>(msg<id>(self, "alloc"), "initWithInputPort:videoPreviewLayer:", port, layer);
    return connection ? objc_autorelease(connection) : nullptr;
}

id inputPorts(id self, SEL)
{
    auto *s = state(self);
    return s ? array(s->ports) : array(std::vector<id>{});
}

id connectionOutput(id self, SEL)
{
    auto *s = state(self);
    return s ? s->output.get() : nullptr;
}

id connectionPreviewLayer(id self, SEL)
{
    auto *s = state(self);
    return s ? s->previewLayer.get() : nullptr;
}

bool isEnabled(id self, SEL)
{
    auto *s = state(self);
    return s && s->enabled;
}

void setEnabled(id self, SEL, bool enabled)
{
    gConnectionSlot.get(self).enabled = enabled;
}

// Active: part of a running session, with every input port enabled.
bool isActive(id self, SEL)
{
    auto *s = state(self);
    if (!s || s->ports.empty())
        return false;
    Ref session = s->session.load();
    if (!session || !msg<bool>(session.get(), "isRunning"))
        return false;
    for (const Ref &port : s->ports)
        if (!msg<bool>(port.get(), "isEnabled"))
            return false;
    return true;
}

bool isVideoOrientationSupported(id self, SEL)
{
    auto *s = state(self);
    return s && anyVideoPort(s);
}

bool isVideoMirroringSupported(id self, SEL)
{
    auto *s = state(self);
    return s && anyVideoPort(s);
}

long videoOrientation(id self, SEL)
{
    auto *s = state(self);
    return s ? s->orientation : 0;
}

void setVideoOrientation(id self, SEL, long orientation)
{
    // A connection whose initialiser never ran just keeps the value, as a zero-filled object would.
    ConnectionState &s = gConnectionSlot.get(self);
    if (s.initialised && !anyVideoPort(&s))
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVCaptureConnection setVideoOrientation:] Video orientation is not supported by "
                        "this connection");
    s.orientation = orientation;
}

double videoRotationAngle(id self, SEL)
{
    switch (msg<long>(self, "videoOrientation")) {
    case 1: return 90;
    case 2: return 270;
    case 4: return 180;
    default: return 0;
    }
}

bool isVideoRotationAngleSupported(id self, SEL, double angle)
{
    return msg<bool>(self, "isVideoOrientationSupported") &&
           (angle == 0 || angle == 90 || angle == 180 || angle == 270);
}

void setVideoRotationAngle(id self, SEL, double angle)
{
    if (!msg<bool>(self, "isVideoRotationAngleSupported:", angle))
        fakeobjc::raiseFormat("NSInvalidArgumentException",
                              "*** -[AVCaptureConnection setVideoRotationAngle:] Unsupported rotation angle %g",
                              angle);
    long orientation = angle == 90 ? 1 : angle == 270 ? 2 : angle == 180 ? 4 : 3;
    msg<void>(self, "setVideoOrientation:", orientation);
}

bool isVideoMirrored(id self, SEL)
{
    auto *s = state(self);
    return s && s->mirrored;
}

void setVideoMirrored(id self, SEL, bool mirrored)
{
    ConnectionState &s = gConnectionSlot.get(self);
    if (s.initialised && !anyVideoPort(&s))
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVCaptureConnection setVideoMirrored:] Mirroring is not supported by this connection");
    if (s.initialised && s.adjustsMirroring)
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVCaptureConnection setVideoMirrored:] Cannot be set when "
                        "automaticallyAdjustsVideoMirroring is YES");
    s.mirrored = mirrored;
}

bool automaticallyAdjustsVideoMirroring(id self, SEL)
{
    auto *s = state(self);
    return s && s->adjustsMirroring;
}

void setAutomaticallyAdjustsVideoMirroring(id self, SEL, bool value)
{
    gConnectionSlot.get(self).adjustsMirroring = value;
}

void connectionDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gConnectionSlot, "AVCaptureConnection", self);
}

__attribute__((constructor)) void declareConnection()
{
    fakeobjc::ClassDef("AVCaptureConnection", "NSObject")
        .classMethod("connectionWithInputPorts:output:", connectionWithInputPortsOutput)
        .classMethod("connectionWithInputPort:videoPreviewLayer:", connectionWithInputPortVideoPreviewLayer)
        .method("initWithInputPorts:output:", initWithInputPortsOutput)
        .method("initWithInputPort:videoPreviewLayer:", initWithInputPortVideoPreviewLayer)
        .method("inputPorts", inputPorts)
        .method("output", connectionOutput)
        .method("videoPreviewLayer", connectionPreviewLayer)
        .method("isEnabled", isEnabled)
        .method("setEnabled:", setEnabled)
        .method("isActive", isActive)
        .method("isVideoOrientationSupported", isVideoOrientationSupported)
        .method("isVideoMirroringSupported", isVideoMirroringSupported)
        .method("videoOrientation", videoOrientation)
        .method("setVideoOrientation:", setVideoOrientation)
        .method("videoRotationAngle", videoRotationAngle)
        .method("setVideoRotationAngle:", setVideoRotationAngle)
        .method("isVideoRotationAngleSupported:", isVideoRotationAngleSupported)
        .method("isVideoMirrored", isVideoMirrored)
        .method("setVideoMirrored:", setVideoMirrored)
        .method("automaticallyAdjustsVideoMirroring", automaticallyAdjustsVideoMirroring)
        .method("setAutomaticallyAdjustsVideoMirroring:", setAutomaticallyAdjustsVideoMirroring)
        .method("dealloc", connectionDealloc)
        .stateIvar()
        .registerWith(gConnectionSlot);
}

} // namespace

void connectionSetSession(id connection, id session)
{
    if (connection)
        gConnectionSlot.get(connection).session.set(session);
}

id connectionSession(id connection)
{
    auto *s = connection ? state(connection) : nullptr;
    return s ? s->session.get() : nullptr;
}

std::vector<id> connectionPorts(id connection)
{
    std::vector<id> out;
    if (auto *s = connection ? state(connection) : nullptr)
        for (const Ref &port : s->ports)
            out.push_back(port.get());
    return out;
}

id connectionOwnOutput(id connection)
{
    auto *s = connection ? state(connection) : nullptr;
    return s ? s->output.get() : nullptr;
}

} // namespace avf
