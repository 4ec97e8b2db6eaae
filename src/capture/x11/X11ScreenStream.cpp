#include "capture/x11/X11ScreenStream.h"

#include "capture/PixelBufferPool.h"
#include "capture/QueueDelivery.h"
#include "capture/x11/X11FrameGrabber.h"
#include "core/Log.h"
#include "media/MonotonicClock.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace {

// While the screen is still, a tick every this many frames: the pointer's moves (which the X
// server does not report) are seen within as long; everything else wakes the thread at once.
constexpr int64_t restingEvery = 4;

StreamConfiguration effective(const CaptureDisplay &display, StreamConfiguration config)
{
    if (config.width <= 0 || config.height <= 0) {
        config.width = display.width;
        config.height = display.height;
    }
    config.fps = config.fps > 0 ? config.fps : 60;
    config.queueDepth = config.queueDepth > 0 ? config.queueDepth : 3;
    return config;
}

} // namespace

X11ScreenStream::X11ScreenStream(const CaptureDisplay &display, const StreamConfiguration &config,
                                 std::string displayName)
    : AudioScreenStream(config)
    , m_display(display)
    , m_config(effective(display, config))
    , m_displayName(std::move(displayName))
    , m_stopEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

X11ScreenStream::~X11ScreenStream()
{
    stopCapture();
    if (m_thread.joinable())
        m_thread.join();
    if (m_stopEvent >= 0)
        close(m_stopEvent);
}

void X11ScreenStream::addScreenOutput(SerialQueue &queue, FrameHandler handler)
{
    if (m_thread.joinable())
        throw std::runtime_error("Outputs must be added before the capture starts.");
    m_frameHandler = std::move(handler);
    m_screen = std::make_unique<QueueDelivery>(queue, m_config.queueDepth);
}

bool X11ScreenStream::hasStarted() const
{
    return m_thread.joinable();
}

void X11ScreenStream::setStopHandler(StopHandler handler)
{
    m_stopHandler = std::move(handler);
}

void X11ScreenStream::startCapture(StartCompletion completion)
{
    if (m_thread.joinable() || m_ended.load()) {
        completion("The capture was already started.");
        return;
    }
    m_thread = std::thread([this, completion = std::move(completion)] { run(completion); });
}

void X11ScreenStream::stopCapture()
{
    // From here on the stream ends quietly: a failure racing with this stop is not reported.
    m_ended.store(true);
    m_stopRequested.store(true);
    if (m_stopEvent >= 0) [[maybe_unused]]
        const ssize_t written = write(m_stopEvent, "\1\0\0\0\0\0\0\0", 8);
    // Called from the capture thread itself (a stop or start handler), the thread cannot be
    // joined here; it leaves its loop as soon as the handler returns, and the destructor joins.
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id())
        m_thread.join();
    stopAudio();
    if (m_screen)
        m_screen->close();
}

X11ScreenStream::Stats X11ScreenStream::stats() const
{
    return {m_complete.load(), m_idle.load(), m_skipped.load(), m_late.load(), m_unchanged.load()};
}

void X11ScreenStream::run(StartCompletion completion)
{
    pthread_setname_np(pthread_self(), "vt-x11-capture");
    std::unique_ptr<X11FrameGrabber> grabber;
    std::unique_ptr<PixelBufferPool> pool;
    try {
        grabber = std::make_unique<X11FrameGrabber>(m_displayName, m_display, m_config.width,
                                                    m_config.height, m_config.showsCursor);
        // The grab is converted to the encoder's I420 as it is taken, while the image is still
        // in the cache: read again later on the encoder's thread it costs twice as much. One
        // buffer fewer than frames in flight: the frame being encoded gives its pixels back as
        // soon as the encoder has taken them in, and only the frames still waiting hold one.
        pool =
            std::make_unique<PixelBufferPool>(std::max(1, m_config.queueDepth - 1), m_config.width,
                                              m_config.height, PixelBufferPool::Format::i420);
        startAudio();
    } catch (const std::exception &error) {
        stopAudio();
        Log::system(QStringLiteral("x11 capture could not start: %1").arg(error.what()));
        completion(std::string(error.what()));
        return;
    }
    Log::system(QStringLiteral("x11 capture %1x%2+%3+%4 -> %5x%6 at %7 fps damage=%8")
                    .arg(m_display.width)
                    .arg(m_display.height)
                    .arg(m_display.x)
                    .arg(m_display.y)
                    .arg(m_config.width)
                    .arg(m_config.height)
                    .arg(m_config.fps)
                    .arg(grabber->tracksDamage() ? "true" : "false"));
    completion(std::nullopt);
    captureLoop(*grabber, *pool);
    m_newest.reset();
    const Stats counts = stats();
    Log::system(QStringLiteral("x11 capture frames=%1 idle=%2 skipped=%3 late=%4 unchanged=%5")
                    .arg(counts.complete)
                    .arg(counts.idle)
                    .arg(counts.skipped)
                    .arg(counts.late)
                    .arg(counts.unchanged));
}

X11ScreenStream::Wake X11ScreenStream::sleepUntil(int64_t when, int xConnection)
{
    for (;;) {
        if (m_stopRequested.load())
            return Wake::stopped;
        const int64_t left = when - monotonicNanoseconds();
        if (left <= 0)
            return Wake::due;
        pollfd watched[2] = {{m_stopEvent, POLLIN, 0}, {xConnection, POLLIN, 0}};
        const timespec timeout {time_t(left / 1'000'000'000), long(left % 1'000'000'000)};
        if (ppoll(watched, xConnection >= 0 ? 2 : 1, &timeout, nullptr) > 0 &&
            watched[1].revents != 0 && watched[0].revents == 0)
            return Wake::xEvent;
    }
}

X11ScreenStream::Wake X11ScreenStream::awaitChange(X11FrameGrabber &grabber, int64_t when)
{
    for (;;) {
        if (!grabber.readQueuedEvents()) {
            const Wake wake = sleepUntil(when, grabber.connectionSocket());
            if (wake != Wake::xEvent)
                return wake;
            grabber.readEvents();
        }
        if (grabber.hasChanges())
            return Wake::xEvent;
    }
}

void X11ScreenStream::captureLoop(X11FrameGrabber &grabber, PixelBufferPool &pool)
{
    const int64_t fps = m_config.fps;
    const int64_t start = monotonicNanoseconds();
    // Every tick's time comes from its index, never from the previous tick, so lateness in one
    // tick does not push the following ones back.
    const auto due = [&](int64_t index) { return start + index * 1'000'000'000 / fps; };
    const auto slotNow = [&] { return (monotonicNanoseconds() - start) * fps / 1'000'000'000; };
    int64_t stillTicks = 0;
    for (int64_t index = 0;; ++index) {
        // Resting: the slots between checks are passed over (not lost: nothing changed), and a
        // change the server reports runs a tick in the slot under way.
        if (stillTicks >= fps && !grabber.readQueuedEvents()) {
            const int64_t check = (index + restingEvery - 1) / restingEvery * restingEvery;
            if (sleepUntil(due(check), grabber.connectionSocket()) == Wake::stopped)
                return;
            index = std::max(index, slotNow());
        }
        if (sleepUntil(due(index)) == Wake::stopped)
            return;
        Tick outcome = tick(grabber, pool, due(index), monotonicNanoseconds());
        // A tick that found nothing listens to the server for the rest of its slot, and grabs
        // a change drawn meanwhile at once. Left to the next tick, it would be joined there by
        // the program's next draw, which lands on damage not yet cleared and so is never
        // reported: a program drawing at our rate, just after our ticks, would be caught at half
        // of it. (Not when the tick handed on a repeat with this slot's time.)
        if (outcome == Tick::unchanged && stillTicks + 1 < fps) {
            const Wake wake = awaitChange(grabber, due(index + 1));
            if (wake == Wake::stopped)
                return;
            if (wake == Wake::xEvent)
                outcome = tick(grabber, pool, due(index), monotonicNanoseconds());
        }
        // Counted per slot: one whose look found nothing may still have grabbed a later draw.
        const bool changed = outcome == Tick::changed;
        if (!changed && m_screen)
            m_unchanged.fetch_add(1);
        stillTicks = changed ? 0 : stillTicks + 1;
        if (m_ended.load())
            return;
        // Ticks whose whole slot has passed are skipped; the one whose slot we are in runs now.
        const int64_t current = slotNow();
        if (current > index + 1) {
            m_late.fetch_add(current - index - 1);
            index = current - 1;
        }
    }
}

X11ScreenStream::Tick X11ScreenStream::tick(X11FrameGrabber &grabber, PixelBufferPool &pool,
                                            int64_t slot, int64_t now)
{
    std::optional<std::string> why = grabber.poll();
    if (!why)
        why = audioFailure();
    if (why) {
        end(*why);
        return Tick::changed;
    }
    if (!m_screen)
        return Tick::unchanged;

    const MediaTime duration = MediaTime::make(1, m_config.fps);
    if (!grabber.hasChanges()) {
        // A still screen is told once it has been still for a second, and then once a second:
        // handing the consumer a frame every tick (or at every missed draw of a stuttering
        // program) would wake its thread for nothing. What it is told is the newest picture
        // again, which the buffer never gave back, so a still screen costs no grab; the encoder
        // makes a frame of it, and the clip's video goes on while nothing moves.
        if (m_lastIdlePost >= 0 && now - m_lastIdlePost < 1'000'000'000)
            return Tick::unchanged;
        m_lastIdlePost = now;
        VideoFrame frame =
            VideoFrame::idle(m_config.width, m_config.height, nanosecondTime(slot), duration);
        if (m_newest) {
            frame = PixelBufferPool::frameOf(m_newest, nanosecondTime(slot), duration);
            frame.status = VideoFrame::Status::repeat;
        }
        const bool posted = m_screen->hand(m_frameHandler, std::move(frame));
        (posted ? m_idle : m_skipped).fetch_add(1);
        return Tick::idleHandedOn;
    }
    // Without a free buffer, or with the consumer behind, the frame is skipped before the grab
    // costs anything; the damage stays pending, so the next tick grabs.
    std::shared_ptr<PixelBufferPool::Buffer> buffer = pool.acquire();
    if (!buffer || m_screen->inFlight() >= m_config.queueDepth) {
        m_skipped.fetch_add(1);
        return Tick::changed;
    }
    // Stamped with its slot rather than the moment of the grab: a late tick and the one after it
    // then stay a whole frame apart, as players and muxers expect of a 60 fps stream, and the
    // picture is off by less than one frame.
    if (!grabber.grab(*buffer)) {
        m_skipped.fetch_add(1);
        return Tick::changed;
    }
    // Kept as the picture a still screen repeats. Holding the newest buffer costs the pool
    // nothing: while it waits for the encoder it is held anyway, and once the encoder has taken
    // it in, so have all the older ones, which are free again.
    m_newest = buffer;
    VideoFrame frame = PixelBufferPool::frameOf(std::move(buffer), nanosecondTime(slot), duration);
    const bool posted = m_screen->hand(m_frameHandler, std::move(frame));
    (posted ? m_complete : m_skipped).fetch_add(1);
    m_lastIdlePost = now;
    return Tick::changed;
}

void X11ScreenStream::end(const std::string &why)
{
    if (m_ended.exchange(true))
        return;
    Log::system(QStringLiteral("x11 capture ended: %1").arg(QString::fromStdString(why)));
    // Stop delivering before the handler hears of it, so nothing new arrives after the news.
    // Without waiting for a running handler: it might be in stopCapture(), joining this thread.
    stopAudio(false);
    if (m_screen)
        m_screen->close(false);
    if (m_stopHandler)
        m_stopHandler(why);
}
