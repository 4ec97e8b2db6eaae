#pragma once

#include "media/ClipPosters.h"
// moc cannot parse <compare>, which media times need; it needs none of them.
#ifndef Q_MOC_RUN
#include "media/MediaTime.h"
#endif

#include <QFuture>
#include <QStringList>

#include <QUrl>

#include <functional>
#include <optional>

// The actions the dashboard asks of the shell (DashboardActions). The dashboard calls them
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
    // The key of one length (15, 30, 60 or 120 s): capture a new one (or cancel the capture),
    // or unbind it.
    std::function<void(int seconds)> onChangeLengthKey;
    std::function<void(int seconds)> onClearLengthKey;
    // The trim view: open it on a clip, and write the trimmed copy of the frames from `in` to
    // `out` (seconds from the clip's start, each on a frame's start).
    std::function<void(const QUrl &)> onTrim;
    std::function<void(const QUrl &, MediaTime in, MediaTime out)> onSaveTrim;
    std::function<void(const QUrl &, MediaTime in)> onTrimStartChosen;

    // Not an action but a reading: what the replay costs in memory per second of it, as
    // measured from the buffer; none before anything was measured.
    std::function<std::optional<double>()> replayBytesPerSecond;
    // The names of the applications playing sound now, answered later (asking the sound server
    // may take a moment).
    std::function<QFuture<QStringList>()> playingApplications;
    // The poster and duration of a clip (its path), answered later through the event loop.
    std::function<QFuture<ClipPosters::Poster>(const QString &)> poster;
};

// Calls `callback` when it is set: a dashboard made without the shell (a test's) does nothing.
template<typename F, typename... A> void call(const F &callback, A &&...arguments)
{
    if (callback)
        callback(std::forward<A>(arguments)...);
}
