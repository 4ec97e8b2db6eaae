#include "core/PrivateFolder.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Whether the existing entry at `path` (not followed) is a folder of ours that no one else can
// enter, closing it to others when it is ours but open.
bool privateFolderAt(const QByteArray &path)
{
    struct stat info
    {
    };
    if (::lstat(path.constData(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        info.st_uid != ::geteuid())
        return false;
    if ((info.st_mode & 077) == 0)
        return true;
    return ::chmod(path.constData(), 0700) == 0;
}

} // namespace

namespace PrivateFolder {

QString ensure(const QString &path)
{
    if (path.isEmpty() || !QDir::isAbsolutePath(path))
        return {};
    const QString clean = QDir::cleanPath(path);
    const QByteArray encoded = QFile::encodeName(clean);
    const QString parent = QDir(clean).absoluteFilePath(QStringLiteral(".."));
    if (!QDir().mkpath(QDir::cleanPath(parent)))
        return {};
    // mkdir never follows a link planted under the name; the checks below see whatever is there.
    if (::mkdir(encoded.constData(), 0700) != 0 && errno != EEXIST)
        return {};
    return privateFolderAt(encoded) ? clean : QString();
}

QString makeUnique(const QString &parent, const QString &prefix)
{
    const QString base = ensure(parent);
    if (base.isEmpty())
        return {};
    QByteArray pattern = QFile::encodeName(base + QLatin1Char('/') + prefix + "XXXXXX");
    if (!::mkdtemp(pattern.data())) // 0700, a name no one held before
        return {};
    return QFile::decodeName(pattern);
}

QString runtimeBase()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (runtime.isEmpty() || !QDir::isAbsolutePath(runtime))
        return {};
    struct stat info
    {
    };
    const QByteArray encoded = QFile::encodeName(runtime);
    // The folder the session made for this user alone; one that others can enter is not that.
    if (::stat(encoded.constData(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        info.st_uid != ::geteuid() || (info.st_mode & 077) != 0)
        return {};
    return QDir::cleanPath(runtime);
}

QString cacheBase()
{
    const QString cache = qEnvironmentVariable("XDG_CACHE_HOME");
    if (!cache.isEmpty() && QDir::isAbsolutePath(cache))
        return QDir::cleanPath(cache);
    return QDir::homePath() + QStringLiteral("/.cache");
}

} // namespace PrivateFolder
