#pragma once

#include "app/DashboardCallbacks.h"

#include <QObject>

#include <memory>
#include <optional>

class AppModel;
class ClipPosters;
class ArmingController;
class ClipEngine;
class ClipLibrary;
class ClipSaver;
class ShareActions;

namespace QCoro {
template<typename T> class Task;
}

// What the dashboard's buttons do: each callback it is given goes straight to the piece that does
// the work (the arming, the save, the library, the sharing), and the change of the clip key is
// run here. Main thread only.
class DashboardActions : public QObject
{
    Q_OBJECT

public:
    DashboardActions(ArmingController &arming, ClipSaver &saver, ClipLibrary &library,
                     ShareActions &share, ClipEngine &engine, AppModel &model,
                     QObject *parent = nullptr);

    // The callbacks, each holding this object weakly: they do nothing once it is gone.
    DashboardCallbacks callbacks();

    // "Change": the next key pressed in the window becomes the clip key (Esc cancels);
    // "Cancel" while waiting for it.
    void changeHotkey();

    // The same for the key of one length; "Clear" unbinds it.
    void changeLengthKey(int seconds);
    void clearLengthKey(int seconds);

    // Writes the trimmed copy beside the clip, then shows it in the library; the status line
    // says where it went, or why it could not be made.
    void saveTrim(const QUrl &clip, MediaTime in, MediaTime out);

    // Posters and durations for the library's rows, made on first use.
    ClipPosters &posters();

    // What the replay costs in memory per second of it, measured from the buffer while armed (the
    // last measurement afterwards); none before one was made.
    std::optional<double> replayBytesPerSecond();

private:
    QCoro::Task<void> runTrim(QUrl clip, MediaTime in, MediaTime out);

    ArmingController &m_arming;
    ClipSaver &m_saver;
    ClipLibrary &m_library;
    ShareActions &m_share;
    ClipEngine &m_engine;
    AppModel &m_model;
    std::optional<double> m_replayRate;
    std::unique_ptr<ClipPosters> m_posters;
    bool m_trimming = false; // one trimmed copy at a time
};
