// UIViewController (lazy view loading, modal presentation and dismissal) and UINavigationController.
// Presentation is asynchronous as on a device: the links are set at once, and the appearance
// callbacks and the completion run later on the main queue. Appearance callbacks are message sends,
// so subclasses and exchanged methods are what run.
#include "UIKitPrivate.h"
#include "UIControllerPrivate.h"

#include <algorithm>
#include <cstdio>

extern "C" void NSLog(id format, ...);

namespace uik {

fakeobjc::StateSlot<ControllerState> gControllerSlot;

namespace {

constexpr long kModalFullScreen = 0, kModalPageSheet = 1, kModalAutomatic = -2;

ControllerState *state(id self)
{
    return controllerState(self);
}

// ---- view loading

id initWithNibNameBundle(id self, SEL, id nibName, id bundle)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("UIViewController"), self, "init");
    if (!self)
        return nullptr;
    ControllerState &s = gControllerSlot.get(self);
    s.nibName = Ref::adopt(msg<id>(nibName, "copy"));
    s.modalStyle = kModalAutomatic;
    return self;
}

id controllerInit(id self, SEL)
{
    return msg<id>(self, "initWithNibName:bundle:", static_cast<id>(nullptr), static_cast<id>(nullptr));
}

void loadView(id self, SEL)
{
    CGRect bounds = msg<CGRect>(msg<id>(cls("UIScreen"), "mainScreen"), "bounds");
    id view = msg<id>(msg<id>(cls("UIView"), "alloc"), "initWithFrame:", bounds);
    msg<void>(self, "setView:", view);
    objc_release(view);
}

void setView(id self, SEL, id view)
{
    ControllerState &s = gControllerSlot.get(self);
    if (auto *old = viewState(s.view.get()))
        old->viewController.set(nullptr);
    s.view = Ref(view);
    if (view)
        gViewSlot.get(view).viewController.set(self);
}

id view(id self, SEL)
{
    ControllerState &s = gControllerSlot.get(self);
    if (!s.view) {
        msg<void>(self, "loadView");
        if (!s.view)
            fakeobjc::raiseFormat("NSInternalInconsistencyException",
                                  "-[%s loadView] did not set the view", object_getClassName(self));
        msg<void>(self, "viewDidLoad");
    }
    return s.view.get();
}

id viewIfLoaded(id self, SEL)
{
    auto *s = state(self);
    return s ? s->view.get() : nullptr;
}

bool isViewLoaded(id self, SEL)
{
    auto *s = state(self);
    return s && s->view;
}

void noop(id self, SEL)
{
}

void noopBool(id self, SEL, bool)
{
}

id nibName(id self, SEL)
{
    auto *s = state(self);
    return s ? s->nibName.get() : nullptr;
}

id title(id self, SEL)
{
    auto *s = state(self);
    return s ? s->title.get() : nullptr;
}

void setTitle(id self, SEL, id title)
{
    gControllerSlot.get(self).title = Ref::adopt(msg<id>(title, "copy"));
}

long modalPresentationStyle(id self, SEL)
{
    auto *s = state(self);
    if (!s)
        return 0;
    // Automatic resolves to a concrete style when read, as on iOS 13 and later.
    return s->modalStyle == kModalAutomatic ? kModalPageSheet : s->modalStyle;
}

void setModalPresentationStyle(id self, SEL, long style)
{
    gControllerSlot.get(self).modalStyle = style;
}

id presentedViewController(id self, SEL)
{
    auto *s = state(self);
    return s ? s->presented.get() : nullptr;
}

id presentingViewController(id self, SEL)
{
    auto *s = state(self);
    return s ? s->presenting.get() : nullptr;
}

bool isBeingPresented(id self, SEL)
{
    auto *s = state(self);
    return s && s->beingPresented;
}

bool isBeingDismissed(id self, SEL)
{
    auto *s = state(self);
    return s && s->beingDismissed;
}

id parentViewController(id self, SEL)
{
    auto *s = state(self);
    return s ? s->parent.get() : nullptr;
}

id childViewControllers(id self, SEL)
{
    auto *s = state(self);
    return array(s ? s->children : std::vector<Ref>{});
}

void addChildViewController(id self, SEL, id child)
{
    if (!child || child == self)
        return;
    if (id parent = msg<id>(child, "parentViewController"); parent && parent != self)
        msg<void>(child, "removeFromParentViewController");
    ControllerState &s = gControllerSlot.get(self);
    if (std::none_of(s.children.begin(), s.children.end(), [&](const Ref &c) { return c.get() == child; }))
        s.children.emplace_back(child);
    gControllerSlot.get(child).parent.set(self);
}

void removeFromParentViewController(id self, SEL)
{
    ControllerState &s = gControllerSlot.get(self);
    Ref parent = s.parent.load();
    if (!parent)
        return;
    Ref keep(self);
    s.parent.set(nullptr);
    if (auto *p = state(parent.get()))
        std::erase_if(p->children, [&](const Ref &c) { return c.get() == self; });
}

// Full-screen styles take the presenter off screen, so it disappears and later reappears.
bool coversPresenter(id presented)
{
    long style = msg<long>(presented, "modalPresentationStyle");
    return style == kModalFullScreen;
}

id describe(id obj)
{
    return msg<id>(obj, "description");
}

void presentViewController(id self, SEL, id presented, bool animated, void (^completion)(void))
{
    if (!presented)
        fakeobjc::raiseFormat("NSInvalidArgumentException",
                              "Application tried to present a nil modal view controller on target %s.",
                              msg<const char *>(describe(self), "UTF8String"));
    if (presented == self || msg<id>(presented, "presentingViewController"))
        fakeobjc::raiseFormat("NSInvalidArgumentException",
                              "Application tried to present modally a view controller %s that is already being "
                              "presented by %s.",
                              msg<const char *>(describe(presented), "UTF8String"),
                              msg<const char *>(describe(msg<id>(presented, "presentingViewController")), "UTF8String"));
    ControllerState &s = gControllerSlot.get(self);
    if (s.presented) {
        NSLog(str("Attempt to present %@ on %@ which is already presenting %@"), presented, self, s.presented.get());
        return;
    }
    s.presented = Ref(presented);
    ControllerState &p = gControllerSlot.get(presented);
    p.presenting.set(self);
    p.beingPresented = true;

    Ref presenter(self), target(presented);
    dispatch_async(dispatch_get_main_queue(), ^{
        bool covers = coversPresenter(target.get());
        msg<id>(target.get(), "view");
        if (covers)
            msg<void>(presenter.get(), "viewWillDisappear:", animated);
        msg<void>(target.get(), "viewWillAppear:", animated);
        msg<void>(target.get(), "viewDidAppear:", animated);
        if (covers)
            msg<void>(presenter.get(), "viewDidDisappear:", animated);
        if (auto *ts = state(target.get()))
            ts->beingPresented = false;
        if (completion)
            completion();
    });
}

void dismissViewController(id self, SEL, bool animated, void (^completion)(void))
{
    ControllerState &s = gControllerSlot.get(self);
    Ref presenter = s.presented ? Ref(self) : s.presenting.load();
    if (!presenter)
        return;
    ControllerState *ps = state(presenter.get());
    if (!ps || !ps->presented || state(ps->presented.get())->beingDismissed)
        return;
    Ref victim = ps->presented;
    state(victim.get())->beingDismissed = true;

    dispatch_async(dispatch_get_main_queue(), ^{
        // Everything presented above the dismissed controller goes with it, topmost first.
        std::vector<Ref> stack;
        for (Ref c = victim; c; c = Ref(msg<id>(c.get(), "presentedViewController")))
            stack.push_back(c);
        std::reverse(stack.begin(), stack.end());
        bool covers = coversPresenter(victim.get());
        if (covers)
            msg<void>(presenter.get(), "viewWillAppear:", animated);
        for (const Ref &c : stack)
            msg<void>(c.get(), "viewWillDisappear:", animated);
        for (const Ref &c : stack)
            msg<void>(c.get(), "viewDidDisappear:", animated);
        for (const Ref &c : stack) {
            if (auto *cs = state(c.get())) {
                cs->presented = Ref();
                cs->presenting.set(nullptr);
                cs->beingDismissed = false;
            }
        }
        if (auto *pst = state(presenter.get()); pst && pst->presented.get() == victim.get())
            pst->presented = Ref();
        if (covers)
            msg<void>(presenter.get(), "viewDidAppear:", animated);
        if (completion)
            completion();
    });
}

void controllerDealloc(id self, SEL)
{
    if (auto *s = state(self); s && s->view)
        if (auto *v = viewState(s->view.get()))
            v->viewController.set(nullptr);
    fakeobjc::destroyStateThenSuper(gControllerSlot, "UIViewController", self);
}

id controllerNextResponder(id self, SEL)
{
    auto *s = state(self);
    if (!s)
        return nullptr;
    if (id parent = s->parent.get())
        return parent;
    if (s->view)
        return msg<id>(s->view.get(), "superview");
    return nullptr;
}

// ---- UINavigationController

id navInitWithRoot(id self, SEL, id root)
{
    self = msg<id>(self, "initWithNibName:bundle:", static_cast<id>(nullptr), static_cast<id>(nullptr));
    if (self && root)
        msg<void>(self, "pushViewController:animated:", root, false);
    return self;
}

id navViewControllers(id self, SEL)
{
    auto *s = state(self);
    return array(s ? s->stack : std::vector<Ref>{});
}

void navSetViewControllers(id self, SEL, id controllers)
{
    ControllerState &s = gControllerSlot.get(self);
    s.stack.clear();
    for (unsigned long i = 0, n = msg<unsigned long>(controllers, "count"); i < n; ++i) {
        id c = msg<id>(controllers, "objectAtIndex:", i);
        s.stack.emplace_back(c);
        msg<void>(self, "addChildViewController:", c);
    }
}

id navTop(id self, SEL)
{
    auto *s = state(self);
    return s && !s->stack.empty() ? s->stack.back().get() : nullptr;
}

void navPush(id self, SEL, id controller, bool animated)
{
    if (!controller)
        return;
    ControllerState &s = gControllerSlot.get(self);
    if (std::any_of(s.stack.begin(), s.stack.end(), [&](const Ref &c) { return c.get() == controller; }))
        fakeobjc::raise("NSInvalidArgumentException", "Pushing the same view controller instance more than once is "
                                                      "not supported");
    s.stack.emplace_back(controller);
    msg<void>(self, "addChildViewController:", controller);
}

id navPop(id self, SEL, bool animated)
{
    ControllerState *s = state(self);
    if (!s || s->stack.size() < 2)
        return nullptr;
    Ref top = s->stack.back();
    s->stack.pop_back();
    msg<void>(top.get(), "removeFromParentViewController");
    return objc_autorelease(objc_retain(top.get()));
}

id navDelegate(id self, SEL)
{
    auto *s = state(self);
    return s ? s->delegate.get() : nullptr;
}

void navSetDelegate(id self, SEL, id delegate)
{
    gControllerSlot.get(self).delegate.set(delegate);
}

__attribute__((constructor(202))) void declareControllers()
{
    fakeobjc::ClassDef("UIViewController", "UIResponder")
        .method("initWithNibName:bundle:", initWithNibNameBundle)
        .method("init", controllerInit)
        .method("loadView", loadView)
        .method("view", view)
        .method("setView:", setView)
        .method("viewIfLoaded", viewIfLoaded)
        .method("isViewLoaded", isViewLoaded)
        .method("viewDidLoad", noop)
        .method("viewWillAppear:", noopBool)
        .method("viewDidAppear:", noopBool)
        .method("viewWillDisappear:", noopBool)
        .method("viewDidDisappear:", noopBool)
        .method("viewWillLayoutSubviews", noop)
        .method("viewDidLayoutSubviews", noop)
        .method("nibName", nibName)
        .method("title", title)
        .method("setTitle:", setTitle)
        .method("modalPresentationStyle", modalPresentationStyle)
        .method("setModalPresentationStyle:", setModalPresentationStyle)
        .method("presentViewController:animated:completion:", presentViewController)
        .method("dismissViewControllerAnimated:completion:", dismissViewController)
        .method("presentedViewController", presentedViewController)
        .method("presentingViewController", presentingViewController)
        .method("isBeingPresented", isBeingPresented)
        .method("isBeingDismissed", isBeingDismissed)
        .method("parentViewController", parentViewController)
        .method("childViewControllers", childViewControllers)
        .method("addChildViewController:", addChildViewController)
        .method("removeFromParentViewController", removeFromParentViewController)
        .method("nextResponder", controllerNextResponder)
        .method("dealloc", controllerDealloc)
        .stateIvar()
        .registerWith(gControllerSlot);

    fakeobjc::ClassDef("UINavigationController", "UIViewController")
        .method("initWithRootViewController:", navInitWithRoot)
        .method("viewControllers", navViewControllers)
        .method("setViewControllers:", navSetViewControllers)
        .method("topViewController", navTop)
        .method("visibleViewController", navTop)
        .method("pushViewController:animated:", navPush)
        .method("popViewControllerAnimated:", navPop)
        .method("delegate", navDelegate)
        .method("setDelegate:", navSetDelegate)
        .registerClass();
}

} // namespace
} // namespace uik
