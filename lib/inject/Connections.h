// The device input made for the fabricated camera, its one port, and the one fabricated
// connection of each accepted output, with the rule that only code outside the system frameworks
// is shown fabricated connections.
#pragma once

#include "objc/Runtime.h"

// The output's fabricated connection, created on the first call (class_createInstance, no
// initialiser; orientation 3) and cached on the output. +0; kept alive for the process.
id ZerlanConnectionForOutput(id output);

// AVCaptureDeviceInput
id zerlan_initWithDevice_error(id self, SEL _cmd, id device, id *error);
id zerlan_ports(id self, SEL _cmd);

// AVCaptureConnection
id zerlan_initWithInputPorts_output(id self, SEL _cmd, id ports, id output);
BOOL zerlan_isVideoOrientationSupported(id self, SEL _cmd);
BOOL zerlan_isVideoMirroringSupported(id self, SEL _cmd);
long zerlan_videoOrientation(id self, SEL _cmd);
void zerlan_setVideoOrientation(id self, SEL _cmd, long orientation);

// AVCaptureOutput
id zerlan_connections(id self, SEL _cmd);
id zerlan_connectionWithMediaType(id self, SEL _cmd, id mediaType);
