// The camera screen against a real frame server: how it is built, what it says while there is no
// feed, a feed and a lost feed, and what reaches the picker's delegate from taps and from the
// automated capture.
#include "PickerTestSupport.h"

#include <objc/objc-exception.h>

#include <algorithm>
#include <map>
#include <new>
#include <set>

using namespace picker_test;

namespace {

class PickerScreen : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (ZerlanFetchJPEG())
            GTEST_SKIP() << "something else answers on 127.0.0.1:47654";
    }

    // Presents a camera picker allowing the media types and returns the screen shown for it.
    id show(std::initializer_list<const char *> mediaTypes = {"public.image"}, long mode = 0)
    {
        picker_ = app_.cameraPicker(delegate_.object.get(), mediaTypes);
        send<void>(picker_.get(), sel<"setCameraCaptureMode:">(), mode);
        return app_.present(picker_.get());
    }

    void serve(const char *label = "frame")
    {
        server_ = std::make_unique<FrameServer>(codeFrame(label, kBlue).jpeg());
        ASSERT_TRUE(server_->waitUntilServing());
    }

    bool waitForStatus(id screen, const std::string &status, double seconds = 10)
    {
        return runMainUntil(seconds, [&] { return statusOf(screen) == status; });
    }

    Delegate delegate_;
    PickerApp app_;
    Strong<> picker_;
    std::unique_ptr<FrameServer> server_;
};

// Every active constraint under the root view, described by the names of its items.
std::set<std::string> constraintsUnder(id root, const std::map<id, std::string> &names)
{
    static const char *attributes[] = {"", "left", "right", "top", "bottom", "leading", "trailing",
                                       "width", "height", "centerX", "centerY"};
    static const char *relations[] = {"<=", "==", ">="};
    std::set<std::string> out;
    std::vector<id> views{root};
    for (size_t i = 0; i < views.size(); ++i) {
        id subviews = send<id>(views[i], sel<"subviews">());
        for (unsigned long j = 0; j < count(subviews); ++j)
            views.push_back(objectAtIndex(subviews, j));
        id constraints = send<id>(views[i], sel<"constraints">());
        for (unsigned long j = 0; j < count(constraints); ++j) {
            id c = objectAtIndex(constraints, j);
            auto name = [&](id item) { return item ? (names.count(item) ? names.at(item) : "?") : "-"; };
            long second = send<long>(c, sel<"secondAttribute">());
            out.insert(name(send<id>(c, sel<"firstItem">())) + "." + attributes[send<long>(c, sel<"firstAttribute">())] +
                       " " + relations[send<long>(c, sel<"relation">()) + 1] + " " +
                       name(send<id>(c, sel<"secondItem">())) + (second ? std::string(".") + attributes[second] : "") +
                       " " + std::to_string(int(send<double>(c, sel<"constant">()))));
        }
    }
    return out;
}

TEST_F(PickerScreen, IsBuiltAsACameraWithAModeSwitchOnlyWhenBothMediaTypesAreAllowed)
{
    id screen = show({"public.image", "public.movie"}, 1);
    ASSERT_NE(nil, screen);
    id root = send<id>(screen, sel<"view">());
    id subviews = send<id>(root, sel<"subviews">());
    ASSERT_EQ(5u, count(subviews)) << "preview, top bar, status, capture button, mode switch";
    id topBar = objectAtIndex(subviews, 1);
    id barViews = send<id>(topBar, sel<"subviews">());
    ASSERT_EQ(2u, count(barViews));
    id preview = send<id>(screen, sel<"previewView">()), status = send<id>(screen, sel<"statusLabel">());
    id capture = send<id>(screen, sel<"captureButton">()), mode = send<id>(screen, sel<"modeControl">());
    EXPECT_EQ(preview, objectAtIndex(subviews, 0));
    EXPECT_EQ(mode, objectAtIndex(subviews, 4));
    std::map<id, std::string> names{{root, "root"},
                                    {preview, "preview"},
                                    {topBar, "bar"},
                                    {objectAtIndex(barViews, 0), "cancel"},
                                    {objectAtIndex(barViews, 1), "title"},
                                    {status, "status"},
                                    {capture, "capture"},
                                    {mode, "mode"},
                                    {send<id>(root, sel<"safeAreaLayoutGuide">()), "safe"}};
    std::set<std::string> expected{
        "preview.top == root.top 0",          "preview.leading == root.leading 0",
        "preview.trailing == root.trailing 0", "preview.bottom == root.bottom 0",
        "bar.top == root.top 0",              "bar.leading == root.leading 0",
        "bar.trailing == root.trailing 0",    "bar.height == - 96",
        "cancel.leading == bar.leading 20",   "cancel.bottom == bar.bottom -14",
        "title.centerX == bar.centerX 0",     "title.centerY == cancel.centerY 0",
        "capture.centerX == root.centerX 0",  "capture.bottom == safe.bottom -30",
        "capture.width == - 72",              "capture.height == - 72",
        "status.centerX == root.centerX 0",   "status.leading >= root.leading 24",
        "status.trailing <= root.trailing -24", "status.bottom == capture.top -18",
        "mode.centerX == root.centerX 0",     "mode.bottom == status.top -14",
        "mode.width == - 180"};
    EXPECT_EQ(expected, constraintsUnder(root, names));

    EXPECT_EQ("Connecting to Zerlan…", statusOf(screen));
    EXPECT_EQ(2, send<long>(status, sel<"numberOfLines">()));
    EXPECT_EQ("Cancel", text(send<id>(objectAtIndex(barViews, 0), sel<"titleForState:">(), 0L)));
    EXPECT_EQ("Zerlan Camera", text(send<id>(objectAtIndex(barViews, 1), sel<"text">())));
    EXPECT_EQ(2, send<long>(preview, sel<"contentMode">()));
    EXPECT_EQ(1, send<long>(mode, sel<"selectedSegmentIndex">())) << "the picker was in video mode";
    id layer = send<id>(capture, sel<"layer">());
    EXPECT_EQ(36, send<double>(layer, sel<"cornerRadius">()));
    EXPECT_EQ(5, send<double>(layer, sel<"borderWidth">()));
    EXPECT_TRUE(send<BOOL>(send<id>(capture, sel<"backgroundColor">()), sel<"isEqual:">(),
                           send<id>(cls("UIColor"), sel<"systemRedColor">())));
    EXPECT_TRUE(captureEnabled(screen)) << "enabled before the first frame (taps are ignored then)";

    // Switching to photo tells the picker and turns the button white.
    ASSERT_TRUE(UISegmentedControlSelect_np(mode, 0));
    EXPECT_EQ(0, send<long>(picker_.get(), sel<"cameraCaptureMode">()));
    EXPECT_TRUE(send<BOOL>(send<id>(capture, sel<"backgroundColor">()), sel<"isEqual:">(),
                           send<id>(cls("UIColor"), sel<"whiteColor">())));
}

TEST_F(PickerScreen, APickerForOneMediaTypeHasNoModeSwitch)
{
    struct {
        std::initializer_list<const char *> types;
        long modeBefore, modeAfter;
    } const cases[] = {
        {{"public.movie"}, 0, 1}, // movies only: put in video mode
        {{"public.image"}, 1, 1}, // images only: the app's mode stands, even video
        {{"public.image"}, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "mode " << c.modeBefore << ", " << *c.types.begin());
        id screen = show(c.types, c.modeBefore);
        ASSERT_NE(nil, screen);
        EXPECT_EQ(nil, send<id>(screen, sel<"modeControl">()));
        EXPECT_EQ(4u, count(send<id>(send<id>(screen, sel<"view">()), sel<"subviews">())));
        EXPECT_EQ(c.modeAfter, send<long>(picker_.get(), sel<"cameraCaptureMode">()));
        EXPECT_EQ(c.modeAfter == 1, bool(send<BOOL>(screen, sel<"isVideoMode">())));
        ASSERT_TRUE(PickerApp::dismiss(picker_.get()));
    }
}

TEST_F(PickerScreen, FollowsTheFeedThroughNoServerAFrameAndALostServer)
{
    id screen = show();
    ASSERT_NE(nil, screen);
    ASSERT_TRUE(waitForStatus(screen, "Waiting for Zerlan camera feed…"));
    EXPECT_FALSE(captureEnabled(screen));
    send<void>(screen, sel<"captureTapped">());
    EXPECT_TRUE(delegate_->calls.empty()) << "no photo before the first frame";

    serve();
    ASSERT_TRUE(waitForStatus(screen, "Tap to capture"));
    EXPECT_TRUE(captureEnabled(screen));
    Strong<> shown = Strong<>::retain(send<id>(screen, sel<"latestImage">()));
    ASSERT_TRUE(shown);
    EXPECT_EQ(shown.get(), send<id>(send<id>(screen, sel<"previewView">()), sel<"image">()));
    EXPECT_EQ(640, send<CGSize>(shown.get(), sel<"size">()).width);

    server_->stop();
    ASSERT_TRUE(waitForStatus(screen, "Waiting for Zerlan camera feed…"));
    EXPECT_FALSE(captureEnabled(screen));
    EXPECT_EQ(shown.get(), send<id>(screen, sel<"latestImage">())) << "the last frame stays";
    EXPECT_EQ(shown.get(), send<id>(send<id>(screen, sel<"previewView">()), sel<"image">()));
}

TEST_F(PickerScreen, TwoQuickTapsDeliverOnePhotoOfTheFrameOnScreen)
{
    delegate_->dismissOnResult = false;
    serve();
    id screen = show();
    ASSERT_TRUE(waitForStatus(screen, "Tap to capture"));
    // A fetch is still out when the photo is taken, and ends only afterwards.
    ASSERT_TRUE(stopPolling(screen));
    server_.reset();
    HeldFetches port;
    send<void>(screen, sel<"requestFrame">());
    ASSERT_TRUE(runMainUntil(5, [&] { return port.count() > 0; }));
    id shown = send<id>(screen, sel<"latestImage">());
    id button = send<id>(screen, sel<"captureButton">());
    ASSERT_TRUE(tap(button));
    tap(button);
    ASSERT_EQ(1u, delegate_->calls.size());
    const DelegateCall &call = delegate_->calls[0];
    EXPECT_EQ(DelegateCall::finished, call.kind);
    EXPECT_EQ(picker_.get(), call.picker);
    EXPECT_TRUE(call.mainThread);
    EXPECT_EQ(2u, count(call.info.get())) << "media type and original image, nothing else";
    id info = call.info.get();
    EXPECT_EQ("public.image", text(send<id>(info, sel<"objectForKey:">(), UIImagePickerControllerMediaType)));
    EXPECT_EQ(shown, send<id>(info, sel<"objectForKey:">(), UIImagePickerControllerOriginalImage));

    // Finishing: the fetch that was out changes nothing when it ends, there is no more polling,
    // and taps are ignored until the app dismisses the picker.
    EXPECT_TRUE(send<BOOL>(screen, sel<"finishing">()));
    port.release();
    ASSERT_TRUE(runMainUntil(5, [&] { return !send<BOOL>(screen, sel<"fetchInFlight">()); }));
    drainMainQueue();
    send<void>(screen, sel<"requestFrame">());
    EXPECT_FALSE(send<BOOL>(screen, sel<"fetchInFlight">()));
    EXPECT_EQ("Tap to capture", statusOf(screen)) << "the screen says nothing more";
    EXPECT_TRUE(captureEnabled(screen));
    EXPECT_EQ(1u, port.count());
    EXPECT_EQ(1u, delegate_->calls.size());
}

TEST_F(PickerScreen, CancelTellsTheDelegateOnceAndTheDismissalEndsPolling)
{
    serve();
    // Held past the dismissal, so that the last check reads a screen that still exists: a
    // dismissal that left the timer running would be hidden by the screen's deallocation.
    Strong<> screen = Strong<>::retain(show());
    ASSERT_TRUE(waitForStatus(screen, "Tap to capture"));
    id cancel = cancelButton(screen);
    ASSERT_TRUE(tap(cancel));
    tap(cancel);
    ASSERT_EQ(1u, delegate_->calls.size());
    EXPECT_EQ(DelegateCall::cancelled, delegate_->calls[0].kind);
    EXPECT_EQ(picker_.get(), delegate_->calls[0].picker);
    ASSERT_TRUE(runMainUntil(5, [&] { return !send<id>(app_.root(), sel<"presentedViewController">()); }))
        << "the delegate's dismissal of the picker took the screen down";
    EXPECT_EQ(nil, send<id>(screen, sel<"frameTimer">()));
}

TEST_F(PickerScreen, TheHarnessSettingTakesThePhotoWithoutATouch)
{
    serve();
    {
        ScopedEnv env("ZERLAN_HARNESS_AUTO_PICKER", "Photo-Capture"); // the exact value only
        delegate_->dismissOnResult = false;
        id screen = show();
        ASSERT_TRUE(waitForStatus(screen, "Tap to capture"));
        // Several more frames arrive; none of them triggers a capture.
        for (int i = 0; i < 3; ++i) {
            send<void>(screen, sel<"setLatestImage:">(), static_cast<id>(nil));
            ASSERT_TRUE(runMainUntil(5, [&] { return send<id>(screen, sel<"latestImage">()) != nil; }));
        }
        EXPECT_TRUE(delegate_->calls.empty());
        EXPECT_FALSE(send<BOOL>(screen, sel<"automatedCaptureTriggered">()));
        ASSERT_TRUE(PickerApp::dismiss(picker_.get()));
    }
    ScopedEnv env("ZERLAN_HARNESS_AUTO_PICKER", "photo-capture");
    delegate_->dismissOnResult = true;
    id screen = show();
    ASSERT_TRUE(runMainUntil(10, [&] { return !delegate_->calls.empty(); }));
    ASSERT_EQ(1u, delegate_->calls.size());
    EXPECT_EQ(DelegateCall::finished, delegate_->calls[0].kind);
    EXPECT_TRUE(send<BOOL>(screen, sel<"automatedCaptureTriggered">()));
    id photo = send<id>(delegate_->calls[0].info.get(), sel<"objectForKey:">(), UIImagePickerControllerOriginalImage);
    EXPECT_NE(nil, photo) << "the first frame, as the photo";
}

TEST_F(PickerScreen, PollingKeepsOneFetchOutAndAScreenThatIsGoneDropsItsResult)
{
    HeldFetches port;
    Weak gone;
    {
        AutoreleasePool pool;
        id screen = show();
        ASSERT_TRUE(runMainUntil(5, [&] { return port.count() > 0; })) << "the first fetch";
        EXPECT_TRUE(send<BOOL>(screen, sel<"fetchInFlight">()));
        // Ticks and direct requests while that fetch is out start nothing. The library's fetch
        // waits a second for an answer; a fetch taken within half of that (leaving the other half
        // for a late accept on a busy machine) is a second one in flight.
        for (int i = 0; i < 5; ++i)
            send<void>(screen, sel<"requestFrame">());
        runMainUntil(0.6, [] { return false; });
        EXPECT_EQ(1u, port.countWithin(0.5));

        // Dismissed while the fetch is out: the fetch does not keep the screen.
        gone.store(screen);
        ASSERT_TRUE(PickerApp::dismiss(picker_.get()));
        picker_ = nullptr;
    }
    drainMainQueue();
    EXPECT_FALSE(gone.load()) << "freed while its fetch was out";
    size_t fetches = port.count();
    port.release(); // the fetch ends, its result finds no screen
    drainMainQueue();
    runMainUntil(0.3, [] { return false; });
    EXPECT_EQ(fetches, port.count()) << "a screen that is gone polls no more";
}

// The platform's decoder raising inside the screen's fetch, or running out of memory there, is a
// frame that did not come: nothing reaches the app, and the screen goes on polling.
id gRaiseKind;

id raisingImageWithData(id, SEL, id)
{
    if (!gRaiseKind)
        throw std::bad_alloc();
    objc_exception_throw(send<id>(cls("NSException"), sel<"exceptionWithName:reason:userInfo:">(), gRaiseKind,
                                  string("the decoder raised"), static_cast<id>(nil)));
}

TEST_F(PickerScreen, ARaiseInsideTheFetchIsAFrameThatDidNotCome)
{
    serve();
    Method decode = class_getClassMethod(objc_getClass("UIImage"), sel<"imageWithData:">());
    for (id kind : {static_cast<id>(nil), string("NSInternalInconsistencyException")}) {
        SCOPED_TRACE(kind ? "NSException" : "std::bad_alloc");
        gRaiseKind = kind;
        IMP original = method_setImplementation(decode, imp(raisingImageWithData));
        id screen = show();
        bool waited = waitForStatus(screen, "Waiting for Zerlan camera feed…");
        method_setImplementation(decode, original);
        ASSERT_TRUE(waited);
        EXPECT_FALSE(captureEnabled(screen));
        ASSERT_TRUE(waitForStatus(screen, "Tap to capture")) << "polling went on";
        ASSERT_TRUE(PickerApp::dismiss(picker_.get()));
    }
}

} // namespace
