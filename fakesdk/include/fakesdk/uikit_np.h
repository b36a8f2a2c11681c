// fakesdk's test hooks into UIKit: a key window to present from, and touches on controls.
// Nothing that must build against Apple's SDK may include this header.
#pragma once

#include <objc/objc.h>

#ifdef __cplusplus
extern "C" {
#endif

// Makes a UIWindow with the screen's bounds, sets its rootViewController (loading the root's view
// and sending it viewWillAppear:/viewDidAppear: at once), makes it the application's key window and
// returns it (+0: the application keeps it until the next call or UIApplicationResetWindows_np).
OBJC_EXPORT id UIWindowMakeKeyWithRootViewController_np(id rootViewController);

// Drops every window the application keeps.
OBJC_EXPORT void UIApplicationResetWindows_np(void);

// A finger tap on an enabled, visible, interactive control: sends its TouchDown actions, then its
// TouchUpInside actions (with PrimaryActionTriggered for a UIButton). Returns whether the control
// took the touch.
OBJC_EXPORT bool UIControlTap_np(id control);

// A tap on segment `index` of a UISegmentedControl: selects it and sends its ValueChanged actions.
OBJC_EXPORT bool UISegmentedControlSelect_np(id control, long index);

#ifdef __cplusplus
}
#endif
