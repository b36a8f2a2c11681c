// ZerlanFrameClient: the process-wide hub of the camera feed. Once started it polls the frame
// server without end (one fetch at a time, the next cycle 100 ms after the end of the last) on the
// user-interactive global queue, keeps the latest frame that decoded, and hands each decoded
// frame to the registered preview layers, video data output and QR-code detection.
//
// It is private to the library, so it is a plain C++ object; what the app sees of it (layer
// contents, delegate calls, metadata objects) are runtime objects. Layers and outputs are held
// weakly; nothing is ever stopped, removed or reset.
#pragma once

#include "objc/Frameworks.h"

#include <mutex>

class ZerlanFrameClient {
public:
    // The one instance, made on first call under dispatch_once; never destroyed.
    static ZerlanFrameClient &shared();

    // Preview layers (CALayer), held weakly, each kept once.
    void addLayer(id layer);
    // The one metadata output / video data output that receives frames (weak; nil clears).
    void setMetadataOutput(id output);
    void setVideoOutput(id output);
    // The most recent fetched frame that decoded as an image, or nil.
    zerlan::objc::Strong<> latestJPEG();
    // Only the first call begins polling.
    void start();

    // One decoded frame (UIImage): paints the layers (main queue), delivers a sample buffer to
    // the video output's delegate (its queue) and runs QR-code detection. Called by the poll
    // cycle; exposed so that consumption can be driven without a frame server.
    void consume(id image);

    ZerlanFrameClient(const ZerlanFrameClient &) = delete;
    ZerlanFrameClient &operator=(const ZerlanFrameClient &) = delete;

private:
    ZerlanFrameClient();

    void fetchNextFrame();
    void pollCycle();
    void detectCodes(id image);
    void emitPayload(id payload);

    zerlan::objc::Strong<> layers_; // NSHashTable of weak layers, guarded by its own object lock
    zerlan::objc::Weak metadataOutput_;
    zerlan::objc::Weak videoOutput_;
    zerlan::objc::Strong<> detector_;
    std::mutex lock_; // guards started_ and latestJPEG_
    bool started_ = false;
    zerlan::objc::Strong<> lastPayload_; // poll cycle only: one cycle runs at a time
    zerlan::objc::Strong<> latestJPEG_;
};
