#pragma once

#include "app/AppShell.h"

#include "cloud/ServiceTestSupport.h"
#include "support/TestEnvironment.h"

#include <QByteArray>
#include <QMenu>
#include <QString>
#include <QStringList>
#include <QWidget>

#include <chrono>
#include <functional>
#include <memory>

// One journey of a user through the real window: the program's shell made in this process as
// main() makes it, on the shared desktop of the fixtures (Xvfb with a window manager and a tray),
// recording from the shared audio server, signed in through the shared service and secret store.
// The test clicks the window's own widgets, presses keys through the X server and reads the X
// clipboard with xclip, as another program would.
class Journey : public TempHomeTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Makes the shell and launches it as main() does; waits for the window.
    void launch();
    // What main() does at quit, then the shell goes.
    void quit();

    AppShell &shell() { return *m_shell; }
    QWidget *window() const;

    // The visible widget of the window with this object name, or a test failure (nullptr).
    template<typename T = QWidget> T *find(const QString &name) const
    {
        for (T *widget : window()->template findChildren<T *>(name)) {
            if (widget->isVisible())
                return widget;
        }
        ADD_FAILURE() << "no visible " << name.toStdString();
        return nullptr;
    }
    // Waits until the window shows a widget of this name (new rows appear after a queued layout).
    bool waitForVisible(const QString &name,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5))
    {
        return waitFor(
            [&] {
                for (QWidget *widget : window()->findChildren<QWidget *>(name))
                    if (widget->isVisible())
                        return true;
                return false;
            },
            timeout);
    }
    // Clicks it as a user does; fails when it is hidden or disabled.
    void click(const QString &name);
    // Runs the program's event loop until `done`, for at most `timeout`.
    bool waitFor(const std::function<bool()> &done,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Waits until the status line says `text` (exactly, or as a prefix with `prefix`).
    bool waitForStatus(const QString &text, std::chrono::milliseconds timeout, bool prefix = false);
    // Every status line shown since launch, in order.
    const QStringList &statuses() const { return m_statuses; }

    // Runs a program to its end while this program's event loop keeps running (it may be asked
    // for the clipboard meanwhile); its standard output, or empty when it failed.
    QByteArray run(const QString &program, const QStringList &arguments,
                   std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Presses keys through the X server (xdotool key), as the keyboard does.
    void press(const QString &keys);
    // The X clipboard as another program reads it: its targets, and the data of one.
    QStringList clipboardTargets();
    QByteArray clipboard(const QString &target = QStringLiteral("UTF8_STRING"));

    // Opens the tray icon's menu with a right click where the desktop's tray shows the icon;
    // false (and a failure) when it did not open.
    bool openTrayMenu();
    // Picks an item of an open menu by its text, with the mouse, as the user does.
    static void pickFromMenu(QMenu *menu, const QString &text);

    // Arms from the window and waits until the replay holds `seconds`.
    void armAndFill(double seconds);
    // A short real clip in the recordings folder, made with ffmpeg (as a save would leave one);
    // its path.
    QString makeClip(const QString &name);
    QString recordings() const;

    // A user of the service, signed in on an earlier run: the token waits in the secret store.
    void signInBeforeLaunch(const QString &name);
    // The token the secret store holds, or "none".
    QString storedToken();
    // The body of a page of the service, fetched with curl; empty when it did not answer 200.
    QByteArray fetch(const QString &url);

    TestService service;

private:
    std::unique_ptr<AppShell> m_shell;
    QStringList m_statuses;
};
