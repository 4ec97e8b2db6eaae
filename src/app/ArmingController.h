#pragma once

#include <QObject>
#include <QTimer>

class AppModel;
class ClipEngine;
class ClipLibrary;

namespace QCoro {
template<typename T> class Task;
}

// Arming and disarming, as one state machine over the capture engine:
//
//   idle ──start──▶ arming ──started──▶ armed ──stop──▶ stopping ──stopped──▶ idle
//                     │  └──failed──▶ idle  │                ▲
//                     └──stop (waits for the start)──────────┘
//   armed ──the capture dropped, recording was wanted──▶ restartPending ──1.2 s──▶ arming
//   restartPending ──stop──▶ idle            (a drop that was not wanted goes straight to idle)
//
// It keeps the model's isClipping (armed, and stopping until the stop returns), isBusy (arming)
// and the status line, the hotkey manager's armed flag, and the persisted wish to keep recording
// (true after every arming, false after a stop by the user), which re-arms at launch, after a
// drop and after the computer wakes. Main thread only.
class ArmingController : public QObject
{
    Q_OBJECT

public:
    enum class State { idle, arming, armed, stopping, restartPending };
    Q_ENUM(State)

    ArmingController(ClipEngine &engine, AppModel &model, ClipLibrary &library,
                     QObject *parent = nullptr);
    ~ArmingController() override;

    State state() const { return m_state; }

    // Arms; nothing while arming, armed or stopping.
    void start();
    // Disarms, keeping the session file; nothing while already stopping. During an arming the
    // stop follows as soon as the arming has answered.
    void stop();
    // At launch: arms 0.6 s later when the settings or the wish to keep recording say so, unless
    // the screen may not be recorded and the user was already told so.
    void armAtLaunchIfWanted();
    // The computer woke up: recording resumes when it was wanted.
    void resumeAfterWake();
    // The clip key or where it works changed: the armed status line says so.
    void refreshStatus();

    // The status line for the state the user is in: armed or idle.
    QString armedStatus() const;
    QString idleStatus() const;

signals:
    void stateChanged(ArmingController::State state);

private:
    void setState(State state);
    QCoro::Task<void> runStart();
    QCoro::Task<void> runStop();
    void captureDropped();

    ClipEngine &m_engine;
    AppModel &m_model;
    ClipLibrary &m_library;
    State m_state = State::idle;
    // Runs exactly while restartPending.
    QTimer m_restart;
};
