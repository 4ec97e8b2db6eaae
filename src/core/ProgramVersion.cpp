#include "core/ProgramVersion.h"

#include <QFile>
#include <QFileInfo>

namespace {

QString readInstalledVersion()
{
    const QFileInfo executable(QStringLiteral("/proc/self/exe"));
    const QString binDir = QFileInfo(executable.canonicalFilePath()).absolutePath();
    if (QFileInfo(binDir).fileName() != QLatin1String("bin"))
        return {};
    return ProgramVersion::readVersionFile(binDir + QStringLiteral("/../VERSION"));
}

} // namespace

namespace ProgramVersion {

QString current()
{
    static const QString version = [] {
        const QString installed = readInstalledVersion();
        return installed.isEmpty() ? built() : installed;
    }();
    return version;
}

QString built()
{
    return QStringLiteral(VANTREL_VERSION);
}

QString readVersionFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    // One short line; anything else is not a VERSION file this program wrote.
    const QString text = QString::fromUtf8(file.read(65)).trimmed();
    if (text.isEmpty() || text.size() > 64 || text.contains(QLatin1Char('\n')))
        return {};
    return text;
}

} // namespace ProgramVersion
