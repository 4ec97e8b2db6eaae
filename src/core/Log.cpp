#include "core/Log.h"

#include <QDateTime>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <set>
#include <string>
#include <unistd.h>

namespace Log {

namespace {

void writeAll(int fd, const QByteArray &bytes)
{
    // One write() keeps the line whole; a short write on a regular file or a pipe of this size
    // would only happen on a full disk, and then the rest is lost anyway.
    [[maybe_unused]] ssize_t written = ::write(fd, bytes.constData(), size_t(bytes.size()));
}

} // namespace

void system(const QString &message)
{
    writeAll(STDERR_FILENO, QByteArrayLiteral("Vantrel: ") + message.toUtf8() + '\n');
}

QString dateText()
{
    return QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) +
        QStringLiteral(" +0000");
}

void appendLine(const QString &path, const QString &message)
{
    const QByteArray line = dateText().toUtf8() + ' ' + message.toUtf8() + '\n';
    const int fd = ::open(QFile::encodeName(path).constData(),
                          O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        reportOnce("log-open",
                   QStringLiteral("cannot write the log file %1: %2").arg(path, strerror(errno)));
        return;
    }
    const ssize_t written = ::write(fd, line.constData(), size_t(line.size()));
    if (written != ssize_t(line.size()))
        reportOnce("log-write",
                   QStringLiteral("cannot write the log file %1: %2").arg(path, strerror(errno)));
    ::close(fd);
}

void reportOnce(const char *key, const QString &what)
{
    static std::mutex mutex;
    static std::set<std::string> reported;
    {
        std::scoped_lock lock(mutex);
        if (!reported.insert(key).second)
            return;
    }
    system(what);
}

} // namespace Log
