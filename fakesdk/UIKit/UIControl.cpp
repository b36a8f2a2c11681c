// UIControl (target-action, targets not retained), UIButton and UISegmentedControl, plus the test
// hooks that "tap" them. Actions go through -sendAction:to:forEvent: and UIApplication, as on iOS.
#include "UIKitPrivate.h"

#include <fakesdk/uikit_np.h>

#include <algorithm>

namespace uik {
namespace {

constexpr unsigned long kTouchDown = 1UL << 0;
constexpr unsigned long kTouchUpInside = 1UL << 6;
constexpr unsigned long kValueChanged = 1UL << 12;
constexpr unsigned long kPrimaryActionTriggered = 1UL << 13;
constexpr unsigned long kStateNormal = 0, kStateHighlighted = 1, kStateDisabled = 2, kStateSelected = 4;

ViewState *state(id self)
{
    return viewState(self);
}

// ---- UIControl

void addTarget(id self, SEL, id target, SEL action, unsigned long events)
{
    if (!action || !events)
        return;
    ViewState &s = gViewSlot.get(self);
    for (auto &entry : s.targets) {
        Ref current = entry->target.load();
        if (current.get() == target && entry->action == action) {
            entry->events |= events;
            return;
        }
    }
    auto entry = std::make_unique<TargetAction>();
    entry->target.set(target);
    entry->action = action;
    entry->events = events;
    s.targets.push_back(std::move(entry));
}

void removeTarget(id self, SEL, id target, SEL action, unsigned long events)
{
    ViewState *s = state(self);
    if (!s)
        return;
    for (auto &entry : s->targets) {
        Ref current = entry->target.load();
        if ((target && current.get() != target) || (action && entry->action != action))
            continue;
        entry->events &= ~events;
    }
    std::erase_if(s->targets, [](const std::unique_ptr<TargetAction> &entry) { return entry->events == 0; });
}

id allTargets(id self, SEL)
{
    std::vector<id> targets;
    if (ViewState *s = state(self))
        for (auto &entry : s->targets) {
            id target = entry->target.get();
            id value = target ? target : msg<id>(cls("NSNull"), "null");
            if (value && std::find(targets.begin(), targets.end(), value) == targets.end())
                targets.push_back(value);
        }
    // Apple answers an NSSet; until fakesdk's Foundation has one, the same members as an array.
    if (!objc_getClass("NSSet"))
        return array(targets);
    return msg<id>(cls("NSSet"), "setWithArray:", array(targets));
}

unsigned long allControlEvents(id self, SEL)
{
    unsigned long events = 0;
    if (ViewState *s = state(self))
        for (auto &entry : s->targets)
            events |= entry->events;
    return events;
}

id actionsForTarget(id self, SEL, id target, unsigned long event)
{
    std::vector<id> actions;
    if (ViewState *s = state(self))
        for (auto &entry : s->targets) {
            Ref current = entry->target.load();
            if (current.get() == target && (entry->events & event))
                actions.push_back(str(sel_getName(entry->action)));
        }
    return actions.empty() ? nullptr : array(actions);
}

void sendAction(id self, SEL, SEL action, id target, id event)
{
    id application = msg<id>(cls("UIApplication"), "sharedApplication");
    msg<bool>(application, "sendAction:to:from:forEvent:", action, target, self, event);
}

void sendActionsForControlEvents(id self, SEL, unsigned long events)
{
    ViewState *s = state(self);
    if (!s)
        return;
    // Collected first: an action may add or remove targets, or release the control.
    std::vector<std::pair<Ref, SEL>> calls;
    for (auto &entry : s->targets)
        if (entry->events & events)
            calls.emplace_back(entry->target.load(), entry->action);
    Ref keep(self);
    for (auto &[target, action] : calls)
        msg<void>(self, "sendAction:to:forEvent:", action, target.get(), static_cast<id>(nullptr));
}

bool isEnabled(id self, SEL)
{
    auto *s = state(self);
    return s && s->enabled;
}

void setEnabled(id self, SEL, bool value)
{
    gViewSlot.get(self).enabled = value;
}

bool isSelected(id self, SEL)
{
    auto *s = state(self);
    return s && s->selected;
}

void setSelected(id self, SEL, bool value)
{
    gViewSlot.get(self).selected = value;
}

bool isHighlighted(id self, SEL)
{
    auto *s = state(self);
    return s && s->highlighted;
}

void setHighlighted(id self, SEL, bool value)
{
    gViewSlot.get(self).highlighted = value;
}

unsigned long controlState(id self, SEL)
{
    auto *s = state(self);
    if (!s)
        return kStateNormal;
    return (s->enabled ? 0 : kStateDisabled) | (s->selected ? kStateSelected : 0) |
           (s->highlighted ? kStateHighlighted : 0);
}

// ---- UIButton

id buttonWithType(id self, SEL, long type)
{
    id button = msg<id>(msg<id>(self, "alloc"), "initWithFrame:", CGRect{});
    if (button)
        gViewSlot.get(button).buttonType = type;
    return button ? objc_autorelease(button) : nullptr;
}

long buttonType(id self, SEL)
{
    auto *s = state(self);
    return s ? s->buttonType : 0;
}

id lookup(const std::vector<std::pair<unsigned long, Ref>> &table, unsigned long controlState)
{
    for (auto &[key, value] : table)
        if (key == controlState)
            return value.get();
    for (auto &[key, value] : table)
        if (key == kStateNormal)
            return value.get();
    return nullptr;
}

void store(std::vector<std::pair<unsigned long, Ref>> &table, unsigned long controlState, id value)
{
    std::erase_if(table, [&](auto &entry) { return entry.first == controlState; });
    if (value)
        table.emplace_back(controlState, Ref(value));
}

void syncTitleLabel(id self)
{
    ViewState &s = gViewSlot.get(self);
    if (s.titleLabel)
        msg<void>(s.titleLabel.get(), "setText:", msg<id>(self, "currentTitle"));
}

void buttonSetTitle(id self, SEL, id title, unsigned long controlState)
{
    store(gViewSlot.get(self).titles, controlState, Ref::adopt(msg<id>(title, "copy")).get());
    syncTitleLabel(self);
}

id buttonTitleForState(id self, SEL, unsigned long controlState)
{
    auto *s = state(self);
    return s ? lookup(s->titles, controlState) : nullptr;
}

id buttonCurrentTitle(id self, SEL)
{
    return msg<id>(self, "titleForState:", msg<unsigned long>(self, "state"));
}

void buttonSetTitleColor(id self, SEL, id color, unsigned long controlState)
{
    store(gViewSlot.get(self).titleColors, controlState, color);
}

id buttonTitleColorForState(id self, SEL, unsigned long controlState)
{
    auto *s = state(self);
    return s ? lookup(s->titleColors, controlState) : nullptr;
}

void buttonSetImage(id self, SEL, id image, unsigned long controlState)
{
    store(gViewSlot.get(self).images, controlState, image);
}

id buttonImageForState(id self, SEL, unsigned long controlState)
{
    auto *s = state(self);
    return s ? lookup(s->images, controlState) : nullptr;
}

id buttonTitleLabel(id self, SEL)
{
    auto *s = state(self);
    if (!s)
        return nullptr;
    if (!s->titleLabel) {
        s->titleLabel = Ref::adopt(msg<id>(msg<id>(cls("UILabel"), "alloc"), "initWithFrame:", CGRect{}));
        syncTitleLabel(self);
    }
    return s->titleLabel.get();
}

// ---- UISegmentedControl

id segmentedInitWithItems(id self, SEL, id items)
{
    self = msg<id>(self, "initWithFrame:", CGRect{});
    if (!self)
        return nullptr;
    ViewState &s = gViewSlot.get(self);
    for (unsigned long i = 0, n = msg<unsigned long>(items, "count"); i < n; ++i)
        s.segments.push_back(Ref::adopt(msg<id>(msg<id>(items, "objectAtIndex:", i), "copy")));
    s.selectedSegment = -1;
    return self;
}

long segmentedCount(id self, SEL)
{
    auto *s = state(self);
    return s ? long(s->segments.size()) : 0;
}

id segmentedTitle(id self, SEL, unsigned long index)
{
    auto *s = state(self);
    return s && index < s->segments.size() ? s->segments[index].get() : nullptr;
}

void segmentedSetTitle(id self, SEL, id title, unsigned long index)
{
    ViewState &s = gViewSlot.get(self);
    if (index < s.segments.size())
        s.segments[index] = Ref::adopt(msg<id>(title, "copy"));
}

void segmentedInsert(id self, SEL, id title, unsigned long index, bool animated)
{
    ViewState &s = gViewSlot.get(self);
    index = std::min<unsigned long>(index, s.segments.size());
    s.segments.insert(s.segments.begin() + long(index), Ref::adopt(msg<id>(title, "copy")));
}

long segmentedSelected(id self, SEL)
{
    auto *s = state(self);
    return s ? s->selectedSegment : -1;
}

void segmentedSetSelected(id self, SEL, long index)
{
    ViewState &s = gViewSlot.get(self);
    if (index < -1 || index >= long(s.segments.size()))
        fakeobjc::raiseFormat("NSRangeException", "selectedSegmentIndex %ld out of range [-1, %ld)", index,
                              long(s.segments.size()));
    s.selectedSegment = index;
}

id segmentedTint(id self, SEL)
{
    auto *s = state(self);
    return s ? s->selectedSegmentTint.get() : nullptr;
}

void segmentedSetTint(id self, SEL, id color)
{
    gViewSlot.get(self).selectedSegmentTint = Ref(color);
}

__attribute__((constructor(202))) void declareControls()
{
    fakeobjc::ClassDef("UIControl", "UIView")
        .method("addTarget:action:forControlEvents:", addTarget)
        .method("removeTarget:action:forControlEvents:", removeTarget)
        .method("allTargets", allTargets)
        .method("allControlEvents", allControlEvents)
        .method("actionsForTarget:forControlEvent:", actionsForTarget)
        .method("sendAction:to:forEvent:", sendAction)
        .method("sendActionsForControlEvents:", sendActionsForControlEvents)
        .method("isEnabled", isEnabled)
        .method("setEnabled:", setEnabled)
        .method("isSelected", isSelected)
        .method("setSelected:", setSelected)
        .method("isHighlighted", isHighlighted)
        .method("setHighlighted:", setHighlighted)
        .method("state", controlState)
        .registerClass();

    fakeobjc::ClassDef("UIButton", "UIControl")
        .classMethod("buttonWithType:", buttonWithType)
        .method("buttonType", buttonType)
        .method("setTitle:forState:", buttonSetTitle)
        .method("titleForState:", buttonTitleForState)
        .method("currentTitle", buttonCurrentTitle)
        .method("setTitleColor:forState:", buttonSetTitleColor)
        .method("titleColorForState:", buttonTitleColorForState)
        .method("setImage:forState:", buttonSetImage)
        .method("imageForState:", buttonImageForState)
        .method("titleLabel", buttonTitleLabel)
        .registerClass();

    fakeobjc::ClassDef("UISegmentedControl", "UIControl")
        .method("initWithItems:", segmentedInitWithItems)
        .method("numberOfSegments", segmentedCount)
        .method("titleForSegmentAtIndex:", segmentedTitle)
        .method("setTitle:forSegmentAtIndex:", segmentedSetTitle)
        .method("insertSegmentWithTitle:atIndex:animated:", segmentedInsert)
        .method("selectedSegmentIndex", segmentedSelected)
        .method("setSelectedSegmentIndex:", segmentedSetSelected)
        .method("selectedSegmentTintColor", segmentedTint)
        .method("setSelectedSegmentTintColor:", segmentedSetTint)
        .registerClass();
}

} // namespace
} // namespace uik

using namespace uik;

UIKIT_EXPORT bool UIControlTap_np(id control)
{
    if (!control || !msg<bool>(control, "isEnabled") || !msg<bool>(control, "isUserInteractionEnabled") ||
        msg<bool>(control, "isHidden"))
        return false;
    Ref keep(control);
    msg<void>(control, "sendActionsForControlEvents:", kTouchDown);
    unsigned long up = kTouchUpInside;
    if (isKind(control, "UIButton"))
        up |= kPrimaryActionTriggered;
    msg<void>(control, "sendActionsForControlEvents:", up);
    return true;
}

UIKIT_EXPORT bool UISegmentedControlSelect_np(id control, long index)
{
    if (!control || !msg<bool>(control, "isEnabled") || index < 0 || index >= msg<long>(control, "numberOfSegments"))
        return false;
    Ref keep(control);
    msg<void>(control, "setSelectedSegmentIndex:", index);
    msg<void>(control, "sendActionsForControlEvents:", kValueChanged | kPrimaryActionTriggered);
    return true;
}
