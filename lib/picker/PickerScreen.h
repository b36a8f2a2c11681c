// ZerlanVirtualImagePickerViewController: the full-screen camera that stands in for a virtual
// picker. It polls the frame server itself (every 0.1 s while on screen, one fetch at a time),
// shows the latest frame, takes a photo or records a movie, and answers the picker's delegate
// with the dictionaries the system camera would give. It never dismisses itself.
//
// Everything here runs on the main thread except the fetch and decode of each poll.
#pragma once

#include "objc/Frameworks.h"

// The screen's class, declared on first use (a UIViewController subclass).
Class ZerlanVirtualImagePickerClass();

// Whether the picker allows the media type ("public.image", "public.movie"): an empty or absent
// mediaTypes allows everything.
BOOL ZerlanPickerSupportsMediaType(id picker, id mediaType);

// Sends imagePickerController:didFinishPickingMediaWithInfo: to the picker's delegate when it
// implements it; otherwise nothing. Never dismisses.
void ZerlanSendPickerResult(id picker, id info);

// Sends imagePickerControllerDidCancel: to the picker's delegate when it implements it.
void ZerlanCancelPicker(id picker);

// The screen's state behind its one ivar. Its properties read and write these fields, plain,
// without side effects. Main thread only.
struct ZerlanPickerScreenState {
    zerlan::objc::Strong<> picker;
    zerlan::objc::Strong<> previewView;
    zerlan::objc::Strong<> statusLabel;
    zerlan::objc::Strong<> captureButton;
    zerlan::objc::Strong<> modeControl;
    zerlan::objc::Strong<> frameTimer;
    zerlan::objc::Strong<> latestImage;
    bool fetchInFlight = false;
    bool recording = false;
    bool finishing = false;
    bool automatedCaptureTriggered = false;
    zerlan::objc::Strong<> writer;
    zerlan::objc::Strong<> writerInput;
    zerlan::objc::Strong<> recordingURL;
    CMTime recordingStartTime{}; // flags 0: invalid
};

ZerlanPickerScreenState &ZerlanPickerScreen(id screen);

// Sets the status label's text from UTF-8.
void ZerlanPickerSetStatus(id screen, const char *text);

// The recording methods of the screen.
void ZerlanPickerStartRecording(id self, SEL _cmd);
void ZerlanPickerAppendVideoFrame(id self, SEL _cmd, id image);
void ZerlanPickerStopRecordingAndDeliver(id self, SEL _cmd, BOOL deliver);
