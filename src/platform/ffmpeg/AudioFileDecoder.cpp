#include "platform/ffmpeg/AudioFileDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace osv {
namespace {

constexpr int kRate = 24'000;

Error unreadable(const std::filesystem::path& path, const std::string& what, int code) {
    char reason[AV_ERROR_MAX_STRING_SIZE] = {};
    if (code < 0) av_strerror(code, reason, sizeof reason);
    return Error{"media_unreadable",
                 "无法读取音频文件 " + path.string() + "：" + what + (code < 0 ? std::string("（") + reason + "）" : "")};
}

struct Decoding {
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    SwrContext* resampler = nullptr;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    std::vector<std::uint8_t> out;

    ~Decoding() {
        av_frame_free(&frame);
        av_packet_free(&packet);
        swr_free(&resampler);
        avcodec_free_context(&codec);
        avformat_close_input(&format);
    }

    // Converts `input` (or flushes the resampler when null) and appends what comes out.
    int convert(const AVFrame* input) {
        const int inSamples = input ? input->nb_samples : 0;
        const int room = swr_get_out_samples(resampler, inSamples);
        if (room < 0) return room;
        const std::size_t at = out.size();
        out.resize(at + std::size_t(room) * 2);
        std::uint8_t* target = out.data() + at;
        const int made = swr_convert(resampler, &target, room, input ? const_cast<const std::uint8_t**>(input->extended_data) : nullptr,
                                     inSamples);
        if (made < 0) return made;
        out.resize(at + std::size_t(made) * 2);
        return 0;
    }

    int drain() {
        for (;;) {
            int rc = avcodec_receive_frame(codec, frame);
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return 0;
            if (rc < 0) return rc;
            rc = convert(frame);
            av_frame_unref(frame);
            if (rc < 0) return rc;
        }
    }
};

}  // namespace

Expected<std::vector<std::uint8_t>> decodePCM16Mono24k(const std::filesystem::path& path) {
    Decoding d;
    int rc = avformat_open_input(&d.format, path.c_str(), nullptr, nullptr);
    if (rc < 0) return unreadable(path, "open", rc);
    rc = avformat_find_stream_info(d.format, nullptr);
    if (rc < 0) return unreadable(path, "stream info", rc);
    const AVCodec* decoder = nullptr;
    const int stream = av_find_best_stream(d.format, AVMEDIA_TYPE_AUDIO, -1, -1, &decoder, 0);
    if (stream < 0 || !decoder) return unreadable(path, "no audio stream", stream);
    d.codec = avcodec_alloc_context3(decoder);
    rc = avcodec_parameters_to_context(d.codec, d.format->streams[stream]->codecpar);
    if (rc < 0) return unreadable(path, "decoder parameters", rc);
    rc = avcodec_open2(d.codec, decoder, nullptr);
    if (rc < 0) return unreadable(path, "decoder", rc);
    if (d.codec->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&d.codec->ch_layout, d.codec->ch_layout.nb_channels);

    AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    rc = swr_alloc_set_opts2(&d.resampler, &mono, AV_SAMPLE_FMT_S16, kRate, &d.codec->ch_layout, d.codec->sample_fmt,
                             d.codec->sample_rate, 0, nullptr);
    if (rc < 0) return unreadable(path, "resampler", rc);
    rc = swr_init(d.resampler);
    if (rc < 0) return unreadable(path, "resampler", rc);

    while ((rc = av_read_frame(d.format, d.packet)) >= 0) {
        if (d.packet->stream_index == stream) {
            rc = avcodec_send_packet(d.codec, d.packet);
            av_packet_unref(d.packet);
            // A damaged packet is skipped, as players do; the rest of the file still counts.
            if (rc < 0 && rc != AVERROR_INVALIDDATA) return unreadable(path, "decode", rc);
            if ((rc = d.drain()) < 0) return unreadable(path, "decode", rc);
        } else {
            av_packet_unref(d.packet);
        }
    }
    if (rc != AVERROR_EOF) return unreadable(path, "read", rc);
    avcodec_send_packet(d.codec, nullptr);
    if ((rc = d.drain()) < 0) return unreadable(path, "decode", rc);
    if ((rc = d.convert(nullptr)) < 0) return unreadable(path, "resample", rc);
    return std::move(d.out);
}

}  // namespace osv
