// fakesdk's test hooks into AVFoundation. The Simulator has no camera; these let a test plug in a
// working one (so that pass-through to a real device can be exercised) and look inside a session.
// Nothing that must build against Apple's SDK may include this header.
#pragma once

#include <objc/objc.h>

#ifdef __cplusplus
extern "C" {
#endif

// Registers a working capture device of media type video and returns it (+0: the registry keeps
// it until AVCaptureDeviceUnregisterAll_np). Its formats are two AVCaptureDeviceFormat objects of
// width x height, pixel formats '420v' then 'BGRA'; the first is active. deviceType is an
// AVCaptureDeviceType string (nil means AVCaptureDeviceTypeBuiltInWideAngleCamera); position is
// an AVCaptureDevicePosition (0 unspecified, 1 back, 2 front).
OBJC_EXPORT id AVCaptureDeviceRegister_np(const char *name, const char *uniqueID, long position, id deviceType,
                                          int width, int height, bool hasFlash, bool hasTorch, bool focusPOI,
                                          bool exposurePOI);

// Forgets every registered device: lookups answer nil again and the devices behave as unplugged
// (isConnected NO, no new inputs, lockForConfiguration: fails).
OBJC_EXPORT void AVCaptureDeviceUnregisterAll_np(void);

// lockForConfiguration: calls minus unlockForConfiguration calls made on the device.
OBJC_EXPORT long AVCaptureDeviceConfigurationLockDepth_np(id device);

// Asks each of the session's outputs for `connections` from inside AVFoundation, as the
// framework's own code does, and returns everything they answered in one array (+1).
OBJC_EXPORT id AVCaptureSessionCopyOutputConnections_np(id session);

// The selectors whose AVFoundation implementation ran for the session, oldest first, as an array
// of strings (+1): every public session method notes itself, whoever sent the message (init and
// dealloc excepted). What reached the framework even where it changed nothing visible.
OBJC_EXPORT id AVCaptureSessionCopyReceivedMessages_np(id session);

// Number of sample buffers the video data output has delivered to its delegate so far.
OBJC_EXPORT long AVCaptureVideoDataOutputDeliveredFrames_np(id output);

// A machine-readable code object as a metadata output would deliver it (+1).
OBJC_EXPORT id AVMetadataMachineReadableCodeObjectCreate_np(id type, id stringValue, double x, double y,
                                                            double width, double height);

#ifdef __cplusplus
}
#endif
