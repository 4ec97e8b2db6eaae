#include "cloud/CloudConfig.h"

#include "cloud/SecureUrl.h"
#include "core/Log.h"
#include "core/ProgramVersion.h"

namespace {

QUrl configuredWebsite()
{
    const QByteArray override = qgetenv("VANTREL_SERVICE_URL");
    if (!override.isEmpty()) {
        const QUrl url(QString::fromUtf8(override), QUrl::StrictMode);
        // Tokens and sign-ins travel to this address: TLS, unless it is this machine.
        if (SecureUrl::isSecure(url))
            return url;
        Log::reportOnce("service-url",
                        QStringLiteral("VANTREL_SERVICE_URL is not an https address, nor http on "
                                       "this machine (%1); using %2")
                            .arg(QString::fromUtf8(override), QStringLiteral(VANTREL_SERVICE_URL)));
    }
    const QUrl builtIn(QStringLiteral(VANTREL_SERVICE_URL), QUrl::StrictMode);
    // A build-time fault, never user input: a build with a broken address must not ship.
    if (!SecureUrl::isSecure(builtIn))
        qFatal("The built-in service URL \"%s\" is not an https address", VANTREL_SERVICE_URL);
    return builtIn;
}

} // namespace

namespace CloudConfig {

const QUrl &website()
{
    static const QUrl url = configuredWebsite();
    return url;
}

QUrl appending(const QString &components)
{
    QUrl url = website();
    QString path = url.path();
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    url.setPath(path + components);
    return url;
}

QString host()
{
    return website().host();
}

bool isServicePage(const QUrl &url)
{
    return SecureUrl::isSecure(url) && url.host().compare(host(), Qt::CaseInsensitive) == 0;
}

QString appVersion()
{
    return ProgramVersion::current();
}

} // namespace CloudConfig
