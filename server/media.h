// Pictures and video read with FFmpeg's libraries: libavformat opens the file, libavcodec
// decodes, libswscale converts to RGB at the size asked for.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "server/image.h"
#include "server/result.h"

namespace zerlan::server {

struct MediaFrame {
  RgbImage image;
  double seconds = 0;  // presentation time; NaN when the file gives none
};

class MediaReader {
 public:
  // Opens the best video stream of `path` (a still image counts as a one-frame video).
  static Result<std::unique_ptr<MediaReader>> open(const std::string& path);
  ~MediaReader();
  MediaReader(const MediaReader&) = delete;
  MediaReader& operator=(const MediaReader&) = delete;

  // The next frame scaled to `size` (its own size when none is given), or nothing at the end
  // of the stream.
  Result<std::optional<MediaFrame>> next(std::optional<Size> size);

  // Goes back to the first frame.
  Result<void> rewind();

  Size size() const;
  double frameRate() const;  // 0 when unknown
  std::string codecName() const;

 private:
  MediaReader() = default;
  Result<std::optional<MediaFrame>> receive(std::optional<Size> size, bool& got);

  struct State;
  std::unique_ptr<State> s_;
};

// The first frame of the picture or video in `path`.
Result<RgbImage> readPicture(const std::string& path, std::optional<Size> size);

}  // namespace zerlan::server
