#include "app/AutostartEntry.h"

#include "update/InstalledCopy.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace AutostartEntry {

namespace {

bool isSystemFolder(const QString &path)
{
    for (const char *folder : {"/usr/", "/opt/", "/snap/"}) {
        if (path.startsWith(QLatin1String(folder)))
            return true;
    }
    return false;
}

QString quoted(QString path)
{
    // Quoted per the desktop entry rules, so a path with blanks still starts.
    path.replace(QLatin1Char('\\'), QLatin1String("\\\\"))
        .replace(QLatin1Char('"'), QLatin1String("\\\""));
    return QLatin1Char('"') + path + QLatin1Char('"');
}

} // namespace

QString path()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
        QStringLiteral("/autostart/vantrel.desktop");
}

QString installedProgram()
{
    const QString running = QCoreApplication::applicationFilePath();
    if (const QString root = InstalledCopy::runningRoot(); !root.isEmpty())
        return root + QStringLiteral("/bin/vantrel");
    if (isSystemFolder(running))
        return running;
    const QString installed = InstalledCopy::defaultRoot() + QStringLiteral("/bin/vantrel");
    return QFileInfo(installed).isExecutable() ? installed : QString();
}

QString apply(bool startAtLogin)
{
    const QString entry = path();
    const QString program = startAtLogin ? installedProgram() : QString();
    // Off, or on with nothing installed to start (the switch's note says so): no entry, not even
    // one an earlier version left pointing into a build folder.
    if (program.isEmpty()) {
        if (QFile::exists(entry) && !QFile::remove(entry))
            return QStringLiteral("Couldn’t remove %1, so Vantrel still starts when you log in.")
                .arg(entry);
        return {};
    }
    if (!QDir().mkpath(QFileInfo(entry).path()))
        return QStringLiteral("Couldn’t create %1 to start Vantrel when you log in.")
            .arg(QFileInfo(entry).path());
    QSaveFile file(entry);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(QStringLiteral("[Desktop Entry]\n"
                                  "Type=Application\n"
                                  "Name=Vantrel\n"
                                  "Comment=Instant replay of the screen\n"
                                  "Exec=%1\n"
                                  "Icon=vantrel\n"
                                  "Terminal=false\n"
                                  "X-GNOME-Autostart-enabled=true\n")
                       .arg(quoted(program))
                       .toUtf8());
        if (file.commit())
            return {};
    }
    return QStringLiteral("Couldn’t write %1: %2").arg(entry, file.errorString());
}

QString startedProgram()
{
    QFile file(path());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (!line.startsWith("Exec="))
            continue;
        QString exec = QString::fromUtf8(line.mid(5)).trimmed();
        if (exec.startsWith(QLatin1Char('"'))) {
            exec = exec.mid(1, exec.indexOf(QLatin1Char('"'), 1) - 1);
            exec.replace(QLatin1String("\\\""), QLatin1String("\""))
                .replace(QLatin1String("\\\\"), QLatin1String("\\"));
        }
        return exec;
    }
    return {};
}

} // namespace AutostartEntry
