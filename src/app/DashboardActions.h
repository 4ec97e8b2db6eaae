#pragma once

#include "app/DashboardCallbacks.h"

#include <QObject>

#include <optional>

class AppModel;
class ArmingController;
class ClipEngine;
class ClipLibrary;
class ClipSaver;
class ShareActions;

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

    // What the replay costs in memory per second of it, measured from the buffer while armed (the
    // last measurement afterwards); none before one was made.
    std::optional<double> replayBytesPerSecond();

private:
    ArmingController &m_arming;
    ClipSaver &m_saver;
    ClipLibrary &m_library;
    ShareActions &m_share;
    ClipEngine &m_engine;
    AppModel &m_model;
    std::optional<double> m_replayRate;
};
