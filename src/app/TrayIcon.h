#pragma once

#include <QList>
#include <QObject>
#include <QPointer>

class AppModel;
class ArmingController;
class ClipSaver;
class QAction;
class QMenu;
class QSystemTrayIcon;

// Vantrel in the panel's tray: a paperclip, red while armed; a click opens the window, and its
// menu arms or saves (the chosen length, or any length) and stops, opens the recordings folder and
// quits. The menu is made once; its items follow the arming state and the clip key. Desktops
// without a tray (sway without a bar, GNOME without its extension) show nothing, and Vantrel lives
// in its window and its links.
class TrayIcon : public QObject
{
    Q_OBJECT

public:
    TrayIcon(ArmingController &arming, ClipSaver &saver, AppModel &model,
             QObject *parent = nullptr);
    ~TrayIcon() override;

    // Shows the icon where the desktop has a tray (under X11 it waits for one to appear).
    void show();
    // Whether the desktop has a tray for the icon: always under X11, where one may appear at any
    // time (a panel started later) and the icon waits for it; under Wayland the desktop's answer.
    static bool desktopHasTray();

    QSystemTrayIcon *icon() const { return m_icon; }
    QMenu *menu() const { return m_menu; }

signals:
    void openWindowRequested();
    void openRecordingsRequested();
    void quitRequested();

private:
    void refresh();

    ArmingController &m_arming;
    AppModel &m_model;
    QSystemTrayIcon *m_icon = nullptr;
    QMenu *m_menu = nullptr;
    QAction *m_save = nullptr;
    QList<QAction *> m_lengths; // "Save last 15s" and the other lengths
    QAction *m_arm = nullptr;
    QAction *m_stop = nullptr;
};
