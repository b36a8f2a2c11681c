#include "server/media.h"

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
  Size probedSize;       // a file's pictures, as it states them (none when it does not say)

  ~State() {
    sws_freeContext(sws);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    avformat_close_input(&format);
  }
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

Result<std::optional<MediaFrame>> MediaReader::receive(std::optional<Size> size, bool& got) {
  State& s = *s_;
  got = false;
  int rc = avcodec_receive_frame(s.codec, s.frame);
  if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return std::optional<MediaFrame>();
  if (rc < 0) return fail("cannot decode " + s.path + ": " + averror(rc));
  got = true;

  if (s.fill && size) cropToShape(s.frame, *size);
  const int w = s.frame->width;
  const int h = s.frame->height;
  Size out = size.value_or(Size{w, h});
  s.sws =
      sws_getCachedContext(s.sws, w, h, static_cast<AVPixelFormat>(s.frame->format), out.width,
                           out.height, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr, nullptr);
  if (!s.sws) {
    av_frame_unref(s.frame);
    return fail("cannot convert the pictures of " + s.path + " to RGB");
  }
  MediaFrame result;
  result.image = RgbImage(out.width, out.height);
  uint8_t* dst[4] = {result.image.pixels.data(), nullptr, nullptr, nullptr};
  int dstStride[4] = {out.width * 3, 0, 0, 0};
  sws_scale(s.sws, s.frame->data, s.frame->linesize, 0, h, dst, dstStride);

  int64_t pts = s.frame->best_effort_timestamp;
  result.seconds = pts == AV_NOPTS_VALUE
                       ? std::nan("")
                       : static_cast<double>(pts) * av_q2d(s.format->streams[s.stream]->time_base);
  av_frame_unref(s.frame);
  return std::optional<MediaFrame>(std::move(result));
}

bool MediaReader::waiting() const { return s_->waiting; }

Result<std::optional<MediaFrame>> MediaReader::next(std::optional<Size> size) {
  State& s = *s_;
  s.waiting = false;
  bool got = false;
  for (;;) {
    auto frame = receive(size, got);
    if (!frame || got) return frame;
    if (s.flushed) return std::optional<MediaFrame>();

    int rc = av_read_frame(s.format, s.packet);
    if (rc == AVERROR(EAGAIN)) {
      s.waiting = true;
      return std::optional<MediaFrame>();
    }
    if (rc == AVERROR_EOF) {
      avcodec_send_packet(s.codec, nullptr);
      s.flushed = true;
      continue;
    }
    if (rc < 0) return fail("cannot read " + s.path + ": " + averror(rc));
    if (s.packet->stream_index == s.stream) {
      rc = avcodec_send_packet(s.codec, s.packet);
      // A damaged packet loses one picture, not the whole video.
      if (rc < 0 && rc != AVERROR(EAGAIN) && rc != AVERROR_INVALIDDATA) {
        av_packet_unref(s.packet);
        return fail("cannot decode " + s.path + ": " + averror(rc));
      }
    }
    av_packet_unref(s.packet);
  }
}

Result<void> MediaReader::rewind() {
  State& s = *s_;
  int64_t start = s.format->streams[s.stream]->start_time;
  if (start == AV_NOPTS_VALUE) start = 0;
  int rc = av_seek_frame(s.format, s.stream, start, AVSEEK_FLAG_BACKWARD);
  if (rc < 0) rc = avformat_seek_file(s.format, s.stream, INT64_MIN, start, start, 0);
  if (rc < 0) return fail("cannot go back to the start of " + s.path + ": " + averror(rc));
  avcodec_flush_buffers(s.codec);
  s.flushed = false;
  return {};
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
