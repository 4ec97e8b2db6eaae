#include "VantrelProcess.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <csignal>

VantrelProcess::VantrelProcess(QString home)
    : m_home(std::move(home))
{
    m_process.setProcessEnvironment(environment());
    m_process.setProcessChannelMode(QProcess::MergedChannels);
}

VantrelProcess::~VantrelProcess()
{
    if (isRunning()) {
        terminate(std::chrono::milliseconds(9000));
        kill();
    }
}

QString VantrelProcess::binary()
{
    return QStringLiteral(VANTREL_BINARY);
}

QProcessEnvironment VantrelProcess::environment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), m_home);
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_home + QStringLiteral("/.config"));
    env.insert(QStringLiteral("XDG_STATE_HOME"), m_home + QStringLiteral("/.local/state"));
    env.insert(QStringLiteral("XDG_DATA_HOME"), m_home + QStringLiteral("/.local/share"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_home + QStringLiteral("/.run"));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    // No session bus (and so no secret store) unless the test gives one; the headless Wayland
    // session's private bus, with its portal, is one the test gives.
    if (qEnvironmentVariableIsEmpty("VANTREL_WAYLAND_DIR"))
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                   QStringLiteral("unix:path=") + m_home + QStringLiteral("/no-session-bus"));
    QDir().mkpath(m_home + QStringLiteral("/.run"));
    QFile::setPermissions(m_home + QStringLiteral("/.run"),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    for (const QString &name : m_extra.keys())
        env.insert(name, m_extra.value(name));
    return env;
}

QString VantrelProcess::logPath() const
{
    return m_home + QStringLiteral("/.local/state/Vantrel/Vantrel.log");
}

QString VantrelProcess::recordings() const
{
    return m_home + QStringLiteral("/Videos/Vantrel");
}

void VantrelProcess::setEnv(const QString &name, const QString &value)
{
    m_extra.insert(name, value);
    m_process.setProcessEnvironment(environment());
}

void VantrelProcess::start(const QStringList &arguments)
{
    m_logOffset = QFileInfo(logPath()).size();
    m_process.start(binary(), arguments);
    m_process.waitForStarted(5000);
}

int VantrelProcess::launchAgain(const QStringList &arguments)
{
    QProcess second;
    second.setProcessEnvironment(environment());
    second.start(binary(), arguments);
    if (!second.waitForFinished(15000)) {
        second.kill();
        return -1;
    }
    return second.exitCode();
}

bool VantrelProcess::terminate(std::chrono::milliseconds within)
{
    if (!isRunning())
        return true;
    ::kill(pid_t(m_process.processId()), SIGTERM);
    return m_process.waitForFinished(int(within.count()));
}

void VantrelProcess::kill()
{
    if (!isRunning())
        return;
    m_process.kill();
    m_process.waitForFinished(5000);
}

QString VantrelProcess::output()
{
    m_output += QString::fromUtf8(m_process.readAll());
    return m_output;
}

bool VantrelProcess::waitForOutput(const QString &text, std::chrono::milliseconds timeout)
{
    QElapsedTimer timer;
    timer.start();
    while (!output().contains(text)) {
        if (timer.elapsed() > timeout.count() || !isRunning())
            return false;
        m_process.waitForReadyRead(50);
    }
    return true;
}

QString VantrelProcess::logSinceStart() const
{
    QFile file(logPath());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    file.seek(m_logOffset);
    return QString::fromUtf8(file.readAll());
}

int VantrelProcess::countLog(const QString &text) const
{
    return logSinceStart().count(text);
}

bool VantrelProcess::waitForLog(const QString &text, std::chrono::milliseconds timeout)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeout.count()) {
        if (logSinceStart().contains(text))
            return true;
        QThread::msleep(50);
    }
    return false;
}

QString runCommand(const QString &program, const QStringList &arguments, int timeoutMs)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(timeoutMs) || process.exitCode() != 0)
        return {};
    return QString::fromUtf8(process.readAllStandardOutput());
}
