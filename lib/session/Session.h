// Capture-session bookkeeping: a session offered the fabricated input becomes a fabricated
// session that accepts it and any output without the system's checks, answers its queries from
// its own lists (associated with the session) and starts the frame client instead of a capture
// pipeline. Every other session is left to the system.
#pragma once

#include "objc/Runtime.h"

// The session's list under kSessionInputsKey or kSessionOutputsKey, created empty on first use
// (+0 NSMutableArray, mutated in place).
id ZerlanSessionObjects(id session, const void *key);

// Lists the output in the session and hands it to the adapter for its kind (metadata, video data,
// photo; any other kind is only listed).
void ZerlanAcceptOutput(id session, id output);

BOOL zerlan_canAddInput(id self, SEL _cmd, id input);
void zerlan_addInput(id self, SEL _cmd, id input);
BOOL zerlan_canAddOutput(id self, SEL _cmd, id output);
void zerlan_addOutput(id self, SEL _cmd, id output);
void zerlan_startRunning(id self, SEL _cmd);
void zerlan_stopRunning(id self, SEL _cmd);
BOOL zerlan_isRunning(id self, SEL _cmd);
void zerlan_addInputWithNoConnections(id self, SEL _cmd, id input);
void zerlan_addOutputWithNoConnections(id self, SEL _cmd, id output);
void zerlan_addConnection(id self, SEL _cmd, id connection);
BOOL zerlan_canAddConnection(id self, SEL _cmd, id connection);
BOOL zerlan_canSetSessionPreset(id self, SEL _cmd, id preset);
id zerlan_inputs(id self, SEL _cmd);
id zerlan_outputs(id self, SEL _cmd);
void zerlan_removeInput(id self, SEL _cmd, id input);
void zerlan_removeOutput(id self, SEL _cmd, id output);
