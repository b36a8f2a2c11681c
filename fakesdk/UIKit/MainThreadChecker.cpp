// UIKit under Xcode's Main Thread Checker, told to stop on an issue: a method of a UI class sent
// from any thread but the main one prints the method and the thread and aborts the process, so a
// lost hop to the main queue fails whatever test or sample app made it.
//
// Checked: the view, control, controller, window, application, screen and layout classes. Not
// checked, as on the platform: UIImage, UIColor and UIFont, which Apple documents as safe from any
// thread, and CALayer (QuartzCore). Nor dealloc: the last release of a view may come from any
// thread that held it (a finished block, a drained pool).
#include "UIKitPrivate.h"

namespace uik {
namespace {

// After every UIKit class and the methods other files add to them (priorities 201 to 203).
__attribute__((constructor(204))) void checkMainThread()
{
    for (const char *name : {"UIResponder", "UIView", "UILabel", "UIImageView", "UIControl", "UIButton",
                             "UISegmentedControl", "UIWindow", "UIApplication", "UIScreen", "UIViewController",
                             "UINavigationController", "UIImagePickerController", "NSLayoutAnchor",
                             "NSLayoutXAxisAnchor", "NSLayoutYAxisAnchor", "NSLayoutDimension", "NSLayoutConstraint",
                             "UILayoutGuide"})
        if (Class c = objc_getClass(name))
            fakeobjc::requireMainThread(c);
}

} // namespace
} // namespace uik
