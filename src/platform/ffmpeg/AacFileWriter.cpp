#include "platform/ffmpeg/AacFileWriter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include <vector>

namespace osv {
namespace {

Error failed(const std::string& what, int code) {
    char reason[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, reason, sizeof reason);
    return Error{"encoder_failed", "无法写入音频文件：" + what + "（" + reason + "）"};
}

}  // namespace

struct AacFileWriter::State {
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    AVStream* stream = nullptr;
    AVPacket* packet = nullptr;
    std::vector<std::vector<float>> pending;  // per channel, not yet a whole frame
    std::int64_t nextPts = 0;
    bool headerWritten = false;
    bool finished = false;

    ~State() {
        if (packet) av_packet_free(&packet);
        if (codec) avcodec_free_context(&codec);
        if (format) {
            if (format->pb && !(format->oformat->flags & AVFMT_NOFILE)) avio_closep(&format->pb);
            avformat_free_context(format);
        }
    }

    // Sends one frame (or the flush when null) and writes every packet that comes out.
    Expected<void> encode(AVFrame* frame) {
        int rc = avcodec_send_frame(codec, frame);
        if (rc < 0) return failed("encode", rc);
        for (;;) {
            rc = avcodec_receive_packet(codec, packet);
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return {};
            if (rc < 0) return failed("encode", rc);
            av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
            packet->stream_index = stream->index;
            rc = av_interleaved_write_frame(format, packet);
            if (rc < 0) return failed("write", rc);
        }
    }

    Expected<void> encodePending(std::size_t samples) {
        AVFrame* frame = av_frame_alloc();
        frame->nb_samples = int(samples);
        frame->format = codec->sample_fmt;
        frame->sample_rate = codec->sample_rate;
        av_channel_layout_copy(&frame->ch_layout, &codec->ch_layout);
        int rc = av_frame_get_buffer(frame, 0);
        if (rc < 0) {
            av_frame_free(&frame);
            return failed("frame", rc);
        }
        for (std::size_t c = 0; c < pending.size(); ++c) {
            auto* plane = reinterpret_cast<float*>(frame->data[c]);
            std::copy(pending[c].begin(), pending[c].begin() + std::ptrdiff_t(samples), plane);
            pending[c].erase(pending[c].begin(), pending[c].begin() + std::ptrdiff_t(samples));
        }
        frame->pts = nextPts;
        nextPts += std::int64_t(samples);
        auto result = encode(frame);
        av_frame_free(&frame);
        return result;
    }
};

AacFileWriter::AacFileWriter(std::unique_ptr<State> state) : state_(std::move(state)) {}
AacFileWriter::~AacFileWriter() {
    if (state_ && state_->headerWritten && !state_->finished) (void)finish();
}

Expected<std::unique_ptr<AacFileWriter>> AacFileWriter::open(const std::filesystem::path& path, int sampleRate,
                                                             int channels, int bitRate) {
    // FFmpeg's chatter (encoder statistics) is no message for the user; errors come back as values.
    static const bool quiet = [] {
        av_log_set_level(AV_LOG_ERROR);
        return true;
    }();
    (void)quiet;
    auto s = std::make_unique<State>();
    int rc = avformat_alloc_output_context2(&s->format, nullptr, "ipod", path.c_str());
    if (rc < 0 || !s->format) return failed("container", rc);
    const AVCodec* aac = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!aac) return Error{"encoder_failed", "无法写入音频文件：没有 AAC 编码器"};
    s->codec = avcodec_alloc_context3(aac);
    s->codec->sample_fmt = AV_SAMPLE_FMT_FLTP;
    s->codec->sample_rate = sampleRate;
    s->codec->bit_rate = bitRate;
    av_channel_layout_default(&s->codec->ch_layout, channels);
    s->codec->time_base = AVRational{1, sampleRate};
    if (s->format->oformat->flags & AVFMT_GLOBALHEADER) s->codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if ((rc = avcodec_open2(s->codec, aac, nullptr)) < 0) return failed("encoder", rc);
    s->stream = avformat_new_stream(s->format, nullptr);
    if (!s->stream) return Error{"encoder_failed", "无法写入音频文件：stream"};
    s->stream->time_base = s->codec->time_base;
    if ((rc = avcodec_parameters_from_context(s->stream->codecpar, s->codec)) < 0) return failed("parameters", rc);
    if ((rc = avio_open(&s->format->pb, path.c_str(), AVIO_FLAG_WRITE)) < 0) return failed("open", rc);
    if ((rc = avformat_write_header(s->format, nullptr)) < 0) return failed("header", rc);
    s->headerWritten = true;
    s->packet = av_packet_alloc();
    s->pending.assign(std::size_t(channels), {});
    return std::unique_ptr<AacFileWriter>(new AacFileWriter(std::move(s)));
}

Expected<void> AacFileWriter::write(const float* interleaved, std::size_t frames) {
    State& s = *state_;
    if (s.finished) return Error{"encoder_failed", "无法写入音频文件：已经结束"};
    const std::size_t channels = s.pending.size();
    for (std::size_t f = 0; f < frames; ++f)
        for (std::size_t c = 0; c < channels; ++c) s.pending[c].push_back(interleaved[f * channels + c]);
    framesWritten_ += frames;
    const std::size_t frameSize = std::size_t(s.codec->frame_size > 0 ? s.codec->frame_size : 1024);
    while (s.pending[0].size() >= frameSize)
        if (auto r = s.encodePending(frameSize); !r) return r;
    return {};
}

Expected<void> AacFileWriter::finish() {
    State& s = *state_;
    if (s.finished) return {};
    s.finished = true;
    if (!s.pending.empty() && !s.pending[0].empty())
        if (auto r = s.encodePending(s.pending[0].size()); !r) return r;
    if (auto r = s.encode(nullptr); !r) return r;
    const int rc = av_write_trailer(s.format);
    avio_closep(&s.format->pb);
    if (rc < 0) return failed("trailer", rc);
    return {};
}

Expected<double> mediaDurationSeconds(const std::filesystem::path& path) {
    AVFormatContext* input = nullptr;
    int rc = avformat_open_input(&input, path.c_str(), nullptr, nullptr);
    if (rc < 0) return Error{"media_unreadable", "无法读取 " + path.string()};
    rc = avformat_find_stream_info(input, nullptr);
    double seconds = -1;
    if (rc >= 0) {
        for (unsigned i = 0; i < input->nb_streams; ++i) {
            const AVStream* st = input->streams[i];
            if (st->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) continue;
            if (st->duration != AV_NOPTS_VALUE) seconds = double(st->duration) * av_q2d(st->time_base);
            break;
        }
        if (seconds < 0 && input->duration != AV_NOPTS_VALUE) seconds = double(input->duration) / AV_TIME_BASE;
    }
    avformat_close_input(&input);
    if (seconds < 0) return Error{"media_unreadable", "读不出 " + path.string() + " 的时长"};
    return seconds;
}

}  // namespace osv
