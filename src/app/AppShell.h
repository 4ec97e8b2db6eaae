#pragma once

#include <QObject>
#include <QPointer>
#include <QStringList>

#include <memory>

class AppModel;
class ArmingController;
class ClipEngine;
class ClipLibrary;
class ClipNotifications;
class ClipSaver;
class DashboardActions;
class DashboardWindow;
class LinkRouter;
class QMenuBar;
class ShareActions;
class SingleInstance;
class TrayIcon;
class WindowHome;

// The program from launch to quit. It makes and owns the pieces of the shell and connects them:
//
//   who asks                        who does it                       what that drives
//   TrayIcon          ─┐
//   DashboardActions  ─┼ arm, stop ▶ ArmingController (idle, arming, ▶ ClipEngine start, stop;
//   LinkRouter        ─┘             armed, stopping, restartPending)  HotkeyManager armed
//   TrayIcon          ─┐
//   DashboardActions  ─┤ save ──────▶ ClipSaver ─────────────────────▶ ClipEngine save; then
//   LinkRouter        ─┤                                               ClipLibrary, ShareActions
//   HotkeyManager     ─┘ (the clip key)
//   DashboardActions  ── share, send all, delete ▶ ShareActions ─────▶ the service, the clipboard
//   DashboardActions  ── open, copy, folder ─────▶ ClipLibrary ──────▶ the desktop, the clipboard
//
// Every piece writes what the user should see into AppModel, which the window's pages draw. Each
// calls the next directly; back up the chain only Qt signals go: ArmingController::stateChanged
// (the tray's look and items), ClipSaver::clipSaved and saveFailed (desktop notifications),
// LinkRouter::windowWanted and TrayIcon's requests (this shell). Main thread only.
class AppShell : public QObject
{
    Q_OBJECT

public:
    explicit AppShell(QObject *parent = nullptr);
    ~AppShell() override;

    // The launch, in order: settings brought up to date, the single-instance check, the library,
    // the sign-in, the tray, the window, the update check, the clip key, the wake watch, the
    // arming at launch, then `links`. Returns false when another instance runs: it was handed
    // `links`, and this process should exit.
    bool launch(const QStringList &links);
    // At quit: lets go of the clip key and stops capture, keeping the session file if that takes
    // at most 8 s.
    void shutDown();

    // Creates the window on first use, then brings it to the front.
    void showWindow();
    void showAbout();

    ClipEngine &engine() { return *m_engine; }
    AppModel &model() { return *m_model; }
    // The pieces below are made by launch().
    ClipLibrary *library() const { return m_library.get(); }
    ArmingController *arming() const { return m_arming; }
    ClipSaver *saver() const { return m_saver; }
    ShareActions *share() const { return m_share; }
    DashboardActions *actions() const { return m_actions; }
    LinkRouter *links() const { return m_links; }
    TrayIcon *tray() const { return m_tray; }
    WindowHome *windowHome() const { return m_windowHome; }
    QMenuBar *mainMenu() const;
    DashboardWindow *window() const;

private:
    void makePieces();
    void connectClipKey();

    std::unique_ptr<ClipEngine> m_engine;
    std::unique_ptr<AppModel> m_model;
    std::unique_ptr<ClipLibrary> m_library;
    SingleInstance *m_singleInstance = nullptr;
    ArmingController *m_arming = nullptr;
    ShareActions *m_share = nullptr;
    ClipSaver *m_saver = nullptr;
    DashboardActions *m_actions = nullptr;
    LinkRouter *m_links = nullptr;
    TrayIcon *m_tray = nullptr;
    WindowHome *m_windowHome = nullptr;
    ClipNotifications *m_notifications = nullptr;
    QPointer<QMenuBar> m_mainMenu;
    QPointer<DashboardWindow> m_window;
};
