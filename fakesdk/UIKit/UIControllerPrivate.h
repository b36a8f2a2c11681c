// The state that every UIViewController keeps (navigation and image picker fields included); a
// controller whose initialiser never ran has none.
#pragma once

#include "UIKitPrivate.h"

namespace uik {

struct ControllerState {
    Ref view;
    Ref nibName, title;
    long modalStyle = 0;
    Ref presented;
    Weak presenting;
    bool beingPresented = false, beingDismissed = false;
    Weak parent;
    std::vector<Ref> children;

    // UINavigationController
    std::vector<Ref> stack;
    Weak delegate;

    // UIImagePickerController
    long sourceType = 0, cameraDevice = 0, captureMode = 0, flashMode = 0, videoQuality = 0;
    Ref mediaTypes, overlayView;
    bool allowsEditing = false, showsCameraControls = false;
    double videoMaximumDuration = 0;
};

extern fakeobjc::StateSlot<ControllerState> gControllerSlot;

inline ControllerState *controllerState(id controller)
{
    return controller ? gControllerSlot.peek(controller) : nullptr;
}

} // namespace uik
