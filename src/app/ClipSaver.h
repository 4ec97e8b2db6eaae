#pragma once

#include <QObject>
#include <QString>

#include <chrono>
#include <optional>

class AppModel;
class ClipEngine;
class ClipLibrary;
class ShareActions;

namespace QCoro {
template<typename T> class Task;
}

// Saving the last seconds, whichever way it was asked for (the clip key, the window, the tray, a
// link). One save at a time, and at most one accepted press per 1.5 s. A saved clip is named in
// the status line, shown in the Library and shared at once for a signed-in user; a failure plays
// the error sound and says why. Main thread only.
class ClipSaver : public QObject
{
    Q_OBJECT

public:
    ClipSaver(ClipEngine &engine, AppModel &model, ClipLibrary &library, ShareActions &share,
              QObject *parent = nullptr);

    // Nothing unless armed, while a save runs, or within 1.5 s of the last accepted save.
    // Saves the clip length chosen in the settings.
    void save();
    // The same for `seconds` (a length's key, the tray's "Save last 60s"): a replay holding less
    // saves what it holds, and the status line says so.
    void saveLength(double seconds);

signals:
    // A save finished: the clip's path, or the sentence the user is shown for its failure.
    void clipSaved(const QString &path);
    void saveFailed(const QString &message);

private:
    void begin(std::optional<double> seconds);
    QCoro::Task<void> run(std::optional<double> seconds);

    ClipEngine &m_engine;
    AppModel &m_model;
    ClipLibrary &m_library;
    ShareActions &m_share;
    bool m_saving = false;
    std::chrono::steady_clock::time_point m_lastAttempt {}; // the distant past
};
