#include "picker/PickerScreen.h"

#include "inject/Diagnostics.h"
#include "transport/FetchJPEG.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

using namespace zerlan::objc;

namespace {

constexpr const char *kStateIvar = "_zerlanState";
constexpr long kCaptureModeVideo = 1;
constexpr unsigned long kTouchUpInside = 1 << 6;
constexpr unsigned long kValueChanged = 1 << 12;
constexpr long kStateNormal = 0;

Class screenClass();

ZerlanPickerScreenState &state(id self)
{
    return ZerlanPickerScreen(self);
}

// ---- properties: plain accessors over the state

template <Strong<> ZerlanPickerScreenState::*Field>
id getObject(id self, SEL)
{
    return (state(self).*Field).get();
}

template <Strong<> ZerlanPickerScreenState::*Field>
void setObject(id self, SEL, id value)
{
    state(self).*Field = Strong<>::retain(value);
}

template <bool ZerlanPickerScreenState::*Field>
BOOL getFlag(id self, SEL)
{
    return state(self).*Field;
}

template <bool ZerlanPickerScreenState::*Field>
void setFlag(id self, SEL, BOOL value)
{
    state(self).*Field = value;
}

CMTime recordingStartTime(id self, SEL)
{
    return state(self).recordingStartTime;
}

void setRecordingStartTime(id self, SEL, CMTime time)
{
    state(self).recordingStartTime = time;
}

// ---- views

id color(const char *name)
{
    return send<id>(cls("UIColor"), sel_registerName(name));
}

id systemFont(CGFloat size, CGFloat weight)
{
    return send<id>(cls("UIFont"), sel<"systemFontOfSize:weight:">(), size, weight);
}

// A new view of the class, laid out by constraints and added to parent (+0: the parent keeps it).
id addView(id parent, Strong<> view)
{
    send<void>(view.get(), sel<"setTranslatesAutoresizingMaskIntoConstraints:">(), NO);
    send<void>(parent, sel<"addSubview:">(), view.get());
    return view.get();
}

id newView(const char *className)
{
    return send<id>(cls(className), sel<"new">());
}

id makeButton(long type)
{
    return objc_retain(send<id>(cls("UIButton"), sel<"buttonWithType:">(), type));
}

void setText(id label, const char *text)
{
    send<void>(label, sel<"setText:">(), string(text));
}

template <FixedString Name>
id anchor(id view)
{
    return send<id>(view, sel<Name>());
}

id equal(id a, id b, CGFloat constant = 0)
{
    return send<id>(a, sel<"constraintEqualToAnchor:constant:">(), b, constant);
}

id atLeast(id a, id b, CGFloat constant)
{
    return send<id>(a, sel<"constraintGreaterThanOrEqualToAnchor:constant:">(), b, constant);
}

id atMost(id a, id b, CGFloat constant)
{
    return send<id>(a, sel<"constraintLessThanOrEqualToAnchor:constant:">(), b, constant);
}

id equalConstant(id dimension, CGFloat constant)
{
    return send<id>(dimension, sel<"constraintEqualToConstant:">(), constant);
}

void activate(const std::vector<id> &constraints)
{
    id list = send<id>(cls("NSArray"), sel<"arrayWithObjects:count:">(), constraints.data(),
                       static_cast<unsigned long>(constraints.size()));
    send<void>(cls("NSLayoutConstraint"), sel<"activateConstraints:">(), list);
}

bool isVideoMode(id self)
{
    return send<BOOL>(self, sel<"isVideoMode">());
}

void buildViews(id self)
{
    ZerlanPickerScreenState &s = state(self);
    id root = send<id>(self, sel<"view">());
    send<void>(root, sel<"setBackgroundColor:">(), color("blackColor"));
    id white = color("whiteColor");

    id preview = addView(root, Strong<>::adopt(newView("UIImageView")));
    send<void>(preview, sel<"setContentMode:">(), 2L); // aspect fill
    send<void>(preview, sel<"setClipsToBounds:">(), YES);
    s.previewView = Strong<>::retain(preview);

    id topBar = addView(root, Strong<>::adopt(newView("UIView")));
    send<void>(topBar, sel<"setBackgroundColor:">(),
               send<id>(cls("UIColor"), sel<"colorWithWhite:alpha:">(), CGFloat(0.0), CGFloat(0.48)));

    id cancel = addView(topBar, Strong<>::adopt(makeButton(1)));
    send<void>(cancel, sel<"setTitle:forState:">(), string("Cancel"), kStateNormal);
    send<void>(cancel, sel<"setTitleColor:forState:">(), white, kStateNormal);
    send<void>(send<id>(cancel, sel<"titleLabel">()), sel<"setFont:">(), systemFont(17, UIFontWeightSemibold));
    send<void>(cancel, sel<"addTarget:action:forControlEvents:">(), self, sel<"cancelTapped">(), kTouchUpInside);

    id title = addView(topBar, Strong<>::adopt(newView("UILabel")));
    setText(title, "Zerlan Camera");
    send<void>(title, sel<"setTextColor:">(), white);
    send<void>(title, sel<"setFont:">(), systemFont(17, UIFontWeightSemibold));

    id status = addView(root, Strong<>::adopt(newView("UILabel")));
    setText(status, "Connecting to Zerlan…");
    send<void>(status, sel<"setTextColor:">(), white);
    send<void>(status, sel<"setFont:">(), systemFont(14, UIFontWeightMedium));
    send<void>(status, sel<"setTextAlignment:">(), 1L); // centred
    send<void>(status, sel<"setNumberOfLines:">(), 2L);
    s.statusLabel = Strong<>::retain(status);

    id capture = addView(root, Strong<>::adopt(makeButton(0)));
    send<void>(capture, sel<"setBackgroundColor:">(), white);
    id layer = send<id>(capture, sel<"layer">());
    send<void>(layer, sel<"setCornerRadius:">(), CGFloat(36));
    id rim = send<id>(cls("UIColor"), sel<"colorWithWhite:alpha:">(), CGFloat(1.0), CGFloat(0.65));
    send<void>(layer, sel<"setBorderColor:">(), send<CGColorRef>(rim, sel<"CGColor">()));
    send<void>(layer, sel<"setBorderWidth:">(), CGFloat(5));
    send<void>(capture, sel<"addTarget:action:forControlEvents:">(), self, sel<"captureTapped">(), kTouchUpInside);
    send<void>(capture, sel<"setEnabled:">(), YES);
    s.captureButton = Strong<>::retain(capture);

    id safeBottom = anchor<"bottomAnchor">(anchor<"safeAreaLayoutGuide">(root));
    activate({
        equal(anchor<"topAnchor">(preview), anchor<"topAnchor">(root)),
        equal(anchor<"leadingAnchor">(preview), anchor<"leadingAnchor">(root)),
        equal(anchor<"trailingAnchor">(preview), anchor<"trailingAnchor">(root)),
        equal(anchor<"bottomAnchor">(preview), anchor<"bottomAnchor">(root)),
        equal(anchor<"topAnchor">(topBar), anchor<"topAnchor">(root)),
        equal(anchor<"leadingAnchor">(topBar), anchor<"leadingAnchor">(root)),
        equal(anchor<"trailingAnchor">(topBar), anchor<"trailingAnchor">(root)),
        equalConstant(anchor<"heightAnchor">(topBar), 96),
        equal(anchor<"leadingAnchor">(cancel), anchor<"leadingAnchor">(topBar), 20),
        equal(anchor<"bottomAnchor">(cancel), anchor<"bottomAnchor">(topBar), -14),
        equal(anchor<"centerXAnchor">(title), anchor<"centerXAnchor">(topBar)),
        equal(anchor<"centerYAnchor">(title), anchor<"centerYAnchor">(cancel)),
        equal(anchor<"centerXAnchor">(capture), anchor<"centerXAnchor">(root)),
        equal(anchor<"bottomAnchor">(capture), safeBottom, -30),
        equalConstant(anchor<"widthAnchor">(capture), 72),
        equalConstant(anchor<"heightAnchor">(capture), 72),
        equal(anchor<"centerXAnchor">(status), anchor<"centerXAnchor">(root)),
        atLeast(anchor<"leadingAnchor">(status), anchor<"leadingAnchor">(root), 24),
        atMost(anchor<"trailingAnchor">(status), anchor<"trailingAnchor">(root), -24),
        equal(anchor<"bottomAnchor">(status), anchor<"topAnchor">(capture), -18),
    });
}

// The photo/video switch exists only when the picker allows both; a movie-only picker is put in
// video mode. An image-only picker keeps whatever mode the app set, even video.
void chooseCaptureMode(id self)
{
    ZerlanPickerScreenState &s = state(self);
    id picker = s.picker.get();
    bool photos = ZerlanPickerSupportsMediaType(picker, string("public.image"));
    bool movies = ZerlanPickerSupportsMediaType(picker, string("public.movie"));
    if (photos && movies) {
        id root = send<id>(self, sel<"view">());
        id items[] = {string("Photo"), string("Video")};
        id list = send<id>(cls("NSArray"), sel<"arrayWithObjects:count:">(), items, 2UL);
        Strong<> control = allocInit<"initWithItems:">("UISegmentedControl", list);
        id mode = addView(root, control);
        long selected = send<long>(picker, sel<"cameraCaptureMode">()) == kCaptureModeVideo ? 1 : 0;
        send<void>(mode, sel<"setSelectedSegmentIndex:">(), selected);
        send<void>(mode, sel<"setSelectedSegmentTintColor:">(), color("whiteColor"));
        send<void>(mode, sel<"addTarget:action:forControlEvents:">(), self, sel<"modeChanged">(), kValueChanged);
        s.modeControl = Strong<>::retain(mode);
        activate({
            equal(anchor<"centerXAnchor">(mode), anchor<"centerXAnchor">(root)),
            equal(anchor<"bottomAnchor">(mode), anchor<"topAnchor">(s.statusLabel.get()), -14),
            equalConstant(anchor<"widthAnchor">(mode), 180),
        });
    } else if (movies) {
        send<void>(picker, sel<"setCameraCaptureMode:">(), kCaptureModeVideo);
    }
}

// ---- overrides

void viewDidLoad(id self, SEL cmd)
{
    sendSuper<void>(screenClass(), self, cmd);
    buildViews(self);
    chooseCaptureMode(self);
    send<void>(self, sel<"updateCaptureAppearance">());
}

void viewDidAppear(id self, SEL cmd, BOOL animated)
{
    sendSuper<void>(screenClass(), self, cmd, animated);
    id timer = send<id>(cls("NSTimer"), sel<"scheduledTimerWithTimeInterval:target:selector:userInfo:repeats:">(),
                        0.1, self, sel<"requestFrame">(), static_cast<id>(nil), YES);
    state(self).frameTimer = Strong<>::retain(timer);
    // The first frame should not wait for the first tick.
    send<void>(self, sel<"requestFrame">());
}

void viewDidDisappear(id self, SEL cmd, BOOL animated)
{
    sendSuper<void>(screenClass(), self, cmd, animated);
    ZerlanPickerScreenState &s = state(self);
    send<void>(s.frameTimer.get(), sel<"invalidate">());
    s.frameTimer = nullptr;
    if (s.recording)
        send<void>(self, sel<"stopRecordingAndDeliver:">(), NO);
}

void dealloc(id self, SEL cmd)
{
    if (auto **slot = ivarPointer<ZerlanPickerScreenState *>(self, kStateIvar))
        delete std::exchange(*slot, nullptr);
    sendSuper<void>(screenClass(), self, cmd);
}

// ---- the screen's own methods

BOOL isVideoModeMethod(id self, SEL)
{
    return send<long>(state(self).picker.get(), sel<"cameraCaptureMode">()) == kCaptureModeVideo;
}

void modeChanged(id self, SEL)
{
    ZerlanPickerScreenState &s = state(self);
    long index = send<long>(s.modeControl.get(), sel<"selectedSegmentIndex">());
    send<void>(s.picker.get(), sel<"setCameraCaptureMode:">(), index == 1 ? kCaptureModeVideo : 0L);
    send<void>(self, sel<"updateCaptureAppearance">());
}

void updateCaptureAppearance(id self, SEL)
{
    ZerlanPickerScreenState &s = state(self);
    bool video = isVideoMode(self);
    id button = s.captureButton.get();
    send<void>(button, sel<"setBackgroundColor:">(), color(video ? "systemRedColor" : "whiteColor"));
    send<void>(send<id>(button, sel<"layer">()), sel<"setCornerRadius:">(), CGFloat(s.recording ? 12 : 36));
    if (s.latestImage && !s.recording)
        ZerlanPickerSetStatus(self, video ? "Tap to record" : "Tap to capture");
}

bool automatedCaptureRequested()
{
    // Read on every frame until it fires, never cached: a harness may set it after launch.
    const char *value = std::getenv("ZERLAN_HARNESS_AUTO_PICKER");
    return value && std::strcmp(value, "photo-capture") == 0;
}

void handleFrame(id self, id image)
{
    ZerlanPickerScreenState &s = state(self);
    s.fetchInFlight = false;
    // A fetch that was out when a photo was taken or a movie began to finish: the screen shows
    // the delivery now, and a frame must not enable its button or replace its text.
    if (s.finishing)
        return;
    if (!image) {
        // The previous frame stays on screen; a recording simply misses this one.
        ZerlanPickerSetStatus(self, "Waiting for Zerlan camera feed…");
        send<void>(s.captureButton.get(), sel<"setEnabled:">(), NO);
        return;
    }
    s.latestImage = Strong<>::retain(image);
    send<void>(s.previewView.get(), sel<"setImage:">(), image);
    send<void>(s.captureButton.get(), sel<"setEnabled:">(), YES);
    if (!s.automatedCaptureTriggered && automatedCaptureRequested()) {
        s.automatedCaptureTriggered = true;
        Strong<> screen = Strong<>::retain(self);
        dispatch_async(dispatch_get_main_queue(), ^{
            send<void>(screen.get(), sel<"captureTapped">());
        });
        return;
    }
    if (s.recording)
        send<void>(self, sel<"appendVideoFrame:">(), image);
    else
        send<void>(self, sel<"updateCaptureAppearance">());
}

void requestFrame(id self, SEL)
{
    ZerlanPickerScreenState &s = state(self);
    if (s.fetchInFlight || s.finishing)
        return;
    s.fetchInFlight = true;
    // A screen dismissed while its fetch is out must not be kept alive by it.
    auto weakScreen = std::make_shared<Weak>(self);
    dispatch_async(dispatch_get_global_queue(QOS_CLASS_USER_INTERACTIVE, 0), ^{
        AutoreleasePool pool;
        Strong<> jpeg;
        Strong<> image;
        // Nothing may escape into the app's process: a fetch or decode that raises (or runs out
        // of memory) is a frame that did not come, and the result still goes back to the main
        // queue, which clears fetchInFlight so that polling goes on.
        try {
            jpeg = ZerlanFetchJPEG();
            if (jpeg)
                image = Strong<>::retain(send<id>(cls("UIImage"), sel<"imageWithData:">(), jpeg.get()));
        } catch (...) {
            image = nullptr;
        }
        if (!image)
            ZerlanLog(CFSTR("[ZerlanInject] image picker frame unavailable (%lu bytes)"),
                      jpeg ? send<unsigned long>(jpeg.get(), sel<"length">()) : 0UL);
        dispatch_async(dispatch_get_main_queue(), ^{
            AutoreleasePool mainPool;
            if (Strong<> screen = weakScreen->load()) {
                try {
                    handleFrame(screen.get(), image.get());
                } catch (...) {
                    // The same on the main queue: fetchInFlight is already clear, polling goes on.
                }
            }
        });
    });
}

void captureTapped(id self, SEL)
{
    ZerlanPickerScreenState &s = state(self);
    if (s.finishing || !s.latestImage)
        return;
    if (isVideoMode(self)) {
        if (s.recording)
            send<void>(self, sel<"stopRecordingAndDeliver:">(), YES);
        else
            send<void>(self, sel<"startRecording">());
        return;
    }
    s.finishing = true;
    id keys[] = {UIImagePickerControllerMediaType, UIImagePickerControllerOriginalImage};
    id values[] = {string("public.image"), s.latestImage.get()};
    id info = send<id>(cls("NSDictionary"), sel<"dictionaryWithObjects:forKeys:count:">(), values, keys, 2UL);
    ZerlanSendPickerResult(s.picker.get(), info);
}

void cancelTapped(id self, SEL)
{
    ZerlanPickerScreenState &s = state(self);
    if (s.finishing)
        return;
    s.finishing = true;
    // Discarding clears `finishing` again, so a screen the delegate keeps after a cancel during
    // a recording goes back to polling.
    if (s.recording)
        send<void>(self, sel<"stopRecordingAndDeliver:">(), NO);
    ZerlanCancelPicker(s.picker.get());
}

Class screenClass()
{
    return ZerlanVirtualImagePickerClass();
}

using Screen = ZerlanPickerScreenState;

} // namespace

Class ZerlanVirtualImagePickerClass()
{
    static dispatch_once_t once;
    static Class screen;
    dispatch_once(&once, ^{
        ClassBuilder builder("ZerlanVirtualImagePickerViewController", "UIViewController");
        builder.ivar(kStateIvar, sizeof(void *), 3, "^v")
            .override(sel<"viewDidLoad">(), imp(viewDidLoad))
            .override(sel<"viewDidAppear:">(), imp(viewDidAppear))
            .override(sel<"viewDidDisappear:">(), imp(viewDidDisappear))
            .override(sel<"dealloc">(), imp(dealloc))
            .method(sel<"isVideoMode">(), imp(isVideoModeMethod), "B@:")
            .method(sel<"modeChanged">(), imp(modeChanged), "v@:")
            .method(sel<"updateCaptureAppearance">(), imp(updateCaptureAppearance), "v@:")
            .method(sel<"requestFrame">(), imp(requestFrame), "v@:")
            .method(sel<"captureTapped">(), imp(captureTapped), "v@:")
            .method(sel<"cancelTapped">(), imp(cancelTapped), "v@:")
            .method(sel<"startRecording">(), imp(ZerlanPickerStartRecording), "v@:")
            .method(sel<"appendVideoFrame:">(), imp(ZerlanPickerAppendVideoFrame), "v@:@")
            .method(sel<"stopRecordingAndDeliver:">(), imp(ZerlanPickerStopRecordingAndDeliver), "v@:B")
            // Properties, in declaration order.
            .method(sel<"picker">(), imp(getObject<&Screen::picker>), "@@:")
            .method(sel<"setPicker:">(), imp(setObject<&Screen::picker>), "v@:@")
            .method(sel<"previewView">(), imp(getObject<&Screen::previewView>), "@@:")
            .method(sel<"setPreviewView:">(), imp(setObject<&Screen::previewView>), "v@:@")
            .method(sel<"statusLabel">(), imp(getObject<&Screen::statusLabel>), "@@:")
            .method(sel<"setStatusLabel:">(), imp(setObject<&Screen::statusLabel>), "v@:@")
            .method(sel<"captureButton">(), imp(getObject<&Screen::captureButton>), "@@:")
            .method(sel<"setCaptureButton:">(), imp(setObject<&Screen::captureButton>), "v@:@")
            .method(sel<"modeControl">(), imp(getObject<&Screen::modeControl>), "@@:")
            .method(sel<"setModeControl:">(), imp(setObject<&Screen::modeControl>), "v@:@")
            .method(sel<"frameTimer">(), imp(getObject<&Screen::frameTimer>), "@@:")
            .method(sel<"setFrameTimer:">(), imp(setObject<&Screen::frameTimer>), "v@:@")
            .method(sel<"latestImage">(), imp(getObject<&Screen::latestImage>), "@@:")
            .method(sel<"setLatestImage:">(), imp(setObject<&Screen::latestImage>), "v@:@")
            .method(sel<"fetchInFlight">(), imp(getFlag<&Screen::fetchInFlight>), "B@:")
            .method(sel<"setFetchInFlight:">(), imp(setFlag<&Screen::fetchInFlight>), "v@:B")
            .method(sel<"recording">(), imp(getFlag<&Screen::recording>), "B@:")
            .method(sel<"setRecording:">(), imp(setFlag<&Screen::recording>), "v@:B")
            .method(sel<"finishing">(), imp(getFlag<&Screen::finishing>), "B@:")
            .method(sel<"setFinishing:">(), imp(setFlag<&Screen::finishing>), "v@:B")
            .method(sel<"automatedCaptureTriggered">(), imp(getFlag<&Screen::automatedCaptureTriggered>), "B@:")
            .method(sel<"setAutomatedCaptureTriggered:">(), imp(setFlag<&Screen::automatedCaptureTriggered>), "v@:B")
            .method(sel<"writer">(), imp(getObject<&Screen::writer>), "@@:")
            .method(sel<"setWriter:">(), imp(setObject<&Screen::writer>), "v@:@")
            .method(sel<"writerInput">(), imp(getObject<&Screen::writerInput>), "@@:")
            .method(sel<"setWriterInput:">(), imp(setObject<&Screen::writerInput>), "v@:@")
            .method(sel<"recordingURL">(), imp(getObject<&Screen::recordingURL>), "@@:")
            .method(sel<"setRecordingURL:">(), imp(setObject<&Screen::recordingURL>), "v@:@")
            .method(sel<"recordingStartTime">(), imp(recordingStartTime), "{?=qiIq}@:")
            .method(sel<"setRecordingStartTime:">(), imp(setRecordingStartTime), "v@:{?=qiIq}");
        screen = builder.registerClass();
    });
    return screen;
}

ZerlanPickerScreenState &ZerlanPickerScreen(id screen)
{
    // Made on first use: the class has no initialiser of its own (it is created with plain new).
    auto **slot = ivarPointer<ZerlanPickerScreenState *>(screen, kStateIvar);
    if (!*slot)
        *slot = new ZerlanPickerScreenState();
    return **slot;
}

void ZerlanPickerSetStatus(id screen, const char *text)
{
    send<void>(ZerlanPickerScreen(screen).statusLabel.get(), sel<"setText:">(), string(text));
}

BOOL ZerlanPickerSupportsMediaType(id picker, id mediaType)
{
    id types = send<id>(picker, sel<"mediaTypes">());
    if (count(types) == 0)
        return YES;
    return send<BOOL>(types, sel<"containsObject:">(), mediaType);
}

void ZerlanSendPickerResult(id picker, id info)
{
    id delegate = send<id>(picker, sel<"delegate">());
    SEL callback = sel<"imagePickerController:didFinishPickingMediaWithInfo:">();
    if (send<BOOL>(delegate, sel<"respondsToSelector:">(), callback))
        send<void>(delegate, callback, picker, info);
}

void ZerlanCancelPicker(id picker)
{
    id delegate = send<id>(picker, sel<"delegate">());
    SEL callback = sel<"imagePickerControllerDidCancel:">();
    if (send<BOOL>(delegate, sel<"respondsToSelector:">(), callback))
        send<void>(delegate, callback, picker);
}
