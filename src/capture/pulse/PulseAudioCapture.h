#pragma once

#include "media/AudioSampleBuffer.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct pa_threaded_mainloop;
struct pa_context;
struct pa_stream;
class AppSoundSource;
class SerialQueue;

// Records system audio (the default sink's monitor) and the microphone (the default source) from
// the PulseAudio server, or PipeWire's pulse server, as 32-bit float interleaved packets of about
// 40 ms: the server delivers every 10 ms and each piece is stamped on the monotonic capture clock
// with the time its first sample was heard or spoken; pieces that follow on from each other are
// copied into one block, handed to its handler on the output's serial queue.
//
// Our own cue sounds play into the same default sink and so land in the system audio too.
// PulseAudio cannot keep one stream out of a monitor: a record stream can follow a single sink
// input (pa_stream_set_monitor_stream), so leaving ours out would take one recording per other
// application, kept aligned and mixed here, and following them as they come and go. FIXME: that
// mixer, or PipeWire links that skip our node, if the cue in later clips bothers users.
//
// It follows the user's devices: when the default output (for system audio) or the default input
// (for the microphone) changes, or the device a recording is on goes away, that recording moves
// to the new default within a moment, and the capture goes on; only losing the server itself
// ends it. The moment of the move is a gap in the timeline (the clock anchors afresh), heard as a
// short silence, never as drift. Each move is told through `onNotice` with the device's name.
//
// Threads: the server's callbacks run on libpulse's mainloop thread, the handlers on their
// queues. Add the outputs before start(). start() and stop() may be called from any other thread,
// including a handler's queue (stop() then does not wait for the handler that called it).
class PulseAudioCapture
{
public:
    enum class Source { system, microphone };
    using Handler = std::function<void(const AudioSampleBuffer &)>;

    struct Stats
    {
        int64_t packets = 0; // handed to the queue
        int64_t dropped = 0; // not handed over: a second's worth was still waiting on the queue
        int64_t holes = 0; // gaps the server reported in the recording
        int64_t reanchors = 0; // times the pts timeline was moved to the measured capture time
        int64_t cutSamples = 0; // cut because the timeline moved back over them (AudioClock)
        int64_t moves = 0; // times the recording followed a device change
    };
    // A sentence for the user's log ("System audio now comes from …"), on libpulse's thread;
    // without one it goes to the system log.
    using Notice = std::function<void(const std::string &)>;

    explicit PulseAudioCapture(int sampleRate = AudioDefaults::sampleRate,
                               int channels = AudioDefaults::channels, Notice onNotice = {});
    ~PulseAudioCapture();
    PulseAudioCapture(const PulseAudioCapture &) = delete;
    PulseAudioCapture &operator=(const PulseAudioCapture &) = delete;

    // One record stream per call; the queue must outlive this object's stop().
    void addOutput(Source source, SerialQueue &queue, Handler handler);
    // System audio from this one application (by its `application.name`) instead of the whole
    // default output: silence while it plays nothing, followed as it comes and goes (see
    // AppSoundSource). Before start().
    void recordApplication(std::string applicationName);

    // Connects and starts every recording, waiting at most 5 seconds for the server. Throws
    // std::runtime_error saying what failed; the capture is then stopped.
    void start();

    // Ends the recordings and disconnects. After it returns no handler starts, and with
    // `waitForHandlers` none is running (see QueueDelivery::close). Safe to call again, and
    // without a start.
    void stop(bool waitForHandlers = true);

    // Why the capture ended by itself (the server went away, a recording failed), if it did.
    std::optional<std::string> failure() const;

    Stats stats(Source source) const;

    static const char *deviceName(Source source);

private:
    struct Recording;
    struct LoopDeleter
    {
        void operator()(pa_threaded_mainloop *loop) const;
    };
    struct ContextDeleter
    {
        void operator()(pa_context *context) const;
    };

    static void onContextState(pa_context *context, void *self);
    static void onStreamState(pa_stream *stream, void *recording);
    static void onRead(pa_stream *stream, size_t bytes, void *recording);
    static void onTimeout(struct pa_mainloop_api *, struct pa_time_event *, const struct timeval *,
                          void *self);
    static void onServerInfo(pa_context *context, const struct pa_server_info *info, void *self);
    static void onMoved(pa_stream *stream, void *recording);
    static void onRetry(struct pa_mainloop_api *, struct pa_time_event *, const struct timeval *,
                        void *self);
    void startLocked();
    // Makes and connects the record stream of `recording` on its default device; throws
    // std::runtime_error when the server refuses at once. Mainloop lock held.
    void connectLocked(Recording &recording);
    // Moves `recording` to its default device soon (now, or after a retry delay). Mainloop lock
    // held.
    void followLocked(Recording &recording, const char *why);
    void retryLocked();
    bool isOnDefaultLocked(const Recording &recording) const;
    void notice(const std::string &text) const;
    void read(Recording &recording);
    void deliver(Recording &recording, const uint8_t *data, size_t bytes, int64_t capturedAt);
    // Posts the block gathered so far, if any.
    void handOn(Recording &recording);
    void setFailure(std::string why);

    const int m_sampleRate;
    const int m_channels;
    const AudioFormatPtr m_format;
    const Notice m_onNotice;

    std::unique_ptr<pa_threaded_mainloop, LoopDeleter> m_loop;
    std::unique_ptr<pa_context, ContextDeleter> m_context;
    // Added before start, read by the mainloop thread after; the streams inside are touched
    // only with the mainloop's lock held.
    std::vector<std::unique_ptr<Recording>> m_recordings;
    // Set before start, then used with the mainloop's lock.
    std::unique_ptr<AppSoundSource> m_application;
    // Guarded by the mainloop's lock: written by start()/stop() under it, read by the callbacks
    // (which run with it held).
    bool m_running = false;
    bool m_stopping = false;
    bool m_timedOut = false;
    // The server's defaults as last seen, and the timer that moves recordings whose device went
    // away (also the mainloop's lock).
    bool m_knowsDefaults = false;
    std::string m_defaultSink;
    std::string m_defaultSource;
    struct pa_time_event *m_retry = nullptr;

    mutable std::mutex m_failureLock; // guards m_failure
    std::optional<std::string> m_failure;
};
