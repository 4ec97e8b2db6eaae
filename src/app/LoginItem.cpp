#include "app/LoginItem.h"

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace LoginItem {

QString entryPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
        QStringLiteral("/autostart/vantrel.desktop");
}

QString registerItem(const QString &executable)
{
    const QString path = entryPath();
    if (!QDir().mkpath(QFileInfo(path).path()))
        return QStringLiteral("cannot create %1").arg(QFileInfo(path).path());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return file.errorString();
    // Quoted per the desktop entry rules, so a path with blanks still starts.
    QString quoted = executable;
    quoted.replace(QLatin1Char('\\'), QLatin1String("\\\\"))
        .replace(QLatin1Char('"'), QLatin1String("\\\""));
    file.write(QStringLiteral("[Desktop Entry]\n"
                              "Type=Application\n"
                              "Name=Vantrel\n"
                              "Comment=Instant replay of the screen\n"
                              "Exec=\"%1\"\n"
                              "Icon=vantrel\n"
                              "Terminal=false\n"
                              "X-GNOME-Autostart-enabled=true\n")
                   .arg(quoted)
                   .toUtf8());
    return file.commit() ? QString() : file.errorString();
}

} // namespace LoginItem
