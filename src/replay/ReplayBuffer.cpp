#include "replay/ReplayBuffer.h"

#include "core/ClipSettings.h"

#include <cmath>

namespace {

template<typename Callback> std::shared_ptr<const Callback> share(Callback callback)
{
    return callback ? std::make_shared<const Callback>(std::move(callback)) : nullptr;
}

} // namespace

void ReplayBuffer::setOnVideoFrame(VideoCallback callback)
{
    auto shared = share(std::move(callback));
    std::scoped_lock lock(m_lock);
    m_onVideoFrame.swap(shared);
}

void ReplayBuffer::setOnAudioPacket(AudioCallback callback)
{
    auto shared = share(std::move(callback));
    std::scoped_lock lock(m_lock);
    m_onAudioPacket.swap(shared);
}

void ReplayBuffer::setOnMicPacket(AudioCallback callback)
{
    auto shared = share(std::move(callback));
    std::scoped_lock lock(m_lock);
    m_onMicPacket.swap(shared);
}

void ReplayBuffer::appendAudioPacket(const AudioSampleBuffer &sample, bool isMic)
{
    const int64_t n = sample.numSamples;
    if (n < 1)
        return;
    MediaTime duration = sample.duration;
    if (!duration.isValid() || duration.isZero()) {
        const int rate = sample.format && sample.format->sampleRate > 0 ? sample.format->sampleRate
                                                                        : AudioDefaults::sampleRate;
        duration = MediaTime::make(n, rate);
    }
    if (!sample.format)
        return;
    Bytes bytes = sample.owned.empty() ? Bytes::concatRange(sample.buffers) : sample.owned;
    if (bytes.empty())
        return;
    AudioPacket packet {std::move(bytes), sample.pts, duration, n, sample.format};

    const double kept = ClipSettings::keptDuration();
    std::shared_ptr<const AudioCallback> callback;
    {
        std::scoped_lock lock(m_lock);
        AudioFormatPtr &format = isMic ? m_micFormat : m_audioFormat;
        if (!format)
            format = packet.format;
        (isMic ? m_mic : m_audio).push_back(packet);
        trimLocked(kept);
        callback = isMic ? m_onMicPacket : m_onAudioPacket;
    }
    if (callback)
        (*callback)(packet);
}

void ReplayBuffer::appendVideo(EncodedFrame frame, VideoFormatPtr keyFormat)
{
    if (frame.data.empty())
        return;
    if (!frame.duration.isValid() || frame.duration.isZero())
        frame.duration = MediaTime::make(1, ClipSettings::fps);

    const double kept = ClipSettings::keptDuration();
    std::shared_ptr<const VideoCallback> callback;
    EncodedFrame last;
    VideoFormatPtr format;
    {
        std::scoped_lock lock(m_lock);
        if (frame.isKey && keyFormat)
            m_videoFormat = std::move(keyFormat);
        m_video.push_back(std::move(frame));
        trimLocked(kept);
        last = m_video.back();
        format = m_videoFormat;
        callback = m_onVideoFrame;
    }
    // Frames before the first key frame with a format are kept but not passed on: a recorder
    // could not start a file with them.
    if (format && callback)
        (*callback)(last, format);
}

void ReplayBuffer::trimLocked(double keptSeconds)
{
    if (m_video.empty())
        return;
    const MediaTime window = MediaTime::make(std::llround(keptSeconds * 600), 600);
    const MediaTime cutoff = m_video.back().pts - window;

    size_t inWindow = 0;
    while (inWindow < m_video.size() && m_video[inWindow].pts < cutoff)
        ++inWindow;
    // Cut only at a key frame at or before the window's start, so the buffer always opens on
    // one; index 0 is never examined, and with no key frame in reach nothing is cut (the buffer
    // grows until one arrives).
    for (size_t k = std::min(inWindow, m_video.size() - 1); k >= 1; --k) {
        if (m_video[k].isKey) {
            m_video.erasePrefix(k);
            break;
        }
    }

    // Each audio list arrives in time order, so what falls before the cut-off is a prefix.
    const MediaTime audioCutoff = m_video.front().pts - audioLead;
    for (auto *list : {&m_audio, &m_mic}) {
        size_t stale = 0;
        while (stale < list->size() && (*list)[stale].pts < audioCutoff)
            ++stale;
        list->erasePrefix(stale);
    }
}

void ReplayBuffer::invalidate()
{
    std::scoped_lock lock(m_lock);
    m_video.clear();
    m_audio.clear();
    m_mic.clear();
    m_videoFormat.reset();
    m_audioFormat.reset();
    m_micFormat.reset();
}

double ReplayBuffer::bufferedDuration() const
{
    std::scoped_lock lock(m_lock);
    if (m_video.empty())
        return 0;
    return std::max(0.0, (m_video.back().pts - m_video.front().pts).seconds());
}

int ReplayBuffer::videoCount() const
{
    std::scoped_lock lock(m_lock);
    return int(m_video.size());
}

int ReplayBuffer::audioCount() const
{
    std::scoped_lock lock(m_lock);
    return int(m_audio.size());
}

size_t ReplayBuffer::heldBytes() const
{
    std::scoped_lock lock(m_lock);
    size_t total = 0;
    for (size_t i = 0; i < m_video.size(); ++i)
        total += m_video[i].data.size();
    for (size_t i = 0; i < m_audio.size(); ++i)
        total += m_audio[i].data.size();
    for (size_t i = 0; i < m_mic.size(); ++i)
        total += m_mic[i].data.size();
    return total;
}

void ReplayBuffer::dropThrough(const Snapshot &snapshot)
{
    // Records are appended in time order and only ever dropped from the front, so what the
    // snapshot holds that is still here is a prefix of each list.
    const auto dropUpTo = [](auto &list, const MediaTime &last) {
        size_t count = 0;
        while (count < list.size() && !(last < list[count].pts))
            ++count;
        list.erasePrefix(count);
    };
    std::scoped_lock lock(m_lock);
    if (!snapshot.video.empty())
        dropUpTo(m_video, snapshot.video.back().pts);
    if (!snapshot.audio.empty())
        dropUpTo(m_audio, snapshot.audio.back().pts);
    if (!snapshot.mic.empty())
        dropUpTo(m_mic, snapshot.mic.back().pts);
}

ReplayBuffer::Snapshot ReplayBuffer::snapshot() const
{
    Snapshot snap;
    std::scoped_lock lock(m_lock);
    snap.video = m_video.view();
    snap.audio = m_audio.view();
    snap.mic = m_mic.view();
    snap.videoFormat = m_videoFormat;
    snap.audioFormat = m_audioFormat;
    snap.micFormat = m_micFormat;
    return snap;
}
