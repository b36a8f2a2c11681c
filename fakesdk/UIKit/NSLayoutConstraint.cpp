// Auto Layout's object model: layout anchors on views and layout guides, NSLayoutConstraint with
// activation onto the items' nearest common ancestor (and Apple's exception when there is none),
// and UILayoutGuide for safeAreaLayoutGuide. Nothing is solved: frames stay what code sets.
#include "UIKitPrivate.h"

#include <algorithm>
#include <string>

namespace uik {
namespace {

// NSLayoutAttribute
constexpr long kLeft = 1, kRight = 2, kTop = 3, kBottom = 4, kLeading = 5, kTrailing = 6, kWidth = 7, kHeight = 8,
               kCenterX = 9, kCenterY = 10;

struct AnchorState {
    Weak item;
    long attribute = 0;
};

struct ConstraintState {
    Weak firstItem, secondItem;
    long firstAttribute = 0, secondAttribute = 0;
    long relation = 0;
    double multiplier = 0, constant = 0;
    float priority = 0;
    bool active = false;
    Ref identifier;
    Weak installedOn;
};

struct GuideState {
    Weak owningView;
    Ref identifier;
};

fakeobjc::StateSlot<AnchorState> gAnchorSlot;
fakeobjc::StateSlot<ConstraintState> gConstraintSlot;
fakeobjc::StateSlot<GuideState> gGuideSlot;

const char *anchorClassFor(long attribute)
{
    switch (attribute) {
    case kWidth:
    case kHeight:
        return "NSLayoutDimension";
    case kTop:
    case kBottom:
    case kCenterY:
        return "NSLayoutYAxisAnchor";
    default:
        return "NSLayoutXAxisAnchor";
    }
}

id makeAnchor(id item, long attribute)
{
    id anchor = class_createInstance(objc_getClass(anchorClassFor(attribute)), 0);
    AnchorState &s = gAnchorSlot.get(anchor);
    s.item.set(item);
    s.attribute = attribute;
    return objc_autorelease(anchor);
}

template <long Attribute>
id anchorGetter(id self, SEL)
{
    return makeAnchor(self, Attribute);
}

// ---- constraints

id makeConstraint(id first, long firstAttribute, long relation, id second, long secondAttribute, double multiplier,
                  double constant)
{
    id constraint = msg<id>(msg<id>(cls("NSLayoutConstraint"), "alloc"), "init");
    ConstraintState &s = gConstraintSlot.get(constraint);
    s.firstItem.set(first);
    s.firstAttribute = firstAttribute;
    s.relation = relation;
    s.secondItem.set(second);
    s.secondAttribute = secondAttribute;
    s.multiplier = multiplier;
    s.constant = constant;
    s.priority = 1000; // UILayoutPriorityRequired
    return objc_autorelease(constraint);
}

id constraintWithItem(id self, SEL, id first, long firstAttribute, long relation, id second, long secondAttribute,
                      double multiplier, double constant)
{
    return makeConstraint(first, firstAttribute, relation, second, secondAttribute, multiplier, constant);
}

id anchorConstraint(id self, id other, long relation, double constant, double multiplier = 1)
{
    AnchorState *a = gAnchorSlot.peek(self);
    AnchorState *b = other ? gAnchorSlot.peek(other) : nullptr;
    Ref first = a ? a->item.load() : Ref();
    Ref second = b ? b->item.load() : Ref();
    return makeConstraint(first.get(), a ? a->attribute : 0, relation, second.get(), b ? b->attribute : 0, multiplier,
                          constant);
}

id equalTo(id self, SEL, id other) { return anchorConstraint(self, other, 0, 0); }
id equalToConstant(id self, SEL, id other, double c) { return anchorConstraint(self, other, 0, c); }
id greaterThan(id self, SEL, id other) { return anchorConstraint(self, other, 1, 0); }
id greaterThanConstant(id self, SEL, id other, double c) { return anchorConstraint(self, other, 1, c); }
id lessThan(id self, SEL, id other) { return anchorConstraint(self, other, -1, 0); }
id lessThanConstant(id self, SEL, id other, double c) { return anchorConstraint(self, other, -1, c); }
id equalToMultiplier(id self, SEL, id other, double m) { return anchorConstraint(self, other, 0, 0, m); }
id dimensionEqualConstant(id self, SEL, double c) { return anchorConstraint(self, nullptr, 0, c, 0); }
id dimensionGreaterConstant(id self, SEL, double c) { return anchorConstraint(self, nullptr, 1, c, 0); }
id dimensionLessConstant(id self, SEL, double c) { return anchorConstraint(self, nullptr, -1, c, 0); }

// A layout guide lays out within its owning view.
id viewOf(id item)
{
    if (item && isKind(item, "UILayoutGuide")) {
        GuideState *g = gGuideSlot.peek(item);
        return g ? g->owningView.get() : nullptr;
    }
    return item;
}

id commonAncestor(id a, id b)
{
    if (!b)
        return a;
    for (id x = a; x; x = msg<id>(x, "superview"))
        for (id y = b; y; y = msg<id>(y, "superview"))
            if (x == y)
                return x;
    return nullptr;
}

id describeAnchor(id item, long attribute)
{
    char text[160];
    static const char *names[] = {"", "left", "right", "top", "bottom", "leading", "trailing",
                                  "width", "height", "centerX", "centerY"};
    snprintf(text, sizeof text, "<%s:%p \"%s.%s\">", anchorClassFor(attribute), static_cast<void *>(item),
             item ? object_getClassName(item) : "nil", attribute >= 0 && attribute <= 10 ? names[attribute] : "?");
    return str(text);
}

void setActive(id self, SEL, bool active)
{
    ConstraintState &s = gConstraintSlot.get(self);
    if (s.active == active)
        return;
    if (!active) {
        Ref host = s.installedOn.load();
        if (ViewState *v = viewState(host.get()))
            std::erase_if(v->constraints, [&](const Ref &c) { return c.get() == self; });
        s.installedOn.set(nullptr);
        s.active = false;
        return;
    }
    Ref first = s.firstItem.load(), second = s.secondItem.load();
    id host = commonAncestor(viewOf(first.get()), viewOf(second.get()));
    if (!host) {
        std::string a = msg<const char *>(describeAnchor(first.get(), s.firstAttribute), "UTF8String");
        std::string b = msg<const char *>(describeAnchor(second.get(), s.secondAttribute), "UTF8String");
        fakeobjc::raiseFormat("NSGenericException",
                              "Unable to activate constraint with anchors %s and %s because they have no common "
                              "ancestor.  Does the constraint or its anchors reference items in different view "
                              "hierarchies?  That's illegal.",
                              a.c_str(), b.c_str());
    }
    gViewSlot.get(host).constraints.emplace_back(self);
    s.installedOn.set(host);
    s.active = true;
}

bool isActive(id self, SEL)
{
    ConstraintState *s = gConstraintSlot.peek(self);
    return s && s->active;
}

void activateConstraints(id self, SEL, id constraints)
{
    for (unsigned long i = 0, n = msg<unsigned long>(constraints, "count"); i < n; ++i)
        msg<void>(msg<id>(constraints, "objectAtIndex:", i), "setActive:", true);
}

void deactivateConstraints(id self, SEL, id constraints)
{
    for (unsigned long i = 0, n = msg<unsigned long>(constraints, "count"); i < n; ++i)
        msg<void>(msg<id>(constraints, "objectAtIndex:", i), "setActive:", false);
}

#define CONSTRAINT_GETTER(name, type, expr)                                                                            \
    type name(id self, SEL)                                                                                            \
    {                                                                                                                  \
        ConstraintState *s = gConstraintSlot.peek(self);                                                               \
        return s ? (expr) : type{};                                                                                    \
    }

CONSTRAINT_GETTER(firstItem, id, s->firstItem.get())
CONSTRAINT_GETTER(secondItem, id, s->secondItem.get())
CONSTRAINT_GETTER(firstAttribute, long, s->firstAttribute)
CONSTRAINT_GETTER(secondAttribute, long, s->secondAttribute)
CONSTRAINT_GETTER(relation, long, s->relation)
CONSTRAINT_GETTER(multiplier, double, s->multiplier)
CONSTRAINT_GETTER(constant, double, s->constant)
CONSTRAINT_GETTER(priority, float, s->priority)
CONSTRAINT_GETTER(identifier, id, s->identifier.get())

void setConstant(id self, SEL, double value)
{
    gConstraintSlot.get(self).constant = value;
}

void setPriority(id self, SEL, float value)
{
    gConstraintSlot.get(self).priority = value;
}

void setIdentifier(id self, SEL, id value)
{
    gConstraintSlot.get(self).identifier = Ref::adopt(msg<id>(value, "copy"));
}

void constraintDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gConstraintSlot, "NSLayoutConstraint", self);
}

void anchorDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gAnchorSlot, "NSLayoutAnchor", self);
}

// ---- views and guides

id viewConstraints(id self, SEL)
{
    ViewState *s = viewState(self);
    return array(s ? s->constraints : std::vector<Ref>{});
}

id viewSafeAreaLayoutGuide(id self, SEL)
{
    ViewState *s = viewState(self);
    if (!s)
        return nullptr;
    if (!s->safeAreaGuide) {
        id guide = msg<id>(msg<id>(cls("UILayoutGuide"), "alloc"), "init");
        gGuideSlot.get(guide).owningView.set(self);
        s->safeAreaGuide = Ref::adopt(guide);
    }
    return s->safeAreaGuide.get();
}

id guideOwningView(id self, SEL)
{
    GuideState *s = gGuideSlot.peek(self);
    return s ? s->owningView.get() : nullptr;
}

void guideDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gGuideSlot, "UILayoutGuide", self);
}

// Adds methods to a class that is already registered (UIView, declared in UIView.cpp).
struct MethodAdder {
    Class cls;
    template <typename F>
    MethodAdder &method(const char *selector, F fn)
    {
        class_addMethod(cls, sel_registerName(selector), reinterpret_cast<IMP>(fn),
                        fakeobjc::MethodEncoding<F>::get().c_str());
        return *this;
    }
};

template <typename Def>
Def &withAnchors(Def &def)
{
    def.method("leftAnchor", anchorGetter<kLeft>)
        .method("rightAnchor", anchorGetter<kRight>)
        .method("topAnchor", anchorGetter<kTop>)
        .method("bottomAnchor", anchorGetter<kBottom>)
        .method("leadingAnchor", anchorGetter<kLeading>)
        .method("trailingAnchor", anchorGetter<kTrailing>)
        .method("widthAnchor", anchorGetter<kWidth>)
        .method("heightAnchor", anchorGetter<kHeight>)
        .method("centerXAnchor", anchorGetter<kCenterX>)
        .method("centerYAnchor", anchorGetter<kCenterY>);
    return def;
}

__attribute__((constructor(202))) void declareLayout()
{
    fakeobjc::ClassDef("NSLayoutAnchor", "NSObject")
        .method("constraintEqualToAnchor:", equalTo)
        .method("constraintEqualToAnchor:constant:", equalToConstant)
        .method("constraintGreaterThanOrEqualToAnchor:", greaterThan)
        .method("constraintGreaterThanOrEqualToAnchor:constant:", greaterThanConstant)
        .method("constraintLessThanOrEqualToAnchor:", lessThan)
        .method("constraintLessThanOrEqualToAnchor:constant:", lessThanConstant)
        .method("dealloc", anchorDealloc)
        .stateIvar()
        .registerWith(gAnchorSlot);
    fakeobjc::ClassDef("NSLayoutXAxisAnchor", "NSLayoutAnchor").registerClass();
    fakeobjc::ClassDef("NSLayoutYAxisAnchor", "NSLayoutAnchor").registerClass();
    fakeobjc::ClassDef("NSLayoutDimension", "NSLayoutAnchor")
        .method("constraintEqualToConstant:", dimensionEqualConstant)
        .method("constraintGreaterThanOrEqualToConstant:", dimensionGreaterConstant)
        .method("constraintLessThanOrEqualToConstant:", dimensionLessConstant)
        .method("constraintEqualToAnchor:multiplier:", equalToMultiplier)
        .registerClass();

    fakeobjc::ClassDef("NSLayoutConstraint", "NSObject")
        .classMethod("activateConstraints:", activateConstraints)
        .classMethod("deactivateConstraints:", deactivateConstraints)
        .classMethod("constraintWithItem:attribute:relatedBy:toItem:attribute:multiplier:constant:", constraintWithItem)
        .method("isActive", isActive)
        .method("setActive:", setActive)
        .method("firstItem", firstItem)
        .method("secondItem", secondItem)
        .method("firstAttribute", firstAttribute)
        .method("secondAttribute", secondAttribute)
        .method("relation", relation)
        .method("multiplier", multiplier)
        .method("constant", constant)
        .method("setConstant:", setConstant)
        .method("priority", priority)
        .method("setPriority:", setPriority)
        .method("identifier", identifier)
        .method("setIdentifier:", setIdentifier)
        .method("dealloc", constraintDealloc)
        .stateIvar()
        .registerWith(gConstraintSlot);

    fakeobjc::ClassDef guide("UILayoutGuide", "NSObject");
    withAnchors(guide).method("owningView", guideOwningView).method("dealloc", guideDealloc).stateIvar().registerWith(
        gGuideSlot);

    // Views get their anchors here, next to the classes they hand out.
    Class view = objc_getClass("UIView");
    MethodAdder adder{view};
    withAnchors(adder).method("constraints", viewConstraints).method("safeAreaLayoutGuide", viewSafeAreaLayoutGuide);
}

} // namespace
} // namespace uik
