// Synthetic frames for a video data output connected to a registered device while its session
// runs: a flat-colour BGRA sample buffer every 100 ms, handed to the delegate on its queue. The
// delivery thread holds the output only weakly and reads the delegate and queue by message send,
// so it never outlives or races the output's own state.
#include "AVOutputPrivate.h"

#include <Block.h>

#include <chrono>
#include <cstring>

namespace avf {

struct Delivery {
    std::mutex lock;
    std::condition_variable wake;
    bool stop = false;
    std::thread thread;
    std::shared_ptr<std::atomic<long>> delivered;
    std::atomic<long> inFlight = 0;
};

namespace {

CMSampleBufferRef makeFrame(CMVideoDimensions size, long index)
{
    CVPixelBufferRef pixels = nullptr;
    if (CVPixelBufferCreate(kCFAllocatorDefault, size_t(size.width), size_t(size.height), kCVPixelFormatType_32BGRA,
                            nullptr, &pixels) != kCVReturnSuccess)
        return nullptr;
    CVPixelBufferLockBaseAddress(pixels, 0);
    auto *base = static_cast<uint8_t *>(CVPixelBufferGetBaseAddress(pixels));
    size_t stride = CVPixelBufferGetBytesPerRow(pixels);
    uint8_t shade = uint8_t(0x40 + (index % 64));
    for (int y = 0; y < size.height; ++y) {
        uint8_t *row = base + size_t(y) * stride;
        for (int x = 0; x < size.width; ++x) {
            row[4 * x + 0] = shade;
            row[4 * x + 1] = shade;
            row[4 * x + 2] = shade;
            row[4 * x + 3] = 0xff;
        }
    }
    CVPixelBufferUnlockBaseAddress(pixels, 0);

    CMVideoFormatDescriptionRef format = nullptr;
    CMVideoFormatDescriptionCreateForImageBuffer(kCFAllocatorDefault, pixels, &format);
    CMSampleTimingInfo timing{CMTimeMake(1, 10), CMClockGetTime(CMClockGetHostTimeClock()), kCMTimeInvalid};
    CMSampleBufferRef sample = nullptr;
    if (format)
        CMSampleBufferCreateReadyWithImageBuffer(kCFAllocatorDefault, pixels, format, &timing, &sample);
    if (format)
        CFRelease(format);
    CVPixelBufferRelease(pixels);
    return sample;
}

void deliverOne(Weak &outputWeak, Ref connection, const std::shared_ptr<Delivery> &delivery, long index)
{
    Ref output = outputWeak.load();
    if (!output)
        return;
    Ref delegate(msg<id>(output.get(), "sampleBufferDelegate"));
    dispatch_queue_t queue = msg<dispatch_queue_t>(output.get(), "sampleBufferCallbackQueue");
    if (!delegate || !queue)
        return;
    if (msg<bool>(output.get(), "alwaysDiscardsLateVideoFrames") && delivery->inFlight.load() > 0)
        return;
    CMVideoDimensions size = connectionBufferSize(connection.get());
    if (size.width <= 0 || size.height <= 0)
        return;
    CMSampleBufferRef sample = makeFrame(size, index);
    if (!sample)
        return;
    ++delivery->inFlight;
    std::shared_ptr<Delivery> keep = delivery;
    dispatch_async(queue, ^{
        static SEL callback = sel_registerName("captureOutput:didOutputSampleBuffer:fromConnection:");
        if (msg<bool>(delegate.get(), "respondsToSelector:", callback))
            msg<void>(delegate.get(), callback, output.get(), sample, connection.get());
        CFRelease(sample);
        ++*keep->delivered;
        --keep->inFlight;
    });
}

void deliveryLoop(std::shared_ptr<Delivery> delivery, id outputRaw, Ref connection)
{
    Weak output;
    output.set(outputRaw);
    long index = 0;
    std::unique_lock guard(delivery->lock);
    while (!delivery->stop) {
        guard.unlock();
        {
            void *pool = objc_autoreleasePoolPush();
            deliverOne(output, connection, delivery, index++);
            objc_autoreleasePoolPop(pool);
        }
        guard.lock();
        delivery->wake.wait_for(guard, std::chrono::milliseconds(100), [&] { return delivery->stop; });
    }
}

} // namespace

void stopDelivery(OutputState &s)
{
    std::shared_ptr<Delivery> delivery;
    {
        std::lock_guard guard(s.lock);
        delivery = std::move(s.delivery);
    }
    if (!delivery)
        return;
    {
        std::lock_guard guard(delivery->lock);
        delivery->stop = true;
    }
    delivery->wake.notify_all();
    // The last reference to the output can be dropped on the delivery thread itself.
    if (delivery->thread.get_id() == std::this_thread::get_id())
        delivery->thread.detach();
    else if (delivery->thread.joinable())
        delivery->thread.join();
}

void videoOutputStartDelivery(id output, id connection)
{
    OutputState &s = gOutputSlot.get(output);
    std::lock_guard guard(s.lock);
    if (s.delivery)
        return;
    auto delivery = std::make_shared<Delivery>();
    delivery->delivered = s.deliveredFrames;
    // The thread is started while holding the lock, so stopDelivery always sees it joinable.
    delivery->thread = std::thread(deliveryLoop, delivery, output, Ref(connection));
    s.delivery = delivery;
}

void videoOutputStopDelivery(id output)
{
    if (auto *s = outputState(output))
        stopDelivery(*s);
}

} // namespace avf
