#include "replay/EncodedAudioHistory.h"

#include <algorithm>

namespace {

FFmpeg::PacketPtr restamped(const AVPacket &packet, int64_t shift)
{
    FFmpeg::PacketPtr copy(av_packet_clone(&packet));
    if (!copy)
        throw std::bad_alloc();
    copy->pts -= shift;
    copy->dts = copy->pts;
    return copy;
}

FFmpeg::CodecParametersPtr copyOf(const AVCodecParameters &parameters)
{
    FFmpeg::CodecParametersPtr copy(avcodec_parameters_alloc());
    if (!copy || avcodec_parameters_copy(copy.get(), &parameters) < 0)
        throw std::bad_alloc();
    return copy;
}

} // namespace

EncodedAudioHistory::EncodedAudioHistory(std::chrono::seconds keep)
    : m_keep(keep)
{
}

void EncodedAudioHistory::begin(const AVCodecParameters &parameters, MediaTime sourceZero)
{
    FFmpeg::CodecParametersPtr copy = copyOf(parameters);
    std::scoped_lock lock(m_lock);
    m_parameters = std::move(copy);
    m_zero = sourceZero;
    m_rate = parameters.sample_rate;
    m_closed = false;
    m_entries.clear();
    m_grown.notify_all();
}

void EncodedAudioHistory::append(const AVPacket &packet)
{
    if (packet.pts == AV_NOPTS_VALUE || packet.duration < 1)
        return;
    FFmpeg::PacketPtr copy = restamped(packet, 0);
    std::scoped_lock lock(m_lock);
    if (!m_parameters || m_closed || m_rate < 1)
        return;
    // An encoder's packets follow each other without gaps; anything else is not one track.
    if (!m_entries.empty() && copy->pts != m_entries.back().end)
        m_entries.clear();
    const int64_t end = copy->pts + copy->duration;
    m_entries.push_back({std::move(copy), end});
    const int64_t keepFrom = end - int64_t(m_keep.count()) * m_rate;
    while (m_entries.size() > 1 && m_entries.front().end < keepFrom)
        m_entries.pop_front();
    m_grown.notify_all();
}

void EncodedAudioHistory::close()
{
    std::scoped_lock lock(m_lock);
    m_closed = true;
    m_grown.notify_all();
}

int64_t EncodedAudioHistory::samplesFrom(MediaTime source) const
{
    const MediaTime offset = source - m_zero;
    return offset.isValid() ? offset.converted(m_rate).value : INT64_MIN;
}

std::optional<EncodedAudioHistory::Clip>
EncodedAudioHistory::clip(MediaTime from, MediaTime to, std::chrono::milliseconds wait) const
{
    std::unique_lock lock(m_lock);
    if (!m_parameters || m_rate < 1)
        return std::nullopt;
    const int64_t first = samplesFrom(from);
    const int64_t last = samplesFrom(to);
    if (first == INT64_MIN || last == INT64_MIN || last <= first || first < 0)
        return std::nullopt;
    m_grown.wait_for(lock, wait, [&] {
        return m_closed || (!m_entries.empty() && m_entries.back().end >= last);
    });
    if (m_entries.empty() || m_entries.back().end < last)
        return std::nullopt;

    // The packet that plays `first`, and the one before it, which the decoder needs to play it
    // right (at the track's start, the priming packet). Without it the history was trimmed.
    auto playing = std::partition_point(m_entries.begin(), m_entries.end(),
                                        [&](const Entry &entry) { return entry.end <= first; });
    if (playing == m_entries.end() || playing->packet->pts > first || playing == m_entries.begin())
        return std::nullopt;
    --playing;

    Clip clip;
    clip.parameters = copyOf(*m_parameters);
    for (auto entry = playing; entry != m_entries.end() && entry->packet->pts < last; ++entry)
        clip.packets.push_back(restamped(*entry->packet, first));
    return clip;
}
