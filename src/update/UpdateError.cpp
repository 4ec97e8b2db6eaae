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
