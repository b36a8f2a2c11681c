// AVAssetWriter and AVAssetWriterInput: a real H.264 MP4 (or QuickTime movie) written with FFmpeg's
// libavformat, libavcodec (libx264) and libswscale. As on the platform, appending only copies the
// frame and hands it to an encoder of the writer's own; isReadyForMoreMediaData turns NO while that
// encoder is behind, and the finish handler runs on a background queue once the file is complete.
//
// Only video inputs with AVVideoCodecTypeH264 are supported; the writer refuses (canAddInput: NO)
// what it cannot encode, where Apple's would take HEVC or JPEG too.
#include "AVFPrivate.h"

#include <dispatch/dispatch.h>
#include <Block.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <sys/stat.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <thread>

extern "C" id const AVFoundationErrorDomain;
extern "C" id const AVFileTypeMPEG4;
extern "C" id const AVFileTypeQuickTimeMovie;
extern "C" id const AVFileTypeAppleM4V;

namespace avf {
namespace {

// AVAssetWriterStatus
constexpr long kUnknown = 0, kWriting = 1, kCompleted = 2, kFailed = 3, kCancelled = 4;
// AVError codes
constexpr long kErrorUnknown = -11800, kErrorFileAlreadyExists = -11823;

// Frames waiting for the encoder before the input says it is not ready. Small, as on the
// platform: a real-time source drops frames rather than letting latency build up.
constexpr size_t kQueueLimit = 2;
// The movie's time base: 1/90000 s, the usual one for video.
constexpr AVRational kTimeBase{1, 90000};
constexpr AVRational kFrameRateHint{30, 1};

id avError(long code, const char *description, const char *reason)
{
    id info = dictionary({{str("NSLocalizedDescription"), str(description)},
                          {str("NSLocalizedFailureReason"), str(reason)}});
    return msg<id>(cls("NSError"), "errorWithDomain:code:userInfo:", AVFoundationErrorDomain, code, info);
}

std::string ffmpegError(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

struct Frame {
    std::vector<uint8_t> bgra;
    int width = 0, height = 0, stride = 0;
    int64_t pts = 0, duration = 0; // in kTimeBase
};

struct InputState {
    Ref mediaType;
    Ref outputSettings;
    bool realTime = false;
    bool finished = false;
    bool supported = false; // H.264 video with a size
    int width = 0, height = 0;
    long bitRate = 0;
    id writer = nil; // not retained: the writer keeps its inputs
};

fakeobjc::StateSlot<InputState> gInputSlot;
Class gInputClass;

struct WriterState {
    std::mutex lock;
    std::condition_variable wake;
    long status = kUnknown;
    Ref error;
    Ref url;
    Ref fileType;
    std::string path;
    std::vector<Ref> inputs;
    bool sessionStarted = false;
    CMTime sessionStart{};
    std::optional<CMTime> sessionEnd;
    int64_t lastPts = -1;

    // The encoder and the file, touched only by the worker once writing has started.
    AVFormatContext *format = nullptr;
    AVCodecContext *encoder = nullptr;
    AVStream *stream = nullptr;
    SwsContext *scaler = nullptr;
    AVFrame *picture = nullptr;
    AVPacket *packet = nullptr;
    long framesWritten = 0;

    std::deque<Frame> queue;
    bool finishing = false;
    bool stopping = false;
    void (^finishHandler)(void) = nullptr;
    id self = nil; // the writer, retained while finishing so the handler's queue outlives no one
    std::thread worker;

    ~WriterState()
    {
        bool running;
        {
            std::lock_guard guard(lock);
            stopping = true;
            running = worker.joinable(); // a worker that finished the movie has let itself go
        }
        wake.notify_all();
        if (running)
            worker.join();
        closeFile(false);
        if (finishHandler)
            Block_release(finishHandler);
    }

    void closeFile(bool trailer)
    {
        if (format && trailer)
            av_write_trailer(format);
        if (format && format->pb)
            avio_closep(&format->pb);
        avformat_free_context(format);
        format = nullptr;
        avcodec_free_context(&encoder);
        sws_freeContext(scaler);
        scaler = nullptr;
        av_frame_free(&picture);
        av_packet_free(&packet);
    }
};

fakeobjc::StateSlot<WriterState> gWriterSlot;
Class gWriterClass;

InputState *inputState(id input)
{
    return input && object_getClass(input) && isKind(input, "AVAssetWriterInput") ? &gInputSlot.get(input) : nullptr;
}

const char *statusName(long status)
{
    static const char *names[] = {"0", "1", "2", "3", "4"};
    return status >= 0 && status <= 4 ? names[status] : "?";
}

[[noreturn]] void raiseStatus(const char *method, long status)
{
    fakeobjc::raiseFormat("NSInternalInconsistencyException", "*** -[AVAssetWriter %s] Cannot call method when status is %s",
                          method, statusName(status));
}

// ---- AVAssetWriterInput

long integerFor(id dict, id key)
{
    id value = msg<id>(dict, "objectForKey:", key);
    return value && msg<bool>(value, "respondsToSelector:", sel_registerName("longValue")) ? msg<long>(value, "longValue") : 0;
}

id inputInit(id self, SEL, id mediaType, id outputSettings)
{
    self = fakeobjc::msgSuper<id>(gInputClass, self, "init");
    if (!self)
        return nil;
    if (!mediaType)
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVAssetWriterInput initWithMediaType:outputSettings:] invalid parameter not satisfying: mediaType != nil");
    InputState &s = gInputSlot.get(self);
    s.mediaType = Ref::adopt(msg<id>(mediaType, "copy"));
    s.outputSettings = Ref::adopt(msg<id>(outputSettings, "copy"));
    if (strEqual(mediaType, AVMediaTypeVideo) && outputSettings) {
        id codec = msg<id>(outputSettings, "objectForKey:", AVVideoCodecKey);
        s.width = int(integerFor(outputSettings, AVVideoWidthKey));
        s.height = int(integerFor(outputSettings, AVVideoHeightKey));
        if (!codec || s.width <= 0 || s.height <= 0)
            fakeobjc::raise("NSInvalidArgumentException",
                            "*** -[AVAssetWriterInput initWithMediaType:outputSettings:] Video output settings "
                            "must contain AVVideoCodecKey, AVVideoWidthKey and AVVideoHeightKey");
        id compression = msg<id>(outputSettings, "objectForKey:", AVVideoCompressionPropertiesKey);
        s.bitRate = integerFor(compression, AVVideoAverageBitRateKey);
        s.supported = strEqual(codec, AVVideoCodecTypeH264) && s.width % 2 == 0 && s.height % 2 == 0;
    }
    return self;
}

id inputWithMediaType(id self, SEL, id mediaType, id outputSettings)
{
    return objc_autorelease(msg<id>(msg<id>(self, "alloc"), "initWithMediaType:outputSettings:", mediaType, outputSettings));
}

id inputMediaType(id self, SEL)
{
    InputState *s = inputState(self);
    return s ? s->mediaType.get() : nil;
}

id inputOutputSettings(id self, SEL)
{
    InputState *s = inputState(self);
    return s ? s->outputSettings.get() : nil;
}

bool inputExpectsRealTime(id self, SEL)
{
    InputState *s = inputState(self);
    return s && s->realTime;
}

void inputSetExpectsRealTime(id self, SEL, bool value)
{
    gInputSlot.get(self).realTime = value;
}

bool inputIsReady(id self, SEL)
{
    InputState *s = inputState(self);
    if (!s || s->finished || !s->writer)
        return false;
    WriterState &w = gWriterSlot.get(s->writer);
    std::lock_guard guard(w.lock);
    return w.status == kWriting && w.queue.size() < kQueueLimit;
}

int64_t toTimeBase(CMTime time)
{
    return llround(CMTimeGetSeconds(time) * kTimeBase.den);
}

bool inputAppend(id self, SEL, CMSampleBufferRef buffer)
{
    InputState &s = gInputSlot.get(self);
    if (s.finished)
        fakeobjc::raise("NSInternalInconsistencyException",
                        "*** -[AVAssetWriterInput appendSampleBuffer:] Cannot append sample buffer: input is "
                        "finished writing");
    if (!s.writer)
        fakeobjc::raise("NSInternalInconsistencyException",
                        "*** -[AVAssetWriterInput appendSampleBuffer:] Cannot append sample buffer: the input "
                        "belongs to no writer");
    WriterState &w = gWriterSlot.get(s.writer);
    CMTime pts = CMSampleBufferGetPresentationTimeStamp(buffer);
    CMTime duration = CMSampleBufferGetDuration(buffer);
    {
        std::lock_guard guard(w.lock);
        if (w.status == kFailed)
            return false;
        if (w.status != kWriting)
            fakeobjc::raiseFormat("NSInternalInconsistencyException",
                                  "*** -[AVAssetWriterInput appendSampleBuffer:] Cannot append sample buffer: "
                                  "writer status is %s",
                                  statusName(w.status));
        if (!w.sessionStarted)
            fakeobjc::raise("NSInternalInconsistencyException",
                            "*** -[AVAssetWriterInput appendSampleBuffer:] Cannot append sample buffer: Must start "
                            "a session (using -[AVAssetWriter startSessionAtSourceTime:]) first");
    }
    CVImageBufferRef image = CMSampleBufferGetImageBuffer(buffer);
    if (!image || CVPixelBufferGetPixelFormatType(image) != kCVPixelFormatType_32BGRA || !(pts.flags & kCMTimeFlags_Valid))
        return false;

    Frame frame;
    frame.width = int(CVPixelBufferGetWidth(image));
    frame.height = int(CVPixelBufferGetHeight(image));
    frame.stride = int(CVPixelBufferGetBytesPerRow(image));
    CVPixelBufferLockBaseAddress(image, kCVPixelBufferLock_ReadOnly);
    auto *base = static_cast<const uint8_t *>(CVPixelBufferGetBaseAddress(image));
    frame.bgra.assign(base, base + size_t(frame.stride) * size_t(frame.height));
    CVPixelBufferUnlockBaseAddress(image, kCVPixelBufferLock_ReadOnly);

    std::lock_guard guard(w.lock);
    frame.pts = toTimeBase(CMTimeSubtract(pts, w.sessionStart));
    frame.duration = (duration.flags & kCMTimeFlags_Valid) ? toTimeBase(duration) : 0;
    // Before the session, after its end, or not after the previous frame: not part of the movie.
    if (frame.pts < 0 || frame.pts <= w.lastPts ||
        (w.sessionEnd && CMTimeCompare(pts, *w.sessionEnd) > 0))
        return false;
    w.lastPts = frame.pts;
    w.queue.push_back(std::move(frame));
    w.wake.notify_all();
    return true;
}

void inputMarkAsFinished(id self, SEL)
{
    gInputSlot.get(self).finished = true;
}

void inputDealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gInputSlot, "AVAssetWriterInput", self);
}

// ---- AVAssetWriter

WriterState *writerState(id writer)
{
    return writer ? &gWriterSlot.get(writer) : nullptr;
}

bool fileExists(const std::string &path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

id writerInit(id self, SEL, id url, id fileType, id *outError)
{
    if (!url || !msg<bool>(url, "isFileURL"))
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVAssetWriter initWithURL:fileType:error:] invalid parameter not satisfying: [outputURL isFileURL]");
    if (!strEqual(fileType, AVFileTypeMPEG4) && !strEqual(fileType, AVFileTypeQuickTimeMovie) &&
        !strEqual(fileType, AVFileTypeAppleM4V))
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVAssetWriter initWithURL:fileType:error:] Invalid file type");
    const char *path = msg<const char *>(msg<id>(url, "path"), "UTF8String");
    if (fileExists(path)) {
        if (outError)
            *outError = avError(kErrorFileAlreadyExists, "Cannot Save", "The file already exists.");
        objc_release(self);
        return nil;
    }
    self = fakeobjc::msgSuper<id>(gWriterClass, self, "init");
    if (!self)
        return nil;
    WriterState &s = gWriterSlot.get(self);
    s.url = Ref::adopt(msg<id>(url, "copy"));
    s.fileType = Ref::adopt(msg<id>(fileType, "copy"));
    s.path = path;
    return self;
}

id writerWithURL(id self, SEL, id url, id fileType, id *outError)
{
    return objc_autorelease(msg<id>(msg<id>(self, "alloc"), "initWithURL:fileType:error:", url, fileType, outError));
}

long writerStatus(id self, SEL)
{
    WriterState *s = writerState(self);
    if (!s)
        return kUnknown;
    std::lock_guard guard(s->lock);
    return s->status;
}

id writerError(id self, SEL)
{
    WriterState *s = writerState(self);
    if (!s)
        return nil;
    std::lock_guard guard(s->lock);
    return objc_autorelease(objc_retain(s->error.get()));
}

id writerURL(id self, SEL)
{
    WriterState *s = writerState(self);
    return s ? s->url.get() : nil;
}

id writerFileType(id self, SEL)
{
    WriterState *s = writerState(self);
    return s ? s->fileType.get() : nil;
}

id writerInputs(id self, SEL)
{
    WriterState *s = writerState(self);
    return array(s ? s->inputs : std::vector<Ref>{});
}

bool writerCanAddInput(id self, SEL, id input)
{
    WriterState &s = gWriterSlot.get(self);
    InputState *in = inputState(input);
    std::lock_guard guard(s.lock);
    // One video track: what the encoder here writes.
    return in && s.status == kUnknown && in->supported && !in->writer && s.inputs.empty();
}

void writerAddInput(id self, SEL, id input)
{
    if (!msg<bool>(self, "canAddInput:", input)) {
        long status = writerStatus(self, nullptr);
        if (status != kUnknown)
            raiseStatus("addInput:", status);
        fakeobjc::raise("NSInvalidArgumentException",
                        "*** -[AVAssetWriter addInput:] Cannot add an input that the writer cannot use");
    }
    WriterState &s = gWriterSlot.get(self);
    std::lock_guard guard(s.lock);
    s.inputs.emplace_back(input);
    gInputSlot.get(input).writer = self;
}

// Fails the writer (under its lock) with an error that says what FFmpeg said.
void fail(WriterState &s, const std::string &reason)
{
    s.status = kFailed;
    s.error = Ref(avError(kErrorUnknown, "The operation could not be completed", reason.c_str()));
}

bool openEncoder(WriterState &s, const InputState &input, std::string &reason)
{
    const char *container = strEqual(s.fileType.get(), AVFileTypeQuickTimeMovie) ? "mov" : "mp4";
    int rc = avformat_alloc_output_context2(&s.format, nullptr, container, s.path.c_str());
    const AVCodec *codec = avcodec_find_encoder_by_name("libx264");
    if (rc < 0 || !codec) {
        reason = rc < 0 ? ffmpegError(rc) : "no H.264 encoder";
        return false;
    }
    s.stream = avformat_new_stream(s.format, nullptr);
    s.encoder = avcodec_alloc_context3(codec);
    s.encoder->width = input.width;
    s.encoder->height = input.height;
    s.encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    s.encoder->time_base = kTimeBase;
    if (input.bitRate > 0)
        s.encoder->bit_rate = input.bitRate;
    if (s.format->oformat->flags & AVFMT_GLOBALHEADER)
        s.encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // A camera recorder's trade: "veryfast" keeps a 640 x 480 feed real-time on one core, and
    // "zerolatency" (no B-frames, no look-ahead) hands each frame's packet back at once, so the
    // encoder is never holding more than the frame it is on.
    av_opt_set(s.encoder->priv_data, "preset", "veryfast", 0);
    av_opt_set(s.encoder->priv_data, "tune", "zerolatency", 0);
    // Camera frames come at no fixed rate, so the bit rate is shared out by their timestamps. Left
    // to its constant-rate default, libx264 takes the 1/90000 s time base for the frame rate and
    // gives each real frame a few bits: a movie of flat grey.
    av_opt_set(s.encoder->priv_data, "x264-params", "force-cfr=0", 0);
    // The first frame has no timestamp before it to be timed by: libx264 gives it one frame's time
    // at this rate, or at the time base's 90000 frames a second without it, which leaves the
    // opening keyframe a few bytes of flat grey. A camera's usual rate.
    s.encoder->framerate = kFrameRateHint;
    if ((rc = avcodec_open2(s.encoder, codec, nullptr)) < 0 ||
        (rc = avcodec_parameters_from_context(s.stream->codecpar, s.encoder)) < 0) {
        reason = ffmpegError(rc);
        return false;
    }
    s.stream->time_base = kTimeBase;
    if ((rc = avio_open(&s.format->pb, s.path.c_str(), AVIO_FLAG_WRITE)) < 0 ||
        (rc = avformat_write_header(s.format, nullptr)) < 0) {
        reason = ffmpegError(rc);
        return false;
    }
    s.picture = av_frame_alloc();
    s.picture->format = AV_PIX_FMT_YUV420P;
    s.picture->width = input.width;
    s.picture->height = input.height;
    av_frame_get_buffer(s.picture, 0);
    s.packet = av_packet_alloc();
    return true;
}

// Sends one frame (or the end, for nullptr) to the encoder and muxes what comes out.
bool encode(WriterState &s, const Frame *frame, std::string &reason)
{
    if (frame) {
        s.scaler = sws_getCachedContext(s.scaler, frame->width, frame->height, AV_PIX_FMT_BGRA, s.encoder->width,
                                        s.encoder->height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
        av_frame_make_writable(s.picture);
        const uint8_t *source[] = {frame->bgra.data()};
        const int stride[] = {frame->stride};
        sws_scale(s.scaler, source, stride, 0, frame->height, s.picture->data, s.picture->linesize);
        s.picture->pts = frame->pts;
    }
    int rc = avcodec_send_frame(s.encoder, frame ? s.picture : nullptr);
    while (rc >= 0) {
        rc = avcodec_receive_packet(s.encoder, s.packet);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
            return true;
        if (rc < 0)
            break;
        // Without B-frames packets leave in the order frames came in, each lasting its sample.
        if (frame && frame->duration > 0)
            s.packet->duration = frame->duration;
        av_packet_rescale_ts(s.packet, kTimeBase, s.stream->time_base);
        s.packet->stream_index = s.stream->index;
        rc = av_interleaved_write_frame(s.format, s.packet);
        ++s.framesWritten;
    }
    reason = ffmpegError(rc);
    return false;
}

void completeFinish(WriterState &s)
{
    void (^handler)(void) = std::exchange(s.finishHandler, nullptr);
    id writer = std::exchange(s.self, nil);
    // The handler and the writer travel to a background queue; the worker keeps no reference.
    dispatch_async(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
        if (handler) {
            handler();
            Block_release(handler);
        }
        objc_release(writer);
    });
}

void workerLoop(WriterState *s)
{
    for (;;) {
        // Errors made here are autoreleased objects; this thread has no pool of its own.
        void *pool = objc_autoreleasePoolPush();
        struct PoolGuard {
            void *pool;
            ~PoolGuard() { objc_autoreleasePoolPop(pool); }
        } guardPool{pool};
        Frame frame;
        {
            std::unique_lock guard(s->lock);
            s->wake.wait(guard, [&] { return s->stopping || !s->queue.empty() || s->finishing; });
            if (s->stopping)
                return;
            if (s->queue.empty()) {
                // Finishing with everything encoded: flush, close, report.
                std::string reason;
                bool ok = s->status == kWriting && encode(*s, nullptr, reason);
                if (s->status == kWriting && !ok)
                    fail(*s, reason);
                else if (s->status == kWriting && s->framesWritten == 0)
                    // A movie with no samples is no movie: the platform fails such a finish too.
                    fail(*s, "No media data was appended.");
                s->closeFile(s->status == kWriting);
                if (s->status == kWriting)
                    s->status = kCompleted;
                s->finishing = false;
                completeFinish(*s);
                // Nothing waits for this thread once the movie is done: it ends on its own instead
                // of keeping its stack, unjoined, for as long as the app keeps the writer.
                s->worker.detach();
                return;
            }
            frame = std::move(s->queue.front());
        }
        std::string reason;
        bool ok = encode(*s, &frame, reason);
        std::lock_guard guard(s->lock);
        s->queue.pop_front();
        if (!ok && s->status == kWriting) {
            fail(*s, reason);
            s->queue.clear();
        }
    }
}

bool writerStartWriting(id self, SEL)
{
    // Apple's writer keeps its encoder to itself; libx264's statistics would fill the app's log.
    static std::once_flag quiet;
    std::call_once(quiet, [] { av_log_set_level(AV_LOG_ERROR); });
    WriterState &s = gWriterSlot.get(self);
    std::lock_guard guard(s.lock);
    if (s.status != kUnknown)
        raiseStatus("startWriting", s.status);
    if (s.inputs.empty()) {
        fail(s, "The writer has no inputs.");
        return false;
    }
    std::string reason;
    if (!openEncoder(s, gInputSlot.get(s.inputs.front().get()), reason)) {
        s.closeFile(false);
        ::unlink(s.path.c_str());
        fail(s, reason);
        return false;
    }
    s.status = kWriting;
    s.worker = std::thread(workerLoop, &s);
    return true;
}

void writerStartSession(id self, SEL, CMTime time)
{
    WriterState &s = gWriterSlot.get(self);
    std::lock_guard guard(s.lock);
    if (s.status != kWriting)
        raiseStatus("startSessionAtSourceTime:", s.status);
    if (s.sessionStarted)
        fakeobjc::raise("NSInternalInconsistencyException",
                        "*** -[AVAssetWriter startSessionAtSourceTime:] Cannot call method when a session has "
                        "already been started");
    s.sessionStarted = true;
    s.sessionStart = time;
}

void writerEndSession(id self, SEL, CMTime time)
{
    WriterState &s = gWriterSlot.get(self);
    std::lock_guard guard(s.lock);
    if (s.status != kWriting || !s.sessionStarted)
        raiseStatus("endSessionAtSourceTime:", s.status);
    s.sessionEnd = time;
}

void writerFinish(id self, SEL, void (^handler)(void))
{
    WriterState &s = gWriterSlot.get(self);
    std::lock_guard guard(s.lock);
    if (s.status == kUnknown || s.finishing || s.finishHandler)
        raiseStatus("finishWritingWithCompletionHandler:", s.status);
    if (handler)
        s.finishHandler = Block_copy(handler);
    s.self = objc_retain(self);
    if (s.status != kWriting) {
        // Already failed or cancelled: nothing to write, the handler still runs.
        completeFinish(s);
        return;
    }
    for (const Ref &input : s.inputs)
        gInputSlot.get(input.get()).finished = true;
    s.finishing = true;
    s.wake.notify_all();
}

void writerCancel(id self, SEL)
{
    WriterState &s = gWriterSlot.get(self);
    {
        std::lock_guard guard(s.lock);
        if (s.status != kWriting && s.status != kUnknown)
            return;
        s.status = kCancelled;
        s.stopping = true;
    }
    s.wake.notify_all();
    if (s.worker.joinable())
        s.worker.join();
    // Cancelling removes whatever was written.
    s.closeFile(false);
    ::unlink(s.path.c_str());
}

void writerDealloc(id self, SEL)
{
    for (const Ref &input : gWriterSlot.get(self).inputs)
        gInputSlot.get(input.get()).writer = nil;
    fakeobjc::destroyStateThenSuper(gWriterSlot, "AVAssetWriter", self);
}

__attribute__((constructor)) void declareAssetWriter()
{
    gInputClass = fakeobjc::ClassDef("AVAssetWriterInput", "NSObject")
                      .classMethod("assetWriterInputWithMediaType:outputSettings:", inputWithMediaType)
                      .method("initWithMediaType:outputSettings:", inputInit)
                      .method("mediaType", inputMediaType)
                      .method("outputSettings", inputOutputSettings)
                      .method("expectsMediaDataInRealTime", inputExpectsRealTime)
                      .method("setExpectsMediaDataInRealTime:", inputSetExpectsRealTime)
                      .method("isReadyForMoreMediaData", inputIsReady)
                      .method("appendSampleBuffer:", inputAppend)
                      .method("markAsFinished", inputMarkAsFinished)
                      .method("dealloc", inputDealloc)
                      .stateIvar()
                      .registerWith(gInputSlot);
    gWriterClass = fakeobjc::ClassDef("AVAssetWriter", "NSObject")
                       .classMethod("assetWriterWithURL:fileType:error:", writerWithURL)
                       .method("initWithURL:fileType:error:", writerInit)
                       .method("status", writerStatus)
                       .method("error", writerError)
                       .method("outputURL", writerURL)
                       .method("outputFileType", writerFileType)
                       .method("inputs", writerInputs)
                       .method("canAddInput:", writerCanAddInput)
                       .method("addInput:", writerAddInput)
                       .method("startWriting", writerStartWriting)
                       .method("startSessionAtSourceTime:", writerStartSession)
                       .method("endSessionAtSourceTime:", writerEndSession)
                       .method("finishWritingWithCompletionHandler:", writerFinish)
                       .method("cancelWriting", writerCancel)
                       .method("dealloc", writerDealloc)
                       .stateIvar()
                       .registerWith(gWriterSlot);
}

} // namespace
} // namespace avf
