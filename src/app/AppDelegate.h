#pragma once

#include "app/AppLink.h"
#include "app/AppModel.h"
#include "app/ClipLibrary.h"
#include "app/DashboardCallbacks.h"
#include "app/DashboardWindow.h"
#include "engine/ClipEngine.h"

#include <QMenu>
#include <QMenuBar>
#include <QObject>
#include <QPointer>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QUrl>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace QCoro {
template<typename T> class Task;
}
class ClipNotifications;

class ShareActions;
class SingleInstance;
class WakeObserver;

// The spine of the program: owns the capture engine and the model, builds the menus and the
// tray icon, wires the clip key to saving, arms and disarms, re-arms after a dropped capture or
// a wake, answers the vantrel:// links and stops capture at quit. Every outcome lands in
// `model.status` (and in the log). Main thread only.
class AppDelegate : public QObject
{
    Q_OBJECT
public:
    explicit AppDelegate(QObject *parent = nullptr);
    ~AppDelegate() override;

    // The launch sequence. Returns false when another instance runs: it was handed `links`
    // and this process should exit.
    bool applicationDidFinishLaunching(const QStringList &links);
    // Stops capture, keeping the session file if that takes at most 8 s.
    void applicationWillTerminate();
    // Acts on vantrel:// links (see AppLink); links it does not know are ignored.
    void openUrls(const QList<QUrl> &urls);

    void startClipping();
    void stopClipping();
    void saveClip();
    void openWindow();
    void openRecordings();
    void showAbout();
    void showDashboard();
    void refreshStatusItem();
    // The dashboard's "Change" / "Cancel": starts binding a new clip key, or cancels that.
    void changeHotkey();
    // Uploads one clip and puts its link on the clipboard (the share hook after every save).
    void shareClip(const QUrl &clip);
    // Uploads every listed clip and puts one folder link on the clipboard.
    void shareAllClips();
    // The Library's Delete: the clip goes to the Trash and, when it was shared, its link is taken
    // down on the service.
    void deleteClip(const QUrl &clip);

    ClipEngine &engine() { return *m_engine; }
    AppModel &model() { return m_model; }
    // Made at launch, after the single-instance check.
    ClipLibrary *library() { return m_library.get(); }
    QMenuBar *mainMenu() const { return m_mainMenu; }
    QMenu *statusMenu() const { return m_statusMenu; }
    QSystemTrayIcon *statusItem() const { return m_statusItem; }
    // The dashboard window, made by the first showDashboard and kept.
    DashboardWindow *window() const { return m_window; }
    // What the replay costs in memory per second of it, measured from the buffer while armed
    // (the last measurement afterwards); none before one was made.
    std::optional<double> replayBytesPerSecond();

    // Installed by the dashboard, account, sharing and update code; empty ones do nothing. The
    // delegate installs its own account, share and link hooks when it is made.
    struct Hooks
    {
        std::function<void()> account;
        std::function<void()> dashboard;
        std::function<void()> update;
        std::function<void(const QUrl &clip)> share;
        // A sign-in link (vantrel://auth).
        std::function<void(const AppLink &link)> link;
        // The dashboard's "Send all".
        std::function<void()> shareAll;
    };
    Hooks hooks;

signals:
    // A save finished: the clip's path, or the sentence the user is shown for its failure.
    void clipSaved(const QString &path);
    void saveFailed(const QString &message);

private:
    QCoro::Task<void> runStart();
    QCoro::Task<void> runStop();
    QCoro::Task<void> runSave();
    void relaunchOnceForScreen();
    void onCaptureStopped(const QString &error);
    void onWake();
    void armAtLaunchIfWanted();
    void applyAuthLink(const AppLink &link);
    QString armedStatus() const;
    QString idleStatus() const;
    void presentDashboard();
    DashboardCallbacks dashboardCallbacks();

    std::unique_ptr<ClipEngine> m_engine;
    AppModel m_model;
    std::unique_ptr<ClipLibrary> m_library;
    QPointer<QSystemTrayIcon> m_statusItem;
    QPointer<QMenu> m_statusMenu;
    QPointer<QMenuBar> m_mainMenu;
    ShareActions *m_share = nullptr;
    SingleInstance *m_singleInstance = nullptr;
    WakeObserver *m_wake = nullptr;
    bool m_saveInProgress = false;
    std::chrono::steady_clock::time_point m_lastSaveAttempt {}; // the distant past
    bool m_startInProgress = false;
    QPointer<QTimer> m_restartWork;
    bool m_userStopping = false;
    QPointer<DashboardWindow> m_window;
    ClipNotifications *m_notifications = nullptr;
    std::optional<double> m_replayRate;
    // Waits for the end of a sign-in that a link hurried, to say how it ended.
    QMetaObject::Connection m_linkedSignIn;
};
