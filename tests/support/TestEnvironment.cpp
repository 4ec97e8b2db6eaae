#include "support/TestEnvironment.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mount.h>

void TempHomeTest::SetUp()
{
    ASSERT_TRUE(m_home.isValid());
    useHome(m_home.path());
}

void TempHomeTest::useHome(const QString &path)
{
    m_path = path;
    const QByteArray home = QFile::encodeName(m_path);
    setenv("HOME", home.constData(), 1);
    setenv("XDG_CONFIG_HOME", (home + "/.config").constData(), 1);
    setenv("XDG_STATE_HOME", (home + "/.local/state").constData(), 1);
    setenv("XDG_DATA_HOME", (home + "/.local/share").constData(), 1);
    setenv("XDG_CACHE_HOME", (home + "/.cache").constData(), 1);
    unsetenv("XDG_VIDEOS_DIR");
    // No session bus unless the test makes one: neither the developer's own (and their secret
    // store) nor one that D-Bus would start for an X display behind the test's back. The headless
    // Wayland session's bus is private to the tests and carries its portal, so it stays.
    if (qEnvironmentVariableIsEmpty("VANTREL_WAYLAND_DIR"))
        setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + home + "/no-session-bus").constData(),
               1);
    // A real home has these; the trash, for one, is only made inside an existing data folder.
    QDir().mkpath(m_path + QStringLiteral("/.local/share"));
    QDir().mkpath(m_path + QStringLiteral("/.config"));
    // Temporary files (the export's, the session's, the cues') land where the test can see
    // whether any was left behind.
    QDir().mkpath(tempFolder());
    setenv("TMPDIR", QFile::encodeName(tempFolder()).constData(), 1);
}

void TempHomeTest::usePrivateRuntime()
{
    const QString runtime = m_path + QStringLiteral("/.run");
    QDir().mkpath(runtime);
    QFile::setPermissions(runtime,
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    setenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime).constData(), 1);
}

void TempHomeTest::writeSettings(const QByteArray &lines)
{
    QDir().mkpath(configHome() + QStringLiteral("/quillfen"));
    QFile file(configHome() + QStringLiteral("/quillfen/Vantrel.conf"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("[General]\n" + lines);
}

QString readTextFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll());
}

TemporaryMount::TemporaryMount(const QString &path, const char *options)
    : m_path(QFile::encodeName(path))
{
    QDir().mkpath(path);
    if (::mount("tmpfs", m_path.constData(), "tmpfs", 0, options) == 0)
        m_mounted = true;
    else
        m_error = std::strerror(errno);
}

TemporaryMount::~TemporaryMount()
{
    if (m_mounted)
        ::umount2(m_path.constData(), MNT_DETACH);
}

QStringList filesHolding(const QString &folder, const QByteArray &secret)
{
    QStringList found;
    QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        if (file.open(QIODevice::ReadOnly) && file.readAll().contains(secret))
            found << file.fileName();
    }
    return found;
}
