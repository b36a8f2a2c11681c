// UIKit's private helpers: type encodings, the shared object helpers and the state that every
// UIView keeps.
#pragma once

#include "objc/define.h"
#include "objc/objects.h"

#include <Block.h>
#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>
#include <dispatch/dispatch.h>

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#define UIKIT_EXPORT extern "C" __attribute__((visibility("default")))

FAKEOBJC_ENCODING(CGRect, "{CGRect={CGPoint=dd}{CGSize=dd}}");
FAKEOBJC_ENCODING(CGPoint, "{CGPoint=dd}");
FAKEOBJC_ENCODING(CGSize, "{CGSize=dd}");
FAKEOBJC_ENCODING(double *, "^d");

namespace uik {

using fakeobjc::cls;
using fakeobjc::msg;

using fakeobjc::Ref;
using fakeobjc::Weak;
using fakeobjc::str;
using fakeobjc::strEqual;
using fakeobjc::number;
using fakeobjc::array;
using fakeobjc::elements;
using fakeobjc::dictionary;
using fakeobjc::isKind;

struct TargetAction {
    Weak target;
    SEL action = nullptr;
    unsigned long events = 0;
};

// One state object for the whole UIView hierarchy (UIView, UILabel, UIImageView, UIControl, ...);
// a view whose initialiser never ran has none.
struct ViewState {
    CGRect frame{};
    Ref layer;
    std::vector<Ref> subviews;
    Weak superview;
    Weak viewController;
    Ref backgroundColor, tintColor;
    bool hidden = false;
    double alpha = 1;
    long contentMode = 0;
    bool clipsToBounds = false;
    bool userInteractionEnabled = true;
    bool translatesAutoresizingMask = true;
    long tag = 0;
    Ref safeAreaGuide;
    std::vector<Ref> constraints; // active constraints installed on this view

    // UILabel
    Ref text, font, textColor;
    long textAlignment = 0;
    long numberOfLines = 1;

    // UIImageView
    Ref image;

    // UIControl and subclasses
    std::vector<std::unique_ptr<TargetAction>> targets;
    bool enabled = true, selected = false, highlighted = false;
    long buttonType = 0;
    std::vector<std::pair<unsigned long, Ref>> titles, titleColors, images;
    Ref titleLabel;
    std::vector<Ref> segments;
    long selectedSegment = -1;
    Ref selectedSegmentTint;
};

extern fakeobjc::StateSlot<ViewState> gViewSlot;

inline ViewState *viewState(id view)
{
    return view ? gViewSlot.peek(view) : nullptr;
}

} // namespace uik
