// CALayer: geometry (bounds, position, anchor point; frame derived from them), contents and
// contents gravity (atomic, as Apple declares them), a sublayer tree, and a recorder of how often
// and on which thread -setContents: was called.
#include "CoreFoundation/cfinternal.h"
#include "objc/define.h"

#include <CoreGraphics/CoreGraphics.h>
#include <fakesdk/media_np.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

using namespace fakeobjc;

FAKEOBJC_ENCODING(CGRect, "{CGRect={CGPoint=dd}{CGSize=dd}}");
FAKEOBJC_ENCODING(CGPoint, "{CGPoint=dd}");

#define CA_CONSTANT(name, text)                                                                                        \
    extern "C" __attribute__((visibility("default"))) id const name = fakecf::constantString(text)

CA_CONSTANT(kCAGravityCenter, "center");
CA_CONSTANT(kCAGravityTop, "top");
CA_CONSTANT(kCAGravityBottom, "bottom");
CA_CONSTANT(kCAGravityLeft, "left");
CA_CONSTANT(kCAGravityRight, "right");
CA_CONSTANT(kCAGravityTopLeft, "topLeft");
CA_CONSTANT(kCAGravityTopRight, "topRight");
CA_CONSTANT(kCAGravityBottomLeft, "bottomLeft");
CA_CONSTANT(kCAGravityBottomRight, "bottomRight");
CA_CONSTANT(kCAGravityResize, "resize");
CA_CONSTANT(kCAGravityResizeAspect, "resizeAspect");
CA_CONSTANT(kCAGravityResizeAspectFill, "resizeAspectFill");

namespace {

struct LayerState {
    std::mutex lock;
    id contents = nil;
    id contentsGravity = nil; // nil reads as kCAGravityResize
    long contentsSetCount = 0;
    bool contentsLastSetOnMain = false;
    CGRect bounds = {{0, 0}, {0, 0}};
    CGPoint position = {0, 0};
    CGPoint anchorPoint = {0.5, 0.5};
    double cornerRadius = 0;
    double borderWidth = 0;
    CGColorRef borderColor = nullptr; // retained
    double contentsScale = 1;
    float opacity = 1;
    bool masksToBounds = false;
    bool hidden = false;
    std::vector<id> sublayers; // retained
    id superlayer = nil;       // not retained; cleared when removed

    ~LayerState()
    {
        objc_release(contents);
        objc_release(contentsGravity);
        CGColorRelease(borderColor);
        for (id layer : sublayers)
            objc_release(layer);
    }
};

StateSlot<LayerState> gSlot;

bool onMainThread()
{
    return getpid() == static_cast<pid_t>(syscall(SYS_gettid));
}

id layerClassMethod(id cls, SEL)
{
    return objc_autorelease(msg<id>(msg<id>(cls, "alloc"), "init"));
}

id init(id self, SEL)
{
    gSlot.get(self);
    return self;
}

id contents(id self, SEL)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    return objc_autorelease(objc_retain(st.contents));
}

void setContents(id self, SEL, id value)
{
    LayerState &st = gSlot.get(self);
    id old;
    {
        std::lock_guard<std::mutex> guard(st.lock);
        old = st.contents;
        st.contents = value ? objc_retain(value) : nil;
        st.contentsSetCount += 1;
        st.contentsLastSetOnMain = onMainThread();
    }
    objc_release(old);
}

id contentsGravity(id self, SEL)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    return st.contentsGravity ? objc_autorelease(objc_retain(st.contentsGravity)) : kCAGravityResize;
}

void setContentsGravity(id self, SEL, id value)
{
    id copy = msg<id>(value, "copy");
    LayerState &st = gSlot.get(self);
    id old;
    {
        std::lock_guard<std::mutex> guard(st.lock);
        old = std::exchange(st.contentsGravity, copy);
    }
    objc_release(old);
}

CGRect bounds(id self, SEL)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    return st.bounds;
}

void setBounds(id self, SEL, CGRect value)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    st.bounds = value;
}

CGPoint position(id self, SEL)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    return st.position;
}

void setPosition(id self, SEL, CGPoint value)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    st.position = value;
}

CGPoint anchorPoint(id self, SEL)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    return st.anchorPoint;
}

void setAnchorPoint(id self, SEL, CGPoint value)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    st.anchorPoint = value;
}

CGRect frame(id self, SEL)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    const CGSize &size = st.bounds.size;
    return CGRectMake(st.position.x - st.anchorPoint.x * size.width, st.position.y - st.anchorPoint.y * size.height,
        size.width, size.height);
}

void setFrame(id self, SEL, CGRect value)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    st.bounds.size = value.size;
    st.position = CGPointMake(
        value.origin.x + st.anchorPoint.x * value.size.width, value.origin.y + st.anchorPoint.y * value.size.height);
}

template <typename T, T LayerState::*Field> T getField(id self, SEL)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    return st.*Field;
}

template <typename T, T LayerState::*Field> void setField(id self, SEL, T value)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    st.*Field = value;
}

void setBorderColor(id self, SEL, CGColorRef color)
{
    LayerState &st = gSlot.get(self);
    CGColorRetain(color);
    CGColorRef old;
    {
        std::lock_guard<std::mutex> guard(st.lock);
        old = std::exchange(st.borderColor, color);
    }
    CGColorRelease(old);
}

void removeFromSuperlayer(id self, SEL)
{
    LayerState &st = gSlot.get(self);
    id parent;
    {
        std::lock_guard<std::mutex> guard(st.lock);
        parent = std::exchange(st.superlayer, nil);
    }
    if (!parent)
        return;
    LayerState &ps = gSlot.get(parent);
    bool found = false;
    {
        std::lock_guard<std::mutex> guard(ps.lock);
        auto it = std::find(ps.sublayers.begin(), ps.sublayers.end(), self);
        if (it != ps.sublayers.end()) {
            ps.sublayers.erase(it);
            found = true;
        }
    }
    if (found)
        objc_release(self);
}

void insertSublayerAtIndex(id self, SEL, id layer, unsigned int index)
{
    if (!layer || layer == self)
        return;
    objc_retain(layer);
    removeFromSuperlayer(layer, nullptr);
    LayerState &st = gSlot.get(self);
    {
        std::lock_guard<std::mutex> guard(st.lock);
        size_t at = std::min<size_t>(index, st.sublayers.size());
        st.sublayers.insert(st.sublayers.begin() + long(at), layer);
    }
    LayerState &ls = gSlot.get(layer);
    std::lock_guard<std::mutex> guard(ls.lock);
    ls.superlayer = self;
}

void addSublayer(id self, SEL, id layer)
{
    insertSublayerAtIndex(self, nullptr, layer, ~0u);
}

id sublayers(id self, SEL)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    if (st.sublayers.empty())
        return nil;
    return objc_autorelease(fakecf::newArray(st.sublayers.data(), st.sublayers.size()));
}

id superlayer(id self, SEL)
{
    LayerState &st = gSlot.get(self);
    std::lock_guard<std::mutex> guard(st.lock);
    return st.superlayer;
}

void dealloc(id self, SEL)
{
    if (LayerState *st = gSlot.peek(self)) {
        std::vector<id> children;
        {
            std::lock_guard<std::mutex> guard(st->lock);
            children = st->sublayers;
        }
        for (id child : children)
            if (LayerState *cs = gSlot.peek(child)) {
                std::lock_guard<std::mutex> guard(cs->lock);
                cs->superlayer = nil;
            }
    }
    destroyStateThenSuper(gSlot, "CALayer", self);
}

__attribute__((constructor)) void declareCALayer()
{
    ClassDef("CALayer", "NSObject")
        .stateIvar()
        .classMethod("layer", layerClassMethod)
        .method("init", init)
        .method("contents", contents)
        .method("setContents:", setContents)
        .method("contentsGravity", contentsGravity)
        .method("setContentsGravity:", setContentsGravity)
        .method("bounds", bounds)
        .method("setBounds:", setBounds)
        .method("position", position)
        .method("setPosition:", setPosition)
        .method("anchorPoint", anchorPoint)
        .method("setAnchorPoint:", setAnchorPoint)
        .method("frame", frame)
        .method("setFrame:", setFrame)
        .method("cornerRadius", getField<double, &LayerState::cornerRadius>)
        .method("setCornerRadius:", setField<double, &LayerState::cornerRadius>)
        .method("borderWidth", getField<double, &LayerState::borderWidth>)
        .method("setBorderWidth:", setField<double, &LayerState::borderWidth>)
        .method("borderColor", getField<CGColorRef, &LayerState::borderColor>)
        .method("setBorderColor:", setBorderColor)
        .method("contentsScale", getField<double, &LayerState::contentsScale>)
        .method("setContentsScale:", setField<double, &LayerState::contentsScale>)
        .method("opacity", getField<float, &LayerState::opacity>)
        .method("setOpacity:", setField<float, &LayerState::opacity>)
        .method("masksToBounds", getField<bool, &LayerState::masksToBounds>)
        .method("setMasksToBounds:", setField<bool, &LayerState::masksToBounds>)
        .method("isHidden", getField<bool, &LayerState::hidden>)
        .method("setHidden:", setField<bool, &LayerState::hidden>)
        .method("addSublayer:", addSublayer)
        .method("insertSublayer:atIndex:", insertSublayerAtIndex)
        .method("sublayers", sublayers)
        .method("superlayer", superlayer)
        .method("removeFromSuperlayer", removeFromSuperlayer)
        .method("dealloc", dealloc)
        .registerWith(gSlot);
}

} // namespace

extern "C" long CALayerContentsSetCount_np(id layer)
{
    LayerState *st = layer ? gSlot.peek(layer) : nullptr;
    if (!st)
        return 0;
    std::lock_guard<std::mutex> guard(st->lock);
    return st->contentsSetCount;
}

extern "C" bool CALayerContentsLastSetOnMainThread_np(id layer)
{
    LayerState *st = layer ? gSlot.peek(layer) : nullptr;
    if (!st)
        return false;
    std::lock_guard<std::mutex> guard(st->lock);
    return st->contentsLastSetOnMain;
}
