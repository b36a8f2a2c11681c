// Frame sources and the producer thread that runs one of them at a time.
//
// A source is opened (and checked) on the caller's thread, so a bad file is reported before
// anything changes; it then runs on the producer thread, publishing encoded frames to the
// FrameStore, until it is stopped.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "server/frame_store.h"
#include "server/image.h"
#include "server/log.h"
#include "server/platform.h"
#include "server/result.h"
#include "server/stop.h"

namespace zerlan::server {

inline constexpr double kMinFps = 0.01;
inline constexpr double kMaxFps = 120;

struct FrameSettings {
  // Generated frames; none: the pattern and cameras are 640x480, files keep theirs.
  std::optional<Size> size;
  int quality = 85;          // JPEG quality of generated frames, 1..100
  double fps = 10;           // pattern and folder frame rate
  std::string qr = "zerlan";
  // The libavdevice input that reads cameras: "avfoundation", "v4l2" or "lavfi".
  std::string cameraInput{platform::kCameraInput};
  // Step mode: a source shows its frame until told to advance, and the pattern draws no clock.
  bool step = false;
  uint64_t steps = 0;  // steps asked for since the server started (step mode only)
};

// Settings that change while a source runs (QR payload, frame rate). Every change bumps the
// version and wakes a source waiting in sleepUntil, so the change shows in the next frame.
class LiveSettings {
 public:
  explicit LiveSettings(FrameSettings initial) : settings_(std::move(initial)) {}

  FrameSettings snapshot() const;
  uint64_t version() const;
  std::pair<FrameSettings, uint64_t> snapshotWithVersion() const;

  // Applies `change` to the settings under the lock; returns the new version.
  template <class F>
  uint64_t update(F&& change) {
    uint64_t v;
    {
      std::lock_guard lock(mu_);
      change(settings_);
      v = ++version_;
    }
    cv_.notify_all();
    return v;
  }

  // Sleeps until `until`; returns early when the version moves past `seen`. Returns false when
  // `stop` was requested.
  bool sleepUntil(std::chrono::steady_clock::time_point until, const StopSignal& stop,
                  uint64_t seen) const;

 private:
  mutable std::mutex mu_;
  mutable std::condition_variable cv_;
  FrameSettings settings_;
  uint64_t version_ = 1;
};

struct SourceChoice {
  enum class Kind { Pattern, Image, Dir, Video, Stdin, Camera };
  Kind kind = Kind::Pattern;
  std::string path;  // Image, Dir, Video; Camera: its name (empty: the default camera)
  int fd = 0;        // Stdin: the stream to read (standard input unless a test says otherwise)

  static SourceChoice pattern() { return {}; }
  static SourceChoice image(std::string p) { return {Kind::Image, std::move(p), 0}; }
  static SourceChoice dir(std::string p) { return {Kind::Dir, std::move(p), 0}; }
  static SourceChoice video(std::string p) { return {Kind::Video, std::move(p), 0}; }
  static SourceChoice stream(int fd) { return {Kind::Stdin, {}, fd}; }
  static SourceChoice camera(std::string name) { return {Kind::Camera, std::move(name), 0}; }
};

std::string_view kindName(SourceChoice::Kind kind);

// Called when a source can never give a frame (a stream that ended before its first): there
// is nothing to serve. Runs on the producer thread.
using NothingToServe = std::function<void()>;

// What a running source needs from the producer.
struct SourceContext {
  FrameStore& store;
  const LiveSettings& settings;
  const Logger& log;
  const NothingToServe& nothingToServe;  // may be empty
};

class Source {
 public:
  virtual ~Source() = default;
  virtual SourceChoice::Kind kind() const = 0;
  // One human-readable line, for the start line, the log and /status.
  virtual std::string description() const = 0;
  // Runs on the producer thread until `stop` is requested.
  virtual void run(const StopSignal& stop, SourceContext& context) = 0;
};

// Opens and checks a source: the file exists and decodes, the folder has images, the pattern's
// QR payload fits, the camera sends pictures. Reads files (and a camera's first frame) but
// publishes nothing.
Result<std::unique_ptr<Source>> openSource(const SourceChoice& choice,
                                           const FrameSettings& settings);

// Owns the producer thread and the source it runs.
class Producer {
 public:
  Producer(FrameStore& store, LiveSettings& settings, Logger log, NothingToServe nothingToServe = {});
  ~Producer();
  Producer(const Producer&) = delete;
  Producer& operator=(const Producer&) = delete;

  // Stops the running source (waiting for its thread) and starts `source`. Returns the number
  // of the last frame published before `source` started: every later frame is its own.
  uint64_t start(std::unique_ptr<Source> source);
  void stop();

  std::string description() const;
  std::optional<SourceChoice::Kind> kind() const;

 private:
  FrameStore& store_;
  LiveSettings& settings_;
  Logger log_;
  NothingToServe nothingToServe_;
  std::mutex lifecycleMu_;  // start and stop, one at a time
  mutable std::mutex mu_;   // source_, for readers on other threads
  std::unique_ptr<Source> source_;
  std::unique_ptr<StopSignal> stop_;  // a fresh one for each source
  std::thread thread_;
};

}  // namespace zerlan::server
