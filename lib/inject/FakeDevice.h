// The fabricated back camera, its one format and its one input port, and the AVCaptureDevice and
// discovery-session replacements that hand it out where the system has no camera.
#pragma once

#include "objc/Runtime.h"

// The singletons, each made once with class_createInstance (no initialiser), marked and kept in
// gRetainedFakeObjects. Results are +0 and live for the process.
id ZerlanFakeVideoDevice();
id ZerlanFakeFormat();
id ZerlanFakeInputPort();

// Whether the code at address lies in an image whose path contains "/System/Library/".
// A null address, or one that dladdr cannot place, is not system code.
bool ZerlanAddressIsSystemFramework(const void *address);

// AVCaptureDevice (class methods receive the class as self).
id zerlan_defaultDeviceWithMediaType(id self, SEL _cmd, id mediaType);
id zerlan_deviceWithUniqueID(id self, SEL _cmd, id uniqueID);
id zerlan_localizedName(id self, SEL _cmd);
id zerlan_uniqueID(id self, SEL _cmd);
long zerlan_position(id self, SEL _cmd);
id zerlan_deviceType(id self, SEL _cmd);
id zerlan_formats(id self, SEL _cmd);
id zerlan_activeFormat(id self, SEL _cmd);
void zerlan_setActiveFormat(id self, SEL _cmd, id format);
BOOL zerlan_hasFlash(id self, SEL _cmd);
BOOL zerlan_hasTorch(id self, SEL _cmd);
BOOL zerlan_isFocusPointOfInterestSupported(id self, SEL _cmd);
BOOL zerlan_isExposurePointOfInterestSupported(id self, SEL _cmd);
BOOL zerlan_lockForConfiguration(id self, SEL _cmd, id *error);
void zerlan_unlockForConfiguration(id self, SEL _cmd);

// AVCaptureDeviceDiscoverySession
id zerlan_devices(id self, SEL _cmd);
