#include "update/UpdateError.h"

UpdateError::UpdateError(QString text, int code)
    : m_text(std::move(text))
    , m_utf8(m_text.toUtf8())
    , m_code(code)
{
}

QString UpdateError::cannotDownload()
{
    return QStringLiteral("Couldn’t download the update.");
}

QString UpdateError::cannotVerify()
{
    return QStringLiteral("Couldn’t verify the update.");
}

QString UpdateError::cannotOpenArchive()
{
    return QStringLiteral("Couldn’t open the update archive.");
}

QString UpdateError::noAppInside()
{
    return QStringLiteral("Update archive has no Vantrel inside.");
}

QString UpdateError::notInstalledCopy()
{
    return QStringLiteral(
        "This copy of Vantrel is not the installed release; update it the way you installed it.");
}

QString UpdateError::installedByPackage()
{
    return QStringLiteral("Vantrel was installed with your package manager; update it there "
                          "(install the newer vantrel package, for example with apt).");
}

QString UpdateError::insecureAddress(const QString &address)
{
    return QStringLiteral(
               "The update’s address is not a secure one (%1), so it was not downloaded.")
        .arg(address);
}

QString UpdateError::tooLarge()
{
    return QStringLiteral("The update is larger than any release, so it was not downloaded.");
}

QString UpdateError::unknownVersion()
{
    return QStringLiteral("The update does not say which version it is, so it was not installed.");
}

QString UpdateError::notNewer(const QString &found, const QString &installed)
{
    return QStringLiteral(
               "The update holds Vantrel %1, which is not newer than this copy (%2), so it was "
               "not installed.")
        .arg(found, installed);
}

QString UpdateError::notAsOffered(const QString &offered, const QString &found)
{
    return QStringLiteral("The update was offered as Vantrel %1 but holds %2, so it was not "
                          "installed.")
        .arg(offered, found);
}
