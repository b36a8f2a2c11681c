// AVCaptureVideoPreviewLayer : CALayer. It retains its session; its connection exists once the
// session has a camera input. Without a camera the layer stays black, as on the Simulator.
#include "AVFPrivate.h"

namespace avf {
namespace {

struct PreviewState {
    Ref session;
    Ref connection;
    Ref gravity;
    bool withoutConnection = false;
};

fakeobjc::StateSlot<PreviewState> gPreviewSlot;

PreviewState *state(id self)
{
    return gPreviewSlot.peek(self);
}

id layerInit(id self, SEL)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("AVCaptureVideoPreviewLayer"), self, "init");
    if (self)
        gPreviewSlot.get(self).gravity = Ref(AVLayerVideoGravityResizeAspect);
    return self;
}

id layerInitWithSession(id self, SEL, id session)
{
    self = msg<id>(self, "init");
    if (self)
        msg<void>(self, "setSession:", session);
    return self;
}

id layerInitWithSessionNoConnection(id self, SEL, id session)
{
    self = msg<id>(self, "init");
    if (self)
        msg<void>(self, "setSessionWithNoConnection:", session);
    return self;
}

id layerWithSession(id self, SEL, id session)
{
    id layer = msg<id>(msg<id>(self, "alloc"), "initWithSession:", session);
    return layer ? objc_autorelease(layer) : nullptr;
}

id layerWithSessionNoConnection(id self, SEL, id session)
{
    id layer = msg<id>(msg<id>(self, "alloc"), "initWithSessionWithNoConnection:", session);
    return layer ? objc_autorelease(layer) : nullptr;
}

id layerSession(id self, SEL)
{
    auto *s = state(self);
    return s ? s->session.get() : nullptr;
}

void replaceSession(id self, id session, bool withoutConnection)
{
    PreviewState &s = gPreviewSlot.get(self);
    if (s.connection)
        sessionDetachConnection(s.session.get(), s.connection.get());
    s.connection = Ref();
    s.session = Ref(session);
    s.withoutConnection = withoutConnection;
}

void layerSetSession(id self, SEL, id session)
{
    replaceSession(self, session, false);
}

void layerSetSessionNoConnection(id self, SEL, id session)
{
    replaceSession(self, session, true);
}

// Made on first request once the session has a camera port, and then kept.
id layerConnection(id self, SEL)
{
    auto *s = state(self);
    if (!s || !s->session || s->withoutConnection)
        return nullptr;
    if (!s->connection) {
        id port = sessionVideoPort(s->session.get());
        if (!port)
            return nullptr;
        id connection =
            msg<id>(msg<id>(cls("AVCaptureConnection"), "alloc"), "initWithInputPort:videoPreviewLayer:", port, self);
        if (!connection)
            return nullptr;
        s->connection = Ref::adopt(connection);
        sessionAttachConnection(s->session.get(), connection);
    }
    return s->connection.get();
}

id layerGravity(id self, SEL)
{
    auto *s = state(self);
    return s ? s->gravity.get() : nullptr;
}

void layerSetGravity(id self, SEL, id gravity)
{
    gPreviewSlot.get(self).gravity = Ref::adopt(msg<id>(gravity, "copy"));
}

CGRect layerRectForMetadataRect(id self, SEL, CGRect rect)
{
    CGRect bounds = msg<CGRect>(self, "bounds");
    return CGRect{{bounds.origin.x + rect.origin.x * bounds.size.width, bounds.origin.y + rect.origin.y * bounds.size.height},
                  {rect.size.width * bounds.size.width, rect.size.height * bounds.size.height}};
}

void layerDealloc(id self, SEL)
{
    if (auto *s = state(self); s && s->connection)
        sessionDetachConnection(s->session.get(), s->connection.get());
    fakeobjc::destroyStateThenSuper(gPreviewSlot, "AVCaptureVideoPreviewLayer", self);
}

__attribute__((constructor)) void declarePreviewLayer()
{
    fakeobjc::ClassDef("AVCaptureVideoPreviewLayer", "CALayer")
        .classMethod("layerWithSession:", layerWithSession)
        .classMethod("layerWithSessionWithNoConnection:", layerWithSessionNoConnection)
        .method("init", layerInit)
        .method("initWithSession:", layerInitWithSession)
        .method("initWithSessionWithNoConnection:", layerInitWithSessionNoConnection)
        .method("session", layerSession)
        .method("setSession:", layerSetSession)
        .method("setSessionWithNoConnection:", layerSetSessionNoConnection)
        .method("connection", layerConnection)
        .method("videoGravity", layerGravity)
        .method("setVideoGravity:", layerSetGravity)
        .method("rectForMetadataOutputRectOfInterest:", layerRectForMetadataRect)
        .method("dealloc", layerDealloc)
        .stateIvar()
        .registerWith(gPreviewSlot);
}

} // namespace
} // namespace avf
