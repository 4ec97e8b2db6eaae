#include "replay/TrimOutput.h"

#include "media/RecorderError.h"

#include <QFile>

#include <cstring>

TrimOutput::TrimOutput(const QString &path)
    : m_path(path)
{
    AVFormatContext *raw = nullptr;
    const QByteArray name = QFile::encodeName(path);
    const int status = avformat_alloc_output_context2(&raw, nullptr, "mp4", name.constData());
    if (status < 0 || !raw)
        fail(status);
    m_format.reset(raw);
}

TrimOutput::~TrimOutput()
{
    if (m_open)
        avio_closep(&m_format->pb);
}

void TrimOutput::fail(int status) const
{
    throw RecorderError::writerFailed(
        QStringLiteral("Could not write the trimmed copy: %1.").arg(FFmpeg::errorText(status)));
}

int TrimOutput::addVideo(const AVCodecParameters &source, const std::vector<uint8_t> &avcC,
                         AVRational timeBase)
{
    AVStream *stream = avformat_new_stream(m_format.get(), nullptr);
    if (!stream || avcodec_parameters_copy(stream->codecpar, &source) < 0)
        throw std::bad_alloc();
    av_freep(&stream->codecpar->extradata);
    stream->codecpar->extradata =
        static_cast<uint8_t *>(av_mallocz(avcC.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!stream->codecpar->extradata)
        throw std::bad_alloc();
    std::memcpy(stream->codecpar->extradata, avcC.data(), avcC.size());
    stream->codecpar->extradata_size = int(avcC.size());
    // The muxer picks its own tag for the sample description.
    stream->codecpar->codec_tag = 0;
    stream->time_base = timeBase;
    m_sourceTimeBases.push_back(timeBase);
    return stream->index;
}

int TrimOutput::addAudio(const AVCodecParameters &source, AVRational timeBase)
{
    AVStream *stream = avformat_new_stream(m_format.get(), nullptr);
    if (!stream || avcodec_parameters_copy(stream->codecpar, &source) < 0)
        throw std::bad_alloc();
    stream->codecpar->codec_tag = 0;
    // AAC's frames are 1024 samples; the demuxer leaves it unsaid, the muxer wants it said.
    if (stream->codecpar->codec_id == AV_CODEC_ID_AAC && stream->codecpar->frame_size == 0)
        stream->codecpar->frame_size = 1024;
    stream->time_base = timeBase;
    m_sourceTimeBases.push_back(timeBase);
    return stream->index;
}

void TrimOutput::begin()
{
    const QByteArray url = "file:" + QFile::encodeName(m_path);
    if (const int status = avio_open(&m_format->pb, url.constData(), AVIO_FLAG_WRITE); status < 0)
        fail(status);
    m_open = true;
    if (const int status = avformat_write_header(m_format.get(), nullptr); status < 0)
        fail(status);
}

void TrimOutput::write(int stream, FFmpeg::PacketPtr packet)
{
    packet->stream_index = stream;
    // The muxer may have chosen another clock for the stream than the one asked for.
    av_packet_rescale_ts(packet.get(), m_sourceTimeBases[size_t(stream)],
                         m_format->streams[stream]->time_base);
    if (const int status = av_interleaved_write_frame(m_format.get(), packet.get()); status < 0)
        fail(status);
}

void TrimOutput::finish()
{
    if (const int status = av_write_trailer(m_format.get()); status < 0)
        fail(status);
    m_open = false;
    if (const int status = avio_closep(&m_format->pb); status < 0)
        fail(status);
}
