#include "update/DesktopIntegration.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSaveFile>
#include <QStandardPaths>

namespace {

const QString desktopFileName = QStringLiteral("vantrel.desktop");

QString dataHome()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
}

bool writeAtomically(const QString &path, const QByteArray &contents)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size() &&
        file.commit();
}

// ~/.local/bin/vantrel becomes a link to the copy; a file there that is not a link is someone
// else's and stays.
QString linkCommand(const QString &root)
{
    const QString bin = QDir::homePath() + QStringLiteral("/.local/bin");
    const QString link = bin + QStringLiteral("/vantrel");
    const QFileInfo existing(link);
    if (existing.exists() && !existing.isSymLink())
        return QStringLiteral("%1 exists and is not a link; left as it is").arg(link);
    QDir().mkpath(bin);
    const QString temporary = link + QStringLiteral(".new");
    QFile::remove(temporary);
    if (!QFile::link(root + QStringLiteral("/bin/vantrel"), temporary) ||
        ::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(link).constData()) !=
            0) {
        QFile::remove(temporary);
        return QStringLiteral("could not link %1").arg(link);
    }
    return {};
}

QString installDesktopEntry(const QString &root)
{
    QFile source(root + QStringLiteral("/share/applications/") + desktopFileName);
    if (!source.open(QIODevice::ReadOnly))
        return QStringLiteral("the copy has no desktop entry");
    QByteArrayList lines = source.readAll().split('\n');
    // Exec's quoting rules: a path in double quotes, with \ " ` $ escaped.
    QString program = root + QStringLiteral("/bin/vantrel");
    for (const char special : {'\\', '"', '`', '$'})
        program.replace(QLatin1Char(special), QString(QLatin1Char('\\')) + QLatin1Char(special));
    for (QByteArray &line : lines) {
        if (line.startsWith("Exec=") || line.startsWith("TryExec=")) {
            const QByteArray key = line.left(line.indexOf('=') + 1);
            const int space = line.indexOf(' ');
            const QByteArray arguments =
                space > 0 && key == "Exec=" ? line.mid(space) : QByteArray();
            line = key + '"' + program.toUtf8() + '"' + arguments;
        }
    }
    const QString target = dataHome() + QStringLiteral("/applications/") + desktopFileName;
    if (!writeAtomically(target, lines.join('\n')))
        return QStringLiteral("could not write %1").arg(target);
    return {};
}

QString installIcons(const QString &root)
{
    const QString from = root + QStringLiteral("/share/icons");
    const QString to = dataHome() + QStringLiteral("/icons");
    QDirIterator it(from, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly) ||
            !writeAtomically(to + path.mid(from.size()), file.readAll()))
            return QStringLiteral("could not install the icon %1").arg(path);
    }
    return {};
}

} // namespace

namespace DesktopIntegration {

bool setDefaultHandler(const QString &path, const QString &mimeType, const QString &handler)
{
    QByteArrayList lines;
    QFile file(path);
    if (file.open(QIODevice::ReadOnly))
        lines = file.readAll().split('\n');
    while (!lines.isEmpty() && lines.last().trimmed().isEmpty())
        lines.removeLast();

    const QByteArray entry = mimeType.toUtf8() + '=' + handler.toUtf8();
    const QByteArray key = mimeType.toUtf8() + '=';
    qsizetype section = -1;
    qsizetype sectionEnd = lines.size();
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QByteArray line = lines[i].trimmed();
        if (line.startsWith('[')) {
            if (section >= 0) {
                sectionEnd = i;
                break;
            }
            if (line == "[Default Applications]")
                section = i;
        }
    }
    if (section < 0) {
        if (!lines.isEmpty())
            lines.append(QByteArray());
        lines.append("[Default Applications]");
        lines.append(entry);
    } else {
        bool replaced = false;
        for (qsizetype i = section + 1; i < sectionEnd; ++i) {
            if (lines[i].trimmed().startsWith(key)) {
                lines[i] = entry;
                replaced = true;
            }
        }
        if (!replaced) {
            // After the section's last entry, before the blank lines that close it.
            qsizetype at = sectionEnd;
            while (at > section + 1 && lines[at - 1].trimmed().isEmpty())
                --at;
            lines.insert(at, entry);
        }
    }
    return writeAtomically(path, lines.join('\n') + '\n');
}

QStringList install(const QString &root)
{
    QStringList problems;
    for (const QString &problem :
         {linkCommand(root), installDesktopEntry(root), installIcons(root)}) {
        if (!problem.isEmpty())
            problems << problem;
    }
    const QString mimeApps =
        QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
        QStringLiteral("/mimeapps.list");
    if (!setDefaultHandler(mimeApps, QStringLiteral("x-scheme-handler/vantrel"), desktopFileName))
        problems << QStringLiteral("could not write %1").arg(mimeApps);
    // Launchers that read the cache see the new entry at once; the others find it themselves.
    const QString updater =
        QStandardPaths::findExecutable(QStringLiteral("update-desktop-database"));
    if (!updater.isEmpty())
        QProcess::execute(updater,
                          {QStringLiteral("-q"), dataHome() + QStringLiteral("/applications")});
    return problems;
}

} // namespace DesktopIntegration
