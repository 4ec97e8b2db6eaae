#include "media/AacEncoder.h"

#include "media/RecorderError.h"

#include <algorithm>
#include <cstring>

namespace {

[[noreturn]] void fault(const char *what, int code)
{
    throw RecorderError::writerFailed(
        QStringLiteral("Could not encode the audio (%1): %2").arg(what, FFmpeg::errorText(code)));
}

AVSampleFormat sampleFormatOf(const AudioFormat &format)
{
    if (format.sampleFormat == AudioFormat::SampleFormat::Float32)
        return format.planar ? AV_SAMPLE_FMT_FLTP : AV_SAMPLE_FMT_FLT;
    return format.planar ? AV_SAMPLE_FMT_S16P : AV_SAMPLE_FMT_S16;
}

int rateOf(const AudioFormat &format)
{
    return format.sampleRate > 0 ? format.sampleRate : AudioDefaults::sampleRate;
}

bool sameLayout(const AudioFormat &a, const AudioFormat &b)
{
    return a.sampleRate == b.sampleRate && a.channels == b.channels &&
        a.sampleFormat == b.sampleFormat && a.planar == b.planar;
}

} // namespace

std::unique_ptr<AacEncoder> AacEncoder::create(const Settings &settings)
{
    const AVCodec *codec = avcodec_find_encoder_by_name("aac");
    if (!codec || settings.channels < 1 || settings.sampleRate < 1)
        return nullptr;
    FFmpeg::CodecContextPtr context(avcodec_alloc_context3(codec));
    if (!context)
        return nullptr;
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->sample_rate = settings.sampleRate;
    av_channel_layout_default(&context->ch_layout, settings.channels);
    context->bit_rate = settings.bitRate;
    context->time_base = AVRational {1, settings.sampleRate};
    // MP4 keeps the decoder configuration in the sample description, not in the packets.
    context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // A fixed quality rather than a fixed rate. On dense sound (music, noise) it lands near the
    // bit rate above; on sparse sound (a tone, a menu's beeps) no setting reaches that rate, and
    // the rate control would then code every frame six times trying to: four times the CPU for
    // the same sound. This encoder runs all the time the program is armed.
    context->flags |= AV_CODEC_FLAG_QSCALE;
    context->global_quality = int(1.5 * FF_QP2LAMBDA);
    // The constant-quantizer coder: at our bit rate it sounds as good as the default two-loop
    // search for half the CPU. Left and right are coded as they are: at 192 kbit/s the per-band
    // search for mid/side coding buys nothing audible and costs about a sixth of the encoder's
    // time on music.
    AVDictionary *options = nullptr;
    av_dict_set(&options, "aac_coder", "fast", 0);
    av_dict_set(&options, "aac_ms", "0", 0);
    const int opened = avcodec_open2(context.get(), codec, &options);
    av_dict_free(&options);
    if (opened < 0)
        return nullptr;
    return std::unique_ptr<AacEncoder>(new AacEncoder(std::move(context)));
}

AacEncoder::AacEncoder(FFmpeg::CodecContextPtr codec)
    : m_codec(std::move(codec))
    , m_fifo(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, m_codec->ch_layout.nb_channels,
                                 m_codec->frame_size * 4))
    , m_converted(size_t(m_codec->ch_layout.nb_channels))
{
    if (!m_fifo)
        throw std::bad_alloc();
}

AacEncoder::~AacEncoder() = default;

void AacEncoder::copyParameters(AVCodecParameters *parameters) const
{
    const int result = avcodec_parameters_from_context(parameters, m_codec.get());
    if (result < 0)
        fault("parameters", result);
}

AVRational AacEncoder::timeBase() const
{
    return m_codec->time_base;
}

int AacEncoder::frameSize() const
{
    return m_codec->frame_size;
}

int AacEncoder::sampleRate() const
{
    return m_codec->sample_rate;
}

bool AacEncoder::accepts(const MediaSample &sample)
{
    if (sample.kind != MediaSample::Kind::audio || !sample.audioFormat || sample.numSamples < 1)
        return false;
    const AudioFormat &format = *sample.audioFormat;
    if (format.channels < 1 || format.channels > 8)
        return false;
    const uint64_t needed =
        uint64_t(sample.numSamples) * uint64_t(format.channels) * uint64_t(format.bytesPerSample());
    return sample.data.size() >= needed && sample.numSamples <= (1 << 24);
}

void AacEncoder::prepareConverter(const AudioFormat &format)
{
    if (m_converter && sameLayout(format, m_converterFormat))
        return;
    AVChannelLayout inLayout;
    av_channel_layout_default(&inLayout, format.channels);
    SwrContext *raw = nullptr;
    int result =
        swr_alloc_set_opts2(&raw, &m_codec->ch_layout, AV_SAMPLE_FMT_FLTP, m_codec->sample_rate,
                            &inLayout, sampleFormatOf(format), rateOf(format), 0, nullptr);
    FFmpeg::SwrPtr converter(raw);
    av_channel_layout_uninit(&inLayout);
    if (result < 0)
        fault("resampler", result);
    if ((result = swr_init(converter.get())) < 0)
        fault("resampler", result);
    m_converter = std::move(converter);
    m_converterFormat = format;
}

void AacEncoder::startAt(int64_t position)
{
    if (m_end == 0 && m_fifoStart == 0)
        m_fifoStart = m_end = position;
}

void AacEncoder::encode(const AudioRun &run, std::vector<FFmpeg::PacketPtr> &out)
{
    if (m_flushed || run.empty())
        return;
    if (run.silence > 0)
        pushSilence(run.silence, out);
    if (run.count > 0 && accepts(run.sample))
        pushConverted(run.sample, run.skip, run.count);
    encodeFrames(false, out);
}

void AacEncoder::pushSilence(int64_t samples, std::vector<FFmpeg::PacketPtr> &out)
{
    static const std::vector<float> zeros(4096, 0.0f);
    void *planes[8];
    for (size_t c = 0; c < m_converted.size(); ++c)
        planes[c] = const_cast<float *>(zeros.data());
    while (samples > 0) {
        const int chunk = int(std::min<int64_t>(samples, int64_t(zeros.size())));
        if (av_audio_fifo_write(m_fifo.get(), planes, chunk) < chunk)
            throw std::bad_alloc();
        samples -= chunk;
        m_end += chunk;
        // Long silences are encoded as they go, so the FIFO never holds more than a few frames.
        encodeFrames(false, out);
    }
}

void AacEncoder::pushConverted(const MediaSample &sample, int64_t skip, int64_t count)
{
    const AudioFormat &format = *sample.audioFormat;
    prepareConverter(format);

    const int inCount = int(sample.numSamples);
    const uint8_t *inPlanes[8] = {};
    const size_t planeBytes = size_t(inCount) * size_t(format.bytesPerSample());
    const int planes = format.planar ? format.channels : 1;
    for (int p = 0; p < planes; ++p)
        inPlanes[p] = sample.data.data() + size_t(p) * planeBytes;

    const int capacity = swr_get_out_samples(m_converter.get(), inCount);
    if (capacity < 0)
        fault("resampler", capacity);
    // The timeline decided how many samples this run holds; a resampler that returns a few
    // fewer (its filter delay) is topped up with silence so that the two never drift apart.
    const size_t needed = size_t(std::max<int64_t>(capacity, skip + count));
    uint8_t *outPlanes[8] = {};
    for (auto &plane : m_converted) {
        plane.assign(needed, 0.0f);
    }
    for (size_t c = 0; c < m_converted.size(); ++c)
        outPlanes[c] = reinterpret_cast<uint8_t *>(m_converted[c].data());
    const int produced = swr_convert(m_converter.get(), outPlanes, capacity, inPlanes, inCount);
    if (produced < 0)
        fault("resampler", produced);

    void *planesOut[8];
    for (size_t c = 0; c < m_converted.size(); ++c)
        planesOut[c] = m_converted[c].data() + skip;
    if (av_audio_fifo_write(m_fifo.get(), planesOut, int(count)) < count)
        throw std::bad_alloc();
    m_end += count;
}

void AacEncoder::encodeFrames(bool final, std::vector<FFmpeg::PacketPtr> &out)
{
    const int frameSize = m_codec->frame_size;
    for (;;) {
        const int available = av_audio_fifo_size(m_fifo.get());
        if (available < frameSize && !(final && available > 0))
            return;
        const int count = std::min(available, frameSize);
        FFmpeg::FramePtr frame(av_frame_alloc());
        if (!frame)
            throw std::bad_alloc();
        frame->nb_samples = count;
        frame->format = AV_SAMPLE_FMT_FLTP;
        frame->sample_rate = m_codec->sample_rate;
        int result = av_channel_layout_copy(&frame->ch_layout, &m_codec->ch_layout);
        if (result >= 0)
            result = av_frame_get_buffer(frame.get(), 0);
        if (result < 0)
            fault("frame", result);
        if (av_audio_fifo_read(m_fifo.get(), reinterpret_cast<void **>(frame->data), count) < count)
            fault("frame", AVERROR_BUG);
        frame->pts = m_fifoStart;
        m_fifoStart += count;
        if ((result = avcodec_send_frame(m_codec.get(), frame.get())) < 0)
            fault("encoder", result);
        receivePackets(out);
    }
}

void AacEncoder::receivePackets(std::vector<FFmpeg::PacketPtr> &out)
{
    for (;;) {
        FFmpeg::PacketPtr packet = FFmpeg::makePacket();
        const int result = avcodec_receive_packet(m_codec.get(), packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return;
        if (result < 0)
            fault("encoder", result);
        out.push_back(std::move(packet));
    }
}

void AacEncoder::flush(std::vector<FFmpeg::PacketPtr> &out)
{
    if (m_flushed)
        return;
    m_flushed = true;
    encodeFrames(true, out);
    const int result = avcodec_send_frame(m_codec.get(), nullptr);
    if (result < 0)
        fault("encoder", result);
    receivePackets(out);
}
