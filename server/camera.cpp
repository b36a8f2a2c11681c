#include "server/camera.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include "server/platform.h"

namespace zerlan::server {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// A camera that is switched on takes a moment to send its first picture; one that sends none
// in this time is taken for broken or busy.
constexpr auto kFirstFrameWait = 10s;

// A lavfi camera is one chain of these: generators that draw pictures and filters that change
// them. Other filters can read files (movie, drawtext's textfile, subtitles) or load code, and
// a control request may name any graph.
constexpr std::array<std::string_view, 41> kLavfiFilters = {
    "testsrc",       "testsrc2",   "smptebars",
    "smptehdbars",   "pal75bars",  "pal100bars",
    "rgbtestsrc",    "yuvtestsrc", "colorchart",
    "colorspectrum", "color",      "mandelbrot",
    "life",          "cellauto",   "gradients",
    "allrgb",        "allyuv",     "nullsrc",
    "sierpinski",    "scale",      "format",
    "fps",           "setpts",     "setsar",
    "hue",           "eq",         "negate",
    "hflip",         "vflip",      "transpose",
    "rotate",        "crop",       "pad",
    "drawbox",       "drawgrid",   "boxblur",
    "gblur",         "noise",      "colorchannelmixer",
    "null",          "realtime"};

const std::string kLavfiHelp =
    "a lavfi camera is one chain of generators and filters, without labels, quotes or escapes, "
    "such as " +
    std::string(kLavfiDefaultGraph) + " or smptebars=size=640x480,hflip";

Result<void> checkLavfiGraph(std::string_view graph) {
  if (graph.empty()) return fail("the lavfi camera's graph is empty: " + kLavfiHelp);
  if (graph.find_first_of("[];'\"\\") != std::string_view::npos)
    return fail("cannot use the lavfi graph \"" + std::string(graph) + "\": " + kLavfiHelp);
  for (size_t start = 0; start <= graph.size();) {
    size_t end = std::min(graph.find(',', start), graph.size());
    std::string_view filter = graph.substr(start, end - start);
    std::string_view name = filter.substr(0, filter.find_first_of("=@"));
    while (!name.empty() && name.front() == ' ') name.remove_prefix(1);
    while (!name.empty() && name.back() == ' ') name.remove_suffix(1);
    if (std::find(kLavfiFilters.begin(), kLavfiFilters.end(), name) == kLavfiFilters.end()) {
      std::string allowed;
      for (auto f : kLavfiFilters) allowed += (allowed.empty() ? "" : ", ") + std::string(f);
      return fail("the filter \"" + std::string(name) +
                  "\" cannot make a lavfi camera; these can: " + allowed);
    }
    start = end + 1;
  }
  return {};
}

std::string listText(const std::vector<CameraInfo>& cameras) {
  std::string text;
  for (const auto& c : cameras) {
    text += (text.empty() ? "" : ", ") + ("\"" + c.name + "\"");
    if (!c.description.empty()) text += " (" + c.description + ")";
  }
  return text;
}

// AVFoundation lists its devices only in its log: "AVFoundation video devices:", then one
// "[N] NAME" line each, then the audio devices.
Result<std::vector<CameraInfo>> listAvfoundation(const AVInputFormat* input) {
  std::vector<CameraInfo> cameras;
  bool inVideo = false;
  withLibavLog(
      [&](int, const std::string& line) {
        if (line.find("video devices:") != std::string::npos) {
          inVideo = true;
        } else if (line.find("audio devices:") != std::string::npos) {
          inVideo = false;
        } else if (inVideo && line.starts_with("[")) {
          size_t close = line.find("] ");
          if (close != std::string::npos) cameras.push_back({line.substr(close + 2), {}});
        }
      },
      [&] {
        AVFormatContext* context = nullptr;
        AVDictionary* options = nullptr;
        av_dict_set(&options, "list_devices", "true", 0);
        avformat_open_input(&context, "", input, &options);  // lists, then fails by design
        av_dict_free(&options);
        avformat_close_input(&context);
      });
  return cameras;
}

Result<std::vector<CameraInfo>> listV4l2(const AVInputFormat* input) {
  AVDeviceInfoList* list = nullptr;
  int rc = 0;
  withLibavLog([](int, const std::string&) {},
               [&] { rc = avdevice_list_input_sources(input, nullptr, nullptr, &list); });
  if (rc < 0) {
    avdevice_free_list_devices(&list);
    return fail("cannot list the V4L2 cameras: " + averror(rc));
  }
  std::vector<CameraInfo> cameras;
  for (int i = 0; list && i < list->nb_devices; ++i) {
    const AVDeviceInfo* d = list->devices[i];
    cameras.push_back(
        {d->device_name ? d->device_name : "", d->device_description ? d->device_description : ""});
  }
  avdevice_free_list_devices(&list);
  std::sort(cameras.begin(), cameras.end(),
            [](const CameraInfo& a, const CameraInfo& b) { return a.name < b.name; });
  return cameras;
}

}  // namespace

std::string noCamera(std::string_view input) {
  if (input == "v4l2") {
    return "this machine has no V4L2 video device (/dev/video*): connect a camera, or check that "
           "its driver is loaded";
  }
  return "macOS lists no video device: connect a camera, or look for it in System Information > "
         "Camera";
}

namespace {

Result<void> checkAccess() {
  switch (platform::cameraAccess()) {
    case platform::CameraAccess::Granted:
      return {};
    case platform::CameraAccess::Denied:
      return fail(
          "macOS has not given this terminal access to the camera: allow it in System Settings > "
          "Privacy & Security > Camera (turn on your terminal: Terminal, iTerm, ...), then start "
          "the camera again");
    case platform::CameraAccess::Restricted:
      return fail(
          "camera access is restricted on this Mac (by a device management profile or Screen "
          "Time): ask its administrator, or see System Settings > Privacy & Security > Camera");
    case platform::CameraAccess::Undecided:
      break;
  }
  return fail(
      "macOS asked whether this terminal may use the camera and had no answer: answer its prompt "
      "(or allow your terminal in System Settings > Privacy & Security > Camera), then try again");
}

// What libavdevice opens for camera `name` of `input`, checked against the cameras it has.
Result<DeviceInput> deviceFor(std::string_view input, const std::string& name) {
  DeviceInput device;
  device.format = std::string(input);
  if (input == "lavfi") {
    std::string graph = name.empty() ? std::string(kLavfiDefaultGraph) : name;
    if (auto checked = checkLavfiGraph(graph); !checked) return checked.error();
    // A generated video comes as fast as it is read; a camera sends at its own pace.
    device.url = graph + ",realtime";
    device.label = "camera " + graph;
    return device;
  }
  if (input != "v4l2" && input != "avfoundation") {
    return fail("unknown camera input \"" + std::string(input) +
                "\": use avfoundation (macOS), v4l2 (Linux) or lavfi (a generated video)");
  }
  if (input == "avfoundation") {
    if (auto access = checkAccess(); !access) return access.error();
  }
  auto cameras = listCameras(input);
  if (!cameras) return cameras.error();
  if (cameras->empty()) {
    return fail((name.empty() ? "no camera found: " : "no camera named \"" + name + "\": ") +
                noCamera(input));
  }
  const CameraInfo* chosen = name.empty() ? &cameras->front() : nullptr;
  for (const auto& c : *cameras) {
    if (chosen) break;
    if (c.name == name || c.description == name) chosen = &c;
  }
  // AVFoundation also takes a device's index.
  if (!chosen && input == "avfoundation" && !name.empty() && name.size() <= 3 &&
      name.find_first_not_of("0123456789") == std::string::npos &&
      std::stoul(name) < cameras->size()) {
    chosen = &(*cameras)[std::stoul(name)];
  }
  if (!chosen) {
    return fail("no camera named \"" + name + "\": the cameras are " + listText(*cameras) +
                " (zerlan serve --list-cameras)");
  }
  device.label = "camera " + chosen->name;
  if (input == "v4l2") {
    device.url = chosen->name;
    return device;
  }
  // AVFoundation's default device when no name was given, as macOS picks it.
  device.url = name.empty() ? "default" : chosen->name;
  if (name.empty()) device.label = "the default camera";
  // FFmpeg asks for 29.97 fps unless told otherwise, which most Mac cameras refuse; pixel
  // formats it falls back from by itself.
  device.options = {{"framerate", "30"}, {"pixel_format", "uyvy422"}};
  return device;
}

Result<std::unique_ptr<MediaReader>> openDevice(DeviceInput device) {
  auto reader = MediaReader::open(device);
  // Cameras that do not offer 30 fps mostly offer one of these.
  for (const char* rate : {"15", "60", "25", "24"}) {
    if (reader || device.format != "avfoundation" ||
        reader.error().message.find("framerate") == std::string::npos) {
      break;
    }
    device.options[0].second = rate;
    reader = MediaReader::open(device);
  }
  return reader;
}

}  // namespace

Result<std::vector<CameraInfo>> listCameras(std::string_view input) {
  if (input == "lavfi") {
    return fail(
        "lavfi has no list of cameras: its camera is a generated video, named by a chain "
        "of filters such as " +
        std::string(kLavfiDefaultGraph) + " (the default)");
  }
  setUpLibav();
  const AVInputFormat* format = av_find_input_format(std::string(input).c_str());
  if (!format) {
    return fail("this FFmpeg has no \"" + std::string(input) +
                "\" input: its libavdevice was built without it");
  }
  if (input == "avfoundation") return listAvfoundation(format);
  if (input == "v4l2") return listV4l2(format);
  return fail("unknown camera input \"" + std::string(input) +
              "\": use avfoundation (macOS), v4l2 (Linux) or lavfi (a generated video)");
}

Result<OpenedCamera> openCamera(std::string_view input, const std::string& name, Size size,
                                const std::function<bool()>& cancelled) {
  auto device = deviceFor(input, name);
  if (!device) return device.error();
  auto reader = openDevice(*device);
  if (!reader) return reader.error();
  const auto deadline = Clock::now() + kFirstFrameWait;
  for (;;) {
    auto frame = (*reader)->next(size);
    if (!frame) return frame.error();
    if (frame->has_value()) {
      OpenedCamera camera{std::move(reader.value()), std::move(frame->value()), {}};
      std::ostringstream out;
      Size native = camera.reader->size();
      out << device->label << " (" << input << ", " << camera.reader->codecName() << " "
          << formatSize(native);
      out.precision(4);
      if (double rate = camera.reader->frameRate(); rate > 0) out << " at " << rate << " fps";
      bool sameShape = int64_t{native.width} * size.height == int64_t{native.height} * size.width;
      out << (sameShape ? ", scaled to " : ", cropped and scaled to ") << formatSize(size) << ")";
      camera.description = out.str();
      return camera;
    }
    if (!(*reader)->waiting()) return fail(device->label + " ended before its first picture");
    if (cancelled && cancelled()) return fail("opening " + device->label + " was cancelled");
    if (Clock::now() >= deadline) {
      return fail(device->label + " gave no picture in " +
                  std::to_string(std::chrono::seconds(kFirstFrameWait).count()) +
                  " s: is another program using it?");
    }
    std::this_thread::sleep_for(kCameraPollPeriod);
  }
}

}  // namespace zerlan::server
