#pragma once

#include <QStringList>

#include <cstdint>
#include <functional>
#include <string>

struct pa_context;
struct pa_stream;
struct pa_sink_info;
struct pa_sink_input_info;
struct pa_threaded_mainloop;

// One application's sound instead of everything the default output plays: the record stream is
// tied to that application's playback stream (a sink input) with pa_stream_set_monitor_stream,
// which PulseAudio and pipewire-pulse both serve. Applications are known by their
// `application.name`, the name users see in their mixer; a game that stops and starts again gets
// a new sink input under the same name, so the name is what is followed.
//
// While the application plays nothing the recording stays on the default output's monitor,
// muted: the track goes on as silence with the clock of a real recording, rather than stopping
// (which would leave a clip without sound, or with its sound out of place).
//
// Threads: playingApplications() on any thread (it makes a connection of its own). The rest runs
// on the capture's libpulse mainloop with its lock held, as the `Locked` suffix says.
class AppSoundSource
{
public:
    // The names of the applications that have a playback stream now, sorted, each once; our own
    // streams (cue sounds) are left out. Asks the server on a connection of its own and waits for
    // it at most `timeoutMilliseconds`; empty when there is no server or it does not answer.
    static QStringList playingApplications(int timeoutMilliseconds = 1000);

    // Called when the application's first playback stream appears or its last one goes: the
    // recording should be connected again (aimLocked says where). Mainloop lock held.
    using Changed = std::function<void(const char *why)>;

    AppSoundSource(std::string applicationName, Changed onChanged);
    AppSoundSource(const AppSoundSource &) = delete;
    AppSoundSource &operator=(const AppSoundSource &) = delete;

    const std::string &applicationName() const { return m_name; }

    // Starts watching the server's playback streams on `context` (ready, mainloop lock held);
    // `loop` is signalled once the first answer is in (knowsLocked()).
    void watchLocked(pa_context *context, pa_threaded_mainloop *loop);
    bool knowsLocked() const { return m_knows; }
    // A subscription event from the context; the capture forwards the ones about sink inputs.
    void onEventLocked(uint32_t type, uint32_t index);
    // Ties `stream` (made, not yet connected) to the application's playback stream. Returns the
    // device to connect it to, and whether it must start muted because the application plays
    // nothing now.
    struct Aim
    {
        std::string device;
        bool muted = false;
    };
    Aim aimLocked(pa_stream *stream) const;

private:
    void askLocked();
    static void onSinkInput(pa_context *context, const pa_sink_input_info *info, int eol,
                            void *self);
    static void onSink(pa_context *context, const pa_sink_info *info, int eol, void *self);
    // Takes `input` (on the sink whose monitor is `monitor`) as the one recorded, and says so
    // when that changes whether anything is recorded.
    void settleLocked(uint32_t input, std::string monitor);

    const std::string m_name;
    const Changed m_onChanged;
    // All below: mainloop lock.
    pa_context *m_context = nullptr;
    pa_threaded_mainloop *m_loop = nullptr;
    bool m_knows = false; // the server has answered once
    // The application's sink input being recorded (PA_INVALID_INDEX while it plays nothing) and
    // the monitor of the sink it plays on.
    uint32_t m_input;
    std::string m_monitor;
    // The server answers in order: only the answer to the latest list of sink inputs counts
    // (m_answered == m_asked), and a sink's answer only if no list was asked for after it.
    uint64_t m_asked = 0;
    uint64_t m_answered = 0;
    uint64_t m_sinkAskedAt = 0;
    // What the list being answered has found so far: the recorded input if it is still there,
    // else the application's first one, with its sink.
    uint32_t m_found;
    uint32_t m_foundSink;
};
