#include "update/ArchiveInstall.h"

#include "update/DesktopIntegration.h"
#include "update/InstalledCopy.h"
#include "update/ReleaseSignature.h"
#include "update/UpdateError.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>

namespace ArchiveInstall {

int run(const QString &archive, const QString &signaturePath, QTextStream &out, QTextStream &err)
{
    const QString sigPath =
        signaturePath.isEmpty() ? archive + QStringLiteral(".sig") : signaturePath;
    QFile sigFile(sigPath);
    if (!QFileInfo(archive).isFile()) {
        err << "vantrel: " << archive << ": no such file\n";
        return 1;
    }
    if (!sigFile.open(QIODevice::ReadOnly)) {
        err << "vantrel: " << sigPath << ": " << sigFile.errorString()
            << " (the archive's signature is needed)\n";
        return 1;
    }
    if (!ReleaseSignature::verify(archive, sigFile.read(65))) {
        err << "vantrel: " << UpdateError::cannotVerify()
            << " The signature does not match this program's release key.\n";
        return 1;
    }

    const QString root = InstalledCopy::defaultRoot();
    try {
        InstalledCopy::installFrom(archive, root);
    } catch (const UpdateError &error) {
        err << "vantrel: " << error.text() << '\n';
        return 1;
    }
    QFile versionFile(root + QStringLiteral("/VERSION"));
    const QString version = versionFile.open(QIODevice::ReadOnly)
        ? QString::fromUtf8(versionFile.readAll()).trimmed()
        : QStringLiteral("(unknown version)");
    out << "Installed Vantrel " << version << " in " << root << '\n';
    for (const QString &problem : DesktopIntegration::install(root))
        err << "vantrel: " << problem << '\n';

    const QString bin = QDir::homePath() + QStringLiteral("/.local/bin");
    const QStringList path = qEnvironmentVariable("PATH").split(QLatin1Char(':'));
    if (!path.contains(bin) && !path.contains(bin + QLatin1Char('/')))
        out << "Start it from the desktop's launcher, or as " << root << "/bin/vantrel (" << bin
            << " is not on your PATH).\n";
    else
        out << "Start it from the desktop's launcher or with the command vantrel.\n";
    return 0;
}

} // namespace ArchiveInstall
