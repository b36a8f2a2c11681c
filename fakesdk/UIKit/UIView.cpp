// UIResponder, UIView (backed by a CALayer), UILabel and UIImageView. No drawing happens; views
// keep their geometry, hierarchy and properties so that code can build and inspect a screen.
#include "UIKitPrivate.h"

#include <algorithm>

namespace uik {

fakeobjc::StateSlot<ViewState> gViewSlot;

namespace {

ViewState *state(id self)
{
    return viewState(self);
}

// ---- UIResponder

id responderNext(id self, SEL)
{
    return nullptr;
}

bool responderCanBecomeFirst(id self, SEL)
{
    return false;
}

// ---- UIView

id viewLayerClass(id self, SEL)
{
    return cls("CALayer");
}

id viewInitWithFrame(id self, SEL, CGRect frame)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("UIView"), self, "init");
    if (!self)
        return nullptr;
    ViewState &s = gViewSlot.get(self);
    s.frame = frame;
    id layerClass = msg<id>(reinterpret_cast<id>(object_getClass(self)), "layerClass");
    s.layer = Ref::adopt(msg<id>(msg<id>(layerClass, "alloc"), "init"));
    if (s.layer && msg<bool>(s.layer.get(), "respondsToSelector:", sel_registerName("setFrame:")))
        msg<void>(s.layer.get(), "setFrame:", frame);
    return self;
}

id viewInit(id self, SEL)
{
    return msg<id>(self, "initWithFrame:", CGRect{});
}

CGRect viewFrame(id self, SEL)
{
    auto *s = state(self);
    return s ? s->frame : CGRect{};
}

void viewSetFrame(id self, SEL, CGRect frame)
{
    ViewState &s = gViewSlot.get(self);
    s.frame = frame;
    if (s.layer && msg<bool>(s.layer.get(), "respondsToSelector:", sel_registerName("setFrame:")))
        msg<void>(s.layer.get(), "setFrame:", frame);
}

CGRect viewBounds(id self, SEL)
{
    CGRect frame = msg<CGRect>(self, "frame");
    return CGRect{{0, 0}, frame.size};
}

void viewSetBounds(id self, SEL, CGRect bounds)
{
    CGRect frame = msg<CGRect>(self, "frame");
    frame.size = bounds.size;
    msg<void>(self, "setFrame:", frame);
}

CGPoint viewCenter(id self, SEL)
{
    CGRect frame = msg<CGRect>(self, "frame");
    return CGPoint{frame.origin.x + frame.size.width / 2, frame.origin.y + frame.size.height / 2};
}

void viewSetCenter(id self, SEL, CGPoint center)
{
    CGRect frame = msg<CGRect>(self, "frame");
    frame.origin = CGPoint{center.x - frame.size.width / 2, center.y - frame.size.height / 2};
    msg<void>(self, "setFrame:", frame);
}

id viewLayer(id self, SEL)
{
    auto *s = state(self);
    return s ? s->layer.get() : nullptr;
}

id viewSuperview(id self, SEL)
{
    auto *s = state(self);
    return s ? s->superview.get() : nullptr;
}

id viewSubviews(id self, SEL)
{
    auto *s = state(self);
    return array(s ? s->subviews : std::vector<Ref>{});
}

void detachFromSuperview(id view)
{
    ViewState &s = gViewSlot.get(view);
    Ref parent = s.superview.load();
    if (!parent)
        return;
    Ref keep(view);
    s.superview.set(nullptr);
    if (auto *p = state(parent.get())) {
        std::vector<Ref> removed;
        for (auto it = p->subviews.begin(); it != p->subviews.end();)
            if (it->get() == view) {
                removed.push_back(std::move(*it));
                it = p->subviews.erase(it);
            } else {
                ++it;
            }
    }
    if (id layer = msg<id>(view, "layer"); layer && msg<bool>(layer, "respondsToSelector:", sel_registerName("removeFromSuperlayer")))
        msg<void>(layer, "removeFromSuperlayer");
}

void viewInsertSubview(id self, id view, size_t index)
{
    if (!view || view == self)
        return;
    Ref keep(view);
    if (msg<id>(view, "superview"))
        msg<void>(view, "removeFromSuperview");
    ViewState &s = gViewSlot.get(self);
    index = std::min(index, s.subviews.size());
    s.subviews.insert(s.subviews.begin() + long(index), Ref(view));
    gViewSlot.get(view).superview.set(self);
    id layer = msg<id>(self, "layer");
    id sublayer = msg<id>(view, "layer");
    if (layer && sublayer && msg<bool>(layer, "respondsToSelector:", sel_registerName("addSublayer:")))
        msg<void>(layer, "addSublayer:", sublayer);
}

void viewAddSubview(id self, SEL, id view)
{
    viewInsertSubview(self, view, SIZE_MAX);
}

void viewInsertSubviewAtIndex(id self, SEL, id view, long index)
{
    viewInsertSubview(self, view, size_t(std::max(index, 0L)));
}

void viewBringSubviewToFront(id self, SEL, id view)
{
    ViewState *s = state(self);
    if (!s)
        return;
    auto it = std::find_if(s->subviews.begin(), s->subviews.end(), [&](const Ref &r) { return r.get() == view; });
    if (it == s->subviews.end())
        return;
    Ref moved = std::move(*it);
    s->subviews.erase(it);
    s->subviews.push_back(std::move(moved));
}

void viewRemoveFromSuperview(id self, SEL)
{
    detachFromSuperview(self);
}

bool viewIsDescendant(id self, SEL, id ancestor)
{
    for (id v = self; v; v = msg<id>(v, "superview"))
        if (v == ancestor)
            return true;
    return false;
}

id viewWindow(id self, SEL)
{
    for (id v = self; v; v = msg<id>(v, "superview"))
        if (isKind(v, "UIWindow"))
            return v;
    return nullptr;
}

id viewNextResponder(id self, SEL)
{
    auto *s = state(self);
    if (!s)
        return nullptr;
    if (id controller = s->viewController.get())
        return controller;
    return s->superview.get();
}

#define REF_PROPERTY(getter, setter, field)                                                                            \
    id getter(id self, SEL)                                                                                            \
    {                                                                                                                  \
        auto *s = state(self);                                                                                         \
        return s ? s->field.get() : nullptr;                                                                           \
    }                                                                                                                  \
    void setter(id self, SEL, id value) { gViewSlot.get(self).field = Ref(value); }

#define VALUE_PROPERTY(getter, setter, type, field)                                                                    \
    type getter(id self, SEL)                                                                                          \
    {                                                                                                                  \
        auto *s = state(self);                                                                                         \
        return s ? s->field : type{};                                                                                  \
    }                                                                                                                  \
    void setter(id self, SEL, type value) { gViewSlot.get(self).field = value; }

REF_PROPERTY(viewBackgroundColor, viewSetBackgroundColor, backgroundColor)
REF_PROPERTY(viewTintColor, viewSetTintColor, tintColor)
VALUE_PROPERTY(viewIsHidden, viewSetHidden, bool, hidden)
VALUE_PROPERTY(viewAlpha, viewSetAlpha, double, alpha)
VALUE_PROPERTY(viewContentMode, viewSetContentMode, long, contentMode)
VALUE_PROPERTY(viewClipsToBounds, viewSetClipsToBounds, bool, clipsToBounds)
VALUE_PROPERTY(viewUserInteraction, viewSetUserInteraction, bool, userInteractionEnabled)
VALUE_PROPERTY(viewTranslatesMask, viewSetTranslatesMask, bool, translatesAutoresizingMask)
VALUE_PROPERTY(viewTag, viewSetTag, long, tag)

void viewSetNeedsLayout(id self, SEL)
{
}

void viewLayoutIfNeeded(id self, SEL)
{
}

void viewDealloc(id self, SEL)
{
    if (auto *s = state(self))
        for (const Ref &child : s->subviews)
            if (auto *c = state(child.get()))
                c->superview.set(nullptr);
    fakeobjc::destroyStateThenSuper(gViewSlot, "UIView", self);
}

// ---- UILabel

id labelInitWithFrame(id self, SEL, CGRect frame)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("UILabel"), self, "initWithFrame:", frame);
    if (self)
        gViewSlot.get(self).numberOfLines = 1;
    return self;
}

id labelText(id self, SEL)
{
    auto *s = state(self);
    return s ? s->text.get() : nullptr;
}

void labelSetText(id self, SEL, id text)
{
    gViewSlot.get(self).text = Ref::adopt(msg<id>(text, "copy"));
}

id labelFont(id self, SEL)
{
    auto *s = state(self);
    if (!s)
        return nullptr;
    return s->font ? s->font.get() : msg<id>(cls("UIFont"), "systemFontOfSize:", 17.0);
}

id labelTextColor(id self, SEL)
{
    auto *s = state(self);
    if (!s)
        return nullptr;
    return s->textColor ? s->textColor.get() : msg<id>(cls("UIColor"), "labelColor");
}

void labelSetFont(id self, SEL, id font)
{
    gViewSlot.get(self).font = Ref(font);
}

void labelSetTextColor(id self, SEL, id color)
{
    gViewSlot.get(self).textColor = Ref(color);
}
VALUE_PROPERTY(labelTextAlignment, labelSetTextAlignment, long, textAlignment)
VALUE_PROPERTY(labelNumberOfLines, labelSetNumberOfLines, long, numberOfLines)

// ---- UIImageView

id imageViewInitWithImage(id self, SEL, id image)
{
    CGSize size = image ? msg<CGSize>(image, "size") : CGSize{};
    self = msg<id>(self, "initWithFrame:", CGRect{{0, 0}, size});
    if (self)
        msg<void>(self, "setImage:", image);
    return self;
}

REF_PROPERTY(imageViewImage, imageViewSetImage, image)

__attribute__((constructor(201))) void declareViews()
{
    fakeobjc::ClassDef("UIResponder", "NSObject")
        .method("nextResponder", responderNext)
        .method("canBecomeFirstResponder", responderCanBecomeFirst)
        .registerClass();

    fakeobjc::ClassDef("UIView", "UIResponder")
        .classMethod("layerClass", viewLayerClass)
        .method("initWithFrame:", viewInitWithFrame)
        .method("init", viewInit)
        .method("frame", viewFrame)
        .method("setFrame:", viewSetFrame)
        .method("bounds", viewBounds)
        .method("setBounds:", viewSetBounds)
        .method("center", viewCenter)
        .method("setCenter:", viewSetCenter)
        .method("layer", viewLayer)
        .method("superview", viewSuperview)
        .method("subviews", viewSubviews)
        .method("addSubview:", viewAddSubview)
        .method("insertSubview:atIndex:", viewInsertSubviewAtIndex)
        .method("bringSubviewToFront:", viewBringSubviewToFront)
        .method("removeFromSuperview", viewRemoveFromSuperview)
        .method("isDescendantOfView:", viewIsDescendant)
        .method("window", viewWindow)
        .method("nextResponder", viewNextResponder)
        .method("backgroundColor", viewBackgroundColor)
        .method("setBackgroundColor:", viewSetBackgroundColor)
        .method("tintColor", viewTintColor)
        .method("setTintColor:", viewSetTintColor)
        .method("isHidden", viewIsHidden)
        .method("setHidden:", viewSetHidden)
        .method("alpha", viewAlpha)
        .method("setAlpha:", viewSetAlpha)
        .method("contentMode", viewContentMode)
        .method("setContentMode:", viewSetContentMode)
        .method("clipsToBounds", viewClipsToBounds)
        .method("setClipsToBounds:", viewSetClipsToBounds)
        .method("isUserInteractionEnabled", viewUserInteraction)
        .method("setUserInteractionEnabled:", viewSetUserInteraction)
        .method("translatesAutoresizingMaskIntoConstraints", viewTranslatesMask)
        .method("setTranslatesAutoresizingMaskIntoConstraints:", viewSetTranslatesMask)
        .method("tag", viewTag)
        .method("setTag:", viewSetTag)
        .method("setNeedsLayout", viewSetNeedsLayout)
        .method("layoutIfNeeded", viewLayoutIfNeeded)
        .method("dealloc", viewDealloc)
        .stateIvar()
        .registerWith(gViewSlot);

    fakeobjc::ClassDef("UILabel", "UIView")
        .method("initWithFrame:", labelInitWithFrame)
        .method("text", labelText)
        .method("setText:", labelSetText)
        .method("font", labelFont)
        .method("setFont:", labelSetFont)
        .method("textColor", labelTextColor)
        .method("setTextColor:", labelSetTextColor)
        .method("textAlignment", labelTextAlignment)
        .method("setTextAlignment:", labelSetTextAlignment)
        .method("numberOfLines", labelNumberOfLines)
        .method("setNumberOfLines:", labelSetNumberOfLines)
        .registerClass();

    fakeobjc::ClassDef("UIImageView", "UIView")
        .method("initWithImage:", imageViewInitWithImage)
        .method("image", imageViewImage)
        .method("setImage:", imageViewSetImage)
        .registerClass();
}

} // namespace
} // namespace uik
