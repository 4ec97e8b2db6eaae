#include "update/Relaunch.h"

#include "update/UpdateError.h"

#include <QFile>

#include <cstring>
#include <spawn.h>
#include <unistd.h>

extern char **environ;

namespace Relaunch {

QString command(const QString &executable, std::chrono::milliseconds delay, long waitForPid)
{
    QString quoted = executable;
    quoted.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    const QString seconds = delay.count() % 1000 == 0
        ? QString::number(delay.count() / 1000)
        : QString::number(double(delay.count()) / 1000.0, 'f', 3);
    // Gone means no process or only its zombie (a parent that has not reaped it yet).
    return QStringLiteral("sleep %1; i=0; while [ $i -lt 100 ] && [ -r /proc/%2/stat ] && "
                          "[ \"$(sed 's/.*) //; s/ .*//' /proc/%2/stat 2>/dev/null)\" != Z ]; do "
                          "sleep 0.1; i=$((i+1)); done; exec '%3'")
        .arg(seconds)
        .arg(waitForPid)
        .arg(quoted);
}

void start(const QString &executable, std::chrono::milliseconds delay)
{
    const QByteArray script = command(executable, delay, long(::getpid())).toLocal8Bit();
    char shell[] = "/bin/sh";
    char dashC[] = "-c";
    QByteArray scriptCopy = script;
    char *argv[] = {shell, dashC, scriptCopy.data(), nullptr};

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // A session of its own: the new copy outlives this one and whatever terminal started it.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    pid_t pid = -1;
    const int error = ::posix_spawn(&pid, shell, nullptr, &attributes, argv, environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0)
        throw UpdateError(QStringLiteral("Couldn’t restart Vantrel: %1")
                              .arg(QString::fromLocal8Bit(std::strerror(error))));
}

} // namespace Relaunch
