#pragma once

#include "core/ClipSettings.h"

#include <QList>
#include <QTimer>
#include <QWidget>

#include <optional>
#include <utility>

class AppModel;
class QLabel;
class QPushButton;
class QVBoxLayout;
class ToggleSwitch;
struct DashboardCallbacks;

// The Settings tab: the clip key with Change / Cancel, the key of each length, arming at log-in,
// the microphone, the system sound (all of it or one application's), clearing the replay after a
// save, the recording quality, what the replay holds in memory, and the account (its panel is put
// in by the dashboard).
class SettingsPage : public QWidget
{
    Q_OBJECT

public:
    SettingsPage(AppModel &model, const DashboardCallbacks &callbacks, QWidget *parent = nullptr);

    // Puts the account area under the caption "ACCOUNT".
    void setAccountPanel(QWidget *panel);

    // "About 270 MB for 120 s" from a measured rate, or what is shown before one exists.
    static QString memoryText(std::optional<double> bytesPerSecond, double clipLengthSeconds);

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void refreshKey();
    void refreshToggles();
    void refreshMemory();
    QWidget *qualityRow();
    void refreshQuality();

    AppModel &m_model;
    const DashboardCallbacks &m_callbacks;
    QLabel *m_keyChip = nullptr;
    QPushButton *m_change = nullptr;
    QLabel *m_keyNote = nullptr;
    ToggleSwitch *m_login = nullptr;
    QLabel *m_loginNote = nullptr;
    ToggleSwitch *m_mic = nullptr;
    QLabel *m_micNote = nullptr;
    ToggleSwitch *m_clearAfterSave = nullptr;
    QLabel *m_memory = nullptr;
    QList<std::pair<CaptureQuality, QPushButton *>> m_qualities;
    QVBoxLayout *m_account = nullptr;
    // Only while the page is on screen: the replay's size grows for a while after arming.
    QTimer m_memoryPoll;
};
