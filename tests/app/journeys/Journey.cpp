#include "Journey.h"

#include "app/AppModel.h"
#include "app/ArmingController.h"
#include "app/DashboardWindow.h"
#include "app/TrayIcon.h"
#include "engine/ClipEngine.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QSystemTrayIcon>
#include <QTest>

using namespace std::chrono_literals;

void Journey::SetUp()
{
    // The fixture's bus, with the secret store on it, is the desktop's session bus.
    const QByteArray bus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    TempHomeTest::SetUp();
    if (qEnvironmentVariableIsEmpty("DISPLAY") || qEnvironmentVariableIsEmpty("PULSE_SERVER") ||
        bus.isEmpty())
        GTEST_SKIP() << "needs the desktop, pulse and keyring fixtures";
    // A journey carried on in a child process keeps its parent's home.
    if (const QString parent = qEnvironmentVariable("VANTREL_JOURNEY_HOME"); !parent.isEmpty())
        useHome(parent);
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus);
    service = TestService::fromEnvironment();
    if (service.url.isEmpty())
        GTEST_SKIP() << noServiceReason;
    usePrivateRuntime();
    qputenv("XDG_DATA_HOME", (home() + QStringLiteral("/.local/share")).toUtf8());
    // Where an installed copy would be: none, unless a journey puts one there.
    qputenv("VANTREL_PREFIX", (home() + QStringLiteral("/opt/Vantrel")).toUtf8());
    qputenv("VANTREL_SERVICE_URL", service.url.toUtf8());
    qputenv("QT_MEDIA_BACKEND", "ffmpeg"); // as main() chooses
    qputenv("VANTREL_SERVICE_CA", service.certificate.toUtf8());
    // As main() names the program: where its settings, log and recordings go.
    QCoreApplication::setOrganizationName(QStringLiteral("quillfen"));
    QCoreApplication::setApplicationName(QStringLiteral("Vantrel"));
    QApplication::setQuitOnLastWindowClosed(false);
    writeSettings("clipLengthSeconds=15\narmOnLaunch=false\nautoInstallUpdates=false\n");
    // The secret store is the desktop's, shared by the journeys: none starts signed in.
    ASSERT_EQ(run(QStringLiteral(VANTREL_KEYCHAIN_PROBE), {QStringLiteral("remove")}).trimmed(),
              "ok");
}

void Journey::TearDown()
{
    if (m_shell)
        quit();
    TempHomeTest::TearDown();
}

void Journey::launch()
{
    m_statuses.clear();
    m_shell = std::make_unique<AppShell>();
    QObject::connect(&m_shell->model(), &AppModel::statusChanged, m_shell.get(),
                     [this] { m_statuses << m_shell->model().status(); });
    ASSERT_TRUE(m_shell->launch({}));
    ASSERT_TRUE(waitFor([this] { return window() && window()->isActiveWindow(); }))
        << "the window opens at launch, in front";
}

void Journey::quit()
{
    m_shell->shutDown();
    m_shell.reset();
}

QWidget *Journey::window() const
{
    return m_shell ? m_shell->window() : nullptr;
}

void Journey::click(const QString &name)
{
    QWidget *widget = find(name);
    ASSERT_NE(widget, nullptr);
    ASSERT_TRUE(widget->isEnabled()) << name.toStdString() << " is disabled";
    QTest::mouseClick(widget, Qt::LeftButton, {}, widget->rect().center());
}

bool Journey::waitFor(const std::function<bool()> &done, std::chrono::milliseconds timeout)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeout.count())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

bool Journey::waitForStatus(const QString &text, std::chrono::milliseconds timeout, bool prefix)
{
    return waitFor(
        [&] {
            const QString status = m_shell->model().status();
            return prefix ? status.startsWith(text) : status == text;
        },
        timeout);
}

QByteArray Journey::run(const QString &program, const QStringList &arguments,
                        std::chrono::milliseconds timeout)
{
    QProcess process;
    process.start(program, arguments);
    if (!waitFor([&] { return process.state() == QProcess::NotRunning; }, timeout)) {
        process.kill();
        process.waitForFinished();
        return {};
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return {};
    return process.readAllStandardOutput();
}

void Journey::press(const QString &keys)
{
    run(QStringLiteral("xdotool"), {QStringLiteral("key"), keys});
}

QStringList Journey::clipboardTargets()
{
    return QString::fromUtf8(clipboard(QStringLiteral("TARGETS")))
        .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QByteArray Journey::clipboard(const QString &target)
{
    return run(QStringLiteral("xclip"),
               {QStringLiteral("-o"), QStringLiteral("-selection"), QStringLiteral("clipboard"),
                QStringLiteral("-t"), target});
}

bool Journey::openTrayMenu()
{
    QSystemTrayIcon *tray = m_shell->tray()->icon();
    if (!waitFor([&] { return tray->isVisible() && !tray->geometry().isEmpty(); })) {
        ADD_FAILURE() << "the desktop's tray does not hold the icon";
        return false;
    }
    QMenu *menu = m_shell->tray()->menu();
    const QPoint at = tray->geometry().center();
    run(QStringLiteral("xdotool"),
        {QStringLiteral("mousemove"), QString::number(at.x()), QString::number(at.y()),
         QStringLiteral("click"), QStringLiteral("3")});
    return waitFor([&] { return menu->isVisible(); });
}

void Journey::pickFromMenu(QMenu *menu, const QString &text)
{
    for (QAction *action : menu->actions()) {
        if (action->isVisible() && action->text() == text) {
            QTest::mouseClick(menu, Qt::LeftButton, {}, menu->actionGeometry(action).center());
            return;
        }
    }
    ADD_FAILURE() << "no item " << text.toStdString();
}

void Journey::armAndFill(double seconds)
{
    click(QStringLiteral("arm"));
    ASSERT_TRUE(waitFor([this] { return m_shell->model().isClipping(); }, 30s))
        << m_shell->model().status().toStdString();
    ASSERT_TRUE(waitFor([&] { return m_shell->engine().bufferedDuration() >= seconds; }, 30s));
}

QString Journey::recordings() const
{
    return home() + QStringLiteral("/Videos/Vantrel");
}

QString Journey::makeClip(const QString &name)
{
    const QString path = recordings() + QLatin1Char('/') + name;
    QDir().mkpath(recordings());
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-f"),
                  QStringLiteral("lavfi"), QStringLiteral("-i"),
                  QStringLiteral("testsrc=duration=1:size=320x180:rate=30"), QStringLiteral("-c:v"),
                  QStringLiteral("libx264"), QStringLiteral("-pix_fmt"), QStringLiteral("yuv420p"),
                  path});
    EXPECT_TRUE(ffmpeg.waitForFinished(30000) && ffmpeg.exitCode() == 0);
    return path;
}

void Journey::signInBeforeLaunch(const QString &name)
{
    const QString email =
        QStringLiteral("journey-%1@example.test").arg(QRandomGenerator::global()->generate());
    ASSERT_TRUE(service.addUser(email, name, QStringLiteral("journey-password")));
    const QString token = service.issueToken(email);
    ASSERT_FALSE(token.isEmpty());
    ASSERT_EQ(
        run(QStringLiteral(VANTREL_KEYCHAIN_PROBE), {QStringLiteral("save"), token}).trimmed(),
        "ok");
}

QString Journey::storedToken()
{
    return QString::fromUtf8(
        run(QStringLiteral(VANTREL_KEYCHAIN_PROBE), {QStringLiteral("load")}).trimmed());
}

QByteArray Journey::fetch(const QString &url)
{
    return run(QStringLiteral("curl"),
               {QStringLiteral("-sSf"), QStringLiteral("--cacert"), service.certificate, url});
}
