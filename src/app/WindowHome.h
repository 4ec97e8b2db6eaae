#pragma once

#include <QObject>
#include <QPointer>

#include <functional>

class ArmingController;
class DesktopNotifications;
class QMessageBox;
class QWidget;

// Where the desktop shows no tray (GNOME without its AppIndicator extension, sway without a bar),
// the window is the program's home: closed, nothing on screen says that Vantrel still records.
// So closing it there asks whether to keep recording in the background and names the way back
// (the desktop's launcher, `vantrel vantrel://open`); kept on, a desktop notification says that
// recording continues. With a tray, closing only hides, as before. "Don't ask again" is kept
// under `keepRunningWithoutTray`. Main thread only.
class WindowHome : public QObject
{
    Q_OBJECT

public:
    static const char *const keepRunningKey;

    explicit WindowHome(ArmingController &arming, QObject *parent = nullptr);

    // Asks when `window` is closed.
    void watch(QWidget *window);

    // Whether the desktop has a tray: always under X11 (one may appear later), QSystemTrayIcon's
    // answer under Wayland, unless a test says otherwise.
    std::function<bool()> trayAvailable;

    // The question on screen, if any (for tests).
    QMessageBox *question() const;

signals:
    void quitRequested();
    // The notification's "Open Vantrel".
    void windowWanted();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void ask();
    void keepRunning();

    ArmingController &m_arming;
    DesktopNotifications *m_notifications = nullptr;
    QPointer<QWidget> m_window;
    QPointer<QMessageBox> m_question;
    bool m_closing = false; // our own close after the user chose to keep running
    bool m_quitting = false;
};
