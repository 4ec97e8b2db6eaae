#pragma once

#include <QUrl>

#include <functional>
#include <optional>

// The eleven actions the dashboard asks of the shell (DashboardActions). The dashboard calls them
// on the main thread; each returns at once (long work runs in the shell's own tasks).
struct DashboardCallbacks
{
    std::function<void()> onStart;
    std::function<void()> onStop;
    std::function<void()> onSaveClip;
    std::function<void(const QUrl &)> onOpen;
    std::function<void()> onReveal;
    std::function<void(const QUrl &)> onCopy;
    std::function<void(const QUrl &)> onShare;
    std::function<void()> onShareAll;
    std::function<void()> onRefresh;
    std::function<void()> onChangeHotkey;
    std::function<void(const QUrl &)> onDelete;

    // Not an action but a reading: what the replay costs in memory per second of it, as
    // measured from the buffer; none before anything was measured.
    std::function<std::optional<double>()> replayBytesPerSecond;
};

// Calls `callback` when it is set: a dashboard made without the shell (a test's) does nothing.
template<typename F, typename... A> void call(const F &callback, A &&...arguments)
{
    if (callback)
        callback(std::forward<A>(arguments)...);
}
