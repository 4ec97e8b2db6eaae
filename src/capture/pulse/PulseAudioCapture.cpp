#include "capture/pulse/PulseAudioCapture.h"

#include "capture/QueueDelivery.h"
#include "capture/pulse/AppSoundSource.h"
#include "capture/pulse/AudioClock.h"
#include "core/Log.h"
#include "media/BytesArena.h"
#include "media/MonotonicClock.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>

namespace {

constexpr int64_t packetNanoseconds = 10'000'000;
// Stamped packets that follow on from each other are handed on together, in blocks of about this
// length: each hand-over wakes the consumer's queue, the session writer and its AAC encoder, and
// on a still screen those wake-ups are much of what an armed program costs. The server keeps
// delivering (and the clock keeps measuring) every 10 ms: asked for 40 ms deliveries, the
// capture-time estimates jittered past the clock's tolerance, and the timeline moved (cutting or
// padding the sound) a few times in every half minute instead of once or twice at the start.
constexpr int64_t blockNanoseconds = 40'000'000;
// The capture-time estimate jitters by a millisecond or two with thread scheduling; a drift past
// this that lasts (AudioClock's patience) is a real gap, or the sound card's clock running apart.
constexpr int64_t reanchorToleranceNanoseconds = 5'000'000;
// A second of blocks may wait for a busy consumer before new ones are dropped.
constexpr int maxPacketsInFlight = int(1'000'000'000 / blockNanoseconds);
constexpr pa_usec_t startTimeoutMicroseconds = 5'000'000;
// A recording moves this long after the server reports the change (so that the change is
// complete: a sink being unloaded takes its monitor and then the default with it), and tries
// again this often while there is no device to move to.
constexpr pa_usec_t moveDelayMicroseconds = 50'000;
constexpr pa_usec_t retryMicroseconds = 500'000;
// How long after the first samples of a recording that started or moved its sink's latency
// reports are not trusted (see read()).
constexpr int64_t sinkLatencyDistrustNanoseconds = 3'000'000'000;

struct ProplistDeleter
{
    void operator()(pa_proplist *list) const { pa_proplist_free(list); }
};
using Proplist = std::unique_ptr<pa_proplist, ProplistDeleter>;

struct StreamDeleter
{
    void operator()(pa_stream *stream) const { pa_stream_unref(stream); }
};

// Operations whose answer comes through a callback are let go of at once.
void release(pa_operation *operation)
{
    if (operation)
        pa_operation_unref(operation);
}

const char *sourceText(PulseAudioCapture::Source source)
{
    return source == PulseAudioCapture::Source::system ? "system audio" : "the microphone";
}

} // namespace

struct PulseAudioCapture::Recording
{
    Recording(PulseAudioCapture &owner, Source source, SerialQueue &queue, Handler handler,
              int sampleRate)
        : owner(owner)
        , source(source)
        , handler(std::move(handler))
        , delivery(queue, maxPacketsInFlight)
        , clock(sampleRate, reanchorToleranceNanoseconds)
    {
    }

    PulseAudioCapture &owner;
    const Source source;
    const Handler handler;
    QueueDelivery delivery;
    std::unique_ptr<pa_stream, StreamDeleter> stream; // touched with the mainloop's lock only
    AudioClock clock; // mainloop thread only
    // The block being gathered (mainloop thread only, then stop()): samples that abut exactly,
    // the first of them at `pendingTime`.
    std::vector<uint8_t> pending;
    // Where the handed-on blocks live: a replay buffer's worth of them, let go of in order.
    BytesArena payloads {size_t(256) << 10};
    int64_t pendingTime = 0;
    int64_t pendingFrames = 0;
    std::atomic<int64_t> packets {0};
    std::atomic<int64_t> dropped {0};
    std::atomic<int64_t> holes {0};
    std::atomic<int64_t> reanchors {0};
    std::atomic<int64_t> cutSamples {0};
    std::atomic<int64_t> moves {0};
    // Mainloop lock: the recording waits to move to its default device (why, for the log), or
    // has just been moved and says so once its new stream is ready.
    const char *moveReason = nullptr;
    bool pendingMove = false;
    bool moving = false;
    // Mainloop thread: when the sink's latency reports are trusted again (see read()); -1 until
    // the first samples after a start or a move.
    int64_t sinkLatencyFrom = -1;
    // Mainloop thread: the application recorded alone plays nothing, so what the stream gives is
    // replaced by silence of the same length (`zeros`).
    bool silent = false;
    std::vector<uint8_t> zeros;
};

void PulseAudioCapture::LoopDeleter::operator()(pa_threaded_mainloop *loop) const
{
    pa_threaded_mainloop_free(loop);
}

void PulseAudioCapture::ContextDeleter::operator()(pa_context *context) const
{
    pa_context_unref(context);
}

PulseAudioCapture::PulseAudioCapture(int sampleRate, int channels, Notice onNotice)
    : m_sampleRate(sampleRate)
    , m_channels(channels)
    , m_format(std::make_shared<const AudioFormat>(
          AudioFormat {sampleRate, channels, AudioFormat::SampleFormat::Float32, false}))
    , m_onNotice(std::move(onNotice))
{
}

PulseAudioCapture::~PulseAudioCapture()
{
    stop();
}

const char *PulseAudioCapture::deviceName(Source source)
{
    return source == Source::system ? "@DEFAULT_MONITOR@" : "@DEFAULT_SOURCE@";
}

void PulseAudioCapture::addOutput(Source source, SerialQueue &queue, Handler handler)
{
    m_recordings.push_back(
        std::make_unique<Recording>(*this, source, queue, std::move(handler), m_sampleRate));
}

void PulseAudioCapture::recordApplication(std::string applicationName)
{
    m_application =
        std::make_unique<AppSoundSource>(std::move(applicationName), [this](const char *why) {
            for (const auto &recording : m_recordings) {
                if (recording->source != Source::system)
                    continue;
                recording->moveReason = why;
                followLocked(*recording, why);
            }
        });
}

void PulseAudioCapture::start()
{
    m_loop.reset(pa_threaded_mainloop_new());
    if (!m_loop)
        throw std::runtime_error("Could not start the audio capture thread.");
    pa_mainloop_api *api = pa_threaded_mainloop_get_api(m_loop.get());

    Proplist properties(pa_proplist_new());
    pa_proplist_sets(properties.get(), PA_PROP_APPLICATION_NAME, "Vantrel");
    pa_proplist_sets(properties.get(), PA_PROP_APPLICATION_ID, "com.quillfen.vantrel");
    m_context.reset(pa_context_new_with_proplist(api, "Vantrel", properties.get()));
    if (!m_context)
        throw std::runtime_error("Could not create an audio server context.");
    pa_context_set_state_callback(m_context.get(), onContextState, this);
    if (pa_context_connect(m_context.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        const std::string why = pa_strerror(pa_context_errno(m_context.get()));
        stop();
        throw std::runtime_error(
            "Could not connect to the audio server (PulseAudio or PipeWire): " + why + ".");
    }
    if (pa_threaded_mainloop_start(m_loop.get()) < 0) {
        stop();
        throw std::runtime_error("Could not start the audio capture thread.");
    }

    std::string failure;
    pa_threaded_mainloop_lock(m_loop.get());
    try {
        startLocked();
    } catch (const std::runtime_error &error) {
        failure = error.what();
    }
    pa_threaded_mainloop_unlock(m_loop.get());
    if (!failure.empty()) {
        stop();
        throw std::runtime_error(failure);
    }
}

void PulseAudioCapture::startLocked()
{
    pa_context *context = m_context.get();
    pa_mainloop_api *api = pa_threaded_mainloop_get_api(m_loop.get());
    m_timedOut = false;
    pa_time_event *timeout = pa_context_rttime_new(
        context, pa_rtclock_now() + startTimeoutMicroseconds, onTimeout, this);
    struct TimeoutOwner
    {
        pa_mainloop_api *api;
        pa_time_event *event;
        ~TimeoutOwner()
        {
            if (event)
                api->time_free(event);
        }
    } timeoutOwner {api, timeout};

    for (;;) {
        const pa_context_state_t state = pa_context_get_state(context);
        if (state == PA_CONTEXT_READY)
            break;
        if (!PA_CONTEXT_IS_GOOD(state))
            throw std::runtime_error(
                "Could not connect to the audio server (PulseAudio or PipeWire): " +
                std::string(pa_strerror(pa_context_errno(context))) + ".");
        if (m_timedOut)
            throw std::runtime_error("The audio server did not answer within 5 seconds.");
        pa_threaded_mainloop_wait(m_loop.get());
    }
    // One application's recording needs to know where that application plays first.
    if (m_application) {
        m_application->watchLocked(context, m_loop.get());
        while (!m_application->knowsLocked()) {
            if (m_timedOut || pa_context_get_state(context) != PA_CONTEXT_READY)
                throw std::runtime_error("The audio server did not list its playback streams.");
            pa_threaded_mainloop_wait(m_loop.get());
        }
    }

    for (const auto &recording : m_recordings)
        connectLocked(*recording);
    for (const auto &recording : m_recordings) {
        for (;;) {
            const pa_stream_state_t state = pa_stream_get_state(recording->stream.get());
            if (state == PA_STREAM_READY)
                break;
            if (!PA_STREAM_IS_GOOD(state))
                throw std::runtime_error(
                    std::string("Could not record ") +
                    (recording->source == Source::system ? "system audio" : "the microphone") +
                    ": " + pa_strerror(pa_context_errno(context)) + ".");
            if (m_timedOut)
                throw std::runtime_error("The audio server did not start recording within 5 "
                                         "seconds.");
            pa_threaded_mainloop_wait(m_loop.get());
        }
    }
    m_running = true;
    // From now on the server tells of changes to its defaults.
    pa_context_set_subscribe_callback(
        context,
        [](pa_context *context, pa_subscription_event_type_t type, uint32_t index, void *self) {
            if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SERVER)
                release(pa_context_get_server_info(context, onServerInfo, self));
            else if (auto &application = static_cast<PulseAudioCapture *>(self)->m_application)
                application->onEventLocked(type, index);
        },
        this);
    release(pa_context_subscribe(
        context,
        pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SERVER |
                               (m_application ? PA_SUBSCRIPTION_MASK_SINK_INPUT : 0)),
        nullptr, nullptr));
    release(pa_context_get_server_info(context, onServerInfo, this));
}

void PulseAudioCapture::connectLocked(Recording &recording)
{
    pa_context *context = m_context.get();
    const pa_sample_spec sampleFormat {PA_SAMPLE_FLOAT32LE, uint32_t(m_sampleRate),
                                       uint8_t(m_channels)};
    pa_channel_map map;
    pa_channel_map_init_auto(&map, sampleFormat.channels, PA_CHANNEL_MAP_DEFAULT);
    // fragsize asks the server to hand over about 10 ms at a time; the rest is left to it.
    pa_buffer_attr attributes;
    attributes.maxlength = uint32_t(-1);
    attributes.tlength = uint32_t(-1);
    attributes.prebuf = uint32_t(-1);
    attributes.minreq = uint32_t(-1);
    attributes.fragsize = uint32_t(pa_usec_to_bytes(packetNanoseconds / 1000, &sampleFormat));
    const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE |
                                         PA_STREAM_INTERPOLATE_TIMING);

    const bool system = recording.source == Source::system;
    Proplist properties(pa_proplist_new());
    pa_proplist_sets(properties.get(), PA_PROP_MEDIA_ROLE, "production");
    recording.stream.reset(
        pa_stream_new_with_proplist(context, system ? "Vantrel system audio" : "Vantrel microphone",
                                    &sampleFormat, &map, properties.get()));
    if (!recording.stream)
        throw std::runtime_error("Could not create an audio recording: " +
                                 std::string(pa_strerror(pa_context_errno(context))) + ".");
    pa_stream *stream = recording.stream.get();
    recording.sinkLatencyFrom = -1;
    pa_stream_set_state_callback(stream, onStreamState, &recording);
    pa_stream_set_read_callback(stream, onRead, &recording);
    pa_stream_set_moved_callback(stream, onMoved, &recording);
    std::string device = deviceName(recording.source);
    recording.silent = false;
    if (system && m_application) {
        AppSoundSource::Aim aim = m_application->aimLocked(stream);
        device = std::move(aim.device);
        recording.silent = aim.muted;
    }
    if (pa_stream_connect_record(stream, device.c_str(), &attributes, flags) < 0)
        throw std::runtime_error(std::string("Could not record ") + sourceText(recording.source) +
                                 ": " + pa_strerror(pa_context_errno(context)) + ".");
}

void PulseAudioCapture::stop(bool waitForHandlers)
{
    if (m_loop) {
        pa_threaded_mainloop_lock(m_loop.get());
        m_stopping = true;
        m_running = false;
        if (m_retry) {
            pa_threaded_mainloop_get_api(m_loop.get())->time_free(m_retry);
            m_retry = nullptr;
        }
        for (const auto &recording : m_recordings) {
            if (!recording->stream)
                continue;
            pa_stream_set_read_callback(recording->stream.get(), nullptr, nullptr);
            pa_stream_set_state_callback(recording->stream.get(), nullptr, nullptr);
            pa_stream_set_moved_callback(recording->stream.get(), nullptr, nullptr);
            pa_stream_disconnect(recording->stream.get());
        }
        if (m_context) {
            pa_context_set_state_callback(m_context.get(), nullptr, nullptr);
            pa_context_set_subscribe_callback(m_context.get(), nullptr, nullptr);
            pa_context_disconnect(m_context.get());
        }
        pa_threaded_mainloop_unlock(m_loop.get());
        // Joins libpulse's thread: from here on no callback runs.
        pa_threaded_mainloop_stop(m_loop.get());
        for (const auto &recording : m_recordings) {
            recording->stream.reset();
            // The last few packets of a block still being gathered go out too.
            handOn(*recording);
            // A timeline that moved often, or cut samples, is heard as clicks in the clips.
            Log::system(QStringLiteral("audio %1 blocks=%2 dropped=%3 holes=%4 reanchors=%5 "
                                       "cut=%6 moves=%7")
                            .arg(recording->source == Source::system ? "system" : "microphone")
                            .arg(recording->packets.load())
                            .arg(recording->dropped.load())
                            .arg(recording->holes.load())
                            .arg(recording->reanchors.load())
                            .arg(recording->cutSamples.load())
                            .arg(recording->moves.load()));
        }
        m_context.reset();
        m_loop.reset();
    }
    for (const auto &recording : m_recordings)
        recording->delivery.close(waitForHandlers);
}

std::optional<std::string> PulseAudioCapture::failure() const
{
    std::scoped_lock lock(m_failureLock);
    return m_failure;
}

PulseAudioCapture::Stats PulseAudioCapture::stats(Source source) const
{
    Stats total;
    for (const auto &recording : m_recordings) {
        if (recording->source != source)
            continue;
        total.packets += recording->packets.load();
        total.dropped += recording->dropped.load();
        total.holes += recording->holes.load();
        total.reanchors += recording->reanchors.load();
        total.cutSamples += recording->cutSamples.load();
        total.moves += recording->moves.load();
    }
    return total;
}

void PulseAudioCapture::setFailure(std::string why)
{
    std::scoped_lock lock(m_failureLock);
    if (!m_failure)
        m_failure = std::move(why);
}

void PulseAudioCapture::onContextState(pa_context *context, void *self)
{
    auto &capture = *static_cast<PulseAudioCapture *>(self);
    if (capture.m_running && !capture.m_stopping &&
        !PA_CONTEXT_IS_GOOD(pa_context_get_state(context)))
        capture.setFailure("The connection to the audio server was lost.");
    pa_threaded_mainloop_signal(capture.m_loop.get(), 0);
}

void PulseAudioCapture::onStreamState(pa_stream *stream, void *recordingPointer)
{
    auto &recording = *static_cast<Recording *>(recordingPointer);
    PulseAudioCapture &capture = recording.owner;
    const pa_stream_state_t state = pa_stream_get_state(stream);
    if (capture.m_running && !capture.m_stopping) {
        if (state == PA_STREAM_READY && recording.moving) {
            recording.moving = false;
            recording.moves.fetch_add(1);
            const char *device = pa_stream_get_device_name(stream);
            capture.notice(std::string(recording.source == Source::system ? "System audio"
                                                                          : "The microphone") +
                           " now comes from " + (device ? device : "the default device") + " (" +
                           (recording.moveReason ? recording.moveReason : "moved") + ").");
            recording.moveReason = nullptr;
        } else if (!PA_STREAM_IS_GOOD(state)) {
            // With the server still there, the device went away (unplugged, unloaded): the
            // recording moves to the default one. Without the server the capture is over.
            if (pa_context_get_state(capture.m_context.get()) == PA_CONTEXT_READY)
                capture.followLocked(recording, "its device went away");
            else
                capture.setFailure(
                    std::string("The audio server ended the ") +
                    (recording.source == Source::system ? "system audio" : "microphone") +
                    " recording.");
        }
    }
    pa_threaded_mainloop_signal(capture.m_loop.get(), 0);
}

void PulseAudioCapture::onMoved(pa_stream *stream, void *recordingPointer)
{
    // The server moved the recording itself (with the default, or a device went away and it
    // rescued the stream, or the user moved it). It delivers nothing for a moment (a second with
    // a null sink), so the timeline starts afresh: the moment is a silence, never a drift.
    auto &recording = *static_cast<Recording *>(recordingPointer);
    recording.moves.fetch_add(1);
    recording.owner.handOn(recording);
    recording.clock.reset();
    recording.sinkLatencyFrom = -1;
    const char *device = pa_stream_get_device_name(stream);
    recording.owner.notice(
        std::string(recording.source == Source::system ? "System audio" : "The microphone") +
        " now comes from " + (device ? device : "another device") +
        " (the sound server moved it).");
}

void PulseAudioCapture::onServerInfo(pa_context *, const pa_server_info *info, void *self)
{
    auto &capture = *static_cast<PulseAudioCapture *>(self);
    if (!info || !capture.m_running || capture.m_stopping)
        return;
    const std::string sink = info->default_sink_name ? info->default_sink_name : "";
    const std::string source = info->default_source_name ? info->default_source_name : "";
    // The first answer only tells where things stand.
    if (capture.m_knowsDefaults) {
        for (const auto &recording : capture.m_recordings) {
            if (recording->source == Source::system && sink != capture.m_defaultSink)
                capture.followLocked(*recording, "the default output changed");
            if (recording->source == Source::microphone && source != capture.m_defaultSource)
                capture.followLocked(*recording, "the default input changed");
        }
    }
    capture.m_defaultSink = sink;
    capture.m_defaultSource = source;
    capture.m_knowsDefaults = true;
}

void PulseAudioCapture::followLocked(Recording &recording, const char *why)
{
    if (!m_running || m_stopping)
        return;
    // A recording that failed while moving tries again after a pause, not in a tight loop.
    const bool retrying = recording.moving;
    recording.moveReason = recording.moveReason ? recording.moveReason : why;
    recording.moving = false;
    recording.pendingMove = true;
    const pa_usec_t when =
        pa_rtclock_now() + (retrying ? retryMicroseconds : moveDelayMicroseconds);
    if (m_retry)
        pa_context_rttime_restart(m_context.get(), m_retry, when);
    else
        m_retry = pa_context_rttime_new(m_context.get(), when, onRetry, this);
}

void PulseAudioCapture::onRetry(pa_mainloop_api *, pa_time_event *, const struct timeval *,
                                void *self)
{
    static_cast<PulseAudioCapture *>(self)->retryLocked();
}

void PulseAudioCapture::retryLocked()
{
    if (!m_running || m_stopping)
        return;
    for (const auto &recording : m_recordings) {
        if (!recording->pendingMove)
            continue;
        recording->pendingMove = false;
        // A server that moves streams with the default (PulseAudio 15 and later, PipeWire) may
        // have put the recording where it belongs already: moving it again would only cost
        // another gap.
        if (isOnDefaultLocked(*recording)) {
            recording->moveReason = nullptr;
            continue;
        }
        // What was gathered from the old device goes out; the new one starts a timeline of its
        // own, after a gap as long as the move took.
        handOn(*recording);
        recording->clock.reset();
        if (pa_stream *old = recording->stream.get()) {
            pa_stream_set_read_callback(old, nullptr, nullptr);
            pa_stream_set_state_callback(old, nullptr, nullptr);
            pa_stream_set_moved_callback(old, nullptr, nullptr);
            pa_stream_disconnect(old);
        }
        recording->stream.reset();
        recording->moving = true;
        try {
            connectLocked(*recording);
        } catch (const std::runtime_error &) {
            // No device to record yet: silence until one comes.
            followLocked(*recording, recording->moveReason);
        }
    }
}

bool PulseAudioCapture::isOnDefaultLocked(const Recording &recording) const
{
    // One application's recording moves when that application does, not with the default.
    if (recording.source == Source::system && m_application)
        return false;
    pa_stream *stream = recording.stream.get();
    if (!stream || pa_stream_get_state(stream) != PA_STREAM_READY)
        return false;
    const char *device = pa_stream_get_device_name(stream);
    // A sink's monitor is named after the sink, by PulseAudio and PipeWire alike.
    const std::string wanted =
        recording.source == Source::system ? m_defaultSink + ".monitor" : m_defaultSource;
    return device && !wanted.empty() && wanted == device;
}

void PulseAudioCapture::notice(const std::string &text) const
{
    if (m_onNotice)
        m_onNotice(text);
    else
        Log::system(QString::fromStdString(text));
}

void PulseAudioCapture::onTimeout(pa_mainloop_api *, pa_time_event *, const struct timeval *,
                                  void *self)
{
    auto &capture = *static_cast<PulseAudioCapture *>(self);
    capture.m_timedOut = true;
    pa_threaded_mainloop_signal(capture.m_loop.get(), 0);
}

void PulseAudioCapture::onRead(pa_stream *, size_t, void *recording)
{
    auto &r = *static_cast<Recording *>(recording);
    r.owner.read(r);
}

void PulseAudioCapture::read(Recording &recording)
{
    pa_stream *stream = recording.stream.get();
    const pa_sample_spec *sampleFormat = pa_stream_get_sample_spec(stream);
    while (pa_stream_readable_size(stream) > 0) {
        const void *data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0) {
            setFailure("Could not read the recorded audio: " +
                       std::string(pa_strerror(pa_context_errno(m_context.get()))) + ".");
            return;
        }
        if (bytes == 0)
            return;
        if (!data) {
            // A hole: samples the server could not deliver. The timeline starts afresh after it.
            recording.holes.fetch_add(1);
            recording.clock.reset();
            pa_stream_drop(stream);
            continue;
        }
        // The first peeked sample is as old as everything still queued for us (this chunk
        // included), plus the device's and the transport's latency. A monitor sees a sample
        // before the speakers play it, by the sink's latency, and the time it is heard is what
        // the video matches. pa_stream_get_latency() adds the same parts, but it measures the
        // queue from interpolated stream indices, which for a null sink's monitor were off by
        // half a second at times; the readable size is exact and local. The sink's latency is
        // left out for a few seconds once the recording starts or moves: the server's reports
        // then said 0.5 to 0.7 s for a null sink that settled at a few milliseconds a second
        // later, and following them moved the timeline forward and back, cutting a second of
        // sound. (A real device whose latency is that long is followed once they are trusted,
        // with a short silence when the timeline moves forward.)
        const int64_t now = monotonicNanoseconds();
        int64_t delayMicroseconds =
            int64_t(pa_bytes_to_usec(pa_stream_readable_size(stream), sampleFormat));
        if (const pa_timing_info *timing = pa_stream_get_timing_info(stream)) {
            delayMicroseconds += int64_t(timing->source_usec) + int64_t(timing->transport_usec);
            if (recording.sinkLatencyFrom < 0)
                recording.sinkLatencyFrom = now + sinkLatencyDistrustNanoseconds;
            if (now >= recording.sinkLatencyFrom)
                delayMicroseconds -= int64_t(timing->sink_usec);
        }
        const int64_t capturedAt = now - delayMicroseconds * 1000;
        if (recording.silent) {
            recording.zeros.resize(bytes);
            data = recording.zeros.data();
        }
        deliver(recording, static_cast<const uint8_t *>(data), bytes, capturedAt);
        pa_stream_drop(stream);
    }
}

void PulseAudioCapture::deliver(Recording &recording, const uint8_t *data, size_t bytes,
                                int64_t capturedAt)
{
    const size_t frameBytes = size_t(m_channels) * 4;
    const int64_t frames = int64_t(bytes / frameBytes);
    const int64_t packetFrames = int64_t(m_sampleRate) * packetNanoseconds / 1'000'000'000;
    // The server mostly hands over 10 ms at a time; larger chunks are stamped as 10 ms packets (a
    // short rest is left on the last one rather than stamped as a sliver), gathered into blocks.
    int64_t count = 0;
    for (int64_t offset = 0; offset < frames; offset += count) {
        const int64_t left = frames - offset;
        count = left <= packetFrames * 3 / 2 ? left : packetFrames;
        const AudioClock::Stamp stamp =
            recording.clock.stamp(capturedAt + offset * 1'000'000'000 / m_sampleRate, count);
        recording.reanchors.store(recording.clock.reanchors());
        recording.cutSamples.fetch_add(stamp.skip);
        const int64_t kept = count - stamp.skip;
        if (kept <= 0)
            continue;
        // A packet that does not start where the block ends (a re-anchored clock, cut samples)
        // starts a block of its own.
        const int64_t blockEnd =
            recording.pendingTime + recording.pendingFrames * 1'000'000'000 / m_sampleRate;
        if (recording.pendingFrames > 0 && std::abs(stamp.time - blockEnd) > 1)
            handOn(recording);
        if (recording.pendingFrames == 0)
            recording.pendingTime = stamp.time;
        const uint8_t *from = data + size_t(offset + stamp.skip) * frameBytes;
        recording.pending.insert(recording.pending.end(), from, from + size_t(kept) * frameBytes);
        recording.pendingFrames += kept;
        if (recording.pendingFrames * 1'000'000'000 >= blockNanoseconds * m_sampleRate)
            handOn(recording);
    }
}

void PulseAudioCapture::handOn(Recording &recording)
{
    if (recording.pendingFrames == 0)
        return;
    Bytes payload = Bytes::copy(recording.pending, &recording.payloads);
    const int64_t frames = recording.pendingFrames;
    recording.pending.clear(); // keeps its capacity: no allocation for the next block
    recording.pendingFrames = 0;
    const bool posted = recording.delivery.post([handler = recording.handler,
                                                 payload = std::move(payload),
                                                 time = recording.pendingTime, frames,
                                                 format = m_format, rate = m_sampleRate] {
        const std::array<std::span<const uint8_t>, 1> pieces {payload.span()};
        AudioSampleBuffer sample {
            pieces, nanosecondTime(time), MediaTime::make(frames, rate), frames, format, payload};
        handler(sample);
    });
    (posted ? recording.packets : recording.dropped).fetch_add(1);
}
