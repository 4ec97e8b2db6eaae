#pragma once

// What the capture tests keep of the frames and audio packets a stream delivers, and the small
// measurements they make on them.

#include "media/AudioSampleBuffer.h"
#include "media/VideoFrame.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace capture_test {

struct FrameRecord
{
    int64_t pts = 0; // nanoseconds
    VideoFrame::Status status = VideoFrame::Status::complete;
    int width = 0;
    int height = 0;
    uint64_t hash = 0; // of a sample of the pixels; 0 for frames without
    bool hasPixels = false;
    std::vector<uint8_t> pixels; // a tight BGRA copy, when the log keeps pixels
};

// A hash of every 13th pixel of every 7th row (of the Y plane of an I420 frame): equal for equal
// pictures, different when anything moved.
uint64_t sampleHash(const VideoFrame &frame);
// The frame's pixels as tight BGRA, converted back when the source delivered I420.
std::vector<uint8_t> packedBgra(const VideoFrame &frame);

class FrameLog
{
public:
    explicit FrameLog(bool keepPixels = false)
        : m_keepPixels(keepPixels)
    {
    }

    std::function<void(const VideoFrame &)> handler()
    {
        return [this](const VideoFrame &frame) { add(frame); };
    }

    void add(const VideoFrame &frame)
    {
        FrameRecord record {frame.pts.converted(1'000'000'000).value,
                            frame.status,
                            frame.width,
                            frame.height,
                            0,
                            frame.pixels != nullptr,
                            {}};
        if (frame.status != VideoFrame::Status::idle && frame.pixels) {
            record.hash = sampleHash(frame);
            if (m_keepPixels)
                record.pixels = packedBgra(frame);
        }
        {
            std::scoped_lock lock(m_lock);
            m_frames.push_back(std::move(record));
        }
        m_changed.notify_all();
    }

    std::vector<FrameRecord> frames()
    {
        std::scoped_lock lock(m_lock);
        return m_frames;
    }

    size_t count()
    {
        std::scoped_lock lock(m_lock);
        return m_frames.size();
    }

    // Waits until `done` holds for the frames so far; false when the time ran out.
    bool waitFor(const std::function<bool(const std::vector<FrameRecord> &)> &done,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        std::unique_lock lock(m_lock);
        return m_changed.wait_for(lock, timeout, [&] { return done(m_frames); });
    }

    void clear()
    {
        std::scoped_lock lock(m_lock);
        m_frames.clear();
    }

private:
    const bool m_keepPixels;
    std::mutex m_lock; // guards m_frames
    std::condition_variable m_changed;
    std::vector<FrameRecord> m_frames;
};

struct AudioRecord
{
    int64_t pts = 0; // nanoseconds
    int64_t duration = 0;
    int64_t frames = 0;
    int channels = 0;
    std::vector<float> samples; // interleaved
};

class AudioLog
{
public:
    std::function<void(const AudioSampleBuffer &)> handler()
    {
        return [this](const AudioSampleBuffer &sample) {
            AudioRecord record {sample.pts.converted(1'000'000'000).value,
                                sample.duration.converted(1'000'000'000).value, sample.numSamples,
                                sample.format ? sample.format->channels : 0,
                                std::vector<float>(sample.owned.size() / sizeof(float))};
            std::memcpy(record.samples.data(), sample.owned.data(), sample.owned.size());
            {
                std::scoped_lock lock(m_lock);
                m_packets.push_back(std::move(record));
            }
            m_changed.notify_all();
        };
    }

    // Waits until at least `count` packets came; false when the time ran out.
    bool waitFor(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        std::unique_lock lock(m_lock);
        return m_changed.wait_for(lock, timeout, [&] { return m_packets.size() >= count; });
    }

    std::vector<AudioRecord> packets()
    {
        std::scoped_lock lock(m_lock);
        return m_packets;
    }

private:
    std::mutex m_lock; // guards m_packets
    std::condition_variable m_changed;
    std::vector<AudioRecord> m_packets;
};

// The frequency heard in the first channel of the packets whose level stands clear of silence,
// from the median spacing of its upward zero crossings. 0 when nothing is audible.
double toneFrequency(const std::vector<AudioRecord> &packets, int sampleRate = 48000);

// The first channel's samples of all packets, in order.
std::vector<float> firstChannel(const std::vector<AudioRecord> &packets);

} // namespace capture_test
