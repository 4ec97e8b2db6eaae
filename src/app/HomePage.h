#pragma once

#include <QWidget>

class AppModel;
class ClipRow;
class Card;
class QLabel;
class QPushButton;
class QVBoxLayout;
class ToggleSwitch;
struct DashboardCallbacks;

// The Home tab: the arming state, arm and save, the clip length, the microphone and the latest
// clip, all drawn from the model.
class HomePage : public QWidget
{
    Q_OBJECT

public:
    HomePage(AppModel &model, const DashboardCallbacks &callbacks, QWidget *parent = nullptr);

private:
    void refreshState();
    void refreshKey();
    void toggleKeyHelp();
    void refreshLengths();
    void refreshLatest();

    AppModel &m_model;
    const DashboardCallbacks &m_callbacks;
    QLabel *m_dot = nullptr;
    QLabel *m_pillText = nullptr;
    QPushButton *m_arm = nullptr;
    QPushButton *m_save = nullptr;
    QLabel *m_saveKey = nullptr;
    Card *m_keyNotice = nullptr;
    QLabel *m_keyNoticeTitle = nullptr;
    QLabel *m_keyHelp = nullptr;
    QList<QPushButton *> m_lengths;
    ToggleSwitch *m_mic = nullptr;
    QLabel *m_micNote = nullptr;
    QVBoxLayout *m_latest = nullptr;
};
