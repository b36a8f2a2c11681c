// What the capture-path tests share: frames built in the test (solid bands, QR codes) as JPEG
// bytes, an app-side delegate object that records every capture callback it receives, the main
// run loop, and the real frame server on the library's fixed port.
#pragma once

#include "objc/Frameworks.h"

#include "transport/FetchJPEG.h"

#include "Process.h"

#include <fakesdk/dispatch_np.h>
#include <fakesdk/objc_np.h>

#include <qrencode.h>
#include <turbojpeg.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace capture_test {

using namespace zerlan::objc;
using zerlan::testing::buildDir, zerlan::testing::spawnLogged, zerlan::testing::stopChild, zerlan::testing::waitFor;
using namespace std::chrono_literals;

// ---- Frames

struct RGB {
    uint8_t r, g, b;
};
inline constexpr RGB kRed{255, 0, 0}, kGreen{0, 255, 0}, kBlue{0, 0, 255}, kWhite{255, 255, 255},
    kBlack{0, 0, 0};

struct Canvas {
    int width, height;
    std::vector<uint8_t> rgb;

    Canvas(int w, int h, RGB fill = kWhite) : width(w), height(h), rgb(size_t(w) * h * 3)
    {
        this->fill(0, 0, w, h, fill);
    }

    void fill(int x0, int y0, int x1, int y1, RGB c)
    {
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x) {
                uint8_t *p = &rgb[(size_t(y) * width + x) * 3];
                p[0] = c.r, p[1] = c.g, p[2] = c.b;
            }
    }

    // A QR code of text with its top-left quiet-zone corner at (x, y), scale pixels per module.
    void qr(const std::string &text, int x, int y, int scale = 6)
    {
        QRcode *code = QRcode_encodeString(text.c_str(), 0, QR_ECLEVEL_M, QR_MODE_8, 1);
        ASSERT_NE(nullptr, code);
        int quiet = 4;
        int side = (code->width + 2 * quiet) * scale;
        fill(x, y, x + side, y + side, kWhite);
        for (int row = 0; row < code->width; ++row)
            for (int col = 0; col < code->width; ++col)
                if (code->data[row * code->width + col] & 1)
                    fill(x + (col + quiet) * scale, y + (row + quiet) * scale, x + (col + quiet + 1) * scale,
                         y + (row + quiet + 1) * scale, kBlack);
        QRcode_free(code);
    }

    std::vector<uint8_t> jpeg() const
    {
        tjhandle handle = tjInitCompress();
        unsigned char *out = nullptr;
        unsigned long size = 0;
        tjCompress2(handle, rgb.data(), width, 0, height, TJPF_RGB, &out, &size, TJSAMP_444, 95, 0);
        std::vector<uint8_t> bytes(out, out + size);
        tjFree(out);
        tjDestroy(handle);
        return bytes;
    }
};

// Three equal-colour bands red, green, blue: vertical (left to right) or horizontal (top to
// bottom), the outer two `edge` pixels wide.
inline Canvas bands(int w, int h, bool vertical, int edge)
{
    Canvas c(w, h, kGreen);
    if (vertical) {
        c.fill(0, 0, edge, h, kRed);
        c.fill(w - edge, 0, w, h, kBlue);
    } else {
        c.fill(0, 0, w, edge, kRed);
        c.fill(0, h - edge, w, h, kBlue);
    }
    return c;
}

// A 640 x 480 frame showing one QR code.
inline Canvas codeFrame(const std::string &payload, RGB fill = kWhite)
{
    Canvas c(640, 480, fill);
    c.qr(payload, 180, 100);
    return c;
}

inline Strong<> data(const std::vector<uint8_t> &bytes)
{
    return Strong<>::retain(send<id>(cls("NSData"), sel<"dataWithBytes:length:">(),
                                     static_cast<const void *>(bytes.data()), static_cast<unsigned long>(bytes.size())));
}

inline std::vector<uint8_t> bytesOf(id nsData)
{
    auto *p = static_cast<const uint8_t *>(send<const void *>(nsData, sel<"bytes">()));
    unsigned long n = send<unsigned long>(nsData, sel<"length">());
    return n ? std::vector<uint8_t>(p, p + n) : std::vector<uint8_t>{};
}

// A decoded UIImage, as the poll cycle hands frames to consumption.
inline Strong<> image(const Canvas &canvas)
{
    Strong<> bytes = data(canvas.jpeg());
    return Strong<>::retain(send<id>(cls("UIImage"), sel<"imageWithData:">(), bytes.get()));
}

inline std::string text(id string)
{
    const char *chars = utf8(string);
    return chars ? chars : "<nil>";
}

// The objects of an NSArray, each as `read` gives it.
inline id itself(id object)
{
    return object;
}

template <typename T = id>
std::vector<T> elements(id array, T (*read)(id) = itself)
{
    std::vector<T> out;
    for (unsigned long i = 0, n = count(array); i < n; ++i)
        out.push_back(read(objectAtIndex(array, i)));
    return out;
}

// ---- The app's delegate

// One delegate call: the output, the third argument (connection, or the photo's error), the
// second (sample buffer, metadata array or photo), and where it ran.
struct Call {
    id output, third;
    Strong<> object;
    long retainCountInCall;
    bool mainThread;
    std::string queue;
    CMSampleBufferRef buffer() const { return reinterpret_cast<CMSampleBufferRef>(object.get()); }
};

struct Recording {
    std::mutex lock;
    // others: any capture callback but the three above (the older photo delegate's).
    std::vector<Call> samples, metadata, photos, others;

    size_t size(std::vector<Call> Recording::*calls)
    {
        std::lock_guard guard(lock);
        return (this->*calls).size();
    }
    std::vector<Call> copy(std::vector<Call> Recording::*calls)
    {
        std::lock_guard guard(lock);
        return this->*calls;
    }
};

inline long retainCountOf(CFTypeRef object)
{
    return objc_retainCount_np(bridge(object));
}

namespace detail {
template <std::vector<Call> Recording::*Calls, typename Second>
void record(id self, SEL, id output, Second second, id third)
{
    Recording *r = *ivarPointer<Recording *>(self, "_recording");
    id object = bridge(second);
    std::lock_guard guard(r->lock);
    (r->*Calls).push_back({output, third, Strong<>::retain(object), objc_retainCount_np(object), gettid() == getpid(),
                           dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL)});
}

// The photo callback that iOS 11 superseded, and the capture-start callback: an older photo
// delegate's, noted by their output alone.
template <typename... Rest>
void recordOther(id self, SEL, id output, Rest...)
{
    Recording *r = *ivarPointer<Recording *>(self, "_recording");
    std::lock_guard guard(r->lock);
    r->others.push_back({output, nil, nullptr, 0, gettid() == getpid(), dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL)});
}

// One delegate class with all three callbacks, and one that knows only older photo callbacks.
inline Class recorderClass(bool photoCallback)
{
    static Class full, partial;
    static std::once_flag once;
    std::call_once(once, [] {
        auto make = [](const char *name, bool withPhoto) {
            Class c = objc_allocateClassPair(objc_getClass("NSObject"), name, 0);
            class_addIvar(c, "_recording", sizeof(void *), 3, "^v");
            class_addMethod(c, sel_registerName("captureOutput:didOutputSampleBuffer:fromConnection:"),
                            imp(record<&Recording::samples, CMSampleBufferRef>), "v@:@^{opaqueCMSampleBuffer=}@");
            class_addMethod(c, sel_registerName("captureOutput:didOutputMetadataObjects:fromConnection:"),
                            imp(record<&Recording::metadata, id>), "v@:@@@");
            if (withPhoto)
                class_addMethod(c, sel_registerName("captureOutput:didFinishProcessingPhoto:error:"),
                                imp(record<&Recording::photos, id>), "v@:@@@");
            else {
                class_addMethod(c, sel_registerName("captureOutput:willBeginCaptureForResolvedSettings:"),
                                imp(recordOther<id>), "v@:@@");
                class_addMethod(c,
                                sel_registerName("captureOutput:didFinishProcessingPhotoSampleBuffer:"
                                                 "previewPhotoSampleBuffer:resolvedSettings:bracketSettings:error:"),
                                imp(recordOther<CMSampleBufferRef, CMSampleBufferRef, id, id, id>),
                                "v@:@^{opaqueCMSampleBuffer=}^{opaqueCMSampleBuffer=}@@@");
            }
            objc_registerClassPair(c);
            return c;
        };
        full = make("CaptureTestRecorder", true);
        partial = make("CaptureTestOlderPhotoDelegate", false);
    });
    return photoCallback ? full : partial;
}
} // namespace detail

// An app delegate object (+1) and the recording it fills. The recording outlives the object.
struct Recorder {
    Strong<> object;
    std::shared_ptr<Recording> recording = std::make_shared<Recording>();

    explicit Recorder(bool photoCallback = true)
    {
        object = Strong<>::adopt(class_createInstance(detail::recorderClass(photoCallback), 0));
        *ivarPointer<Recording *>(object, "_recording") = recording.get();
    }
    id get() const { return object.get(); }
    Recording *operator->() const { return recording.get(); }
};

// ---- The app's capture graph

inline id fabricatedCamera()
{
    return send<id>(cls("AVCaptureDevice"), sel<"defaultDeviceWithMediaType:">(), AVMediaTypeVideo);
}

inline Strong<> fabricatedInput()
{
    return allocInit<"initWithDevice:error:">("AVCaptureDeviceInput", fabricatedCamera(), static_cast<id *>(nullptr));
}

// A session set up the customary way (canAddInput: then addInput:), which makes it fabricated.
struct AppSession {
    Strong<> session = allocInit<"init">("AVCaptureSession");
    Strong<> input = fabricatedInput();

    AppSession()
    {
        EXPECT_TRUE(send<BOOL>(session.get(), sel<"canAddInput:">(), input.get()));
        send<void>(session.get(), sel<"addInput:">(), input.get());
    }

    Strong<> add(const char *outputClass)
    {
        Strong<> output = allocInit<"init">(outputClass);
        EXPECT_TRUE(send<BOOL>(session.get(), sel<"canAddOutput:">(), output.get()));
        send<void>(session.get(), sel<"addOutput:">(), output.get());
        return output;
    }

    // The one connection the app sees on an accepted output.
    static id connectionOf(id output)
    {
        return send<id>(output, sel<"connectionWithMediaType:">(), AVMediaTypeVideo);
    }
};

// Runs the main run loop until the condition holds (true) or the deadline passes (false).
inline bool runMainUntil(double seconds, std::function<bool()> condition)
{
    return CFRunLoopRunUntil_np(seconds, ^bool {
        return condition();
    });
}

// Runs the main queue until everything submitted to it before this call has run.
inline bool drainMainQueue(double seconds = 5)
{
    __block bool reached = false;
    dispatch_async(dispatch_get_main_queue(), ^{
        reached = true;
    });
    return CFRunLoopRunUntil_np(seconds, ^bool {
        return reached;
    });
}

// ---- The frame server on 127.0.0.1:47654 (tests that use it run in a network namespace of their own)

// Serves the JPEG bytes unchanged (`zerlan serve --image`) until stopped.
class FrameServer {
public:
    explicit FrameServer(const std::vector<uint8_t> &jpeg) : jpeg_(jpeg)
    {
        char path[] = "/tmp/zerlan-capture-test-XXXXXX.jpg";
        int fd = mkstemps(path, 4);
        EXPECT_EQ(ssize_t(jpeg.size()), ::write(fd, jpeg.data(), jpeg.size()));
        ::close(fd);
        file_ = path;
        pid_ = spawnLogged({buildDir() + "/bin/zerlan", "serve", "--port", "47654", "--image", file_}, "/dev/null");
    }
    ~FrameServer()
    {
        stop();
        ::unlink(file_.c_str());
    }

    // Whether this server answered with its picture before the deadline (another process on the
    // port answers with something else).
    bool waitUntilServing()
    {
        return waitFor([&] { return bytesOf(ZerlanFetchJPEG()) == jpeg_; }, std::chrono::seconds(10));
    }

    // Gone at once, as a crashed or unplugged server would be.
    void stop() { stopChild(pid_, SIGKILL); }

private:
    std::vector<uint8_t> jpeg_;
    pid_t pid_ = -1;
    std::string file_;
};

} // namespace capture_test
