// AVCaptureOutput and its video data, metadata and movie file subclasses. One state object serves
// the whole hierarchy; a bare output (no initialiser ran) has none and answers nil, zero or NO.
// Framework code asks outputs for their connections by message send, as Apple's does, so that a
// replaced `connections` is what the framework itself sees.
#include "AVOutputPrivate.h"

#include <fakesdk/avfoundation_np.h>

#include <algorithm>

extern "C" {
extern id const AVMetadataObjectTypeFace;
extern id const AVMetadataObjectTypeAztecCode;
extern id const AVMetadataObjectTypeCode128Code;
extern id const AVMetadataObjectTypeCode39Code;
extern id const AVMetadataObjectTypeCode93Code;
extern id const AVMetadataObjectTypeDataMatrixCode;
extern id const AVMetadataObjectTypeEAN13Code;
extern id const AVMetadataObjectTypeEAN8Code;
extern id const AVMetadataObjectTypePDF417Code;
extern id const AVMetadataObjectTypeUPCECode;
}

namespace avf {

fakeobjc::StateSlot<OutputState> gOutputSlot;

OutputState *outputState(id output)
{
    return output ? gOutputSlot.peek(output) : nullptr;
}

namespace {

// ---- AVCaptureOutput

id outputConnections(id self, SEL)
{
    auto *s = outputState(self);
    if (!s)
        return array(std::vector<id>{});
    std::lock_guard guard(s->lock);
    return array(s->connections);
}

id outputConnectionWithMediaType(id self, SEL, id mediaType)
{
    for (id connection : elements(msg<id>(self, "connections")))
        for (id port : elements(msg<id>(connection, "inputPorts")))
            if (strEqual(msg<id>(port, "mediaType"), mediaType))
                return connection;
    return nullptr;
}

void outputDealloc(id self, SEL)
{
    if (auto *s = outputState(self))
        stopDelivery(*s);
    fakeobjc::destroyStateThenSuper(gOutputSlot, "AVCaptureOutput", self);
}

// ---- AVCaptureVideoDataOutput

id videoDataInit(id self, SEL)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("AVCaptureVideoDataOutput"), self, "init");
    if (!self)
        return nullptr;
    OutputState &s = gOutputSlot.get(self);
    s.discardsLateFrames = true;
    s.initialised = true;
    return self;
}

// Both data outputs take a delegate with the queue it is called on; a delegate without a queue is
// refused with the given reason, and clearing the delegate drops the queue.
void storeDelegate(id self, id delegate, dispatch_queue_t queue, const char *reasonWithoutQueue)
{
    if (delegate && !queue)
        fakeobjc::raise("NSInvalidArgumentException", reasonWithoutQueue);
    OutputState &s = gOutputSlot.get(self);
    std::lock_guard guard(s.lock);
    s.delegate.set(delegate);
    if (queue)
        dispatch_retain(queue);
    if (s.queue)
        dispatch_release(s.queue);
    s.queue = delegate ? queue : nullptr;
    if (!delegate && queue)
        dispatch_release(queue);
}

void videoDataSetDelegate(id self, SEL, id delegate, dispatch_queue_t queue)
{
    storeDelegate(self, delegate, queue,
                  "*** -[AVCaptureVideoDataOutput setSampleBufferDelegate:queue:] invalid parameter not "
                  "satisfying: sampleBufferCallbackQueue != NULL");
}

id videoDataDelegate(id self, SEL)
{
    auto *s = outputState(self);
    return s ? s->delegate.get() : nullptr;
}

dispatch_queue_t videoDataQueue(id self, SEL)
{
    auto *s = outputState(self);
    if (!s)
        return nullptr;
    std::lock_guard guard(s->lock);
    return s->queue;
}

id defaultVideoSettings()
{
    return dictionary({{(id)kCVPixelBufferPixelFormatTypeKey,
                        msg<id>(cls("NSNumber"), "numberWithUnsignedInt:",
                                static_cast<unsigned>(kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange))}});
}

id videoDataSettings(id self, SEL)
{
    auto *s = outputState(self);
    if (!s)
        return nullptr;
    std::lock_guard guard(s->lock);
    return s->videoSettings ? s->videoSettings.get() : defaultVideoSettings();
}

void videoDataSetSettings(id self, SEL, id settings)
{
    OutputState &s = gOutputSlot.get(self);
    Ref copy = Ref::adopt(msg<id>(settings, "copy"));
    std::lock_guard guard(s.lock);
    s.videoSettings = copy;
}

bool videoDataDiscards(id self, SEL)
{
    auto *s = outputState(self);
    return s && s->discardsLateFrames;
}

void videoDataSetDiscards(id self, SEL, bool discards)
{
    gOutputSlot.get(self).discardsLateFrames = discards;
}

id videoDataPixelFormats(id self, SEL)
{
    std::vector<id> formats;
    for (unsigned code : {unsigned(kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange),
                          unsigned(kCVPixelFormatType_420YpCbCr8BiPlanarFullRange), unsigned(kCVPixelFormatType_32BGRA)})
        formats.push_back(msg<id>(cls("NSNumber"), "numberWithUnsignedInt:", code));
    return array(formats);
}

id videoDataRecommendedSettings(id self, SEL, id fileType)
{
    id connection = msg<id>(self, "connectionWithMediaType:", AVMediaTypeVideo);
    if (!connection)
        return nullptr;
    CMVideoDimensions size = connectionBufferSize(connection);
    if (size.width <= 0 || size.height <= 0)
        return nullptr;
    id compression = dictionary({{AVVideoAverageBitRateKey, number(long(size.width) * size.height * 4)}});
    return dictionary({{AVVideoCodecKey, AVVideoCodecTypeH264},
                       {AVVideoWidthKey, number(size.width)},
                       {AVVideoHeightKey, number(size.height)},
                       {AVVideoCompressionPropertiesKey, compression}});
}

// ---- AVCaptureMetadataOutput

id metadataInit(id self, SEL)
{
    self = fakeobjc::msgSuper<id>(objc_getClass("AVCaptureMetadataOutput"), self, "init");
    if (!self)
        return nullptr;
    OutputState &s = gOutputSlot.get(self);
    s.rectOfInterest = CGRectMake(0, 0, 1, 1);
    s.initialised = true;
    return self;
}

// The detectable types exist only while the output is fed by a camera in a session.
id metadataAvailableTypes(id self, SEL)
{
    auto *s = outputState(self);
    bool fedByCamera = false;
    if (s && outputSession(self)) {
        for (id connection : elements(msg<id>(self, "connections")))
            for (id port : elements(msg<id>(connection, "inputPorts")))
                if (isRegisteredDevice(deviceInputDevice(msg<id>(port, "input"))))
                    fedByCamera = true;
    }
    if (!fedByCamera)
        return array(std::vector<id>{});
    return array(std::vector<id>{AVMetadataObjectTypeFace, AVMetadataObjectTypeQRCode, AVMetadataObjectTypeEAN13Code,
                                 AVMetadataObjectTypeEAN8Code, AVMetadataObjectTypeCode128Code,
                                 AVMetadataObjectTypeCode39Code, AVMetadataObjectTypeCode93Code,
                                 AVMetadataObjectTypeUPCECode, AVMetadataObjectTypePDF417Code,
                                 AVMetadataObjectTypeAztecCode, AVMetadataObjectTypeDataMatrixCode});
}

id metadataTypes(id self, SEL)
{
    auto *s = outputState(self);
    if (!s)
        return array(std::vector<id>{});
    std::lock_guard guard(s->lock);
    return s->metadataTypes ? s->metadataTypes.get() : array(std::vector<id>{});
}

void metadataSetTypes(id self, SEL, id types)
{
    id available = msg<id>(self, "availableMetadataObjectTypes");
    for (id type : elements(types))
        if (!msg<bool>(available, "containsObject:", type))
            fakeobjc::raise("NSInvalidArgumentException", "*** -[AVCaptureMetadataOutput setMetadataObjectTypes:] "
                                                          "Unsupported type found - use -availableMetadataObjectTypes");
    OutputState &s = gOutputSlot.get(self);
    Ref copy = types ? Ref::adopt(msg<id>(types, "copy")) : Ref();
    std::lock_guard guard(s.lock);
    s.metadataTypes = copy;
}

void metadataSetDelegate(id self, SEL, id delegate, dispatch_queue_t queue)
{
    storeDelegate(self, delegate, queue,
                  "*** -[AVCaptureMetadataOutput setMetadataObjectsDelegate:queue:] invalid parameter not "
                  "satisfying: objectsCallbackQueue != NULL");
}

CGRect metadataRectOfInterest(id self, SEL)
{
    auto *s = outputState(self);
    return s ? s->rectOfInterest : CGRect{};
}

void metadataSetRectOfInterest(id self, SEL, CGRect rect)
{
    gOutputSlot.get(self).rectOfInterest = rect;
}

// ---- AVCaptureFileOutput / AVCaptureMovieFileOutput

bool fileOutputIsRecording(id self, SEL)
{
    return false;
}

id fileOutputURL(id self, SEL)
{
    return nullptr;
}

CMTime fileOutputDuration(id self, SEL)
{
    return outputState(self) ? kCMTimeZero : kCMTimeInvalid;
}

CMTime movieMaxDuration(id self, SEL)
{
    return kCMTimeInvalid;
}

void movieStartRecording(id self, SEL, id url, id delegate)
{
    if (!msg<id>(self, "connectionWithMediaType:", AVMediaTypeVideo))
        fakeobjc::raise("NSInvalidArgumentException", "*** -[AVCaptureMovieFileOutput "
                                                      "startRecordingToOutputFileURL:recordingDelegate:] No active/"
                                                      "enabled connections");
    fakeobjc::raise("NSInvalidArgumentException",
                    "*** -[AVCaptureMovieFileOutput startRecordingToOutputFileURL:recordingDelegate:] Recording is "
                    "not supported on this device");
}

void movieStopRecording(id self, SEL)
{
}

__attribute__((constructor(201))) void declareOutputs()
{
    fakeobjc::ClassDef("AVCaptureOutput", "NSObject")
        .method("connections", outputConnections)
        .method("connectionWithMediaType:", outputConnectionWithMediaType)
        .method("dealloc", outputDealloc)
        .stateIvar()
        .registerWith(gOutputSlot);

    fakeobjc::ClassDef("AVCaptureVideoDataOutput", "AVCaptureOutput")
        .method("init", videoDataInit)
        .method("setSampleBufferDelegate:queue:", videoDataSetDelegate)
        .method("sampleBufferDelegate", videoDataDelegate)
        .method("sampleBufferCallbackQueue", videoDataQueue)
        .method("videoSettings", videoDataSettings)
        .method("setVideoSettings:", videoDataSetSettings)
        .method("alwaysDiscardsLateVideoFrames", videoDataDiscards)
        .method("setAlwaysDiscardsLateVideoFrames:", videoDataSetDiscards)
        .method("availableVideoCVPixelFormatTypes", videoDataPixelFormats)
        .method("recommendedVideoSettingsForAssetWriterWithOutputFileType:", videoDataRecommendedSettings)
        .registerClass();

    fakeobjc::ClassDef("AVCaptureMetadataOutput", "AVCaptureOutput")
        .method("init", metadataInit)
        .method("availableMetadataObjectTypes", metadataAvailableTypes)
        .method("metadataObjectTypes", metadataTypes)
        .method("setMetadataObjectTypes:", metadataSetTypes)
        .method("setMetadataObjectsDelegate:queue:", metadataSetDelegate)
        .method("metadataObjectsDelegate", videoDataDelegate)
        .method("metadataObjectsCallbackQueue", videoDataQueue)
        .method("rectOfInterest", metadataRectOfInterest)
        .method("setRectOfInterest:", metadataSetRectOfInterest)
        .registerClass();

    fakeobjc::ClassDef("AVCaptureFileOutput", "AVCaptureOutput")
        .method("isRecording", fileOutputIsRecording)
        .method("outputFileURL", fileOutputURL)
        .method("recordedDuration", fileOutputDuration)
        .method("stopRecording", movieStopRecording)
        .registerClass();

    fakeobjc::ClassDef("AVCaptureMovieFileOutput", "AVCaptureFileOutput")
        .method("maxRecordedDuration", movieMaxDuration)
        .method("startRecordingToOutputFileURL:recordingDelegate:", movieStartRecording)
        .registerClass();
}

} // namespace

id outputSession(id output)
{
    auto *s = outputState(output);
    return s ? s->session.get() : nullptr;
}

void outputSetSession(id output, id session)
{
    if (output)
        gOutputSlot.get(output).session.set(session);
}

void outputAttachConnection(id output, id connection)
{
    OutputState &s = gOutputSlot.get(output);
    std::lock_guard guard(s.lock);
    s.connections.emplace_back(connection);
}

void outputDetachConnection(id output, id connection)
{
    auto *s = outputState(output);
    if (!s)
        return;
    std::lock_guard guard(s->lock);
    std::erase_if(s->connections, [&](const Ref &c) { return c.get() == connection; });
}

std::vector<id> outputOwnConnections(id output)
{
    std::vector<id> out;
    if (auto *s = outputState(output)) {
        std::lock_guard guard(s->lock);
        for (const Ref &c : s->connections)
            out.push_back(c.get());
    }
    return out;
}

// The size of the buffers that leave the connection: the device's active format, turned upright
// for the portrait orientations.
CMVideoDimensions connectionBufferSize(id connection)
{
    CMVideoDimensions size{0, 0};
    for (id port : elements(msg<id>(connection, "inputPorts"))) {
        if (!strEqual(msg<id>(port, "mediaType"), AVMediaTypeVideo))
            continue;
        CMFormatDescriptionRef description = msg<CMFormatDescriptionRef>(port, "formatDescription");
        if (!description)
            continue;
        size = CMVideoFormatDescriptionGetDimensions(description);
        break;
    }
    long orientation = msg<long>(connection, "videoOrientation");
    if (orientation == 1 || orientation == 2)
        std::swap(size.width, size.height);
    return size;
}

} // namespace avf

AVF_EXPORT long AVCaptureVideoDataOutputDeliveredFrames_np(id output)
{
    auto *s = avf::outputState(output);
    return s ? s->deliveredFrames->load() : 0;
}
