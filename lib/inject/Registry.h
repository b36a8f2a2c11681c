// Marks and attached values on framework objects, and the list that keeps fabricated objects
// alive. The library keeps no tables of its own: what it made or adopted is known by the
// associations stored on the objects themselves, each under its own static key.
#pragma once

#include "objc/Runtime.h"

// Association keys: the address is the key; the byte is never read or written.
extern const char kFakeDeviceKey;
extern const char kFakeInputKey;
extern const char kFakeConnectionKey;
extern const char kConnectionOutputKey;
extern const char kOutputConnectionKey;
extern const char kConnectionOrientationKey;
extern const char kVideoOutputKey;
extern const char kPhotoOutputKey;
extern const char kMetadataOutputKey;
extern const char kFakeSessionKey;
extern const char kSessionInputsKey;
extern const char kSessionOutputsKey;
extern const char kVideoDelegateKey;
extern const char kVideoQueueKey;
extern const char kMetadataDelegateKey;
extern const char kMetadataQueueKey;
extern const char kVirtualImagePickerKey;
extern const char kVirtualImagePickerDeviceKey;
extern const char kVirtualImagePickerModeKey;
extern const char kVirtualImagePickerProxyKey;
extern const char kFakeFormatKey;
extern const char kFakePortKey;

// Every fabricated object, kept for the life of the process. Null until ZerlanInstall; then only
// ever appended to, under the array's own object lock.
extern id gRetainedFakeObjects;

// Stores kCFBooleanTrue on object under key (retained, nonatomic). Marks are never removed.
void ZerlanMark(id object, const void *key);

// Whether the value under key answers true to boolValue; nil objects and missing values: false.
bool ZerlanMarked(id object, const void *key);

// Appends object to gRetainedFakeObjects and returns it (+0).
id ZerlanRetainFake(id object);

// Creates the retained-object list, replacing any earlier one. Installation calls it first.
void ZerlanResetRetainedFakeObjects();
