#include "support/H264TestSource.h"

#include "media/FFmpegHandles.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <cmath>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>

namespace {

struct Nal
{
    const uint8_t *data;
    size_t size;
};

// Splits an Annex B byte stream at its start codes.
std::vector<Nal> splitAnnexB(const uint8_t *data, size_t size)
{
    std::vector<Nal> nals;
    size_t i = 0;
    auto startCodeAt = [&](size_t at) {
        return at + 3 <= size && data[at] == 0 && data[at + 1] == 0 && data[at + 2] == 1;
    };
    while (i < size && !startCodeAt(i))
        ++i;
    while (i < size) {
        const size_t begin = i + 3;
        size_t end = begin;
        while (end < size && !startCodeAt(end))
            ++end;
        size_t last = end;
        // A four-byte start code leaves one zero behind the previous unit.
        while (last > begin && data[last - 1] == 0 && end < size)
            --last;
        nals.push_back({data + begin, last - begin});
        i = end;
    }
    return nals;
}

void append16(std::vector<uint8_t> &out, size_t value)
{
    out.push_back(uint8_t(value >> 8));
    out.push_back(uint8_t(value));
}

std::vector<uint8_t> avcC(const uint8_t *extradata, size_t size)
{
    const uint8_t *sps = nullptr, *pps = nullptr;
    size_t spsSize = 0, ppsSize = 0;
    for (const Nal &nal : splitAnnexB(extradata, size)) {
        if (nal.size == 0)
            continue;
        if ((nal.data[0] & 0x1f) == 7)
            sps = nal.data, spsSize = nal.size;
        else if ((nal.data[0] & 0x1f) == 8)
            pps = nal.data, ppsSize = nal.size;
    }
    if (!sps || !pps || spsSize < 4)
        throw std::runtime_error("libx264 gave no SPS/PPS");
    std::vector<uint8_t> out {1, sps[1], sps[2], sps[3], 0xff, 0xe1};
    append16(out, spsSize);
    out.insert(out.end(), sps, sps + spsSize);
    out.push_back(1);
    append16(out, ppsSize);
    out.insert(out.end(), pps, pps + ppsSize);
    if (sps[1] == 100) // High: 4:2:0, 8 bits, no SPS extensions
        out.insert(out.end(), {0xfd, 0xf8, 0xf8, 0x00});
    return out;
}

Bytes lengthPrefixed(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> out;
    out.reserve(size + 16);
    for (const Nal &nal : splitAnnexB(data, size)) {
        out.push_back(uint8_t(nal.size >> 24));
        out.push_back(uint8_t(nal.size >> 16));
        out.push_back(uint8_t(nal.size >> 8));
        out.push_back(uint8_t(nal.size));
        out.insert(out.end(), nal.data, nal.data + nal.size);
    }
    return Bytes::copy(out);
}

void check(int result, const char *what)
{
    if (result < 0)
        throw std::runtime_error(std::string("H264TestSource: ") + what + " failed");
}

} // namespace

H264TestSource::H264TestSource(int width, int height, int64_t bitRate)
{
    av_log_set_level(AV_LOG_ERROR); // x264's statistics would drown the test's own output
    const AVCodec *codec = avcodec_find_encoder_by_name("libx264");
    if (!codec)
        throw std::runtime_error("H264TestSource: no libx264");
    FFmpeg::CodecContextPtr owner(avcodec_alloc_context3(codec));
    AVCodecContext *context = owner.get();
    if (!context)
        throw std::bad_alloc();
    context->width = width;
    context->height = height;
    context->pix_fmt = AV_PIX_FMT_YUV420P;
    context->time_base = {1, fps};
    context->framerate = {fps, 1};
    context->bit_rate = bitRate;
    context->rc_max_rate = bitRate;
    context->rc_buffer_size = int(bitRate);
    context->gop_size = gopLength;
    context->max_b_frames = 0;
    context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    context->thread_count = 1;
    av_opt_set(context->priv_data, "preset", "superfast", 0);
    av_opt_set(context->priv_data, "tune", "zerolatency", 0);
    av_opt_set(context->priv_data, "profile", "high", 0);
    av_opt_set(context->priv_data, "x264-params", "keyint=120:min-keyint=120:scenecut=0", 0);
    check(avcodec_open2(context, codec, nullptr), "avcodec_open2");

    auto format = std::make_shared<VideoFormat>();
    format->width = width;
    format->height = height;
    format->extradata = avcC(context->extradata, size_t(context->extradata_size));
    m_format = format;

    FFmpeg::FramePtr pictureOwner(av_frame_alloc());
    AVFrame *picture = pictureOwner.get();
    if (!picture)
        throw std::bad_alloc();
    picture->format = AV_PIX_FMT_YUV420P;
    picture->width = width;
    picture->height = height;
    check(av_frame_get_buffer(picture, 0), "av_frame_get_buffer");
    FFmpeg::PacketPtr packetOwner = FFmpeg::makePacket();
    AVPacket *packet = packetOwner.get();
    std::minstd_rand noise(7);

    auto drain = [&] {
        for (;;) {
            const int result = avcodec_receive_packet(context, packet);
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
                return;
            check(result, "avcodec_receive_packet");
            m_gop.push_back(lengthPrefixed(packet->data, size_t(packet->size)));
            av_packet_unref(packet);
        }
    };
    for (int i = 0; i < gopLength; ++i) {
        check(av_frame_make_writable(picture), "av_frame_make_writable");
        // A diagonal gradient sliding four pixels a frame, with a little noise on top.
        for (int y = 0; y < height; ++y) {
            uint8_t *row = picture->data[0] + y * picture->linesize[0];
            for (int x = 0; x < width; ++x)
                row[x] = uint8_t(x + y + 4 * i + int(noise() % 24));
        }
        for (int plane = 1; plane < 3; ++plane) {
            for (int y = 0; y < height / 2; ++y)
                std::memset(picture->data[plane] + y * picture->linesize[plane],
                            128 + plane * 20 + i % 30, size_t(width / 2));
        }
        picture->pts = i;
        // Every group starts with an IDR picture, so the repeats are each decodable alone.
        picture->pict_type = i == 0 ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
        check(avcodec_send_frame(context, picture), "avcodec_send_frame");
        drain();
    }
    check(avcodec_send_frame(context, nullptr), "flush");
    drain();
    if (m_gop.size() != size_t(gopLength))
        throw std::runtime_error("H264TestSource: the encoder did not return every frame");
}

EncodedFrame H264TestSource::frame(int64_t index, MediaTime origin) const
{
    return {m_gop[size_t(index % gopLength)], origin + MediaTime::make(index, fps),
            MediaTime::make(1, fps), index % gopLength == 0};
}

size_t H264TestSource::gopBytes() const
{
    size_t total = 0;
    for (const Bytes &bytes : m_gop)
        total += bytes.size();
    return total;
}

AudioFormatPtr PcmTestSource::format() const
{
    static const auto shared = std::make_shared<const AudioFormat>(AudioFormat {rate, 2});
    return shared;
}

float PcmTestSource::value(int64_t index) const
{
    const double t = double(index) / rate;
    return float(amplitude * std::sin(2 * M_PI * frequency * t) +
                 amplitude2 * std::sin(2 * M_PI * frequency2 * t));
}

AudioPacket PcmTestSource::packet(int64_t index, MediaTime origin) const
{
    std::vector<float> pcm(size_t(packetSamples) * 2);
    for (int i = 0; i < packetSamples; ++i) {
        const float sample = value(index * packetSamples + i);
        pcm[size_t(2 * i)] = sample;
        pcm[size_t(2 * i + 1)] = sample;
    }
    const auto *bytes = reinterpret_cast<const uint8_t *>(pcm.data());
    return {Bytes::copy({bytes, pcm.size() * sizeof(float)}),
            origin + MediaTime::make(index * packetSamples, rate),
            MediaTime::make(packetSamples, rate), packetSamples, format()};
}

AudioSampleBuffer PcmTestSource::sampleBuffer(int64_t index, MediaTime origin) const
{
    AudioPacket stored = packet(index, origin);
    AudioSampleBuffer sample;
    sample.pts = stored.pts;
    sample.duration = stored.duration;
    sample.numSamples = stored.numSamples;
    sample.format = stored.format;
    sample.owned = stored.data;
    return sample;
}
