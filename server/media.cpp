#include "server/media.h"

#include <cmath>
#include <mutex>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

namespace zerlan::server {

namespace {

std::string averror(int code) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, buf, sizeof buf);
  return buf;
}

void quietLibav() {
  // FFmpeg writes its own diagnostics to stderr; the server reports failures itself, in one
  // line that names the file.
  static std::once_flag once;
  std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
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

AVDictionary* openOptions() {
  AVDictionary* options = nullptr;
  av_dict_set(&options, "format_whitelist", kFormats, 0);
  av_dict_set(&options, "codec_whitelist", kDecoders, 0);
  av_dict_set(&options, "protocol_whitelist", "file", 0);
  return options;
}

}  // namespace

struct MediaReader::State {
  std::string path;
  AVFormatContext* format = nullptr;
  AVCodecContext* codec = nullptr;
  AVPacket* packet = nullptr;
  AVFrame* frame = nullptr;
  SwsContext* sws = nullptr;
  int stream = -1;
  bool flushed = false;  // the decoder was sent its end-of-stream packet

  ~State() {
    sws_freeContext(sws);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    avformat_close_input(&format);
  }
};

Result<std::unique_ptr<MediaReader>> MediaReader::open(const std::string& path) {
  quietLibav();
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
  if (int rc = avformat_find_stream_info(s.format, nullptr); rc < 0) {
    return fail("cannot read " + path + ": " + averror(rc));
  }
  const AVCodec* decoder = nullptr;
  s.stream = av_find_best_stream(s.format, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
  if (s.stream < 0 || !decoder) {
    return fail(path + " has no picture or video that FFmpeg can decode");
  }
  s.codec = avcodec_alloc_context3(decoder);
  s.packet = av_packet_alloc();
  s.frame = av_frame_alloc();
  if (!s.codec || !s.packet || !s.frame) return fail("out of memory opening " + path);
  avcodec_parameters_to_context(s.codec, s.format->streams[s.stream]->codecpar);
  AVDictionary* codecOptions = nullptr;
  av_dict_set(&codecOptions, "codec_whitelist", kDecoders, 0);
  int rcOpen = avcodec_open2(s.codec, decoder, &codecOptions);
  av_dict_free(&codecOptions);
  if (int rc = rcOpen; rc < 0) {
    return fail("cannot decode " + path + " (" + decoder->name + "): " + averror(rc));
  }
  return reader;
}

MediaReader::~MediaReader() = default;

Size MediaReader::size() const { return Size{s_->codec->width, s_->codec->height}; }

double MediaReader::frameRate() const {
  AVRational rate = av_guess_frame_rate(s_->format, s_->format->streams[s_->stream], nullptr);
  return rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0;
}

std::string MediaReader::codecName() const { return s_->codec->codec->name; }

Result<std::optional<MediaFrame>> MediaReader::receive(std::optional<Size> size, bool& got) {
  State& s = *s_;
  got = false;
  int rc = avcodec_receive_frame(s.codec, s.frame);
  if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return std::optional<MediaFrame>();
  if (rc < 0) return fail("cannot decode " + s.path + ": " + averror(rc));
  got = true;

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

Result<std::optional<MediaFrame>> MediaReader::next(std::optional<Size> size) {
  State& s = *s_;
  bool got = false;
  for (;;) {
    auto frame = receive(size, got);
    if (!frame || got) return frame;
    if (s.flushed) return std::optional<MediaFrame>();

    int rc = av_read_frame(s.format, s.packet);
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
  auto reader = MediaReader::open(path);
  if (!reader) return reader.error();
  auto frame = (*reader)->next(size);
  if (!frame) return frame.error();
  if (!frame->has_value()) return fail(path + " contains no picture");
  return std::move((*frame)->image);
}

}  // namespace zerlan::server
