// Video recording on the camera screen: the frames the screen polls, appended in real time to an
// H.264 MP4 through the platform's asset writer, handed to the picker's delegate as a movie.
#include "frames/SampleBuffer.h"
#include "picker/PickerScreen.h"

#include <memory>
#include <string>

using namespace zerlan::objc;

namespace {

constexpr long kAssetWriterStatusCompleted = 2;
constexpr long kVideoOrientationLandscapeRight = 3; // 640 x 480 buffers

// A new file in the temporary directory for every recording, so nothing earlier is overwritten.
Strong<> newRecordingURL()
{
    id uuid = send<id>(send<id>(cls("NSUUID"), sel<"UUID">()), sel<"UUIDString">());
    std::string name = std::string("zerlan-picker-") + utf8(uuid) + ".mp4";
    id path = send<id>(NSTemporaryDirectory(), sel<"stringByAppendingPathComponent:">(), string(name.c_str()));
    return Strong<>::retain(send<id>(cls("NSURL"), sel<"fileURLWithPath:">(), path));
}

id dictionary(std::initializer_list<id> keys, std::initializer_list<id> values)
{
    return send<id>(cls("NSDictionary"), sel<"dictionaryWithObjects:forKeys:count:">(), std::data(values),
                    std::data(keys), static_cast<unsigned long>(keys.size()));
}

id videoSettings()
{
    id compression = dictionary({AVVideoAverageBitRateKey}, {number(2000000)});
    return dictionary({AVVideoCodecKey, AVVideoWidthKey, AVVideoHeightKey, AVVideoCompressionPropertiesKey},
                      {AVVideoCodecTypeH264, number(640), number(480), compression});
}

// The writer's own description of what went wrong, or the fallback.
void showWriterError(id screen, id writer, const char *fallback)
{
    id description = send<id>(send<id>(writer, sel<"error">()), sel<"localizedDescription">());
    if (description)
        send<void>(ZerlanPickerScreen(screen).statusLabel.get(), sel<"setText:">(), description);
    else
        ZerlanPickerSetStatus(screen, fallback);
}

// The second half of finishing, on the main queue once the writer is done.
void finished(id self, id writer, id url, bool deliver)
{
    ZerlanPickerScreenState &s = ZerlanPickerScreen(self);
    // Unconditional, even if a newer recording has started meanwhile on this screen.
    s.writer = nullptr;
    s.writerInput = nullptr;
    s.recordingURL = nullptr;
    send<void>(s.modeControl.get(), sel<"setEnabled:">(), YES);
    if (!deliver) {
        id manager = send<id>(cls("NSFileManager"), sel<"defaultManager">());
        send<BOOL>(manager, sel<"removeItemAtURL:error:">(), url, static_cast<id *>(nullptr));
        return;
    }
    if (send<long>(writer, sel<"status">()) == kAssetWriterStatusCompleted) {
        // The file is the app's from here on; the library never removes it.
        ZerlanSendPickerResult(s.picker.get(), dictionary({UIImagePickerControllerMediaType, UIImagePickerControllerMediaURL},
                                                          {string("public.movie"), url}));
        return;
    }
    s.finishing = false;
    send<void>(s.captureButton.get(), sel<"setEnabled:">(), YES);
    // The look first, the words last: the appearance would put the ready text over the error at
    // once, and the error is to stay until the next frame.
    send<void>(self, sel<"updateCaptureAppearance">());
    showWriterError(self, writer, "Video recording failed.");
}

} // namespace

void ZerlanPickerStartRecording(id self, SEL)
{
    ZerlanPickerScreenState &s = ZerlanPickerScreen(self);
    Strong<> url = newRecordingURL();
    id error = nil;
    Strong<> writer =
        allocInit<"initWithURL:fileType:error:">("AVAssetWriter", url.get(), AVFileTypeMPEG4, &error);
    id input = send<id>(cls("AVAssetWriterInput"), sel<"assetWriterInputWithMediaType:outputSettings:">(),
                        AVMediaTypeVideo, videoSettings());
    send<void>(input, sel<"setExpectsMediaDataInRealTime:">(), YES);
    if (error || !send<BOOL>(writer.get(), sel<"canAddInput:">(), input)) {
        ZerlanPickerSetStatus(self, "Unable to start video recording.");
        return;
    }
    send<void>(writer.get(), sel<"addInput:">(), input);
    if (!send<BOOL>(writer.get(), sel<"startWriting">())) {
        showWriterError(self, writer.get(), "Unable to start video recording.");
        return;
    }
    s.writer = writer;
    s.writerInput = Strong<>::retain(input);
    s.recordingURL = url;
    s.recordingStartTime = kCMTimeInvalid;
    s.recording = true;
    send<void>(s.modeControl.get(), sel<"setEnabled:">(), NO);
    ZerlanPickerSetStatus(self, "Recording… Tap to stop");
    send<void>(self, sel<"updateCaptureAppearance">());
}

void ZerlanPickerAppendVideoFrame(id self, SEL, id image)
{
    ZerlanPickerScreenState &s = ZerlanPickerScreen(self);
    // A busy writer loses the frame rather than queueing it: the recording stays real-time.
    if (!s.recording || !send<BOOL>(s.writerInput.get(), sel<"isReadyForMoreMediaData">()))
        return;
    CMSampleBufferRef buffer = ZerlanCreateSampleBuffer(image, kVideoOrientationLandscapeRight);
    if (!buffer)
        return;
    CMTime time = CMSampleBufferGetPresentationTimeStamp(buffer);
    // The movie starts at its first frame, however long the recording waited for one.
    if (!(s.recordingStartTime.flags & kCMTimeFlags_Valid)) {
        s.recordingStartTime = time;
        send<void>(s.writer.get(), sel<"startSessionAtSourceTime:">(), time);
    }
    send<BOOL>(s.writerInput.get(), sel<"appendSampleBuffer:">(), buffer);
    CFRelease(buffer);

    // Checked after the append, so the frame that reaches the limit is in the movie.
    double limit = send<double>(s.picker.get(), sel<"videoMaximumDuration">());
    if (limit > 0 && CMTimeGetSeconds(CMTimeSubtract(time, s.recordingStartTime)) >= limit)
        send<void>(self, sel<"stopRecordingAndDeliver:">(), YES);
}

void ZerlanPickerStopRecordingAndDeliver(id self, SEL, BOOL deliver)
{
    ZerlanPickerScreenState &s = ZerlanPickerScreen(self);
    if (!s.recording)
        return;
    s.recording = false;
    // Only a delivery blocks the screen; a discarded recording's screen may poll again at once.
    s.finishing = deliver;
    send<void>(s.captureButton.get(), sel<"setEnabled:">(), NO);
    ZerlanPickerSetStatus(self, deliver ? "Finishing video…" : "Cancelling…");
    send<void>(s.writerInput.get(), sel<"markAsFinished">());

    Strong<> writer = s.writer;
    Strong<> url = s.recordingURL;
    auto weakScreen = std::make_shared<Weak>(self);
    bool deliverResult = deliver;
    send<void>(writer.get(), sel<"finishWritingWithCompletionHandler:">(), ^{
        dispatch_async(dispatch_get_main_queue(), ^{
            AutoreleasePool pool;
            // A screen that is gone gets nothing done for it: the file stays where it is.
            if (Strong<> screen = weakScreen->load())
                finished(screen.get(), writer.get(), url.get(), deliverResult);
        });
    });
}
