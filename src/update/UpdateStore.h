#pragma once

#include "update/AppRelease.h"

#include <QObject>
#include <QString>

#include <chrono>
#include <optional>

namespace QCoro {
template<typename T> class Task;
}

// The observable update state: the newer release the last check found, the dashboard's sheet
// flag, and the progress or error line of an install. One per process (`shared()`); every field
// is read and written on the main thread.
//
// An install downloads the release's archive (from an https address only, into a folder of its
// own that no other user can enter), checks its signature before anything else, unpacks it beside
// the installed copy, checks that the archive's own VERSION is newer than the copy it replaces and
// is the version it was offered as, swaps it in (see InstalledCopy), starts the new copy and quits
// as the menu's Quit does. Updates never go back: the service's word on versions only decides
// whether an update is shown. A copy that does not run from an installed release never replaces
// itself.
class UpdateStore : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool updateAvailable READ updateAvailable NOTIFY availableChanged)
    Q_PROPERTY(QString availableVersion READ availableVersion NOTIFY availableChanged)
    Q_PROPERTY(QString availableNotes READ availableNotes NOTIFY availableChanged)
    Q_PROPERTY(bool showSheet READ showSheet WRITE setShowSheet NOTIFY showSheetChanged)
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)

public:
    explicit UpdateStore(QObject *parent = nullptr);
    ~UpdateStore() override;

    static UpdateStore &shared();

    const std::optional<AppRelease> &available() const { return m_available; }
    bool updateAvailable() const { return m_available.has_value(); }
    QString availableVersion() const { return m_available ? m_available->version : QString(); }
    QString availableNotes() const { return m_available ? m_available->notes : QString(); }
    bool showSheet() const { return m_showSheet; }
    void setShowSheet(bool show);
    const QString &status() const { return m_status; }
    bool busy() const { return m_busy; }

    // Starts a check in the background; it sets `available`.
    void refresh();
    // Starts a check and, when it finds a newer release and the user has not turned automatic
    // installing off, installs it.
    void applyOnLaunch();
    // The check: asks the service for the newest release and keeps it when it is newer than this
    // copy. A failed check only clears `available`.
    QCoro::Task<void> load();
    // Installs `available`; does nothing while an install runs or when there is none, and says
    // why (whyCannotUpdateItself) when this copy must not replace itself.
    void install();
    // Why this copy must not replace itself, in the user's words (what to do instead); empty when
    // it may. The update sheet shows it in place of the install button.
    QString whyCannotUpdateItself() const;
    // The install's steps, throwing UpdateError; on success the program is already quitting.
    QCoro::Task<void> apply(AppRelease release);

    // The setting "autoInstallUpdates" (on unless the user turned it off): install a newer
    // release at launch without asking.
    static bool autoInstallUpdates();
    static void setAutoInstallUpdates(bool on);

    // The installed copy this store replaces; empty for a copy that must not replace itself. Set
    // from where the program runs; tests point it at a copy of their own.
    const QString &installedRoot() const { return m_installedRoot; }
    void setInstalledRoot(const QString &root) { m_installedRoot = root; }
    // Whether the package manager installed this copy (see InstalledCopy::managedByPackage).
    bool packageManaged() const { return m_packageManaged; }
    void setPackageManaged(bool managed) { m_packageManaged = managed; }
    // The pause before the new copy starts (one second; tests shorten it).
    void setRelaunchDelay(std::chrono::milliseconds delay) { m_relaunchDelay = delay; }

signals:
    void availableChanged();
    void showSheetChanged();
    void statusChanged();
    void busyChanged();

private:
    QCoro::Task<void> runApplyOnLaunch();
    QCoro::Task<void> runInstall(AppRelease release);
    QCoro::Task<void> download(const AppRelease &release, const QString &path);
    void setAvailable(std::optional<AppRelease> release);
    void setStatus(const QString &status);
    void setBusy(bool busy);

    std::optional<AppRelease> m_available;
    bool m_showSheet = false;
    QString m_status;
    bool m_busy = false;
    QString m_installedRoot;
    bool m_packageManaged = false;
    std::chrono::milliseconds m_relaunchDelay {std::chrono::seconds(1)};
};
