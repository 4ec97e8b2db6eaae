#include "app/AppShell.h"

#include "app/AppModel.h"
#include "app/ArmingController.h"
#include "app/AutostartEntry.h"
#include "app/ClipLibrary.h"
#include "app/ClipNotifications.h"
#include "app/ClipSaver.h"
#include "app/DashboardActions.h"
#include "app/DashboardView.h"
#include "app/DashboardWindow.h"
#include "app/LinkRouter.h"
#include "app/MainMenu.h"
#include "app/SettingsMigration.h"
#include "app/ShareActions.h"
#include "app/SingleInstance.h"
#include "app/TrayIcon.h"
#include "app/WakeObserver.h"
#include "app/WindowHome.h"
#include "cloud/AccountStore.h"
#include "core/LengthKeys.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "core/PreferencesWatch.h"
#include "core/ProgramVersion.h"
#include "core/SharedPool.h"
#include "engine/ClipEngine.h"
#include "input/ClipHotkey.h"
#include "input/HotkeyManager.h"
#include "input/PermissionOnce.h"
#include "input/ScreenAccess.h"
#include "update/UpdateStore.h"

#include <QApplication>
#include <QMenuBar>
#include <QMessageBox>

#include <cstdlib>
#include <semaphore>

using namespace std::chrono_literals;

AppShell::AppShell(QObject *parent)
    : QObject(parent)
    , m_engine(std::make_unique<ClipEngine>())
    , m_model(std::make_unique<AppModel>())
{
    m_engine->setScreenAccess(
        {&ScreenAccess::isGranted, [] { ScreenAccess::request(); }, &ScreenAccess::whyNotGranted});
    // Every status line also goes to the log, so a user without the window can follow along.
    connect(m_model.get(), &AppModel::statusChanged, this,
            [this] { ClipEngine::log(QStringLiteral("status: ") + m_model->status()); });
}

AppShell::~AppShell()
{
    delete m_window;
    // The menu bar has no parent until the window takes it.
    delete m_mainMenu;
    // The pieces hold the engine, the model and the library, which go after this body.
    qDeleteAll(findChildren<QObject *>(Qt::FindDirectChildrenOnly));
}

QMenuBar *AppShell::mainMenu() const
{
    return m_mainMenu;
}

DashboardWindow *AppShell::window() const
{
    return m_window;
}

bool AppShell::launch(const QStringList &links)
{
    m_singleInstance = new SingleInstance(SingleInstance::defaultName(), this);
    if (m_singleInstance->handOffToRunningInstance(links))
        return false;
    SettingsMigration::run();
    // Marks where this run begins in the log.
    ClipEngine::log(QStringLiteral("launched version %1").arg(ProgramVersion::current()));

    // Paths::recordings() creates the folder when it is missing.
    m_library = std::make_unique<ClipLibrary>(*m_model, Paths::recordings());
    makePieces();
    new PreferencesWatch(this);
    PermissionOnce::rememberExistingAccess();
    // A returning user's profile is fetched at launch; the store reads the token when made.
    AccountStore::shared().bootstrap();
    m_library->refreshClips(false);
    m_library->startWatchingClips();

    m_tray->show();
    showWindow();
    UpdateStore &updates = UpdateStore::shared();
    // An install's progress and errors reach the log as the status lines do.
    connect(&updates, &UpdateStore::statusChanged, this,
            [&updates] { ClipEngine::log(QStringLiteral("update status: ") + updates.status()); });
    updates.applyOnLaunch();

    connectClipKey();
    // The switch owns the autostart entry: on writes it, off removes it. Launch leaves it alone.
    connect(m_model.get(), &AppModel::armOnLaunchChanged, this, [this] {
        if (const QString error = AutostartEntry::apply(m_model->armOnLaunch()); !error.isEmpty())
            m_model->setStatus(error);
    });
    connect(new WakeObserver(this), &WakeObserver::didWake, m_arming,
            &ArmingController::resumeAfterWake);

    connect(m_singleInstance, &SingleInstance::argumentsReceived, this,
            [this](const QStringList &arguments) {
                // A plain second launch is the user starting Vantrel again: the window comes.
                if (arguments.isEmpty())
                    showWindow();
                m_links->follow(arguments);
            });
    // Quit, from the menus, the tray or a signal: the session in progress is kept.
    connect(qApp, &QCoreApplication::aboutToQuit, this, &AppShell::shutDown);
    m_arming->armAtLaunchIfWanted();
    m_links->follow(links);
    return true;
}

void AppShell::makePieces()
{
    m_arming = new ArmingController(*m_engine, *m_model, *m_library, this);
    m_share = new ShareActions(*m_model, *m_library, this);
    // Links of clips shared on earlier runs, before anything announces new ones.
    m_share->restoreLinks(Paths::recordings());
    m_saver = new ClipSaver(*m_engine, *m_model, *m_library, *m_share, this);
    m_actions =
        new DashboardActions(*m_arming, *m_saver, *m_library, *m_share, *m_engine, *m_model, this);
    m_links = new LinkRouter(*m_arming, *m_saver, *m_model, this);
    connect(m_links, &LinkRouter::windowWanted, this, &AppShell::showWindow);
    m_tray = new TrayIcon(*m_arming, *m_saver, *m_model, this);
    connect(m_tray, &TrayIcon::openWindowRequested, this, &AppShell::showWindow);
    connect(m_tray, &TrayIcon::openRecordingsRequested, m_library.get(),
            &ClipLibrary::revealFolder);
    connect(m_tray, &TrayIcon::quitRequested, qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    m_windowHome = new WindowHome(*m_arming, this);
    connect(m_windowHome, &WindowHome::windowWanted, this, &AppShell::showWindow);
    connect(m_windowHome, &WindowHome::quitRequested, qApp, &QCoreApplication::quit,
            Qt::QueuedConnection);
    m_notifications = new ClipNotifications(*m_saver, *m_model, *m_library, this);
}

void AppShell::connectClipKey()
{
    connect(&ClipHotkey::notifier(), &ClipHotkeyNotifier::clipHotkeyChanged, this, [this] {
        m_model->setHotkeyName(ClipHotkey::displayName());
        m_arming->refreshStatus();
    });
    connect(&LengthKeys::notifier(), &LengthKeysNotifier::lengthKeyChanged, this,
            [this] { m_model->setLengthKeyNames(AppModel::storedLengthKeyNames()); });
    HotkeyManager &hotkeys = HotkeyManager::shared();
    // The clip key saves the length chosen in the settings, as the window's Save does; a length's
    // key saves its own length, and only that save says when the replay held less. Both go through
    // the one saver, so the tray, the window and the keys share its debounce. The press is
    // announced on the thread that accepted it, hence the queued connection.
    connect(
        &hotkeys, &HotkeyManager::pressAccepted, m_saver,
        [saver = m_saver](int lengthSeconds) {
            if (lengthSeconds > 0)
                saver->saveLength(lengthSeconds);
            else
                saver->save();
        },
        Qt::QueuedConnection);
    const QPointer<ArmingController> arming(m_arming);
    hotkeys.onBecameGlobal = [arming] {
        QMetaObject::invokeMethod(
            arming,
            [arming] {
                if (arming)
                    arming->refreshStatus();
            },
            Qt::QueuedConnection);
    };
    hotkeys.registerHotkey();
    m_model->setHotkeyWorksEverywhere(hotkeys.worksInOtherApps());
}

void AppShell::showWindow()
{
    if (m_library)
        m_library->refreshClips(false);
    if (!m_window) {
        const auto tab = [this](AppModel::Tab tab) {
            return [this, tab] { m_model->setTab(tab); };
        };
        m_mainMenu = MainMenu::build({[this] {
                                          if (m_window)
                                              m_window->close();
                                      },
                                      [] { QCoreApplication::quit(); }, tab(AppModel::Tab::home),
                                      tab(AppModel::Tab::library), tab(AppModel::Tab::settings),
                                      [this] { showAbout(); }});
        m_window =
            new DashboardWindow(new DashboardView(*m_model, m_actions->callbacks()), m_mainMenu);
        m_window->setAttribute(Qt::WA_QuitOnClose, false);
        connect(m_window, &DashboardWindow::becameActive, this, [this] {
            if (m_library)
                m_library->refreshClips(false);
        });
        connect(qApp, &QCoreApplication::aboutToQuit, m_window, &DashboardWindow::saveFrame);
        m_notifications->setWindow(m_window);
        m_windowHome->watch(m_window);
    }
    m_window->bringForward();
}

void AppShell::showAbout()
{
    auto *about = new QMessageBox(
        QMessageBox::NoIcon, QStringLiteral("About Vantrel"),
        QStringLiteral("Vantrel %1\nInstant replay of the screen.").arg(ProgramVersion::current()),
        QMessageBox::Ok, m_window);
    about->setObjectName(QStringLiteral("about"));
    about->setStyleSheet(
        QStringLiteral("QMessageBox { background: rgb(30,30,36); } QLabel { color: white; }"
                       "QPushButton { color: white; background: rgba(255,255,255,30); border: none;"
                       " border-radius: 6px; padding: 5px 16px; }"));
    about->setAttribute(Qt::WA_DeleteOnClose);
    about->open();
}

void AppShell::shutDown()
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
