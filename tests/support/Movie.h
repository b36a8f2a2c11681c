// A movie file as ffprobe and ffmpeg see it, read with the same libraries (libavformat,
// libavcodec): the container's major brand, the streams, the video stream's timing and bit rate
// computed from its packets, and the pictures decoded. Link libavformat, libavcodec, libavutil.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zerlan::testing {

struct Movie {
    bool opened = false;
    // ISO base media "ftyp" major brand, as ffprobe's format tag major_brand: "isom" or "mp42"
    // for MPEG-4, "qt  " for a QuickTime movie.
    std::string majorBrand;
    int streams = 0, videoStreams = 0, audioStreams = 0;
    AVCodecID codec = AV_CODEC_ID_NONE;
    int width = 0, height = 0;
    double seconds = 0; // the container's duration
    // The video stream's frames: their presentation times in seconds, in order, and their bits
    // over the time they cover (the first frame's start to the last one's end).
    std::vector<double> times;
    double bitRate = 0;
};

inline Movie readMovie(const std::string &path)
{
    Movie movie;
    AVFormatContext *format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) != 0)
        return movie;
    movie.opened = avformat_find_stream_info(format, nullptr) >= 0;
    if (const AVDictionaryEntry *brand = av_dict_get(format->metadata, "major_brand", nullptr, 0))
        movie.majorBrand = brand->value;
    movie.streams = int(format->nb_streams);
    int video = -1;
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVCodecParameters *p = format->streams[i]->codecpar;
        if (p->codec_type == AVMEDIA_TYPE_VIDEO) {
            ++movie.videoStreams;
            video = int(i);
            movie.codec = p->codec_id;
            movie.width = p->width;
            movie.height = p->height;
        } else if (p->codec_type == AVMEDIA_TYPE_AUDIO) {
            ++movie.audioStreams;
        }
    }
    if (format->duration != AV_NOPTS_VALUE)
        movie.seconds = double(format->duration) / AV_TIME_BASE;
    if (video >= 0) {
        double base = av_q2d(format->streams[video]->time_base);
        int64_t end = INT64_MIN, bytes = 0;
        AVPacket *packet = av_packet_alloc();
        while (av_read_frame(format, packet) >= 0) {
            if (packet->stream_index == video && packet->pts != AV_NOPTS_VALUE) {
                bytes += packet->size;
                movie.times.push_back(double(packet->pts) * base);
                end = std::max(end, packet->pts + packet->duration);
            }
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
        std::sort(movie.times.begin(), movie.times.end());
        if (!movie.times.empty()) {
            double covered = double(end) * base - movie.times.front();
            movie.bitRate = covered > 0 ? double(bytes) * 8 / covered : 0;
        }
    }
    avformat_close_input(&format);
    return movie;
}

// The luma plane of every picture of the movie's video stream, decoded in presentation order
// (the movies here have no B-frames), with the pictures' width; empty when it cannot be read.
struct Pictures {
    int width = 0, height = 0;
    std::vector<std::vector<uint8_t>> luma;
};

inline Pictures decodePictures(const std::string &path)
{
    Pictures out;
    AVFormatContext *format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) != 0)
        return out;
    avformat_find_stream_info(format, nullptr);
    const AVCodec *codec = nullptr;
    int stream = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    AVCodecContext *decoder = stream >= 0 ? avcodec_alloc_context3(codec) : nullptr;
    if (decoder && avcodec_parameters_to_context(decoder, format->streams[stream]->codecpar) >= 0 &&
        avcodec_open2(decoder, codec, nullptr) >= 0) {
        AVPacket *packet = av_packet_alloc();
        AVFrame *frame = av_frame_alloc();
        auto drain = [&] {
            while (avcodec_receive_frame(decoder, frame) >= 0) {
                out.width = frame->width;
                out.height = frame->height;
                std::vector<uint8_t> &luma = out.luma.emplace_back(size_t(frame->width) * size_t(frame->height));
                for (int y = 0; y < frame->height; ++y)
                    std::memcpy(&luma[size_t(y) * size_t(frame->width)], frame->data[0] + y * frame->linesize[0],
                                size_t(frame->width));
            }
        };
        while (av_read_frame(format, packet) >= 0) {
            if (packet->stream_index == stream && avcodec_send_packet(decoder, packet) >= 0)
                drain();
            av_packet_unref(packet);
        }
        avcodec_send_packet(decoder, nullptr);
        drain();
        av_frame_free(&frame);
        av_packet_free(&packet);
    }
    avcodec_free_context(&decoder);
    avformat_close_input(&format);
    return out;
}

} // namespace zerlan::testing
