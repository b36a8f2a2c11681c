// The state that every AVCaptureOutput keeps, shared by the output files and the session.
#pragma once

#include "AVFPrivate.h"

#include <dispatch/dispatch.h>

#include <atomic>
#include <condition_variable>
#include <set>
#include <memory>
#include <thread>

namespace avf {

struct OutputState {
    std::mutex lock;
    bool initialised = false;
    std::vector<Ref> connections;
    Weak session;

    // Video data and metadata outputs: the delegate (weak) and its queue (retained).
    Weak delegate;
    dispatch_queue_t queue = nullptr;
    Ref videoSettings;
    bool discardsLateFrames = false;
    Ref metadataTypes;
    CGRect rectOfInterest{};

    // Photo output: settings already used, by unique ID.
    std::set<long long> usedSettingIDs;

    // Synthetic frames while the session runs.
    std::shared_ptr<struct Delivery> delivery;
    std::shared_ptr<std::atomic<long>> deliveredFrames = std::make_shared<std::atomic<long>>(0);

    ~OutputState()
    {
        if (queue)
            dispatch_release(queue);
    }
};

extern fakeobjc::StateSlot<OutputState> gOutputSlot;
OutputState *outputState(id output);
CMVideoDimensions connectionBufferSize(id connection);
void stopDelivery(OutputState &s);

} // namespace avf
