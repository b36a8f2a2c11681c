#include "frames/FrameClient.h"

#include "frames/MetadataObject.h"
#include "frames/SampleBuffer.h"
#include "inject/Connections.h"
#include "inject/Registry.h"
#include "transport/FetchJPEG.h"

using namespace zerlan::objc;

namespace {

constexpr int64_t kPollPauseNanoseconds = 100000000;

dispatch_queue_t pollQueue()
{
    return dispatch_get_global_queue(QOS_CLASS_USER_INTERACTIVE, 0);
}

dispatch_queue_t queueOr(id stored)
{
    return stored ? reinterpret_cast<dispatch_queue_t>(stored) : dispatch_get_main_queue();
}

} // namespace

ZerlanFrameClient &ZerlanFrameClient::shared()
{
    static dispatch_once_t once;
    static ZerlanFrameClient *client;
    dispatch_once(&once, ^{
        client = new ZerlanFrameClient();
    });
    return *client;
}

ZerlanFrameClient::ZerlanFrameClient()
{
    AutoreleasePool pool;
    layers_ = Strong<>::retain(send<id>(cls("NSHashTable"), sel<"weakObjectsHashTable">()));
    id options = send<id>(cls("NSDictionary"), sel<"dictionaryWithObject:forKey:">(), CIDetectorAccuracyHigh,
                          CIDetectorAccuracy);
    // A detector that cannot be made stays nil: detection then finds nothing.
    try {
        detector_ = Strong<>::retain(send<id>(cls("CIDetector"), sel<"detectorOfType:context:options:">(),
                                              CIDetectorTypeQRCode, static_cast<id>(nil), options));
    } catch (...) {
    }
}

void ZerlanFrameClient::addLayer(id layer)
{
    ObjectLock guard(layers_);
    send<void>(layers_.get(), sel<"addObject:">(), layer);
}

void ZerlanFrameClient::setMetadataOutput(id output)
{
    metadataOutput_.store(output);
}

void ZerlanFrameClient::setVideoOutput(id output)
{
    videoOutput_.store(output);
}

Strong<> ZerlanFrameClient::latestJPEG()
{
    std::lock_guard guard(lock_);
    return latestJPEG_;
}

void ZerlanFrameClient::start()
{
    bool first = false;
    {
        std::lock_guard guard(lock_);
        if (!started_) {
            started_ = true;
            first = true;
        }
    }
    if (first)
        fetchNextFrame();
}

void ZerlanFrameClient::fetchNextFrame()
{
    ZerlanFrameClient *client = this;
    dispatch_async(pollQueue(), ^{
        client->pollCycle();
    });
}

void ZerlanFrameClient::pollCycle()
{
    try {
        AutoreleasePool pool;
        Strong<> jpeg = ZerlanFetchJPEG();
        id image = jpeg ? send<id>(cls("UIImage"), sel<"imageWithData:">(), jpeg.get()) : nil;
        if (image) {
            {
                std::lock_guard guard(lock_);
                latestJPEG_ = jpeg;
            }
            consume(image);
        }
    } catch (...) {
        // Nothing may escape into the app's process; the chain of cycles goes on regardless.
    }
    ZerlanFrameClient *client = this;
    dispatch_after(dispatch_time(DISPATCH_TIME_NOW, kPollPauseNanoseconds), pollQueue(), ^{
        client->fetchNextFrame();
    });
}

void ZerlanFrameClient::consume(id image)
{
    Strong<> frame = Strong<>::retain(image);
    Strong<> layers = layers_;
    dispatch_async(dispatch_get_main_queue(), ^{
        AutoreleasePool pool;
        ObjectLock guard(layers);
        id bitmap = bridge(send<CGImageRef>(frame.get(), sel<"CGImage">()));
        id all = send<id>(layers.get(), sel<"allObjects">());
        for (unsigned long i = 0, n = count(all); i < n; ++i) {
            id layer = objectAtIndex(all, i);
            send<void>(layer, sel<"setContents:">(), bitmap);
            send<void>(layer, sel<"setContentsGravity:">(), kCAGravityResizeAspectFill);
        }
    });

    // The delegate and its queue are read together, before anything else runs: an app that
    // switches both while the frame is converted must never see its old delegate called on the
    // new queue. The queue is retained so that the switch cannot free it under us.
    Strong<> output = videoOutput_.load();
    id delegate = output ? objc_getAssociatedObject(output, &kVideoDelegateKey) : nil;
    Strong<> queue = output ? Strong<>::retain(objc_getAssociatedObject(output, &kVideoQueueKey)) : Strong<>();
    if (output && delegate) {
        Strong<> target = Strong<>::retain(delegate);
        Strong<> connection = Strong<>::retain(ZerlanConnectionForOutput(output));
        long orientation = send<long>(connection.get(), sel<"videoOrientation">());
        if (CMSampleBufferRef buffer = ZerlanCreateSampleBuffer(image, orientation)) {
            dispatch_async(queueOr(queue.get()), ^{
                AutoreleasePool pool;
                send<void>(target.get(), sel<"captureOutput:didOutputSampleBuffer:fromConnection:">(), output.get(),
                           buffer, connection.get());
                CFRelease(buffer);
            });
        }
    }

    detectCodes(image);
}

void ZerlanFrameClient::detectCodes(id image)
{
    if (!detector_)
        return;
    Strong<> coreImage = allocInit<"initWithImage:">("CIImage", image);
    id features = send<id>(detector_.get(), sel<"featuresInImage:">(), coreImage.get());
    for (unsigned long i = 0, n = count(features); i < n; ++i) {
        id message = send<id>(objectAtIndex(features, i), sel<"messageString">());
        if (!message || send<unsigned long>(message, sel<"length">()) == 0)
            continue;
        if (isEqualToString(lastPayload_.get(), message))
            continue;
        lastPayload_ = Strong<>::adopt(send<id>(message, sel<"copy">()));
        emitPayload(message);
        return;
    }
}

void ZerlanFrameClient::emitPayload(id payload)
{
    Strong<> output = metadataOutput_.load();
    id delegate = output ? objc_getAssociatedObject(output, &kMetadataDelegateKey) : nil;
    if (!delegate)
        return;
    dispatch_queue_t queue = queueOr(objc_getAssociatedObject(output, &kMetadataQueueKey));
    Strong<> object = Strong<>::adopt(class_createInstance(ZerlanMetadataObjectClass(), 0));
    ZerlanRetainFake(object);
    send<void>(object.get(), sel<"setZerlanPayload:">(), payload);
    Strong<> target = Strong<>::retain(delegate);
    dispatch_async(queue, ^{
        AutoreleasePool pool;
        send<void>(target.get(), sel<"captureOutput:didOutputMetadataObjects:fromConnection:">(), output.get(),
                   arrayWithObject(object.get()), static_cast<id>(nil));
    });
}
