#pragma once

#include "capture/AudioScreenStream.h"
#include "capture/PixelBufferPool.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

class QueueDelivery;
class X11FrameGrabber;

// A capture of one RandR monitor of the X server with its audio. A thread of its own ticks at the
// configured rate from the monotonic clock (frame n is due at start + n / fps, so the rate never
// drifts); at each tick it grabs the monitor if XDamage or the pointer says something changed
// (cursor drawn in, scaled to the capture size, delivered as I420); while nothing changes it hands
// on the newest picture again about once a second (a repeat), at almost no cost. Audio comes from
// the audio server (AudioScreenStream).
//
// The stream ends itself with a message to the stop handler, once, when the X connection dies,
// the monitor disappears or the audio server goes away; the stop handler runs on the capture
// thread and must not destroy the stream (stopping it is fine).
class X11ScreenStream final : public AudioScreenStream
{
public:
    // A config without a size captures at the display's own size. `displayName` empty: DISPLAY.
    X11ScreenStream(const CaptureDisplay &display, const StreamConfiguration &config,
                    std::string displayName = {});
    ~X11ScreenStream() override;

    void addScreenOutput(SerialQueue &queue, FrameHandler handler) override;
    void setStopHandler(StopHandler handler) override;
    void startCapture(StartCompletion completion) override;
    void stopCapture() override;

    Stats stats() const override;

protected:
    bool hasStarted() const override;

private:
    void run(StartCompletion completion);
    void captureLoop(X11FrameGrabber &grabber, PixelBufferPool &pool);
    // What a tick did: something changed (a grab, a skip or the end), nothing did, or nothing did
    // and it handed on a repeat (or an idle frame) with its slot's time.
    enum class Tick { changed, unchanged, idleHandedOn };
    // `slot` is the tick's place on the frame grid, which stamps its frame; `now` is when it ran.
    Tick tick(X11FrameGrabber &grabber, PixelBufferPool &pool, int64_t slot, int64_t now);
    enum class Wake { due, stopped, xEvent };
    // Sleeps until the monotonic time `when`, a stop, or (given its socket) news from the X
    // server, whichever comes first.
    Wake sleepUntil(int64_t when, int xConnection = -1);
    // Listens to the X server until `when`: xEvent as soon as what it reports is a change on the
    // monitor.
    Wake awaitChange(X11FrameGrabber &grabber, int64_t when);
    void end(const std::string &why);

    const CaptureDisplay m_display;
    const StreamConfiguration m_config;
    const std::string m_displayName;

    // Set up before startCapture() and only read afterwards.
    FrameHandler m_frameHandler;
    std::unique_ptr<QueueDelivery> m_screen;
    StopHandler m_stopHandler;

    std::thread m_thread;
    std::atomic<bool> m_stopRequested {false};
    int m_stopEvent = -1; // an eventfd, readable once a stop was asked for
    std::atomic<bool> m_ended {false}; // the stop handler was called, or stopCapture() was

    std::atomic<int64_t> m_complete {0};
    std::atomic<int64_t> m_idle {0};
    std::atomic<int64_t> m_skipped {0};
    std::atomic<int64_t> m_late {0};
    std::atomic<int64_t> m_unchanged {0};
    // Capture thread only: when a frame was last handed on (-1 before the first), and the newest
    // picture grabbed, which a still screen hands on again.
    int64_t m_lastIdlePost = -1;
    std::shared_ptr<PixelBufferPool::Buffer> m_newest;
};
