#include "capture/wayland/PipeWireScreenStream.h"

#include "capture/PixelBufferPool.h"
#include "capture/QueueDelivery.h"
#include "capture/wayland/ScreenCastPortal.h"
#include "core/Log.h"
#include "media/MonotonicClock.h"

#include <pipewire/pipewire.h>
#include <spa/param/param.h>
#include <spa/pod/builder.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace {

constexpr int64_t second = 1'000'000'000;
// How often the stream's timer looks for a still screen and a dead audio server.
constexpr int64_t timerPeriod = second / 4;

void initPipeWireOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

// Locks the loop for a scope; the lock is recursive, so the loop's own thread may take it too.
class LoopLock
{
public:
    explicit LoopLock(pw_thread_loop *loop)
        : m_loop(loop)
    {
        pw_thread_loop_lock(m_loop);
    }
    ~LoopLock() { pw_thread_loop_unlock(m_loop); }
    LoopLock(const LoopLock &) = delete;
    LoopLock &operator=(const LoopLock &) = delete;

private:
    pw_thread_loop *m_loop;
};

StreamConfiguration effective(StreamConfiguration config)
{
    config.fps = config.fps > 0 ? config.fps : 60;
    config.queueDepth = config.queueDepth > 0 ? config.queueDepth : 3;
    return config;
}

} // namespace

struct PipeWireCallbacks
{
    static PipeWireScreenStream &of(void *self)
    {
        return *static_cast<PipeWireScreenStream *>(self);
    }

    static const pw_stream_events &stream()
    {
        static const pw_stream_events events = [] {
            pw_stream_events e {};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.state_changed = [](void *self, pw_stream_state, pw_stream_state state,
                                 const char *error) {
                of(self).stateChanged(state == PW_STREAM_STATE_ERROR,
                                      state == PW_STREAM_STATE_STREAMING,
                                      state == PW_STREAM_STATE_UNCONNECTED, error);
            };
            e.param_changed = [](void *self, uint32_t id, const spa_pod *param) {
                if (id == SPA_PARAM_Format)
                    of(self).formatChanged(param);
            };
            e.process = [](void *self) { of(self).process(); };
            return e;
        }();
        return events;
    }

    static const pw_core_events &core()
    {
        static const pw_core_events events = [] {
            pw_core_events e {};
            e.version = PW_VERSION_CORE_EVENTS;
            e.error = [](void *self, uint32_t id, int, int res, const char *message) {
                of(self).coreError(id, res, message);
            };
            return e;
        }();
        return events;
    }

    static const pw_registry_events &registry()
    {
        static const pw_registry_events events = [] {
            pw_registry_events e {};
            e.version = PW_VERSION_REGISTRY_EVENTS;
            e.global_remove = [](void *self, uint32_t id) { of(self).nodeRemoved(id); };
            return e;
        }();
        return events;
    }

    static void timer(void *self, uint64_t) { of(self).tick(); }
};

PipeWireScreenStream::PipeWireScreenStream(std::shared_ptr<ScreenCastPortal> portal, uint32_t node,
                                           const StreamConfiguration &config)
    : AudioScreenStream(config)
    , m_portal(std::move(portal))
    , m_node(node)
    , m_config(effective(config))
{
}

PipeWireScreenStream::~PipeWireScreenStream()
{
    stopCapture();
    teardown();
}

void PipeWireScreenStream::addScreenOutput(SerialQueue &queue, FrameHandler handler)
{
    if (m_loop)
        throw std::runtime_error("Outputs must be added before the capture starts.");
    m_frameHandler = std::move(handler);
    m_screen = std::make_unique<QueueDelivery>(queue, m_config.queueDepth);
}

bool PipeWireScreenStream::hasStarted() const
{
    return m_loop != nullptr;
}

void PipeWireScreenStream::setStopHandler(StopHandler handler)
{
    m_stopHandler = std::move(handler);
}

void PipeWireScreenStream::startCapture(StartCompletion completion)
{
    if (m_loop || m_ended.load()) {
        completion("The capture was already started.");
        return;
    }
    {
        std::scoped_lock lock(m_startLock);
        m_completion = std::move(completion);
    }
    int fd = -1;
    try {
        if (m_config.width > 0 && m_config.height > 0)
            m_pool = std::make_unique<PixelBufferPool>(m_config.queueDepth + 1, m_config.width,
                                                       m_config.height);
        startAudio();
        fd = m_portal->pipeWireRemote();
    } catch (const std::exception &error) {
        stopAudio();
        Log::system(QStringLiteral("pipewire capture could not start: %1").arg(error.what()));
        finishStart(std::string(error.what()));
        return;
    }

    initPipeWireOnce();
    m_start = monotonicNanoseconds();
    m_loop = pw_thread_loop_new("vt-pipewire", nullptr);
    m_context = m_loop ? pw_context_new(pw_thread_loop_get_loop(m_loop), nullptr, 0) : nullptr;
    if (!m_context || pw_thread_loop_start(m_loop) < 0) {
        ::close(fd);
        finishStart("PipeWire could not be started in this process.");
        return;
    }
    LoopLock lock(m_loop);
    connectLocked(fd);
}

void PipeWireScreenStream::connectLocked(int fd)
{
    // The core owns the descriptor from here on, also when the connection fails.
    m_core = pw_context_connect_fd(m_context, fd, nullptr, 0);
    if (!m_core) {
        finishStart("Could not connect to PipeWire: " + std::string(std::strerror(errno)) + ".");
        return;
    }
    pw_core_add_listener(m_core, &m_coreListener, &PipeWireCallbacks::core(), this);
    // A producer that goes away (the portal's backend lost its compositor, the user stopped
    // sharing) may leave the stream merely paused: its node leaving the registry says it for sure.
    m_registry = pw_core_get_registry(m_core, PW_VERSION_REGISTRY, 0);
    if (m_registry)
        pw_registry_add_listener(m_registry, &m_registryListener, &PipeWireCallbacks::registry(),
                                 this);
    m_stream = pw_stream_new(m_core, "Vantrel",
                             pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY,
                                               "Capture", PW_KEY_MEDIA_ROLE, "Screen", nullptr));
    if (!m_stream) {
        finishStart("Could not make a PipeWire stream.");
        return;
    }
    pw_stream_add_listener(m_stream, &m_streamListener, &PipeWireCallbacks::stream(), this);

    uint8_t storage[2048];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage, sizeof(storage));
    std::vector<const spa_pod *> params =
        PipeWireParams::enumFormats(builder, m_config.fps, m_dmaBufAllowed);
    const int status =
        pw_stream_connect(m_stream, PW_DIRECTION_INPUT, m_node,
                          pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS),
                          params.data(), uint32_t(params.size()));
    if (status < 0) {
        finishStart(
            "Could not connect to the shared screen: " + std::string(std::strerror(-status)) + ".");
        return;
    }
    pw_loop *loop = pw_thread_loop_get_loop(m_loop);
    m_timer = pw_loop_add_timer(loop, &PipeWireCallbacks::timer, this);
    timespec period {0, long(timerPeriod)};
    if (m_timer)
        pw_loop_update_timer(loop, m_timer, &period, &period, false);
}

void PipeWireScreenStream::stateChanged(bool failed, bool streaming, bool unconnected,
                                        const char *error)
{
    if (streaming && !m_streaming) {
        m_streaming = true;
        Log::system(QStringLiteral("pipewire capture of node %1 streaming").arg(m_node));
        finishStart(std::nullopt);
        return;
    }
    if (m_stopping.load())
        return;
    if (failed) {
        const std::string why = std::string("The shared screen failed: ") +
            (error && *error ? error : "unknown error") + ".";
        finishStart(why);
        end(why);
    } else if (unconnected) {
        finishStart("The desktop stopped sharing the screen before it began.");
        end("The desktop stopped sharing the screen.");
    }
}

void PipeWireScreenStream::coreError(uint32_t id, int res, const char *message)
{
    if (id != PW_ID_CORE || m_stopping.load())
        return;
    const std::string why = res == -EPIPE
        ? std::string("The connection to PipeWire was lost.")
        : std::string("PipeWire failed: ") + (message ? message : "unknown error") + ".";
    finishStart(why);
    end(why);
}

void PipeWireScreenStream::nodeRemoved(uint32_t id)
{
    if (id != m_node || m_stopping.load())
        return;
    finishStart("The desktop stopped sharing the screen before it began.");
    end("The desktop stopped sharing the screen.");
}

void PipeWireScreenStream::formatChanged(const spa_pod *param)
{
    // A cleared format comes while the stream renegotiates; the next one follows.
    if (!param)
        return;
    const std::optional<PipeWireParams::Format> format = PipeWireParams::parseFormat(param);
    if (!format) {
        pw_stream_set_error(m_stream, -EINVAL, "no pixel format Vantrel can read");
        return;
    }
    if (m_format && (format->width != m_format->width || format->height != m_format->height)) {
        // As on X11: the capture ends and is armed again at the new size.
        end("The captured display changed its size to " + std::to_string(format->width) + "x" +
            std::to_string(format->height) + ".");
        return;
    }
    if (!m_format) {
        Log::system(
            QStringLiteral("pipewire format %1x%2 layout %3 %4 -> %5x%6")
                .arg(format->width)
                .arg(format->height)
                .arg(int(format->layout))
                .arg(format->modifier ? QStringLiteral("dma-buf") : QStringLiteral("shared memory"))
                .arg(m_config.width > 0 ? m_config.width : format->width)
                .arg(m_config.height > 0 ? m_config.height : format->height));
    }
    m_format = format;
    m_sourceWidth = format->width;
    m_sourceHeight = format->height;
    if (!m_pool) {
        m_config.width = format->width & ~1;
        m_config.height = format->height & ~1;
        try {
            m_pool = std::make_unique<PixelBufferPool>(m_config.queueDepth + 1, m_config.width,
                                                       m_config.height);
        } catch (const std::exception &error) {
            pw_stream_set_error(m_stream, -ENOMEM, error.what());
            return;
        }
    }
    uint8_t storage[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage, sizeof(storage));
    std::vector<const spa_pod *> params = PipeWireParams::bufferParams(builder, *format);
    pw_stream_update_params(m_stream, params.data(), uint32_t(params.size()));
}

void PipeWireScreenStream::process()
{
    // Only the newest picture matters; older ones go straight back.
    pw_buffer *buffer = nullptr;
    while (pw_buffer *next = pw_stream_dequeue_buffer(m_stream)) {
        if (buffer) {
            // A picture the compositor offered that we never looked at: counted as skipped.
            pw_stream_queue_buffer(m_stream, buffer);
            m_skipped.fetch_add(1);
        }
        buffer = next;
    }
    if (!buffer)
        return;
    const int64_t now = monotonicNanoseconds();
    if (m_ended.load() || !m_screen || !m_format || !m_pool) {
        pw_stream_queue_buffer(m_stream, buffer);
        return;
    }

    std::shared_ptr<PixelBufferPool::Buffer> pixels = m_pool->acquire();
    PipeWireFrameReader::Outcome outcome = PipeWireFrameReader::Outcome::unreadable;
    if (pixels && m_screen->inFlight() < m_config.queueDepth)
        outcome = m_reader.read(*buffer->buffer, *m_format, pixels->data(), pixels->stride(),
                                pixels->width(), pixels->height());
    else
        m_skipped.fetch_add(1);
    pw_stream_queue_buffer(m_stream, buffer);

    if (outcome == PipeWireFrameReader::Outcome::unchanged) {
        m_unchanged.fetch_add(1);
        postIdle(now);
        return;
    }
    if (outcome == PipeWireFrameReader::Outcome::unreadable) {
        if (pixels)
            m_skipped.fetch_add(1);
        if (m_format->modifier && m_reader.unmappable() > 0 && m_dmaBufAllowed) {
            // This driver's buffers cannot be read by mapping them: ask for shared memory.
            Log::system(QStringLiteral("pipewire: DMA-BUF cannot be mapped; using shared memory"));
            m_dmaBufAllowed = false;
            uint8_t storage[2048];
            spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage, sizeof(storage));
            std::vector<const spa_pod *> params =
                PipeWireParams::enumFormats(builder, m_config.fps, false);
            pw_stream_update_params(m_stream, params.data(), uint32_t(params.size()));
        }
        return;
    }

    // The frame takes the slot it arrived in on the 60 fps grid; two in one slot are a frame
    // apart, the second one slot later, unless that would stamp it more than a frame ahead of
    // its time.
    const int64_t fps = m_config.fps;
    const auto due = [&](int64_t slot) { return m_start + slot * second / fps; };
    int64_t slot = (now - m_start) * fps / second;
    if (slot <= m_lastSlot) {
        slot = m_lastSlot + 1;
        if (due(slot) > now + second / fps) {
            m_skipped.fetch_add(1);
            return;
        }
    }
    m_lastSlot = slot;
    // The picture a still screen repeats (see X11ScreenStream: holding the newest costs the pool
    // nothing).
    m_newest = pixels;
    VideoFrame frame = PixelBufferPool::frameOf(std::move(pixels), nanosecondTime(due(slot)),
                                                MediaTime::make(1, int32_t(fps)));
    const bool posted = m_screen->hand(m_frameHandler, std::move(frame));
    (posted ? m_complete : m_skipped).fetch_add(1);
    m_lastPost = now;
}

void PipeWireScreenStream::postIdle(int64_t now)
{
    // As on X11: a still screen is told once it has been still for a second, then once a second,
    // with the newest picture again.
    if (m_lastPost >= 0 && now - m_lastPost < second)
        return;
    if (!m_screen || m_config.width <= 0)
        return;
    m_lastPost = now;
    const int64_t fps = m_config.fps;
    int64_t slot = std::max((now - m_start) * fps / second, m_lastSlot + 1);
    m_lastSlot = slot;
    const MediaTime pts = nanosecondTime(m_start + slot * second / fps);
    const MediaTime duration = MediaTime::make(1, int32_t(fps));
    VideoFrame frame = VideoFrame::idle(m_config.width, m_config.height, pts, duration);
    if (m_newest) {
        frame = PixelBufferPool::frameOf(m_newest, pts, duration);
        frame.status = VideoFrame::Status::repeat;
    }
    const bool posted = m_screen->hand(m_frameHandler, std::move(frame));
    (posted ? m_idle : m_skipped).fetch_add(1);
}

void PipeWireScreenStream::tick()
{
    if (m_ended.load())
        return;
    if (std::optional<std::string> why = audioFailure())
        return end(*why);
    // The compositor sends nothing while nothing changes.
    if (m_streaming && m_format)
        postIdle(monotonicNanoseconds());
}

void PipeWireScreenStream::finishStart(std::optional<std::string> error)
{
    StartCompletion completion;
    {
        std::scoped_lock lock(m_startLock);
        completion.swap(m_completion);
    }
    if (completion)
        completion(std::move(error));
}

void PipeWireScreenStream::end(const std::string &why)
{
    if (m_ended.exchange(true))
        return;
    Log::system(QStringLiteral("pipewire capture ended: %1").arg(QString::fromStdString(why)));
    // Nothing new is delivered after the news; a running handler is not waited for (it may be in
    // stopCapture(), waiting for this thread).
    stopAudio(false);
    if (m_screen)
        m_screen->close(false);
    if (m_stopHandler)
        m_stopHandler(why);
}

void PipeWireScreenStream::stopCapture()
{
    m_ended.store(true);
    m_stopping.store(true);
    // From the stream's own thread (a handler) the loop cannot be stopped; the destructor does.
    if (!(m_loop && pw_thread_loop_in_thread(m_loop)))
        teardown();
    stopAudio();
    if (m_screen)
        m_screen->close();
    m_portal->close();
}

void PipeWireScreenStream::teardown()
{
    std::scoped_lock lock(m_teardownLock);
    if (m_tornDown || !m_loop)
        return;
    m_tornDown = true;
    {
        LoopLock loopLock(m_loop);
        if (m_timer)
            pw_loop_destroy_source(pw_thread_loop_get_loop(m_loop), m_timer);
        m_timer = nullptr;
        if (m_stream) {
            pw_stream_disconnect(m_stream);
            spa_hook_remove(&m_streamListener);
            pw_stream_destroy(m_stream);
            m_stream = nullptr;
        }
        if (m_registry) {
            spa_hook_remove(&m_registryListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy *>(m_registry));
            m_registry = nullptr;
        }
        if (m_core) {
            spa_hook_remove(&m_coreListener);
            pw_core_disconnect(m_core);
            m_core = nullptr;
        }
    }
    pw_thread_loop_stop(m_loop);
    if (m_context)
        pw_context_destroy(m_context);
    m_context = nullptr;
    pw_thread_loop_destroy(m_loop);
    m_loop = nullptr;
    finishStart("The capture was stopped before it started.");
    const Stats counts = stats();
    Log::system(QStringLiteral("pipewire capture frames=%1 idle=%2 skipped=%3 unchanged=%4")
                    .arg(counts.complete)
                    .arg(counts.idle)
                    .arg(counts.skipped)
                    .arg(counts.unchanged));
}

PipeWireScreenStream::Stats PipeWireScreenStream::stats() const
{
    return {m_complete.load(), m_idle.load(), m_skipped.load(), m_late.load(), m_unchanged.load()};
}
