// Output adapters: the app's sample-buffer delegate, metadata delegate and preview layers reach
// the frame client, and accepted outputs answer configuration queries as a working camera would.
#pragma once

#include "objc/Frameworks.h"

// AVCaptureVideoDataOutput
void zerlan_setSampleBufferDelegate_queue(id self, SEL _cmd, id delegate, dispatch_queue_t queue);
id zerlan_recommendedVideoSettingsForAssetWriterWithOutputFileType(id self, SEL _cmd, id fileType);

// AVCaptureMetadataOutput
id zerlan_availableMetadataObjectTypes(id self, SEL _cmd);
void zerlan_setMetadataObjectTypes(id self, SEL _cmd, id types);
void zerlan_setMetadataObjectsDelegate_queue(id self, SEL _cmd, id delegate, dispatch_queue_t queue);

// AVCaptureVideoPreviewLayer
void zerlan_setSession(id self, SEL _cmd, id session);
