// AVCaptureSession. Camera-less behaviour: a session refuses inputs that have no connected device
// and raises on adding what it refused; a session without inputs still "runs". Inputs and outputs
// are joined by connections made through -[AVCaptureConnection initWithInputPorts:output:], and the
// session asks its outputs for their connections by message send, like Apple's internals do.
#include "AVOutputPrivate.h"

#include <fakesdk/avfoundation_np.h>

#include <algorithm>
#include <cstring>
#include <string>

extern "C" {
extern id const AVCaptureSessionPresetPhoto;
extern id const AVCaptureSessionPresetMedium;
extern id const AVCaptureSessionPresetLow;
extern id const AVCaptureSessionPreset352x288;
extern id const AVCaptureSessionPreset640x480;
extern id const AVCaptureSessionPreset1280x720;
extern id const AVCaptureSessionPreset1920x1080;
extern id const AVCaptureSessionPreset3840x2160;
extern id const AVCaptureSessionPresetInputPriority;
}

namespace avf {
namespace {

struct SessionState {
    std::mutex lock;
    std::vector<Ref> inputs, outputs, connections;
    std::atomic<bool> running = false;
    Ref preset;
    int configurationDepth = 0;
    std::vector<std::string> received; // selectors whose implementation here ran, in order
};

fakeobjc::StateSlot<SessionState> gSessionSlot;

SessionState *state(id self)
{
    return gSessionSlot.peek(self);
}

// Every public method notes that it ran, for AVCaptureSessionCopyReceivedMessages_np: the one way a
// test can see a message reach the framework when it changes nothing visible. Noted under the
// method's own name, whatever selector reached it (an exchange may have renamed it).
void received(id self, const char *selector)
{
    SessionState &s = gSessionSlot.get(self);
    std::lock_guard guard(s.lock);
    s.received.emplace_back(selector);
}

std::vector<id> snapshot(SessionState &s, std::vector<Ref> SessionState::*list)
{
    std::lock_guard guard(s.lock);
    std::vector<id> out;
    for (const Ref &ref : s.*list)
        out.push_back(ref.get());
    return out;
}

bool contains(SessionState &s, std::vector<Ref> SessionState::*list, id obj)
{
    std::lock_guard guard(s.lock);
    auto &v = s.*list;
    return std::any_of(v.begin(), v.end(), [&](const Ref &r) { return r.get() == obj; });
}

void removeFrom(SessionState &s, std::vector<Ref> SessionState::*list, id obj)
{
    std::vector<Ref> removed; // released after the lock is dropped: a dealloc may call back in
    {
        std::lock_guard guard(s.lock);
        auto &v = s.*list;
        for (auto it = v.begin(); it != v.end();) {
            if (it->get() == obj) {
                removed.push_back(std::move(*it));
                it = v.erase(it);
            } else {
                ++it;
            }
        }
    }
}

std::vector<id> videoPorts(id input)
{
    std::vector<id> out;
    for (id port : elements(msg<id>(input, "ports")))
        if (strEqual(msg<id>(port, "mediaType"), AVMediaTypeVideo))
            out.push_back(port);
    return out;
}

const char *inputRefusal(id self, id input)
{
    if (!input)
        return "Can't add a nil AVCaptureInput";
    if (inputSession(input))
        return "An AVCaptureInput instance may not be added to more than one session";
    if (isKind(input, "AVCaptureDeviceInput")) {
        id device = msg<id>(input, "device");
        if (!device)
            return "Can't add an AVCaptureDeviceInput that has no device";
        if (!isRegisteredDevice(device))
            return "Can't add an AVCaptureDeviceInput whose device is not connected";
    }
    if (elements(msg<id>(input, "ports")).empty())
        return "Can't add an AVCaptureInput that has no ports";
    if (!videoPorts(input).empty())
        for (id existing : snapshot(gSessionSlot.get(self), &SessionState::inputs))
            if (!videoPorts(existing).empty())
                return "Multiple audio/video AVCaptureInputs are not currently supported";
    return nullptr;
}

const char *outputRefusal(id self, id output)
{
    if (!output)
        return "Can't add a nil AVCaptureOutput";
    if (outputSession(output))
        return "An AVCaptureOutput instance may not be added to more than one session";
    if (!isKind(output, "AVCaptureOutput"))
        return "Can't add an object that is not an AVCaptureOutput";
    return nullptr;
}

void attachConnection(id self, id connection)
{
    SessionState &s = gSessionSlot.get(self);
    {
        std::lock_guard guard(s.lock);
        s.connections.emplace_back(connection);
    }
    connectionSetSession(connection, self);
    if (id output = connectionOwnOutput(connection))
        outputAttachConnection(output, connection);
}

void detachConnection(id self, id connection)
{
    Ref keep(connection);
    if (id output = connectionOwnOutput(connection))
        outputDetachConnection(output, connection);
    connectionSetSession(connection, nullptr);
    removeFrom(gSessionSlot.get(self), &SessionState::connections, connection);
}

void connect(id self, id port, id output)
{
    if (!outputOwnConnections(output).empty())
        return;
    id ports = array(std::vector<id>{port});
    id connection = msg<id>(msg<id>(cls("AVCaptureConnection"), "alloc"), "initWithInputPorts:output:", ports, output);
    if (!connection)
        return;
    attachConnection(self, connection);
    objc_release(connection);
}

// What the framework sees when it asks an output for its connections.
std::vector<id> askConnections(id output)
{
    return elements(msg<id>(output, "connections"));
}

void startDeliveryFor(id self, id output)
{
    if (!isKind(output, "AVCaptureVideoDataOutput"))
        return;
    for (id connection : askConnections(output))
        for (id port : elements(msg<id>(connection, "inputPorts")))
            if (isRegisteredDevice(deviceInputDevice(msg<id>(port, "input")))) {
                videoOutputStartDelivery(output, connection);
                return;
            }
}

void refreshOutputs(id self)
{
    SessionState &s = gSessionSlot.get(self);
    for (id output : snapshot(s, &SessionState::outputs)) {
        askConnections(output);
        if (s.running)
            startDeliveryFor(self, output);
    }
}

// ---- inputs

bool canAddInput(id self, SEL, id input)
{
    received(self, "canAddInput:");
    return inputRefusal(self, input) == nullptr;
}

void addInputCommon(id self, id input, const char *selector, bool withConnections)
{
    if (const char *reason = inputRefusal(self, input))
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[AVCaptureSession %s] %s", selector, reason);
    SessionState &s = gSessionSlot.get(self);
    {
        std::lock_guard guard(s.lock);
        s.inputs.emplace_back(input);
    }
    inputSetSession(input, self);
    if (!withConnections)
        return;
    for (id port : videoPorts(input))
        for (id output : snapshot(s, &SessionState::outputs))
            connect(self, port, output);
    if (s.configurationDepth == 0)
        refreshOutputs(self);
}

void addInput(id self, SEL, id input)
{
    received(self, "addInput:");
    addInputCommon(self, input, "addInput:", true);
}

void addInputWithNoConnections(id self, SEL, id input)
{
    received(self, "addInputWithNoConnections:");
    addInputCommon(self, input, "addInputWithNoConnections:", false);
}

void removeInput(id self, SEL, id input)
{
    received(self, "removeInput:");
    SessionState *s = state(self);
    if (!s || !input || !contains(*s, &SessionState::inputs, input))
        return;
    Ref keep(input);
    std::vector<id> ports = elements(msg<id>(input, "ports"));
    for (id connection : snapshot(*s, &SessionState::connections)) {
        std::vector<id> connected = connectionPorts(connection);
        bool usesInput = std::any_of(connected.begin(), connected.end(), [&](id port) {
            return std::find(ports.begin(), ports.end(), port) != ports.end();
        });
        if (usesInput) {
            if (id output = connectionOwnOutput(connection))
                videoOutputStopDelivery(output);
            detachConnection(self, connection);
        }
    }
    removeFrom(*s, &SessionState::inputs, input);
    inputSetSession(input, nullptr);
}

id inputs(id self, SEL)
{
    received(self, "inputs");
    SessionState *s = state(self);
    return array(s ? snapshot(*s, &SessionState::inputs) : std::vector<id>{});
}

// ---- outputs

bool canAddOutput(id self, SEL, id output)
{
    received(self, "canAddOutput:");
    return outputRefusal(self, output) == nullptr;
}

void addOutputCommon(id self, id output, const char *selector, bool withConnections)
{
    if (const char *reason = outputRefusal(self, output))
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[AVCaptureSession %s] %s", selector, reason);
    SessionState &s = gSessionSlot.get(self);
    {
        std::lock_guard guard(s.lock);
        s.outputs.emplace_back(output);
    }
    outputSetSession(output, self);
    if (withConnections)
        for (id input : snapshot(s, &SessionState::inputs))
            for (id port : videoPorts(input))
                connect(self, port, output);
    if (s.configurationDepth == 0) {
        askConnections(output);
        if (s.running)
            startDeliveryFor(self, output);
    }
}

void addOutput(id self, SEL, id output)
{
    received(self, "addOutput:");
    addOutputCommon(self, output, "addOutput:", true);
}

void addOutputWithNoConnections(id self, SEL, id output)
{
    received(self, "addOutputWithNoConnections:");
    addOutputCommon(self, output, "addOutputWithNoConnections:", false);
}

void removeOutput(id self, SEL, id output)
{
    received(self, "removeOutput:");
    SessionState *s = state(self);
    if (!s || !output || !contains(*s, &SessionState::outputs, output))
        return;
    Ref keep(output);
    videoOutputStopDelivery(output);
    for (id connection : outputOwnConnections(output))
        detachConnection(self, connection);
    removeFrom(*s, &SessionState::outputs, output);
    outputSetSession(output, nullptr);
}

id outputs(id self, SEL)
{
    received(self, "outputs");
    SessionState *s = state(self);
    return array(s ? snapshot(*s, &SessionState::outputs) : std::vector<id>{});
}

// ---- connections

const char *connectionRefusal(id self, id connection)
{
    if (!connection)
        return "Can't add a nil AVCaptureConnection";
    if (connectionSession(connection))
        return "An AVCaptureConnection instance may not be added to more than one session";
    std::vector<id> ports = connectionPorts(connection);
    if (ports.empty())
        return "Can't add an AVCaptureConnection that has no input ports";
    SessionState &s = gSessionSlot.get(self);
    for (id port : ports)
        if (!contains(s, &SessionState::inputs, msg<id>(port, "input")))
            return "The connection's input ports do not belong to an input of this session";
    id output = msg<id>(connection, "output");
    if (output) {
        if (!contains(s, &SessionState::outputs, output))
            return "The connection's output does not belong to this session";
        if (!outputOwnConnections(output).empty())
            return "The connection's output already has a connection";
    } else if (!msg<id>(connection, "videoPreviewLayer")) {
        return "Can't add an AVCaptureConnection with no output";
    }
    return nullptr;
}

bool canAddConnection(id self, SEL, id connection)
{
    received(self, "canAddConnection:");
    return connectionRefusal(self, connection) == nullptr;
}

void addConnection(id self, SEL, id connection)
{
    received(self, "addConnection:");
    if (const char *reason = connectionRefusal(self, connection))
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[AVCaptureSession addConnection:] %s", reason);
    attachConnection(self, connection);
    SessionState &s = gSessionSlot.get(self);
    if (id output = connectionOwnOutput(connection); output && s.configurationDepth == 0) {
        askConnections(output);
        if (s.running)
            startDeliveryFor(self, output);
    }
}

void removeConnection(id self, SEL, id connection)
{
    received(self, "removeConnection:");
    SessionState *s = state(self);
    if (!s || !connection || !contains(*s, &SessionState::connections, connection))
        return;
    if (id output = connectionOwnOutput(connection))
        videoOutputStopDelivery(output);
    detachConnection(self, connection);
}

id connections(id self, SEL)
{
    received(self, "connections");
    SessionState *s = state(self);
    return array(s ? snapshot(*s, &SessionState::connections) : std::vector<id>{});
}

// ---- running

void startRunning(id self, SEL)
{
    received(self, "startRunning");
    SessionState &s = gSessionSlot.get(self);
    s.running = true;
    refreshOutputs(self);
}

void stopRunning(id self, SEL)
{
    received(self, "stopRunning");
    SessionState *s = state(self);
    if (!s)
        return;
    s->running = false;
    for (id output : snapshot(*s, &SessionState::outputs))
        videoOutputStopDelivery(output);
}

bool isRunning(id self, SEL)
{
    received(self, "isRunning");
    SessionState *s = state(self);
    return s && s->running;
}

bool isInterrupted(id self, SEL)
{
    received(self, "isInterrupted");
    return false;
}

void beginConfiguration(id self, SEL)
{
    received(self, "beginConfiguration");
    ++gSessionSlot.get(self).configurationDepth;
}

void commitConfiguration(id self, SEL)
{
    received(self, "commitConfiguration");
    SessionState &s = gSessionSlot.get(self);
    if (s.configurationDepth > 0 && --s.configurationDepth == 0)
        refreshOutputs(self);
}

// ---- presets

struct PresetSize {
    id const *preset;
    int width, height;
};

const PresetSize kPresetSizes[] = {
    {&AVCaptureSessionPreset352x288, 352, 288},     {&AVCaptureSessionPreset640x480, 640, 480},
    {&AVCaptureSessionPreset1280x720, 1280, 720},   {&AVCaptureSessionPreset1920x1080, 1920, 1080},
    {&AVCaptureSessionPreset3840x2160, 3840, 2160},
};

bool canSetSessionPreset(id self, SEL, id preset)
{
    received(self, "canSetSessionPreset:");
    if (!preset)
        return false;
    for (id flexible : {AVCaptureSessionPresetHigh, AVCaptureSessionPresetMedium, AVCaptureSessionPresetLow,
                        AVCaptureSessionPresetPhoto, AVCaptureSessionPresetInputPriority})
        if (strEqual(preset, flexible))
            return true;
    for (const PresetSize &size : kPresetSizes) {
        if (!strEqual(preset, *size.preset))
            continue;
        // A fixed size needs a camera format at least that large; without a camera any is accepted.
        SessionState *s = state(self);
        for (id input : s ? snapshot(*s, &SessionState::inputs) : std::vector<id>{}) {
            id device = msg<id>(input, "device");
            if (!device)
                continue;
            bool fits = false;
            for (id format : elements(msg<id>(device, "formats"))) {
                CMVideoDimensions d =
                    CMVideoFormatDescriptionGetDimensions(msg<CMFormatDescriptionRef>(format, "formatDescription"));
                fits = fits || (d.width >= size.width && d.height >= size.height);
            }
            if (!fits)
                return false;
        }
        return true;
    }
    return false;
}

id sessionPreset(id self, SEL)
{
    received(self, "sessionPreset");
    SessionState *s = state(self);
    if (!s)
        return nullptr;
    std::lock_guard guard(s->lock);
    return s->preset.get();
}

void setSessionPreset(id self, SEL, id preset)
{
    received(self, "setSessionPreset:");
    if (!msg<bool>(self, "canSetSessionPreset:", preset))
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[AVCaptureSession setSessionPreset:] Unsupported "
                                                            "session preset: %s",
                              preset ? msg<const char *>(preset, "UTF8String") : "(null)");
    SessionState &s = gSessionSlot.get(self);
    Ref copy = Ref::adopt(msg<id>(preset, "copy"));
    std::lock_guard guard(s.lock);
    s.preset = copy;
}

// ---- lifecycle

id sessionInit(id self, SEL)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("AVCaptureSession"), self, "init");
    if (self)
        gSessionSlot.get(self).preset = Ref(AVCaptureSessionPresetHigh);
    return self;
}

void sessionDealloc(id self, SEL)
{
    if (SessionState *s = state(self)) {
        for (id output : snapshot(*s, &SessionState::outputs)) {
            videoOutputStopDelivery(output);
            outputSetSession(output, nullptr);
            for (id connection : outputOwnConnections(output))
                outputDetachConnection(output, connection);
        }
        for (id input : snapshot(*s, &SessionState::inputs))
            inputSetSession(input, nullptr);
        for (id connection : snapshot(*s, &SessionState::connections))
            connectionSetSession(connection, nullptr);
    }
    fakeobjc::destroyStateThenSuper(gSessionSlot, "AVCaptureSession", self);
}

__attribute__((constructor)) void declareSession()
{
    fakeobjc::ClassDef("AVCaptureSession", "NSObject")
        .method("init", sessionInit)
        .method("canAddInput:", canAddInput)
        .method("addInput:", addInput)
        .method("canAddOutput:", canAddOutput)
        .method("addOutput:", addOutput)
        .method("startRunning", startRunning)
        .method("stopRunning", stopRunning)
        .method("isRunning", isRunning)
        .method("isInterrupted", isInterrupted)
        .method("addInputWithNoConnections:", addInputWithNoConnections)
        .method("addOutputWithNoConnections:", addOutputWithNoConnections)
        .method("addConnection:", addConnection)
        .method("canAddConnection:", canAddConnection)
        .method("removeConnection:", removeConnection)
        .method("canSetSessionPreset:", canSetSessionPreset)
        .method("sessionPreset", sessionPreset)
        .method("setSessionPreset:", setSessionPreset)
        .method("inputs", inputs)
        .method("outputs", outputs)
        .method("connections", connections)
        .method("removeInput:", removeInput)
        .method("removeOutput:", removeOutput)
        .method("beginConfiguration", beginConfiguration)
        .method("commitConfiguration", commitConfiguration)
        .method("dealloc", sessionDealloc)
        .stateIvar()
        .registerWith(gSessionSlot);
}

} // namespace

id sessionVideoPort(id session)
{
    SessionState *s = session ? state(session) : nullptr;
    if (!s)
        return nullptr;
    for (id input : snapshot(*s, &SessionState::inputs))
        for (id port : videoPorts(input))
            return port;
    return nullptr;
}

void sessionAttachConnection(id session, id connection)
{
    attachConnection(session, connection);
}

void sessionDetachConnection(id session, id connection)
{
    if (session && state(session))
        detachConnection(session, connection);
}

} // namespace avf

using namespace avf;

AVF_EXPORT id AVCaptureSessionCopyReceivedMessages_np(id session)
{
    std::vector<std::string> names;
    if (SessionState *s = session ? gSessionSlot.peek(session) : nullptr) {
        std::lock_guard guard(s->lock);
        names = s->received;
    }
    std::vector<id> out;
    for (const std::string &name : names)
        out.push_back(str(name.c_str()));
    return objc_retain(array(out));
}

AVF_EXPORT id AVCaptureSessionCopyOutputConnections_np(id session)
{
    std::vector<id> seen;
    SessionState *s = session ? gSessionSlot.peek(session) : nullptr;
    if (s)
        for (id output : snapshot(*s, &SessionState::outputs))
            for (id connection : askConnections(output))
                seen.push_back(connection);
    return objc_retain(array(seen));
}
