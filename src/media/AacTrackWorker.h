#pragma once

#include "core/SerialQueue.h"
#include "media/AacEncoder.h"

#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

// Encodes one audio track on a thread of its own, so that a writer's audio tracks encode in
// parallel with each other and with whatever the writer does meanwhile. The owner submits PCM
// and collects finished packets; `onProgress` runs on the worker thread after every step (it
// must only schedule work elsewhere, never call back into this object).
class AacTrackWorker
{
public:
    struct Output
    {
        std::vector<FFmpeg::PacketPtr> packets;
        bool finished = false; // the encoder has been drained: nothing more will come
        QString error; // set once when encoding failed; the track is finished then
    };

    AacTrackWorker(std::unique_ptr<AacEncoder> encoder, std::function<void()> onProgress);
    // Drops the work not yet started and waits for the thread.
    ~AacTrackWorker();
    AacTrackWorker(const AacTrackWorker &) = delete;
    AacTrackWorker &operator=(const AacTrackWorker &) = delete;

    // Queues `run` for encoding; runs follow each other on the timeline.
    void submit(AudioRun run);
    // Queues the final drain; nothing may be submitted afterwards.
    void finish();
    // Samples submitted and not yet encoded.
    int64_t backlogSamples() const { return m_backlog.load(); }
    // Whether the final drain has run (its packets may not have been taken yet).
    bool isDrained() const { return m_drained.load(); }
    // Takes the packets finished so far.
    Output take();

private:
    void run(const std::function<void(std::vector<FFmpeg::PacketPtr> &)> &step, bool isLast);

    std::unique_ptr<AacEncoder> m_encoder; // used on m_queue's thread only
    bool m_failed = false; // m_queue's thread only
    const std::function<void()> m_onProgress;
    std::atomic<int64_t> m_backlog {0};
    std::atomic<bool> m_cancelled {false};
    std::atomic<bool> m_drained {false};

    // m_lock guards the output below; never held while encoding or calling out.
    std::mutex m_lock;
    Output m_output;

    SerialQueue m_queue; // declared last: its thread stops before the members above go
};
