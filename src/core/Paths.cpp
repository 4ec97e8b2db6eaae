#include "core/Paths.h"

#include "core/Log.h"

#include <QDir>
#include <QStandardPaths>

namespace Paths {

namespace {

void makeFolder(const QString &path, const char *reportKey)
{
    if (!QDir().mkpath(path))
        Log::reportOnce(reportKey, QStringLiteral("cannot create the folder %1").arg(path));
}

} // namespace

QString recordings()
{
    static const QString folder = [] {
        QString movies = QStandardPaths::writableLocation(QStandardPaths::MoviesLocation);
        if (movies.isEmpty())
            movies = QDir::home().filePath(QStringLiteral("Videos"));
        return QDir(movies).filePath(QStringLiteral("Vantrel"));
    }();
    makeFolder(folder, "recordings-folder");
    return folder;
}

QString logFile()
{
    static const QString file = [] {
        QString state = qEnvironmentVariable("XDG_STATE_HOME");
        if (state.isEmpty() || !QDir::isAbsolutePath(state)) {
            const QString home = QDir::homePath();
            state = home.isEmpty() || home == QDir::rootPath()
                ? QString()
                : QDir(home).filePath(QStringLiteral(".local/state"));
        }
        const QString folder =
            state.isEmpty() ? QDir::tempPath() : QDir(state).filePath(QStringLiteral("Vantrel"));
        makeFolder(folder, "log-folder");
        return QDir(folder).filePath(QStringLiteral("Vantrel.log"));
    }();
    return file;
}

} // namespace Paths
