#include "server/sources.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <deque>
#include <filesystem>
#include <sstream>

#include "server/camera.h"
#include "server/log.h"
#include "server/media.h"
#include "server/mjpeg.h"
#include "server/pattern.h"
#include "server/platform.h"

namespace zerlan::server {

namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr std::array<std::string_view, 9> kImageExtensions = {
    ".jpg", ".jpeg", ".png", ".bmp", ".gif", ".webp", ".tif", ".tiff", ".ppm"};
constexpr size_t kMaxFileBytes = 256u << 20;
constexpr size_t kDirCacheBytes = 256u << 20;

SteadyClock::duration periodOf(double fps) {
  return std::chrono::duration_cast<SteadyClock::duration>(
      std::chrono::duration<double>(1.0 / fps));
}

// Waits for `stop` while letting setting changes pass (a still source has nothing to redo).
void idleUntilStopped(const StopSignal& stop, const LiveSettings& settings) {
  while (!stop.requested()) {
    settings.sleepUntil(SteadyClock::now() + std::chrono::hours(1), stop, UINT64_MAX);
  }
}

// In step mode: waits until the frame to show differs from `shown` (none: the first frame);
// returns it with the settings version it was asked in, or nothing when `stop` is requested.
// Frame indexes count from the steps taken when the source started (`base`).
struct StepTarget {
  uint64_t index;
  uint64_t version;
};
std::optional<StepTarget> waitForStep(const StopSignal& stop, const LiveSettings& settings,
                                      uint64_t base, std::optional<uint64_t> shown) {
  while (!stop.requested()) {
    auto [s, version] = settings.snapshotWithVersion();
    uint64_t target = s.steps - base;
    if (!shown || target != *shown) return StepTarget{target, version};
    settings.sleepUntil(SteadyClock::now() + std::chrono::hours(1), stop, version);
  }
  return std::nullopt;
}

// One open and one fstat, as a folder of thousands of files reads each of them. Opened without
// blocking: a FIFO or a device would hold the caller up for as long as it likes.
Result<std::string> readFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return fail(path + " does not exist");
    return fail("cannot read " + path + ": " + std::strerror(errno));
  }
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0) return fail("cannot read " + path + ": " + std::strerror(errno));
  if (S_ISDIR(st.st_mode)) return fail(path + " is a folder: use --dir for a folder of images");
  if (!S_ISREG(st.st_mode)) return fail(path + " is not a regular file");
  const auto size = static_cast<size_t>(st.st_size);
  if (size > kMaxFileBytes) return fail(path + " is larger than 256 MiB");
  std::string bytes(size, '\0');
  size_t got = 0;
  while (got < size) {
    ssize_t n = ::read(fd, bytes.data() + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail("cannot read " + path + ": " + std::strerror(errno));
    if (n == 0) return fail("cannot read " + path + ": short read");
    got += static_cast<size_t>(n);
  }
  return bytes;
}

// Whether `bytes` start as a picture of a folder's kinds does (JPEG, PNG, BMP, GIF, WebP, TIFF,
// PNM). A look at a few bytes, where FFmpeg would try every format it knows on the file.
bool startsLikePicture(std::string_view bytes) {
  using namespace std::string_view_literals;
  auto at = [&](size_t offset, std::string_view magic) {
    return bytes.size() >= offset + magic.size() && bytes.compare(offset, magic.size(), magic) == 0;
  };
  return at(0, "\xFF\xD8\xFF"sv) || at(0, "\x89PNG\r\n\x1A\n"sv) || at(0, "BM"sv) ||
         at(0, "GIF8"sv) || (at(0, "RIFF"sv) && at(8, "WEBP"sv)) || at(0, "II*\0"sv) ||
         at(0, "MM\0*"sv) || (bytes.size() >= 2 && bytes[0] == 'P' && bytes[1] >= '1' && bytes[1] <= '7');
}

struct Picture {
  std::string jpeg;
  Size size;
  bool transcoded = false;
};

// A JPEG file is kept byte for byte; anything else FFmpeg can read is encoded once. A JPEG's or
// PNG's size is read from its header before anything is decoded, so a picture that no camera
// gives is refused at once (FFmpeg holds every other format to the same limit). A folder's file
// (`inFolder`) must start as a picture does: a video's first frame is a picture that --image may
// serve, but a folder's other files are skipped at the cost of a look.
Result<Picture> loadPicture(const std::string& path, const FrameSettings& settings,
                            bool inFolder = false) {
  auto bytes = readFile(path);
  if (!bytes) return bytes.error();
  if (inFolder && !startsLikePicture(*bytes)) {
    return fail(path + " is not a picture: it starts as no JPEG, PNG, BMP, GIF, WebP, TIFF or "
                "PNM file does");
  }
  auto header = readPictureHeader(*bytes);
  if (header) {
    if (auto fits = checkPictureSize(header->size, formatName(header->format)); !fits)
      return fail(path + ": " + fits.error().message);
  } else if (looksLikeJpeg(*bytes)) {
    return fail(path + " is " + header.error().message);
  }
  if (header && header->format == PictureFormat::Jpeg) {
    if (auto fits = checkFrameBytes(bytes->size()); !fits) return fail(path + " is " + fits.error().message);
    return Picture{std::move(bytes.value()), header->size, false};
  }
  auto image = readPicture(path, settings.size);
  if (!image) return image.error();
  JpegEncoder encoder;
  auto jpeg = encoder.encode(*image, settings.quality);
  if (!jpeg) return jpeg.error();
  if (auto fits = checkFrameBytes(jpeg->size()); !fits)
    return fail(path + " as a JPEG is " + fits.error().message);
  return Picture{std::move(jpeg.value()), Size{image->width, image->height}, true};
}

// A JPEG of the MJPEG stream that can be a frame: its size, or why it is skipped.
Result<Size> streamFrameSize(std::string_view jpeg) {
  auto size = jpegSize(jpeg);
  if (!size) return size;
  if (auto fits = checkPictureSize(*size, "JPEG"); !fits) return fits.error();
  if (auto fits = checkFrameBytes(jpeg.size()); !fits) return fail("a JPEG of " + fits.error().message);
  return size;
}

class PatternSource final : public Source {
 public:
  PatternSource(Size size, std::string qr) : size_(size), initialQr_(std::move(qr)) {}

  SourceChoice::Kind kind() const override { return SourceChoice::Kind::Pattern; }
  std::string description() const override { return "test pattern " + formatSize(size_); }

  void run(const StopSignal& stop, SourceContext& ctx) override {
    PatternRenderer renderer(size_);
    std::string payload = initialQr_;
    (void)renderer.setPayload(payload);  // checked by openSource
    JpegEncoder encoder;
    auto due = SteadyClock::now();
    const uint64_t base = ctx.settings.snapshot().steps;
    uint64_t index = 0;
    while (!stop.requested()) {
      auto [settings, version] = ctx.settings.snapshotWithVersion();
      if (settings.qr != payload) {
        if (auto set = renderer.setPayload(settings.qr); !set) {
          ctx.log("cannot draw the new QR payload: " + set.error().message);
        }
        payload = settings.qr;
      }
      if (settings.step) index = settings.steps - base;
      // Step mode draws the source's own index and no clock, so that a step's frame is the same
      // on every run; otherwise the server's frame number shows each fetch a new picture.
      RgbImage image =
          settings.step
              ? renderer.render(index, std::nullopt)
              : renderer.render(ctx.store.nextNumber(), std::chrono::system_clock::now());
      if (auto jpeg = encoder.encode(image, settings.quality)) {
        ctx.store.publish(*jpeg, image.width, image.height, version, index);
      } else {
        ctx.log(jpeg.error().message);
      }
      if (settings.step) {
        // Redrawn for every change: a step, or a new payload on the current step.
        ctx.settings.sleepUntil(SteadyClock::now() + std::chrono::hours(1), stop, version);
        continue;
      }
      ++index;
      auto now = SteadyClock::now();
      due = std::max(due + periodOf(settings.fps), now);
      if (!ctx.settings.sleepUntil(due, stop, version)) return;
      // Woken by a change: draw it now and count the next period from here.
      if (ctx.settings.version() != version) due = SteadyClock::now();
    }
  }

 private:
  Size size_;
  std::string initialQr_;
};

class ImageSource final : public Source {
 public:
  ImageSource(std::string path, Picture picture)
      : path_(std::move(path)), picture_(std::move(picture)) {}

  SourceChoice::Kind kind() const override { return SourceChoice::Kind::Image; }
  std::string description() const override {
    return "image " + path_ + " (" + formatSize(picture_.size) +
           (picture_.transcoded ? ", transcoded to JPEG)" : " JPEG, served as is)");
  }

  void run(const StopSignal& stop, SourceContext& ctx) override {
    auto [settings, version] = ctx.settings.snapshotWithVersion();
    if (!settings.step) {
      ctx.store.publish(picture_.jpeg, picture_.size.width, picture_.size.height, version);
      idleUntilStopped(stop, ctx.settings);
      return;
    }
    // Each step shows the picture again as the next frame, so a step is seen the same way
    // whatever the source.
    std::optional<uint64_t> shown;
    while (auto step = waitForStep(stop, ctx.settings, settings.steps, shown)) {
      ctx.store.publish(picture_.jpeg, picture_.size.width, picture_.size.height, step->version,
                        step->index);
      shown = step->index;
    }
  }

 private:
  std::string path_;
  Picture picture_;
};

class DirSource final : public Source {
 public:
  DirSource(std::string path, std::vector<std::string> files, Picture first, FrameSettings settings)
      : path_(std::move(path)), files_(std::move(files)), settings_(std::move(settings)) {
    cache_.resize(files_.size());
    bad_.resize(files_.size());
    tried_.resize(files_.size());
    tried_[0] = true;
    triedCount_ = 1;
    cached_ = first.jpeg.size();
    cache_[0] = std::make_shared<const Picture>(std::move(first));
  }

  SourceChoice::Kind kind() const override { return SourceChoice::Kind::Dir; }
  std::string description() const override {
    const size_t skipped = skipped_.load(std::memory_order_relaxed);
    return "folder " + path_ + " (" + counted(files_.size(), "image") + ", in name order, looping" +
           (skipped ? ", " + std::to_string(skipped) + " skipped: not pictures)" : ")");
  }

  void run(const StopSignal& stop, SourceContext& ctx) override {
    const FrameSettings initial = ctx.settings.snapshot();
    if (initial.step) return runStepped(stop, ctx, initial.steps);
    auto due = SteadyClock::now();
    size_t index = 0;
    size_t failuresInARow = 0;
    uint64_t shown = 0;
    while (!stop.requested()) {
      auto [settings, version] = ctx.settings.snapshotWithVersion();
      auto picture = load(index, ctx);
      index = (index + 1) % files_.size();
      if (!picture) {
        // Every file failing would otherwise spin without pause.
        if (++failuresInARow < files_.size()) continue;
        failuresInARow = 0;
      } else {
        failuresInARow = 0;
        ctx.store.publish(picture->jpeg, picture->size.width, picture->size.height, version,
                          shown++);
      }
      due = std::max(due + periodOf(settings.fps), SteadyClock::now());
      uint64_t v = version;
      // Only a stop ends the wait early: a settings change keeps this picture up until its time.
      while (SteadyClock::now() < due) {
        if (!ctx.settings.sleepUntil(due, stop, v)) return;
        v = ctx.settings.version();
      }
    }
  }

 private:
  // Frame i is the i-th picture in name order, looping; a file that does not load gives way to
  // the next one.
  void runStepped(const StopSignal& stop, SourceContext& ctx, uint64_t base) {
    std::optional<uint64_t> shown;
    while (auto step = waitForStep(stop, ctx.settings, base, shown)) {
      shown = step->index;
      for (size_t tried = 0; tried < files_.size(); ++tried) {
        auto picture = load((step->index + tried) % files_.size(), ctx);
        if (!picture) continue;
        ctx.store.publish(picture->jpeg, picture->size.width, picture->size.height, step->version,
                          step->index);
        break;
      }
    }
  }

  std::shared_ptr<const Picture> load(size_t index, SourceContext& ctx) {
    if (cache_[index]) return cache_[index];
    if (bad_[index]) return nullptr;
    auto picture = loadPicture(files_[index], settings_, true);
    if (!picture) {
      bad_[index] = true;  // reported once, skipped from now on
      const size_t skipped = skipped_.fetch_add(1, std::memory_order_relaxed) + 1;
      if (skipped <= kSkipsTold) {
        ctx.log("skipping " + picture.error().message);
        firstSkipped_.push_back(fs::path(files_[index]).filename().string());
      }
    }
    if (!tried_[index]) {
      tried_[index] = true;
      if (++triedCount_ == files_.size()) summariseSkips(ctx);
    }
    if (!picture) return nullptr;
    auto shared = std::make_shared<const Picture>(std::move(picture.value()));
    if (cached_ + shared->jpeg.size() <= kDirCacheBytes) {
      cached_ += shared->jpeg.size();
      cache_[index] = shared;
    }
    return shared;
  }

  // A folder of thousands of files that are no pictures would log a line for each: the first
  // few are told with their reason (see load), and the rest in one line once every file has
  // been tried.
  void summariseSkips(SourceContext& ctx) {
    const size_t skipped = skipped_.load(std::memory_order_relaxed);
    if (skipped <= kSkipsTold) return;
    std::string names;
    for (const auto& name : firstSkipped_) names += (names.empty() ? "" : ", ") + name;
    ctx.log("skipped " + std::to_string(skipped) + " of the " + std::to_string(files_.size()) +
            " files of folder " + path_ + ", which are not pictures that can be read: " + names +
            " and " + std::to_string(skipped - firstSkipped_.size()) + " more");
  }

  static constexpr size_t kSkipsTold = 3;
  std::string path_;
  std::vector<std::string> files_;
  FrameSettings settings_;
  std::vector<std::shared_ptr<const Picture>> cache_;
  std::vector<bool> bad_;
  std::vector<bool> tried_;
  size_t triedCount_ = 0;
  std::atomic<size_t> skipped_{0};  // read by description() on other threads
  std::vector<std::string> firstSkipped_;
  size_t cached_ = 0;
};

class VideoSource final : public Source {
 public:
  VideoSource(std::string path, std::unique_ptr<MediaReader> reader, MediaFrame first,
              std::optional<Size> size)
      : path_(std::move(path)), reader_(std::move(reader)), first_(std::move(first)), size_(size) {
    double rate = reader_->frameRate();
    interval_ = rate > 0 && rate <= 1000 ? 1.0 / rate : 1.0 / 25;
    // Fixed now: the producer thread replaces reader_ when it reopens the file.
    std::ostringstream out;
    Size native = reader_->size();
    out << "video " << path_ << " (" << reader_->codecName() << " " << formatSize(native);
    out.precision(4);
    if (rate > 0) out << " at " << rate << " fps";
    if (size_ && !(*size_ == native)) out << ", scaled to " << formatSize(*size_);
    out << ", looping)";
    description_ = out.str();
  }

  SourceChoice::Kind kind() const override { return SourceChoice::Kind::Video; }
  std::string description() const override { return description_; }

  void run(const StopSignal& stop, SourceContext& ctx) override {
    JpegEncoder encoder;
    std::optional<MediaFrame> frame = std::move(first_);
    first_ = {};
    const FrameSettings initial = ctx.settings.snapshot();
    if (initial.step) return runStepped(stop, ctx, encoder, std::move(*frame), initial.steps);
    uint64_t index = 0;
    // Presentation times map onto the steady clock from the first frame of each loop.
    auto loopStart = SteadyClock::now();
    double loopFirstPts = std::nan("");
    double lastPts = std::nan("");
    auto lastDue = loopStart;
    bool firstOfLoop = true;
    while (!stop.requested()) {
      auto [settings, version] = ctx.settings.snapshotWithVersion();
      auto jpeg = encoder.encode(frame->image, settings.quality);

      SteadyClock::time_point due;
      double pts = frame->seconds;
      if (firstOfLoop) {
        due = loopStart;
        loopFirstPts = pts;
        firstOfLoop = false;
      } else if (!std::isnan(pts) && !std::isnan(loopFirstPts) && pts > lastPts) {
        due = loopStart + std::chrono::duration_cast<SteadyClock::duration>(
                              std::chrono::duration<double>(pts - loopFirstPts));
      } else {
        due = lastDue + std::chrono::duration_cast<SteadyClock::duration>(
                            std::chrono::duration<double>(interval_));
      }
      auto now = SteadyClock::now();
      if (due + std::chrono::seconds(1) < now) {
        // Decoding fell far behind (a slow machine, a huge video): drop the debt, not frames.
        loopStart += now - due;
        due = now;
      }
      uint64_t v = version;
      while (SteadyClock::now() < due) {
        if (!ctx.settings.sleepUntil(due, stop, v)) return;
        v = ctx.settings.version();
      }
      if (jpeg) {
        ctx.store.publish(*jpeg, frame->image.width, frame->image.height, version, index++);
      } else {
        ctx.log(jpeg.error().message);
      }
      lastDue = due;
      lastPts = pts;

      frame = nextFrame(ctx);
      if (!frame) {
        idleUntilStopped(stop, ctx.settings);
        return;
      }
      if (restarted_) {
        restarted_ = false;
        firstOfLoop = true;
        loopStart = lastDue + std::chrono::duration_cast<SteadyClock::duration>(
                                  std::chrono::duration<double>(interval_));
      }
    }
  }

 private:
  // Frame i is the video's i-th frame, looping; the presentation times play no part. A step of
  // a million frames is taken as its remainder within the loop, and from the keyframe before
  // its target: a stop ends it wherever it is.
  void runStepped(const StopSignal& stop, SourceContext& ctx, JpegEncoder& encoder,
                  MediaFrame frame, uint64_t base) {
    std::optional<uint64_t> shown;
    while (auto step = waitForStep(stop, ctx.settings, base, shown)) {
      if (shown) {
        auto reached = reader_->frameAt(step->index, size_, stop);
        if (!reached) {
          ctx.log(reached.error().message + "; keeping the last frame");
        } else if (!*reached) {
          return;
        } else {
          frame = std::move(**reached);
        }
      }
      shown = step->index;
      auto settings = ctx.settings.snapshot();
      if (auto jpeg = encoder.encode(frame.image, settings.quality)) {
        ctx.store.publish(*jpeg, frame.image.width, frame.image.height, step->version,
                          step->index);
      } else {
        ctx.log(jpeg.error().message);
      }
    }
  }

  std::optional<MediaFrame> nextFrame(SourceContext& ctx) {
    for (int attempt = 0; attempt < 2; ++attempt) {
      auto frame = reader_->next(size_);
      if (frame && frame->has_value()) return std::move(frame->value());
      if (!frame) ctx.log(frame.error().message + "; starting the video again");
      restarted_ = true;
      if (auto rewound = reader_->rewind(); !rewound) {
        auto reopened = MediaReader::open(path_);
        if (!reopened) {
          ctx.log(rewound.error().message + "; keeping the last frame");
          return std::nullopt;
        }
        reader_ = std::move(reopened.value());
      }
    }
    ctx.log(path_ + " stopped giving frames; keeping the last frame");
    return std::nullopt;
  }

  std::string path_;
  std::unique_ptr<MediaReader> reader_;
  std::optional<MediaFrame> first_;
  std::optional<Size> size_;
  double interval_ = 1.0 / 25;
  bool restarted_ = false;
  std::string description_;
};

class CameraSource final : public Source {
 public:
  CameraSource(std::string input, std::string name, Size size, OpenedCamera camera)
      : input_(std::move(input)),
        name_(std::move(name)),
        size_(size),
        reader_(std::move(camera.reader)),
        first_(std::move(camera.first)),
        description_(std::move(camera.description)) {}

  SourceChoice::Kind kind() const override { return SourceChoice::Kind::Camera; }
  std::string description() const override { return description_; }

  // Reads the camera the whole time, so what a step shows is what the camera sees at that step;
  // in step mode the frame of the last step stays in between, as any source's does.
  void run(const StopSignal& stop, SourceContext& ctx) override {
    JpegEncoder encoder;
    MediaFrame latest = std::move(first_);
    std::unique_ptr<MediaReader> reader = std::move(reader_);
    const FrameSettings initial = ctx.settings.snapshot();
    uint64_t published = 0;         // live: frames published so far
    bool fresh = true;              // live: `latest` is not published yet
    std::optional<uint64_t> shown;  // step mode: the step on show
    auto retryAt = SteadyClock::now();
    auto publish = [&](uint64_t index, uint64_t version, int quality) {
      if (auto jpeg = encoder.encode(latest.image, quality)) {
        ctx.store.publish(*jpeg, latest.image.width, latest.image.height, version, index);
      } else {
        ctx.log(jpeg.error().message);
      }
    };
    while (!stop.requested()) {
      auto [settings, version] = ctx.settings.snapshotWithVersion();
      if (initial.step) {
        const uint64_t target = settings.steps - initial.steps;
        if (!shown || *shown != target) {
          publish(target, version, settings.quality);
          shown = target;
        }
      } else if (fresh) {
        publish(published++, version, settings.quality);
        fresh = false;
      }
      // Live, only a stop ends a wait early; in step mode a step does too.
      const uint64_t wakeOn = initial.step ? version : UINT64_MAX;
      if (!reader && SteadyClock::now() >= retryAt) {
        auto reopened = openCamera(input_, name_, size_, [&] { return stop.requested(); });
        if (reopened) {
          reader = std::move(reopened->reader);
          latest = std::move(reopened->first);
          fresh = true;
          ctx.log(description_ + " sends pictures again");
          continue;
        }
        retryAt = SteadyClock::now() + kRetryPeriod;
      }
      if (!reader) {
        ctx.settings.sleepUntil(retryAt, stop, wakeOn);
        continue;
      }
      auto frame = reader->next(size_);
      if (frame && frame->has_value()) {
        latest = std::move(frame->value());
        fresh = true;
      } else if (frame && reader->waiting()) {
        ctx.settings.sleepUntil(SteadyClock::now() + kCameraPollPeriod, stop, wakeOn);
      } else {
        ctx.log((frame ? description_ + " stopped sending pictures" : frame.error().message) +
                "; its last picture stays, and it is opened again every " +
                std::to_string(std::chrono::seconds(kRetryPeriod).count()) + " s");
        reader.reset();
        retryAt = SteadyClock::now() + kRetryPeriod;
      }
    }
  }

 private:
  static constexpr auto kRetryPeriod = std::chrono::seconds(2);

  std::string input_;
  std::string name_;
  Size size_;
  std::unique_ptr<MediaReader> reader_;
  MediaFrame first_;
  std::string description_;
};

class StreamSource final : public Source {
 public:
  explicit StreamSource(int fd) : fd_(fd) {}

  SourceChoice::Kind kind() const override { return SourceChoice::Kind::Stdin; }
  std::string description() const override {
    std::string text = fd_ == STDIN_FILENO ? "MJPEG stream on standard input"
                                           : "MJPEG stream on file descriptor " + std::to_string(fd_);
    uint64_t skipped = skipped_.load(std::memory_order_relaxed), bad = badFrames_.load(std::memory_order_relaxed);
    if (skipped || bad)
      text += " (" + counted(skipped, "byte") + " outside any JPEG skipped, " +
              counted(bad, "frame that is", "frames that are") + " no JPEG)";
    return text;
  }

  void run(const StopSignal& stop, SourceContext& ctx) override {
    int wakePipe[2];
    if (!platform::openPipe(wakePipe)) {
      ctx.log(std::string("cannot read the MJPEG stream: pipe: ") + std::strerror(errno));
      return;
    }
    const int wake = wakePipe[0];
    {
      // Destroyed before the close below: it waits for a waker that is writing to the pipe.
      StopSignal::OnStop onStop(stop, [end = wakePipe[1]] {
        char one = 1;
        (void)!::write(end, &one, 1);
      });
      MjpegSplitter splitter;
      std::vector<char> buffer(1 << 16);
      uint64_t received = 0;  // good JPEGs so far: the next one's frame index
      int badReported = 0;
      bool warnedNotMjpeg = false;
      // Step mode: good JPEGs not shown yet, in stream order. Reading waits while one is
      // queued, so the writer is held back instead of the stream piling up here.
      const FrameSettings initial = ctx.settings.snapshot();
      const bool stepped = initial.step;
      std::deque<std::pair<uint64_t, std::string>> queued;
      std::optional<uint64_t> shown;
      bool ended = false;
      while (!stop.requested()) {
        if (stepped) {
          auto [settings, version] = ctx.settings.snapshotWithVersion();
          const uint64_t wanted = settings.steps - initial.steps;
          while (!queued.empty() && queued.front().first < wanted) queued.pop_front();
          if (!queued.empty() && (!shown || *shown != wanted)) {
            auto& [index, jpeg] = queued.front();
            auto size = jpegSize(jpeg);
            ctx.store.publish(jpeg, size->width, size->height, version, index);
            shown = index;
            queued.pop_front();
            continue;
          }
          if (!queued.empty() || (shown && *shown == wanted) || ended) {
            ctx.settings.sleepUntil(SteadyClock::now() + std::chrono::hours(1), stop, version);
            continue;
          }
        }
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wake, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
          if (errno == EINTR) continue;
          ctx.log(std::string("cannot read the MJPEG stream: ") + std::strerror(errno));
          break;
        }
        if (fds[1].revents) break;
        ssize_t n = ::read(fd_, buffer.data(), buffer.size());
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) {
          if (stepped && n == 0 && !queued.empty()) {
            ctx.log("the MJPEG stream ended; " + counted(queued.size(), "frame is", "frames are") +
                    " left to step through");
            ended = true;
            continue;
          }
          std::string why = n == 0 ? "the MJPEG stream ended" : std::string("cannot read the MJPEG stream: ") +
                                                                   std::strerror(errno);
          if (received) {
            ctx.log(why + " after " + counted(received, "frame") + "; serving its last frame until stopped");
          } else {
            ctx.log(why + " before a complete JPEG arrived: there is nothing to serve (did the program "
                          "writing the stream fail?)");
            if (ctx.nothingToServe) ctx.nothingToServe();
          }
          idleUntilStopped(stop, ctx.settings);
          break;
        }
        auto images = splitter.feed(std::string_view(buffer.data(), static_cast<size_t>(n)));
        skipped_.store(splitter.skippedBytes(), std::memory_order_relaxed);
        // Input that never starts a JPEG is most likely another format: say what is expected.
        if (!received && !warnedNotMjpeg && splitter.skippedBytes() >= kNotMjpegAfter) {
          warnedNotMjpeg = true;
          ctx.log("standard input does not look like an MJPEG stream (" + std::to_string(splitter.skippedBytes()) +
                  " bytes without a JPEG): --stdin expects concatenated JPEG images, for example "
                  "ffmpeg -i INPUT -f mjpeg - | zerlan serve --stdin");
        }
        // Live, only the newest image of a batch matters: each one replaces the one before.
        std::optional<std::pair<uint64_t, Size>> newest;
        for (size_t i = 0; i < images.size(); ++i) {
          auto size = streamFrameSize(images[i]);
          if (!size) {
            badFrames_.fetch_add(1, std::memory_order_relaxed);
            if (badReported++ < 5)
              ctx.log("skipping a frame of the MJPEG stream: " + size.error().message);
            continue;
          }
          if (stepped) queued.emplace_back(received, std::move(images[i]));
          else newest = {i, *size};
          ++received;
        }
        if (newest) {
          ctx.store.publish(images[newest->first], newest->second.width, newest->second.height,
                            ctx.settings.version(), received - 1);
        }
      }
    }
    ::close(wakePipe[0]);
    ::close(wakePipe[1]);
  }

 private:
  int fd_;
  // What /status shows of input that is not an MJPEG stream.
  std::atomic<uint64_t> skipped_{0};
  std::atomic<uint64_t> badFrames_{0};
  static constexpr uint64_t kNotMjpegAfter = 64 * 1024;
};

Result<std::unique_ptr<Source>> openPattern(const FrameSettings& settings) {
  Size size = settings.size.value_or(kPatternSize);
  if (auto fits = checkQrPayload(settings.qr, size); !fits) return fits.error();
  return std::unique_ptr<Source>(new PatternSource(size, settings.qr));
}

Result<std::unique_ptr<Source>> openImage(const std::string& path, const FrameSettings& settings) {
  auto picture = loadPicture(path, settings);
  if (!picture) return picture.error();
  return std::unique_ptr<Source>(new ImageSource(path, std::move(picture.value())));
}

Result<std::unique_ptr<Source>> openDir(const std::string& path, const FrameSettings& settings) {
  std::error_code ec;
  if (!fs::exists(path, ec)) return fail("folder " + path + " does not exist");
  if (!fs::is_directory(path, ec)) {
    return fail(path + " is not a folder: use --image for a single picture");
  }
  std::vector<std::string> files;
  fs::directory_iterator it(path, ec), end;
  if (ec) return fail("cannot list folder " + path + ": " + ec.message());
  for (; it != end; it.increment(ec)) {
    if (ec) return fail("cannot list folder " + path + ": " + ec.message());
    if (!it->is_regular_file(ec)) continue;
    std::string ext = it->path().extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (std::find(kImageExtensions.begin(), kImageExtensions.end(), ext) == kImageExtensions.end())
      continue;
    if (it->path().filename().string().starts_with(".")) continue;  // editor and Finder droppings
    files.push_back(it->path().string());
  }
  if (files.empty()) {
    return fail("folder " + path +
                " has no images (looked for .jpg, .jpeg, .png, .bmp, .gif, .webp, .tif, .ppm)");
  }
  std::sort(files.begin(), files.end());
  auto first = loadPicture(files.front(), settings, true);
  if (!first) return first.error();
  return std::unique_ptr<Source>(
      new DirSource(path, std::move(files), std::move(first.value()), settings));
}

Result<std::unique_ptr<Source>> openVideo(const std::string& path, const FrameSettings& settings) {
  std::error_code ec;
  auto status = fs::status(path, ec);
  if (ec || !fs::exists(status)) return fail(path + " does not exist");
  if (!fs::is_regular_file(status)) return fail(path + " is not a regular file");
  auto reader = MediaReader::open(path);
  if (!reader) return reader.error();
  if (auto fits = (*reader)->checkSize(); !fits) return fits.error();
  auto first = (*reader)->next(settings.size);
  if (!first) return first.error();
  if (!first->has_value()) return fail(path + " has no video frames");
  // A picture opens as a one-frame video; played as one it would stop at once.
  auto second = (*reader)->next(settings.size);
  if (second && !second->has_value())
    return fail(path + " is a still picture, not a video: serve it with --image (or {\"image\": PATH})");
  if (auto rewound = (*reader)->rewind(); !rewound) return rewound.error();
  first = (*reader)->next(settings.size);
  if (!first) return first.error();
  if (!first->has_value()) return fail(path + " has no video frames");
  return std::unique_ptr<Source>(
      new VideoSource(path, std::move(reader.value()), std::move(first->value()), settings.size));
}

Result<std::unique_ptr<Source>> openCameraSource(const std::string& name,
                                                 const FrameSettings& settings) {
  const Size size = settings.size.value_or(kPatternSize);
  auto camera = openCamera(settings.cameraInput, name, size);
  if (!camera) return camera.error();
  return std::unique_ptr<Source>(
      new CameraSource(settings.cameraInput, name, size, std::move(camera.value())));
}

Result<std::unique_ptr<Source>> openStream(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return fail("standard input is closed: pipe an MJPEG stream into it");
  if (::isatty(fd)) {
    return fail(
        "standard input is a terminal: pipe an MJPEG stream into it, for example "
        "ffmpeg -i input.mp4 -f mjpeg - | zerlan serve --stdin");
  }
  return std::unique_ptr<Source>(new StreamSource(fd));
}

}  // namespace

std::string_view kindName(SourceChoice::Kind kind) {
  switch (kind) {
    case SourceChoice::Kind::Pattern:
      return "pattern";
    case SourceChoice::Kind::Image:
      return "image";
    case SourceChoice::Kind::Dir:
      return "dir";
    case SourceChoice::Kind::Video:
      return "video";
    case SourceChoice::Kind::Stdin:
      return "stdin";
    case SourceChoice::Kind::Camera:
      return "camera";
  }
  return "unknown";
}

FrameSettings LiveSettings::snapshot() const {
  std::lock_guard lock(mu_);
  return settings_;
}

uint64_t LiveSettings::version() const {
  std::lock_guard lock(mu_);
  return version_;
}

std::pair<FrameSettings, uint64_t> LiveSettings::snapshotWithVersion() const {
  std::lock_guard lock(mu_);
  return {settings_, version_};
}

bool LiveSettings::sleepUntil(SteadyClock::time_point until, const StopSignal& stop,
                              uint64_t seen) const {
  // The waker takes the lock before it notifies, so a stop requested between the check of the
  // predicate and the wait is not missed. Declared before the lock: destroyed after it.
  StopSignal::OnStop onStop(stop, [this] {
    { std::lock_guard woken(mu_); }
    cv_.notify_all();
  });
  std::unique_lock lock(mu_);
  cv_.wait_until(lock, until, [&] { return version_ > seen || stop.requested(); });
  return !stop.requested();
}

Result<std::unique_ptr<Source>> openSource(const SourceChoice& choice,
                                           const FrameSettings& settings) {
  switch (choice.kind) {
    case SourceChoice::Kind::Pattern:
      return openPattern(settings);
    case SourceChoice::Kind::Image:
      return openImage(choice.path, settings);
    case SourceChoice::Kind::Dir:
      return openDir(choice.path, settings);
    case SourceChoice::Kind::Video:
      return openVideo(choice.path, settings);
    case SourceChoice::Kind::Stdin:
      return openStream(choice.fd);
    case SourceChoice::Kind::Camera:
      return openCameraSource(choice.path, settings);
  }
  return fail("unknown source kind");
}

Producer::Producer(FrameStore& store, LiveSettings& settings, Logger log, NothingToServe nothingToServe)
    : store_(store), settings_(settings), log_(std::move(log)), nothingToServe_(std::move(nothingToServe)) {}

Producer::~Producer() { stop(); }

uint64_t Producer::start(std::unique_ptr<Source> source) {
  std::lock_guard lifecycle(lifecycleMu_);
  std::unique_ptr<Source> old;
  {
    std::lock_guard lock(mu_);
    old = std::move(source_);
    source_ = std::move(source);
  }
  if (thread_.joinable()) {
    stop_->request();
    thread_.join();
  }
  old.reset();
  Source* running = nullptr;
  {
    std::lock_guard lock(mu_);
    running = source_.get();
  }
  uint64_t last = store_.nextNumber() - 1;
  stop_ = std::make_unique<StopSignal>();
  thread_ = std::thread([this, running, stop = stop_.get()] {
    SourceContext context{store_, settings_, log_, nothingToServe_};
    running->run(*stop, context);
  });
  return last;
}

void Producer::stop() {
  std::lock_guard lifecycle(lifecycleMu_);
  if (thread_.joinable()) {
    stop_->request();
    thread_.join();
  }
}

std::string Producer::description() const {
  std::lock_guard lock(mu_);
  return source_ ? source_->description() : "none";
}

std::optional<SourceChoice::Kind> Producer::kind() const {
  std::lock_guard lock(mu_);
  if (!source_) return std::nullopt;
  return source_->kind();
}

}  // namespace zerlan::server
