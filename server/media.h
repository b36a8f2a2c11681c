// Pictures, video and cameras read with FFmpeg's libraries: libavformat opens the file (or
// libavdevice the camera), libavcodec decodes, libswscale converts to RGB at the size asked for.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/image.h"
#include "server/result.h"
#include "server/stop.h"

namespace zerlan::server {

struct MediaFrame {
  RgbImage image;
  double seconds = 0;  // presentation time; NaN when the file gives none
};

// A live input of libavdevice: a camera, or a generated stand-in for one.
struct DeviceInput {
  std::string format;  // the input: "avfoundation", "v4l2", "lavfi"
  std::string url;     // what the input opens: a device name or path, a filter graph
  std::vector<std::pair<std::string, std::string>> options;  // the input's own options
  std::string label;   // names the device in messages: "camera /dev/video0"
};

class MediaReader {
 public:
  // Opens the best video stream of `path` (a still image counts as a one-frame video).
  static Result<std::unique_ptr<MediaReader>> open(const std::string& path);
  // Opens a device without blocking reads: next() then gives nothing, with waiting() true, while
  // the device has no new frame. Frames keep their proportions: they are cropped to the shape of
  // the size asked for, not stretched.
  static Result<std::unique_ptr<MediaReader>> open(const DeviceInput& device);
  ~MediaReader();
  MediaReader(const MediaReader&) = delete;
  MediaReader& operator=(const MediaReader&) = delete;

  // The next frame scaled to `size` (its own size when none is given), or nothing at the end
  // of the stream (or, from a device, when no frame is ready yet: see waiting()).
  Result<std::optional<MediaFrame>> next(std::optional<Size> size);
  // Whether the last next() gave nothing because the device had no frame ready.
  bool waiting() const;

  // Goes back to the first frame.
  Result<void> rewind();

  // Frame `index` of the file played in a loop (frame 0 is the first `next` gave after the open
  // or a rewind, and the count goes on across loops), from where the reader stands: for steps.
  // Frames on the way are decoded and not converted, and a far target (another loop, or past a
  // keyframe) is reached from the keyframe before it when the container times every frame.
  // Nothing when `stop` is requested first. `next` goes on from the frame it returns. Files only.
  Result<std::optional<MediaFrame>> frameAt(uint64_t index, std::optional<Size> size,
                                            const StopSignal& stop);

  Size size() const;
  // An error when the file's pictures are larger than a frame may be (checkPictureSize): opening
  // reads their size without decoding one.
  Result<void> checkSize() const;
  double frameRate() const;  // 0 when unknown
  std::string codecName() const;
  double duration() const;  // seconds, as the file records its length; 0 when it does not

 private:
  MediaReader() = default;
  Result<void> openDecoder(const char* decoders);

  struct State;
  std::unique_ptr<State> s_;
};

// The first frame of the picture or video in `path`; the error names the file and says why.
Result<RgbImage> readPicture(const std::string& path, std::optional<Size> size);

// Sets FFmpeg up, once for the process: its log goes only where withLibavLog says, and the
// devices of libavdevice are registered. Every function here calls it; call it before using
// FFmpeg directly.
void setUpLibav();

// Runs `work` with FFmpeg's log lines of this thread handed to `line` (level and text, without
// the newline); FFmpeg's messages otherwise go nowhere. Some inputs say things only there:
// AVFoundation lists its devices, and names the option it refused, in its log.
void withLibavLog(const std::function<void(int level, const std::string& line)>& line,
                  const std::function<void()>& work);

// FFmpeg's text for an error code.
std::string averror(int code);

}  // namespace zerlan::server
