// Cameras of the host, read through FFmpeg's libavdevice: AVFoundation on macOS, V4L2 on Linux,
// and lavfi, whose "camera" is a generated video (a chain of FFmpeg filters such as
// testsrc2=size=1280x720:rate=30) played in real time, for demos and tests on machines without
// a camera. All three take the same road: libavdevice opens, libavcodec decodes, libswscale
// scales (server/media.h).
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "server/image.h"
#include "server/media.h"
#include "server/result.h"

namespace zerlan::server {

inline constexpr std::string_view kLavfiDefaultGraph = "testsrc2=size=1280x720:rate=30";
// How often a camera's reader looks for a new frame: well within a frame period at 60 fps.
inline constexpr std::chrono::milliseconds kCameraPollPeriod{5};

struct CameraInfo {
  std::string name;         // what --camera takes: "/dev/video0", "FaceTime HD Camera"
  std::string description;  // what the system calls it, when that is more than the name
};

// The cameras that `input` offers ("v4l2", "avfoundation"). lavfi has no list: it fails with a
// message that says what its names are.
Result<std::vector<CameraInfo>> listCameras(std::string_view input);

// Why `input` found no camera at all, and what to do: "this machine has no V4L2 video device ...".
std::string noCamera(std::string_view input);

// An open camera and its first frame.
struct OpenedCamera {
  std::unique_ptr<MediaReader> reader;
  MediaFrame first;
  std::string description;  // "camera /dev/video0 (v4l2, mjpeg 1280x720, cropped to 640x480)"
};

// Opens camera `name` of `input` (empty: the default camera) and waits for its first frame,
// scaled to `size`, unless `cancelled` says to stop waiting. Fails with a message that says what
// to do: no camera, an unknown name (the known ones listed), camera access refused on macOS
// (where to allow it), a lavfi graph that is not one chain of the allowed filters.
Result<OpenedCamera> openCamera(std::string_view input, const std::string& name, Size size,
                                const std::function<bool()>& cancelled = {});

}  // namespace zerlan::server
