#include "capture/pulse/AppSoundSource.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <memory>
#include <set>

#include <unistd.h>

namespace {

struct MainloopDeleter
{
    void operator()(pa_mainloop *loop) const { pa_mainloop_free(loop); }
};
struct ContextDeleter
{
    void operator()(pa_context *context) const
    {
        pa_context_disconnect(context);
        pa_context_unref(context);
    }
};
struct ProplistDeleter
{
    void operator()(pa_proplist *list) const { pa_proplist_free(list); }
};

// The application a playback stream belongs to, as mixers show it; empty for our own streams
// (the cue sounds, which would otherwise be offered as a source of their own) and for streams
// without a name.
std::string applicationOf(const pa_sink_input_info &info)
{
    const char *name = pa_proplist_gets(info.proplist, PA_PROP_APPLICATION_NAME);
    if (!name || !*name)
        return {};
    const char *process = pa_proplist_gets(info.proplist, PA_PROP_APPLICATION_PROCESS_ID);
    if (process && std::to_string(getpid()) == process)
        return {};
    return name;
}

struct Listing
{
    std::set<std::string> names;
    bool done = false;
};

} // namespace

QStringList AppSoundSource::playingApplications(int timeoutMilliseconds)
{
    std::unique_ptr<pa_mainloop, MainloopDeleter> loop(pa_mainloop_new());
    if (!loop)
        return {};
    pa_mainloop_api *api = pa_mainloop_get_api(loop.get());
    std::unique_ptr<pa_proplist, ProplistDeleter> properties(pa_proplist_new());
    pa_proplist_sets(properties.get(), PA_PROP_APPLICATION_NAME, "Vantrel");
    pa_proplist_sets(properties.get(), PA_PROP_APPLICATION_ID, "com.quillfen.vantrel");
    std::unique_ptr<pa_context, ContextDeleter> context(
        pa_context_new_with_proplist(api, "Vantrel", properties.get()));
    if (!context || pa_context_connect(context.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        return {};

    Listing listing;
    bool asked = false;
    const pa_usec_t deadline = pa_rtclock_now() + pa_usec_t(timeoutMilliseconds) * 1000;
    while (!listing.done) {
        const pa_usec_t now = pa_rtclock_now();
        if (now >= deadline)
            return {};
        const pa_context_state_t state = pa_context_get_state(context.get());
        if (!PA_CONTEXT_IS_GOOD(state))
            return {};
        if (state == PA_CONTEXT_READY && !asked) {
            asked = true;
            pa_operation *operation = pa_context_get_sink_input_info_list(
                context.get(),
                [](pa_context *, const pa_sink_input_info *info, int eol, void *self) {
                    auto &listing = *static_cast<Listing *>(self);
                    if (eol != 0) {
                        listing.done = true;
                        return;
                    }
                    if (std::string name = applicationOf(*info); !name.empty())
                        listing.names.insert(std::move(name));
                },
                &listing);
            if (!operation)
                return {};
            pa_operation_unref(operation);
        }
        // One wait at most until the deadline, then whatever came is dispatched.
        if (pa_mainloop_prepare(loop.get(), int((deadline - now) / 1000) + 1) < 0 ||
            pa_mainloop_poll(loop.get()) < 0 || pa_mainloop_dispatch(loop.get()) < 0)
            return {};
    }
    QStringList names;
    for (const std::string &name : listing.names)
        names.push_back(QString::fromStdString(name));
    return names;
}

AppSoundSource::AppSoundSource(std::string applicationName, Changed onChanged)
    : m_name(std::move(applicationName))
    , m_onChanged(std::move(onChanged))
    , m_input(PA_INVALID_INDEX)
    , m_found(PA_INVALID_INDEX)
    , m_foundSink(PA_INVALID_INDEX)
{
}

void AppSoundSource::watchLocked(pa_context *context, pa_threaded_mainloop *loop)
{
    m_context = context;
    m_loop = loop;
    m_knows = false;
    m_input = PA_INVALID_INDEX;
    m_monitor.clear();
    askLocked();
}

void AppSoundSource::onEventLocked(uint32_t type, uint32_t)
{
    // Any stream coming, going or changing (moved to another sink, renamed) may change which one
    // is recorded, and the list is short: it is asked for again whole.
    if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SINK_INPUT)
        askLocked();
}

void AppSoundSource::askLocked()
{
    if (!m_context)
        return;
    pa_operation *operation = pa_context_get_sink_input_info_list(m_context, onSinkInput, this);
    if (!operation)
        return; // the context is going; the capture learns that from it
    pa_operation_unref(operation);
    ++m_asked;
    m_found = PA_INVALID_INDEX;
    m_foundSink = PA_INVALID_INDEX;
}

void AppSoundSource::onSinkInput(pa_context *context, const pa_sink_input_info *info, int eol,
                                 void *selfPointer)
{
    auto &self = *static_cast<AppSoundSource *>(selfPointer);
    if (eol == 0) {
        if (self.m_answered + 1 != self.m_asked || applicationOf(*info) != self.m_name)
            return;
        if (self.m_found == PA_INVALID_INDEX || info->index == self.m_input) {
            self.m_found = info->index;
            self.m_foundSink = info->sink;
        }
        return;
    }
    if (++self.m_answered != self.m_asked)
        return;
    if (eol < 0 || self.m_found == PA_INVALID_INDEX) {
        self.settleLocked(PA_INVALID_INDEX, {});
        return;
    }
    if (self.m_found == self.m_input) {
        self.settleLocked(self.m_input, self.m_monitor);
        return;
    }
    // Recorded through the monitor of the sink the stream plays on, whose name is asked next.
    self.m_sinkAskedAt = self.m_asked;
    if (pa_operation *operation =
            pa_context_get_sink_info_by_index(context, self.m_foundSink, onSink, &self))
        pa_operation_unref(operation);
}

void AppSoundSource::onSink(pa_context *, const pa_sink_info *info, int eol, void *selfPointer)
{
    auto &self = *static_cast<AppSoundSource *>(selfPointer);
    if (self.m_sinkAskedAt != self.m_asked)
        return; // the list is being asked for again: its answer decides
    if (eol == 0 && info && info->monitor_source_name)
        self.settleLocked(self.m_found, info->monitor_source_name);
    else if (eol < 0)
        self.settleLocked(PA_INVALID_INDEX, {}); // the sink went in the meantime
}

void AppSoundSource::settleLocked(uint32_t input, std::string monitor)
{
    const bool first = !m_knows;
    m_knows = true;
    if (m_loop)
        pa_threaded_mainloop_signal(m_loop, 0);
    if (input == m_input && monitor == m_monitor)
        return;
    const bool wasPlaying = m_input != PA_INVALID_INDEX;
    m_input = input;
    m_monitor = std::move(monitor);
    // Before the first answer nothing was connected yet; the capture aims after it.
    if (first || !m_onChanged)
        return;
    if (input == PA_INVALID_INDEX)
        m_onChanged("the application stopped playing: silence until it plays again");
    else
        m_onChanged(wasPlaying ? "the application plays on another stream or device"
                               : "the application started playing");
}

AppSoundSource::Aim AppSoundSource::aimLocked(pa_stream *stream) const
{
    if (m_input == PA_INVALID_INDEX || pa_stream_set_monitor_stream(stream, m_input) < 0)
        return {"@DEFAULT_MONITOR@", true};
    return {m_monitor, false};
}
