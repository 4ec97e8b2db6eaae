#include "app/AppDelegate.h"

#include "app/ClipNotifications.h"
#include "app/DashboardWindow.h"
#include "app/LoginItem.h"
#include "app/MainMenu.h"
#include "app/ShareActions.h"
#include "app/SingleInstance.h"
#include "app/StatusIcon.h"
#include "app/StatusTexts.h"
#include "app/WakeObserver.h"
#include "cloud/AccountStore.h"
#include "core/ClipSettings.h"
#include "core/DisplaySession.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "core/Preferences.h"
#include "core/PreferencesWatch.h"
#include "core/ProgramVersion.h"
#include "core/SharedPool.h"
#include "engine/ClipSound.h"
#include "input/ClipHotkey.h"
#include "input/HotkeyManager.h"
#include "input/MicAccess.h"
#include "input/PermissionOnce.h"
#include "input/ScreenAccess.h"
#include "media/RecorderError.h"

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QProcess>
#include <QSystemTrayIcon>
#include <QTimer>

#include <qcoro/qcorofuture.h>
#include <qcoro/qcorotask.h>

#include <cstdlib>
#include <semaphore>

using namespace std::chrono_literals;

namespace {

const QString autoStartKey = QStringLiteral("autoStartClipping");
const QString didRelaunchKey = QStringLiteral("didRelaunchForScreen");

bool storedBool(const QString &key)
{
    return Preferences::open()->value(key).toBool();
}

void storeBool(const QString &key, bool value)
{
    Preferences::open()->setValue(key, value);
}

} // namespace

AppDelegate::AppDelegate(QObject *parent)
    : QObject(parent)
    , m_engine(std::make_unique<ClipEngine>())
{
    m_engine->setScreenAccess(
        {&ScreenAccess::isGranted, [] { ScreenAccess::request(); }, &ScreenAccess::whyNotGranted});
    // Every status line also goes to the log, so a user without the window can follow along.
    connect(&m_model, &AppModel::statusChanged, this,
            [this] { ClipEngine::log(QStringLiteral("status: ") + m_model.status()); });

    m_share = new ShareActions(
        m_model,
        [this] {
            if (m_library)
                m_library->refreshClips(false);
        },
        this);
    // A returning user's profile is fetched at launch; the store reads the token when made.
    hooks.account = [] { AccountStore::shared().bootstrap(); };
    hooks.share = [this](const QUrl &clip) { shareClip(clip); };
    hooks.link = [this](const AppLink &link) { applyAuthLink(link); };
    hooks.dashboard = [this] { presentDashboard(); };
}

AppDelegate::~AppDelegate()
{
    // The menu bar has no parent (it belongs to no one window), so it goes with its builder.
    delete m_mainMenu;
}

QString AppDelegate::armedStatus() const
{
    const QString key = ClipHotkey::displayName();
    const int seconds = int(m_model.clipLength());
    if (HotkeyManager::shared().worksInOtherApps())
        return QStringLiteral("Recording. %1 saves the last %2 seconds from any app.")
            .arg(key)
            .arg(seconds);
    const QString remedy = HotkeyManager::shared().desktopShortcutDeclined()
        ? QStringLiteral("Allow Vantrel's shortcut in your desktop's settings.")
        : QStringLiteral("Add yourself to the input group to use it everywhere.");
    return QStringLiteral("Recording, but %1 only works in this window. %2").arg(key, remedy);
}

QString AppDelegate::idleStatus() const
{
    return QStringLiteral("Arm recording, then press %1 to save the last %2 seconds.")
        .arg(ClipHotkey::displayName())
        .arg(int(m_model.clipLength()));
}

bool AppDelegate::applicationDidFinishLaunching(const QStringList &links)
{
    m_mainMenu = MainMenu::build(
        {[this] { openWindow(); }, [this] { showAbout(); }, [] { QApplication::quit(); }});

    m_singleInstance = new SingleInstance(SingleInstance::defaultName(), this);
    if (m_singleInstance->handOffToRunningInstance(links))
        return false;
    connect(m_singleInstance, &SingleInstance::argumentsReceived, this,
            [this](const QStringList &arguments) {
                QList<QUrl> urls;
                for (const QString &argument : arguments)
                    urls.append(QUrl(argument));
                // A plain second launch is the platform's "reopen": show the window.
                if (urls.isEmpty())
                    showDashboard();
                openUrls(urls);
            });

    // Marks where this run begins in the log.
    ClipEngine::log(QStringLiteral("launched version %1").arg(ProgramVersion::current()));
    // Paths::recordings() creates the folder when it is missing.
    m_library = std::make_unique<ClipLibrary>(m_model, Paths::recordings());
    m_notifications = new ClipNotifications(*this);
    new PreferencesWatch(this);
    PermissionOnce::rememberExistingPrompts();
    if (hooks.account)
        hooks.account();
    m_library->refreshClips(false);
    m_library->startWatchingClips();

    m_statusItem = new QSystemTrayIcon(this);
    m_statusItem->setToolTip(QStringLiteral("Vantrel"));
    connect(m_statusItem, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger)
                    openWindow();
            });
    refreshStatusItem();
    // Some desktops have no tray (sway without a bar, GNOME without its extension): Vantrel then
    // lives in its window and its links, and records all the same.
    // (Asked only under Wayland: under X11 the icon waits for a tray to appear.)
    if (!DisplaySession::isWayland() || QSystemTrayIcon::isSystemTrayAvailable())
        m_statusItem->show();
    else
        ClipEngine::log(QStringLiteral("no system tray on this desktop (%1): running without a "
                                       "tray icon")
                            .arg(QGuiApplication::platformName()));

    showDashboard();
    if (hooks.update)
        hooks.update();

    connect(&ClipHotkey::notifier(), &ClipHotkeyNotifier::clipHotkeyChanged, this, [this] {
        m_model.setHotkeyName(ClipHotkey::displayName());
        refreshStatusItem();
        if (m_model.isClipping())
            m_model.setStatus(armedStatus());
    });

    HotkeyManager &hotkeys = HotkeyManager::shared();
    QPointer<AppDelegate> self(this);
    hotkeys.onPress = [self] {
        if (self)
            self->saveClip();
    };
    hotkeys.onBecameGlobal = [self] {
        QMetaObject::invokeMethod(
            self,
            [self] {
                if (!self)
                    return;
                self->m_model.setHotkeyWorksEverywhere(HotkeyManager::shared().worksInOtherApps());
                if (self->m_model.isClipping())
                    self->m_model.setStatus(self->armedStatus());
            },
            Qt::QueuedConnection);
    };
    hotkeys.registerHotkey();
    m_model.setHotkeyWorksEverywhere(hotkeys.worksInOtherApps());

    if (const QString error = LoginItem::registerItem(QCoreApplication::applicationFilePath());
        !error.isEmpty())
        Log::system(QStringLiteral("login item %1").arg(error));

    m_wake = new WakeObserver(this);
    connect(m_wake, &WakeObserver::didWake, this, &AppDelegate::onWake);

    m_engine->setOnStopped([self](const std::optional<QString> &error) {
        QMetaObject::invokeMethod(
            self,
            [self, error] {
                if (self)
                    self->onCaptureStopped(error.value_or(QString()));
            },
            Qt::QueuedConnection);
    });

    m_engine->setOnFallingBehind([self](double heldFps, int fps, int height) {
        QMetaObject::invokeMethod(
            self,
            [self, text = StatusTexts::forFallingBehind(heldFps, fps, height)] {
                if (self && self->m_engine->isArmed())
                    self->m_model.setStatus(text);
            },
            Qt::QueuedConnection);
    });

    armAtLaunchIfWanted();
    openUrls([&] {
        QList<QUrl> urls;
        for (const QString &link : links)
            urls.append(QUrl(link));
        return urls;
    }());
    return true;
}

void AppDelegate::armAtLaunchIfWanted()
{
    bool arm = false;
    if (storedBool(autoStartKey)) {
        storeBool(autoStartKey, false);
        arm = true;
    } else {
        arm = ClipSettings::armOnLaunch() || ClipSettings::keepRunning();
    }
    if (!arm)
        return;
    QTimer::singleShot(600ms, this, [this] {
        if (!ScreenAccess::isGranted() && PermissionOnce::didPromptScreenRecording())
            return;
        startClipping();
    });
}

void AppDelegate::onWake()
{
    if (ClipSettings::keepRunning() && !m_engine->isArmed()) {
        m_model.setStatus(QStringLiteral("Computer woke up. Resuming recording…"));
        startClipping();
    }
}

void AppDelegate::startClipping()
{
    if (m_engine->isArmed() || m_startInProgress || m_userStopping)
        return;
    m_startInProgress = true;
    m_model.setIsBusy(true);
    m_model.setStatus(QStringLiteral("Arming recording…"));
    runStart();
}

QCoro::Task<void> AppDelegate::runStart()
{
    QPointer<AppDelegate> self(this);
    bool relaunch = false;
    QString failure;
    try {
        if (m_model.captureMic())
            MicAccess::requestIfNeeded();
        co_await m_engine->start();
    } catch (const RecorderError &error) {
        if (error.kind() == RecorderError::Kind::needsRelaunch)
            relaunch = true;
        else
            failure = StatusTexts::forError(error);
    } catch (const std::exception &error) {
        failure = StatusTexts::forError(error);
    }
    if (!self)
        co_return;
    if (relaunch) {
        relaunchOnceForScreen();
    } else if (!failure.isEmpty()) {
        m_model.setIsClipping(false);
        m_model.setStatus(failure);
        refreshStatusItem();
    } else {
        storeBool(didRelaunchKey, false);
        ClipSettings::setKeepRunning(true);
        m_model.setIsClipping(true);
        HotkeyManager::shared().setArmed(true);
        m_model.setHotkeyWorksEverywhere(HotkeyManager::shared().worksInOtherApps());
        m_model.setStatus(armedStatus());
        refreshStatusItem();
    }
    m_startInProgress = false;
    m_model.setIsBusy(false);
}

void AppDelegate::relaunchOnceForScreen()
{
    if (!storedBool(didRelaunchKey)) {
        storeBool(didRelaunchKey, true);
        storeBool(autoStartKey, true);
        QProcess::startDetached(QCoreApplication::applicationFilePath(), {});
        QCoreApplication::quit();
        return;
    }
    m_model.setIsClipping(false);
    // Only a backend whose screen access takes effect in a new process asks for a relaunch (a
    // desktop portal's consent); under X11 the screen is always open and nothing relaunches.
    m_model.setStatus(QStringLiteral("Allow Vantrel to share your screen when your desktop asks, "
                                     "then Arm again. You only have to allow it once."));
    HotkeyManager::shared().openScreenRecordingSettings();
    refreshStatusItem();
}

void AppDelegate::stopClipping()
{
    m_userStopping = true;
    if (m_restartWork) {
        m_restartWork->stop();
        delete m_restartWork;
    }
    ClipSettings::setKeepRunning(false);
    runStop();
}

QCoro::Task<void> AppDelegate::runStop()
{
    QPointer<AppDelegate> self(this);
    HotkeyManager::shared().setArmed(false);
    const SessionOutcome session = co_await m_engine->stop(true);
    if (!self)
        co_return;
    m_model.setIsClipping(false);
    m_userStopping = false;
    const QString said = StatusTexts::forSession(session);
    m_model.setStatus(said.isEmpty() ? idleStatus() : said);
    if (session.file)
        m_library->refreshClips(false);
    refreshStatusItem();
}

void AppDelegate::saveClip()
{
    if (!m_engine->isArmed() || m_saveInProgress)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (m_lastSaveAttempt.time_since_epoch().count() != 0 && now - m_lastSaveAttempt < 1500ms)
        return;
    m_lastSaveAttempt = now;
    m_saveInProgress = true;
    m_model.setIsSaving(true);
    m_model.setStatus(QStringLiteral("Saving clip…"));
    ClipSound::playClip();
    runSave();
}

QCoro::Task<void> AppDelegate::runSave()
{
    QPointer<AppDelegate> self(this);
    WrittenFile clip;
    QString failure;
    try {
        clip = co_await m_engine->saveClip();
    } catch (const std::exception &error) {
        failure = StatusTexts::forError(error);
    }
    if (!self)
        co_return;
    if (failure.isEmpty()) {
        // A clip the writer would not take all of is still a clip in the library, but it does
        // not sound like a success.
        if (!clip.shortfall.isComplete())
            ClipSound::playError();
        m_model.setStatus(StatusTexts::forSavedClip(clip));
        m_model.setTab(AppModel::Tab::library);
        m_library->refreshClips(true);
        if (hooks.share)
            hooks.share(QUrl::fromLocalFile(clip.path));
        emit clipSaved(clip.path);
    } else {
        ClipSound::playError();
        m_model.setStatus(failure);
        emit saveFailed(failure);
    }
    m_saveInProgress = false;
    m_model.setIsSaving(false);
}

void AppDelegate::onCaptureStopped(const QString &error)
{
    Q_UNUSED(error); // the engine has logged it
    if (m_userStopping)
        return;
    const bool keepRunning = ClipSettings::keepRunning();
    HotkeyManager::shared().setArmed(false);
    m_model.setIsClipping(false);
    if (!keepRunning) {
        m_model.setStatus(idleStatus());
        m_library->refreshClips(false);
        refreshStatusItem();
        return;
    }
    m_model.setStatus(QStringLiteral("Capture dropped. Restarting recording…"));
    refreshStatusItem();
    delete m_restartWork;
    m_restartWork = new QTimer(this);
    m_restartWork->setSingleShot(true);
    connect(m_restartWork, &QTimer::timeout, this, [this] {
        m_restartWork->deleteLater();
        if (ClipSettings::keepRunning() && !m_userStopping && !m_engine->isArmed())
            startClipping();
    });
    m_restartWork->start(1200ms);
}

void AppDelegate::refreshStatusItem()
{
    if (!m_statusItem)
        return;
    const bool armed = m_engine->isArmed();
    m_statusItem->setIcon(StatusIcon::make(armed));
    m_statusItem->setToolTip(QStringLiteral("Vantrel"));

    auto *menu = new QMenu;
    menu->addAction(QStringLiteral("Open Vantrel"), this, &AppDelegate::openWindow);
    menu->addSeparator();
    if (armed) {
        menu->addAction(QStringLiteral("Save Clip  ") + ClipHotkey::displayName(), this,
                        &AppDelegate::saveClip);
        menu->addAction(QStringLiteral("Stop Recording"), this, &AppDelegate::stopClipping);
    } else {
        menu->addAction(QStringLiteral("Arm Recording"), this, &AppDelegate::startClipping);
    }
    menu->addSeparator();
    menu->addAction(QStringLiteral("Open Recordings"), QKeySequence(QStringLiteral("Ctrl+O")), this,
                    &AppDelegate::openRecordings);
    menu->addSeparator();
    menu->addAction(QStringLiteral("Quit Vantrel"), QKeySequence(QStringLiteral("Ctrl+Q")), qApp,
                    &QCoreApplication::quit);
    m_statusItem->setContextMenu(menu);
    delete m_statusMenu;
    m_statusMenu = menu;
}

void AppDelegate::openWindow()
{
    showDashboard();
}

void AppDelegate::showDashboard()
{
    if (hooks.dashboard)
        hooks.dashboard();
}

void AppDelegate::openRecordings()
{
    if (m_library)
        m_library->revealFolder();
}

void AppDelegate::showAbout()
{
    QMessageBox::about(nullptr, QStringLiteral("About Vantrel"),
                       QStringLiteral("Vantrel %1\nInstant replay of the screen.")
                           .arg(QCoreApplication::applicationVersion()));
}

void AppDelegate::openUrls(const QList<QUrl> &urls)
{
    for (const QUrl &url : urls) {
        const AppLink link = AppLink::parse(url.toString(QUrl::FullyEncoded));
        switch (link.kind) {
        case AppLink::Kind::start:
            startClipping();
            break;
        case AppLink::Kind::stop:
            stopClipping();
            break;
        case AppLink::Kind::clip:
            saveClip();
            break;
        case AppLink::Kind::open:
            showDashboard();
            break;
        case AppLink::Kind::auth:
            if (hooks.link)
                hooks.link(link);
            break;
        case AppLink::Kind::unknown:
            break;
        }
    }
}

void AppDelegate::shareClip(const QUrl &clip)
{
    m_share->shareClip(clip);
}

void AppDelegate::shareAllClips()
{
    m_share->shareAllClips();
}

void AppDelegate::deleteClip(const QUrl &clip)
{
    if (m_library && m_library->deleteClip(clip))
        m_share->takeDown(clip);
}

void AppDelegate::applyAuthLink(const AppLink &link)
{
    // Any web page can open a vantrel:// link. One that could sign the program in would send
    // every clip saved afterwards to a stranger's account, so a link only counts for the sign-in
    // this program started and is waiting on, and even then the token comes from the service.
    AccountStore &account = AccountStore::shared();
    if (!account.hurrySignIn(link.code)) {
        ClipEngine::log(QStringLiteral("refused a sign-in link: no sign-in of ours waits for it"));
        m_model.setStatus(QStringLiteral("A web page tried to sign Vantrel in. Nothing changed."));
        return;
    }
    m_model.setStatus(QStringLiteral("Finishing sign-in…"));
    const std::optional<QString> tokenBefore = account.token();
    disconnect(m_linkedSignIn);
    m_linkedSignIn =
        connect(&account, &AccountStore::isSigningInChanged, this, [this, &account, tokenBefore] {
            if (account.isSigningIn())
                return;
            disconnect(m_linkedSignIn);
            if (account.isSignedIn() && account.token() != tokenBefore)
                m_model.setStatus(QStringLiteral("Signed in."));
            else if (!account.loginMessage().isEmpty())
                m_model.setStatus(account.loginMessage());
        });
}

void AppDelegate::applicationWillTerminate()
{
    HotkeyManager::shared().unregister();
    if (m_library)
        m_library->stopWatchingClips();
    // The stop runs on the pool; the main thread waits for it, but never past 8 s.
    auto done = std::make_shared<std::binary_semaphore>(0);
    ClipEngine *engine = m_engine.get();
    SharedPool::run([engine, done] {
        engine->stop(true).waitForFinished();
        done->release();
    });
    if (done->try_acquire_for(8s))
        return;
    // The stop is stuck (a hung audio server, say). The process ends now rather than wait in the
    // engine's destructor; the unfinished session file stays under its temporary name.
    ClipEngine::log(QStringLiteral("quit before the session file was finished"));
    std::_Exit(0);
}
