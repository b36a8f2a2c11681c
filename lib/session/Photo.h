// Still photo capture on an accepted photo output: the current frame, delivered as a ZerlanPhoto
// (an AVCapturePhoto whose fileDataRepresentation is the JPEG as served) through
// captureOutput:didFinishProcessingPhoto:error: on the user-initiated global queue.
#pragma once

#include "objc/Runtime.h"

// The ZerlanPhoto class (property zerlanData backed by _zerlanData), declared on first use.
Class ZerlanPhotoClass();

// AVCapturePhotoOutput
void zerlan_capturePhotoWithSettings_delegate(id self, SEL _cmd, id settings, id delegate);
