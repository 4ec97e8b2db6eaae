#include "replay/TrimSource.h"

#include "media/H264Bitstream.h"
#include "media/RecorderError.h"

#include <QFile>
#include <QFileInfo>

namespace {

[[noreturn]] void refuse(const QString &path, const QString &why)
{
    throw RecorderError::writerFailed(QStringLiteral("%1 is not a clip Vantrel can trim: %2.")
                                          .arg(QFileInfo(path).fileName(), why));
}

} // namespace

TrimSource::TrimSource(const QString &path)
    : m_path(path)
{
    AVFormatContext *raw = nullptr;
    const QByteArray url = "file:" + QFile::encodeName(path);
    if (const int status = avformat_open_input(&raw, url.constData(), nullptr, nullptr); status < 0)
        throw RecorderError::writerFailed(
            QStringLiteral("Could not read %1: %2.")
                .arg(QFileInfo(path).fileName(), FFmpeg::errorText(status)));
    m_input.reset(raw);

    for (unsigned i = 0; i < m_input->nb_streams; ++i) {
        AVStream &stream = *m_input->streams[i];
        const AVCodecParameters &parameters = *stream.codecpar;
        if (parameters.codec_type == AVMEDIA_TYPE_VIDEO &&
            !(stream.disposition & AV_DISPOSITION_ATTACHED_PIC)) {
            if (m_video.stream >= 0)
                refuse(path, QStringLiteral("it has more than one video track"));
            if (parameters.codec_id != AV_CODEC_ID_H264)
                refuse(path, QStringLiteral("its video is not H.264"));
            // Frames shown in another order than stored (B-frames) cannot be cut by copying.
            if (parameters.video_delay > 0)
                refuse(path, QStringLiteral("its video has B-frames"));
            m_video = trackOf(stream, int(i));
        } else if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
            if (parameters.codec_id != AV_CODEC_ID_AAC)
                refuse(path, QStringLiteral("its sound is not AAC"));
            m_audio.push_back(trackOf(stream, int(i)));
        }
    }
    if (m_video.stream < 0 || m_video.samples.empty())
        refuse(path, QStringLiteral("it has no video"));
    if (H264Bitstream::avcCLengthSize(avcC()) != 4)
        refuse(path, QStringLiteral("its video is not stored as MP4 samples"));
    for (size_t i = 1; i < m_video.samples.size(); ++i) {
        if (m_video.samples[i].pts <= m_video.samples[i - 1].pts)
            refuse(path, QStringLiteral("its frames are not in time order"));
    }
}

TrimSource::Track TrimSource::trackOf(AVStream &stream, int index)
{
    Track track;
    track.stream = index;
    track.timeBase = stream.time_base;
    const int count = avformat_index_get_entries_count(&stream);
    track.samples.reserve(size_t(std::max(0, count)));
    for (int i = 0; i < count; ++i) {
        const AVIndexEntry *entry = avformat_index_get_entry(&stream, i);
        if (!entry || entry->size <= 0)
            continue;
        track.samples.push_back(
            {entry->timestamp, 0, entry->pos, entry->size, bool(entry->flags & AVINDEX_KEYFRAME)});
    }
    // Each sample lasts until the next; the last one until the track's end, when the file says
    // where that is, or as long as the one before.
    for (size_t i = 0; i + 1 < track.samples.size(); ++i)
        track.samples[i].duration = track.samples[i + 1].pts - track.samples[i].pts;
    if (!track.samples.empty()) {
        Sample &last = track.samples.back();
        const int64_t end = stream.duration > 0
            ? std::max<int64_t>(0, stream.start_time) + stream.duration
            : AV_NOPTS_VALUE;
        if (end != AV_NOPTS_VALUE && end > last.pts)
            last.duration = end - last.pts;
        else
            last.duration =
                track.samples.size() > 1 ? track.samples[track.samples.size() - 2].duration : 1;
        track.end = last.pts + last.duration;
    }
    return track;
}

std::span<const uint8_t> TrimSource::avcC() const
{
    const AVCodecParameters &parameters = m_video.parameters(*this);
    return {parameters.extradata, size_t(std::max(0, parameters.extradata_size))};
}

FFmpeg::PacketPtr TrimSource::read(const Track &track, const Sample &sample, int limit) const
{
    const int size = limit > 0 ? std::min(limit, sample.size) : sample.size;
    FFmpeg::PacketPtr packet = FFmpeg::makePacket();
    if (av_new_packet(packet.get(), size) < 0)
        throw std::bad_alloc();
    AVIOContext *io = m_input->pb;
    if (avio_seek(io, sample.position, SEEK_SET) < 0 || avio_read(io, packet->data, size) != size)
        throw RecorderError::writerFailed(
            QStringLiteral("Could not read %1: it ends before its last frame.")
                .arg(QFileInfo(m_path).fileName()));
    packet->pts = packet->dts = sample.pts;
    packet->duration = sample.duration;
    packet->stream_index = track.stream;
    if (sample.key)
        packet->flags |= AV_PKT_FLAG_KEY;
    return packet;
}
