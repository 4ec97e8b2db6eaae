#pragma once

#include "capture/AudioScreenStream.h"
#include "capture/PixelBufferPool.h"
#include "capture/wayland/PipeWireFrameReader.h"
#include "capture/wayland/PipeWireParams.h"

#include <spa/utils/hook.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

struct pw_context;
struct pw_core;
struct pw_registry;
struct pw_stream;
struct pw_thread_loop;
struct spa_source;
class QueueDelivery;
class ScreenCastPortal;

// The screen as a Wayland compositor shares it: a PipeWire video stream of the node that the
// desktop portal granted, read on PipeWire's own thread ("vt-pipewire"). The compositor sends a
// frame when something changed, at most 60 a second; each is copied into a pool buffer of the
// capture size (scaled when needed) and stamped with its slot on the 60 fps grid, so frames stay
// whole frames apart as on X11. Buffers the compositor marks unchanged, and a second without any
// frame, give the newest picture again (at most one a second). Audio comes from AudioScreenStream
// (PipeWire's pulse server answers it).
//
// The stream ends itself, once, with a sentence for the stop handler when the compositor or the
// desktop stops sharing (the node goes away), PipeWire goes away, the shared monitor changes its
// size (the capture is re-armed at the new size, as for a monitor change on X11) or the audio
// server dies. Stopping closes the portal session too.
class PipeWireScreenStream final : public AudioScreenStream
{
public:
    // `portal` holds the granted session; `node` is its stream. A config without a size captures
    // at the size of the first frame.
    PipeWireScreenStream(std::shared_ptr<ScreenCastPortal> portal, uint32_t node,
                         const StreamConfiguration &config);
    ~PipeWireScreenStream() override;

    void addScreenOutput(SerialQueue &queue, FrameHandler handler) override;
    void setStopHandler(StopHandler handler) override;
    void startCapture(StartCompletion completion) override;
    void stopCapture() override;
    Stats stats() const override;

    // For tests: the size of the frames the compositor sends (0×0 before the first format).
    std::pair<int, int> sourceSize() const { return {m_sourceWidth.load(), m_sourceHeight.load()}; }

protected:
    bool hasStarted() const override;

private:
    // PipeWire's C callbacks, forwarding to the members below on the stream's thread.
    friend struct PipeWireCallbacks;

    void connectLocked(int fd);
    void stateChanged(bool failed, bool streaming, bool unconnected, const char *error);
    void coreError(uint32_t id, int res, const char *message);
    void nodeRemoved(uint32_t id);
    void formatChanged(const struct spa_pod *param);
    void process();
    void tick();
    void postIdle(int64_t now);
    void finishStart(std::optional<std::string> error);
    void end(const std::string &why);
    void teardown();

    const std::shared_ptr<ScreenCastPortal> m_portal;
    const uint32_t m_node;
    StreamConfiguration m_config;

    // Set up before startCapture() and only read afterwards.
    FrameHandler m_frameHandler;
    std::unique_ptr<QueueDelivery> m_screen;
    StopHandler m_stopHandler;

    // PipeWire's objects; touched only with the loop's lock held (or before its thread runs).
    pw_thread_loop *m_loop = nullptr;
    pw_context *m_context = nullptr;
    pw_core *m_core = nullptr;
    pw_stream *m_stream = nullptr;
    pw_registry *m_registry = nullptr; // tells when the shared node goes away
    spa_hook m_registryListener {};
    spa_source *m_timer = nullptr;
    spa_hook m_coreListener {};
    spa_hook m_streamListener {};

    // The stream's thread only.
    std::optional<PipeWireParams::Format> m_format;
    std::unique_ptr<PixelBufferPool> m_pool;
    PipeWireFrameReader m_reader;
    bool m_dmaBufAllowed = true;
    bool m_streaming = false;
    int64_t m_start = 0; // the grid's origin, monotonic nanoseconds
    int64_t m_lastSlot = -1;
    int64_t m_lastPost = -1; // when a frame was last handed on, or -1
    std::shared_ptr<PixelBufferPool::Buffer> m_newest; // the picture a still screen repeats

    std::atomic<int> m_sourceWidth {0};
    std::atomic<int> m_sourceHeight {0};

    std::mutex m_startLock; // guards m_completion
    StartCompletion m_completion;
    std::atomic<bool> m_ended {false}; // the stop handler was called, or stopCapture() was
    std::atomic<bool> m_stopping {false}; // stopCapture() began: a disconnect is ours
    std::mutex m_teardownLock; // one teardown at a time
    bool m_tornDown = false;

    std::atomic<int64_t> m_complete {0};
    std::atomic<int64_t> m_idle {0};
    std::atomic<int64_t> m_skipped {0};
    std::atomic<int64_t> m_late {0};
    std::atomic<int64_t> m_unchanged {0};
};
