#include "server/media.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavdevice/avdevice.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

namespace zerlan::server {

namespace {

// Where FFmpeg's log lines of this thread go; none: nowhere. FFmpeg writes its own diagnostics
// to stderr, and the server reports failures itself, in one line that names the file.
thread_local const std::function<void(int, const std::string&)>* tLogSink = nullptr;
thread_local std::string tLogPending;

void logToSink(void*, int level, const char* format, va_list args) {
  if (!tLogSink) return;
  char text[1024];
  va_list copy;
  va_copy(copy, args);
  std::vsnprintf(text, sizeof text, format, copy);
  va_end(copy);
  tLogPending += text;
  // A line may come in pieces: hand over complete ones.
  for (size_t end; (end = tLogPending.find('\n')) != std::string::npos;) {
    std::string line = tLogPending.substr(0, end);
    tLogPending.erase(0, end + 1);
    if (!line.empty()) (*tLogSink)(level, line);
  }
}

// What a camera feed can be made of. Anything else is refused before FFmpeg reads it: among its
// demuxers are some that render any text file (.asc, .nfo, .ans, ...) as video, and a control
// request may name any path, so an open list would let a client read the host's files as frames.
constexpr const char* kFormats =
    "mov,matroska,avi,mpegts,flv,mpeg,ogg,asf,ivf,yuv4mpegpipe,h264,hevc,gif,mjpeg,image2,image2pipe,"
    "jpeg_pipe,png_pipe,bmp_pipe,webp_pipe,tiff_pipe,gif_pipe,ppm_pipe,pgm_pipe,pbm_pipe,pam_pipe";
constexpr const char* kDecoders =
    "h264,hevc,mpeg4,mpeg1video,mpeg2video,h263,flv,vp8,vp9,libvpx,libvpx-vp9,av1,libdav1d,libaom-av1,"
    "prores,theora,msmpeg4,wmv3,rawvideo,mjpeg,png,apng,bmp,gif,webp,tiff,ppm,pgm,pbm,pam";
// What cameras send: raw pictures, MJPEG, H.264 from some USB cameras, and lavfi's frames.
constexpr const char* kDeviceDecoders = "rawvideo,mjpeg,h264,hevc,wrapped_avframe";

AVDictionary* openOptions() {
  AVDictionary* options = nullptr;
  av_dict_set(&options, "format_whitelist", kFormats, 0);
  av_dict_set(&options, "codec_whitelist", kDecoders, 0);
  av_dict_set(&options, "protocol_whitelist", "file", 0);
  return options;
}

// The decoders allowed, and no picture larger than a frame may be (checked before a decoder
// allocates it).
AVDictionary* decoderOptions(const char* decoders) {
  AVDictionary* options = nullptr;
  av_dict_set(&options, "codec_whitelist", decoders, 0);
  av_dict_set_int(&options, "max_pixels", kMaxPicturePixels, 0);
  return options;
}

// Trims `frame` to the proportions of `size`, evenly on both sides.
void cropToShape(AVFrame* frame, Size size) {
  const int64_t w = frame->width, h = frame->height;
  if (w * size.height > h * size.width) {
    int64_t keep = h * size.width / size.height;
    frame->crop_left = static_cast<size_t>((w - keep) / 2) & ~size_t{1};
    frame->crop_right = static_cast<size_t>(w - keep) - frame->crop_left;
  } else if (w * size.height < h * size.width) {
    int64_t keep = w * size.height / size.width;
    frame->crop_top = static_cast<size_t>((h - keep) / 2) & ~size_t{1};
    frame->crop_bottom = static_cast<size_t>(h - keep) - frame->crop_top;
  }
  av_frame_apply_cropping(frame, AV_FRAME_CROP_UNALIGNED);
}

}  // namespace

void setUpLibav() {
  static std::once_flag once;
  std::call_once(once, [] {
    av_log_set_callback(logToSink);
    av_log_set_level(AV_LOG_INFO);
    avdevice_register_all();
  });
}

std::string averror(int code) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, buf, sizeof buf);
  return buf;
}

void withLibavLog(const std::function<void(int level, const std::string& line)>& line,
                  const std::function<void()>& work) {
  setUpLibav();
  const auto* outer = tLogSink;
  tLogSink = &line;
  work();
  tLogSink = outer;
  tLogPending.clear();
}

struct MediaReader::State {
  std::string path;
  AVFormatContext* format = nullptr;
  AVCodecContext* codec = nullptr;
  AVPacket* packet = nullptr;
  AVFrame* frame = nullptr;
  SwsContext* sws = nullptr;
  int stream = -1;
  bool flushed = false;  // the decoder was sent its end-of-stream packet
  bool fill = false;     // crop to the shape asked for instead of stretching
  bool waiting = false;  // the device had no frame ready
  bool holding = false;  // `frame` is the frame decoded last
  uint64_t position = 0;  // of the next frame decoded, from the start of the file
  Size probedSize;       // a file's pictures, as it states them (none when it does not say)

  // What stepping learns of the file: its frame count, and from the container every frame's
  // presentation time in order with the positions of the keyframes among them.
  std::optional<uint64_t> length;
  enum class Table { Unread, Usable, Unusable } table = Table::Unread;
  std::vector<int64_t> times;
  std::vector<uint64_t> keyframes;

  ~State() {
    sws_freeContext(sws);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    avformat_close_input(&format);
  }

  Result<bool> decode();
  Result<bool> advance();
  Result<MediaFrame> convert(std::optional<Size> size);
  Result<void> rewind();
  int64_t frameTime() const { return frame->best_effort_timestamp; }
  void readTable(const StopSignal& stop);
  void dropTable();
  Result<bool> seek(uint64_t target, const StopSignal& stop);
};

Result<std::unique_ptr<MediaReader>> MediaReader::open(const std::string& path) {
  setUpLibav();
  std::unique_ptr<MediaReader> reader(new MediaReader);
  reader->s_ = std::make_unique<State>();
  State& s = *reader->s_;
  s.path = path;
  AVDictionary* options = openOptions();
  int opened = avformat_open_input(&s.format, path.c_str(), nullptr, &options);
  av_dict_free(&options);
  if (opened < 0) {
    // A whitelist refusal reads as "Invalid data": say what is accepted instead.
    return fail("cannot open " + path + ": " + averror(opened) +
                " (pictures: JPEG, PNG, BMP, GIF, WebP, TIFF, PNM; videos: MP4, MOV, MKV, WebM, AVI, MPEG, "
                "FLV, Ogg)");
  }
  // Decoders refuse a picture larger than a frame may be before they allocate it, also while
  // probing: most picture formats state their size only to the decoder, which says it in its log.
  std::vector<AVDictionary*> probeOptions(s.format->nb_streams);
  for (auto& streamOptions : probeOptions) streamOptions = decoderOptions(kDecoders);
  int found = 0;
  withLibavLog(
      [&](int level, const std::string& line) {
        unsigned width = 0, height = 0;
        size_t at = line.find("Picture size ");
        if (level <= AV_LOG_ERROR && at != std::string::npos &&
            std::sscanf(line.c_str() + at, "Picture size %ux%u exceeds", &width, &height) == 2 &&
            width <= INT32_MAX && height <= INT32_MAX)
          s.probedSize = Size{static_cast<int>(width), static_cast<int>(height)};
      },
      [&] { found = avformat_find_stream_info(s.format, probeOptions.data()); });
  for (auto& streamOptions : probeOptions) av_dict_free(&streamOptions);
  if (found < 0) return fail("cannot read " + path + ": " + averror(found));
  if (auto decoder = reader->openDecoder(kDecoders); !decoder) return decoder.error();
  if (s.codec->width > 0) s.probedSize = Size{s.codec->width, s.codec->height};
  return reader;
}

Result<std::unique_ptr<MediaReader>> MediaReader::open(const DeviceInput& device) {
  setUpLibav();
  const AVInputFormat* input = av_find_input_format(device.format.c_str());
  if (!input) {
    return fail("this FFmpeg has no \"" + device.format +
                "\" input: its libavdevice was built without it");
  }
  std::unique_ptr<MediaReader> reader(new MediaReader);
  reader->s_ = std::make_unique<State>();
  State& s = *reader->s_;
  s.path = device.label;
  s.fill = true;
  s.format = avformat_alloc_context();
  if (!s.format) return fail("out of memory opening " + device.label);
  // Reads must not block: a camera that stops sending would otherwise hold its thread, and the
  // server's stop, for good.
  s.format->flags |= AVFMT_FLAG_NONBLOCK;
  AVDictionary* options = nullptr;
  for (const auto& [key, value] : device.options) {
    av_dict_set(&options, key.c_str(), value.c_str(), 0);
  }
  int opened = 0;
  std::string said;  // the input's own account of a failure
  withLibavLog(
      [&](int level, const std::string& line) {
        if (level <= AV_LOG_ERROR) said = line;
      },
      [&] { opened = avformat_open_input(&s.format, device.url.c_str(), input, &options); });
  av_dict_free(&options);
  if (opened < 0) {
    return fail("cannot open " + device.label + ": " + averror(opened) +
                (said.empty() || said == averror(opened) ? "" : " (" + said + ")"));
  }
  // Devices describe their stream when they open; probing further would read frames to no end.
  if (auto decoder = reader->openDecoder(kDeviceDecoders); !decoder) return decoder.error();
  return reader;
}

Result<void> MediaReader::openDecoder(const char* decoders) {
  State& s = *s_;
  const AVCodec* decoder = nullptr;
  s.stream = av_find_best_stream(s.format, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
  if (s.stream < 0 || !decoder) {
    return fail(s.path + " has no picture or video that FFmpeg can decode");
  }
  s.codec = avcodec_alloc_context3(decoder);
  s.packet = av_packet_alloc();
  s.frame = av_frame_alloc();
  if (!s.codec || !s.packet || !s.frame) return fail("out of memory opening " + s.path);
  avcodec_parameters_to_context(s.codec, s.format->streams[s.stream]->codecpar);
  AVDictionary* options = decoderOptions(decoders);
  int rc = avcodec_open2(s.codec, decoder, &options);
  av_dict_free(&options);
  if (rc < 0) return fail("cannot decode " + s.path + " (" + decoder->name + "): " + averror(rc));
  return {};
}

MediaReader::~MediaReader() = default;

Result<void> MediaReader::checkSize() const {
  if (auto fits = checkPictureSize(s_->probedSize, "picture"); !fits)
    return fail(s_->path + ": " + fits.error().message);
  return {};
}

Size MediaReader::size() const { return Size{s_->codec->width, s_->codec->height}; }

double MediaReader::frameRate() const {
  AVRational rate = av_guess_frame_rate(s_->format, s_->format->streams[s_->stream], nullptr);
  return rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0;
}

std::string MediaReader::codecName() const { return s_->codec->codec->name; }

double MediaReader::duration() const {
  const int64_t length = s_->format->duration;
  return length == AV_NOPTS_VALUE || length <= 0 ? 0 : static_cast<double>(length) / AV_TIME_BASE;
}

// The next frame into `frame`, not converted; false at the end of the stream, or while a device
// has no frame ready (`waiting`).
Result<bool> MediaReader::State::decode() {
  av_frame_unref(frame);
  holding = false;
  waiting = false;
  for (;;) {
    int rc = avcodec_receive_frame(codec, frame);
    if (rc == 0) {
      holding = true;
      return true;
    }
    if (rc != AVERROR(EAGAIN) && rc != AVERROR_EOF) return fail("cannot decode " + path + ": " + averror(rc));
    if (flushed) return false;

    rc = av_read_frame(format, packet);
    if (rc == AVERROR(EAGAIN)) {
      waiting = true;
      return false;
    }
    if (rc == AVERROR_EOF) {
      avcodec_send_packet(codec, nullptr);
      flushed = true;
      continue;
    }
    if (rc < 0) return fail("cannot read " + path + ": " + averror(rc));
    if (packet->stream_index == stream) {
      rc = avcodec_send_packet(codec, packet);
      // A damaged packet loses one picture, not the whole video.
      if (rc < 0 && rc != AVERROR(EAGAIN) && rc != AVERROR_INVALIDDATA) {
        av_packet_unref(packet);
        return fail("cannot decode " + path + ": " + averror(rc));
      }
    }
    av_packet_unref(packet);
  }
}

// decode() that keeps count: of the position, of the length at the end, and of whether the
// container's times still match what the decoder gives.
Result<bool> MediaReader::State::advance() {
  auto got = decode();
  if (!got || !*got) {
    if (got && !waiting && position > 0) {
      if (table == Table::Usable && position != times.size()) dropTable();
      length = position;
    }
    return got;
  }
  if (table == Table::Usable && (position >= times.size() || times[position] != frameTime())) {
    dropTable();
  }
  ++position;
  return true;
}

Result<MediaFrame> MediaReader::State::convert(std::optional<Size> size) {
  if (fill && size) cropToShape(frame, *size);
  const int w = frame->width;
  const int h = frame->height;
  Size out = size.value_or(Size{w, h});
  sws = sws_getCachedContext(sws, w, h, static_cast<AVPixelFormat>(frame->format), out.width,
                             out.height, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr, nullptr);
  if (!sws) return fail("cannot convert the pictures of " + path + " to RGB");
  MediaFrame result;
  result.image = RgbImage(out.width, out.height);
  uint8_t* dst[4] = {result.image.pixels.data(), nullptr, nullptr, nullptr};
  int dstStride[4] = {out.width * 3, 0, 0, 0};
  sws_scale(sws, frame->data, frame->linesize, 0, h, dst, dstStride);

  int64_t pts = frameTime();
  result.seconds = pts == AV_NOPTS_VALUE
                       ? std::nan("")
                       : static_cast<double>(pts) * av_q2d(format->streams[stream]->time_base);
  return result;
}

bool MediaReader::waiting() const { return s_->waiting; }

Result<std::optional<MediaFrame>> MediaReader::next(std::optional<Size> size) {
  auto got = s_->advance();
  if (!got) return got.error();
  if (!*got) return std::optional<MediaFrame>();
  auto frame = s_->convert(size);
  if (!frame) return frame.error();
  return std::optional<MediaFrame>(std::move(frame.value()));
}

Result<void> MediaReader::State::rewind() {
  int64_t start = format->streams[stream]->start_time;
  if (start == AV_NOPTS_VALUE) start = 0;
  int rc = av_seek_frame(format, stream, start, AVSEEK_FLAG_BACKWARD);
  if (rc < 0) rc = avformat_seek_file(format, stream, INT64_MIN, start, start, 0);
  if (rc < 0) return fail("cannot go back to the start of " + path + ": " + averror(rc));
  avcodec_flush_buffers(codec);
  flushed = false;
  av_frame_unref(frame);
  holding = false;
  position = 0;
  return {};
}

Result<void> MediaReader::rewind() { return s_->rewind(); }

// Reads the presentation time of every packet of the stream, without decoding, from a context
// of its own. Unusable when a packet has no time or shares one, or the times disagree with the
// frame in hand; left Unread when `stop` comes first.
void MediaReader::State::readTable(const StopSignal& stop) {
  AVFormatContext* scan = nullptr;
  AVDictionary* options = openOptions();
  int opened = avformat_open_input(&scan, path.c_str(), nullptr, &options);
  av_dict_free(&options);
  table = Table::Unusable;
  if (opened < 0) return;
  AVPacket* p = av_packet_alloc();
  std::vector<std::pair<int64_t, bool>> found;
  int rc = p ? 0 : AVERROR(ENOMEM);
  while (rc >= 0 && (rc = av_read_frame(scan, p)) >= 0) {
    if (stop.requested()) {
      table = Table::Unread;
      break;
    }
    if (p->stream_index == stream && !(p->flags & AV_PKT_FLAG_DISCARD)) {
      if (p->pts == AV_NOPTS_VALUE) {
        rc = AVERROR_INVALIDDATA;
      } else {
        found.emplace_back(p->pts, (p->flags & AV_PKT_FLAG_KEY) != 0);
      }
    }
    av_packet_unref(p);
  }
  av_packet_free(&p);
  avformat_close_input(&scan);
  if (table == Table::Unread || rc != AVERROR_EOF || found.empty()) return;
  std::sort(found.begin(), found.end());
  times.clear();
  keyframes.clear();
  for (size_t i = 0; i < found.size(); ++i) {
    if (i > 0 && found[i].first == found[i - 1].first) return;
    times.push_back(found[i].first);
    if (found[i].second) keyframes.push_back(i);
  }
  if (holding && (position == 0 || position > times.size() || times[position - 1] != frameTime()))
    return;
  table = Table::Usable;
  length = times.size();
}

void MediaReader::State::dropTable() {
  table = Table::Unusable;
  times.clear();
  keyframes.clear();
  length.reset();  // it came from the table; the end of the stream tells it again
}

// Goes to frame `target` from the keyframe before it (or one before that, should the container
// land later than asked). False when it cannot: the table is dropped and the stream rewound.
Result<bool> MediaReader::State::seek(uint64_t target, const StopSignal& stop) {
  auto key = std::upper_bound(keyframes.begin(), keyframes.end(), target);
  for (int tries = 0; tries < 3 && key != keyframes.begin(); ++tries) {
    --key;
    if (av_seek_frame(format, stream, times[*key], AVSEEK_FLAG_BACKWARD) < 0) break;
    avcodec_flush_buffers(codec);
    flushed = false;
    for (;;) {
      if (stop.requested()) return false;
      auto got = decode();
      if (!got) return got.error();
      if (!*got || frameTime() > times[target]) break;
      // Frames before the keyframe that the decoder still gives out (an open GOP) are earlier.
      if (frameTime() == times[target]) {
        position = target + 1;
        return true;
      }
    }
  }
  dropTable();
  if (auto rewound = rewind(); !rewound) return rewound.error();
  return false;
}

Result<std::optional<MediaFrame>> MediaReader::frameAt(uint64_t index, std::optional<Size> size,
                                                      const StopSignal& stop) {
  // Up to this many frames ahead, decoding them is quicker than reading the container's times.
  constexpr uint64_t kWalkFrames = 64;
  State& s = *s_;
  using Table = State::Table;
  for (;;) {
    if (stop.requested()) return std::optional<MediaFrame>();
    const uint64_t target = s.length ? index % *s.length : index;
    const bool held = s.holding && s.position > 0;
    if (held && s.position - 1 == target) break;
    const bool behind = target < s.position;
    if (s.table == Table::Unread && (behind || target - s.position >= kWalkFrames)) {
      s.readTable(stop);
      continue;
    }
    if (s.table == Table::Usable) {
      // Seek only where it skips decoding: backwards, or to a keyframe ahead of the next frame.
      auto key = std::upper_bound(s.keyframes.begin(), s.keyframes.end(), target);
      if (behind || (key != s.keyframes.begin() && *std::prev(key) > s.position)) {
        auto sought = s.seek(target, stop);
        if (!sought) return sought.error();
        continue;
      }
    }
    if (behind) {
      if (auto rewound = s.rewind(); !rewound) return rewound.error();
      continue;
    }
    auto got = s.advance();
    if (!got) return got.error();
    if (!*got) {
      if (!s.length) return fail(s.path + " stopped giving frames");
      if (auto rewound = s.rewind(); !rewound) return rewound.error();
    }
  }
  auto frame = s.convert(size);
  if (!frame) return frame.error();
  return std::optional<MediaFrame>(std::move(frame.value()));
}

Result<RgbImage> readPicture(const std::string& path, std::optional<Size> size) {
  auto unreadable = [&](const Error& error) {
    return fail(path + " is not an image that can be read: " + error.message);
  };
  auto reader = MediaReader::open(path);
  if (!reader) return unreadable(reader.error());
  if (auto fits = (*reader)->checkSize(); !fits) return fits.error();
  auto frame = (*reader)->next(size);
  if (!frame) return unreadable(frame.error());
  if (!frame->has_value()) return unreadable(fail(path + " contains no picture"));
  return std::move((*frame)->image);
}

}  // namespace zerlan::server
