#include "cloud/CloudConfig.h"

#include "core/Log.h"
#include "core/ProgramVersion.h"

namespace {

bool isServiceUrl(const QUrl &url)
{
    return url.isValid() && !url.host().isEmpty()
        && (url.scheme() == QLatin1String("https") || url.scheme() == QLatin1String("http"));
}

QUrl configuredWebsite()
{
    const QByteArray override = qgetenv("VANTREL_SERVICE_URL");
    if (!override.isEmpty()) {
        const QUrl url(QString::fromUtf8(override), QUrl::StrictMode);
        if (isServiceUrl(url))
            return url;
        Log::reportOnce("service-url",
                        QStringLiteral("VANTREL_SERVICE_URL is not an http(s) address (%1); using %2")
                            .arg(QString::fromUtf8(override), QStringLiteral(VANTREL_SERVICE_URL)));
    }
    const QUrl builtIn(QStringLiteral(VANTREL_SERVICE_URL), QUrl::StrictMode);
    // A build-time fault, never user input: a build with a broken address must not ship.
    if (!isServiceUrl(builtIn))
        qFatal("The built-in service URL \"%s\" is not an http(s) address", VANTREL_SERVICE_URL);
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

QString appVersion()
{
    return ProgramVersion::current();
}

} // namespace CloudConfig
