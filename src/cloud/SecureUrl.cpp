#include "cloud/SecureUrl.h"

#include <QHostAddress>

namespace SecureUrl {

bool isLoopbackHost(const QString &host)
{
    if (host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0)
        return true;
    const QHostAddress address(host);
    return !address.isNull() && address.isLoopback();
}

bool isSecure(const QUrl &url)
{
    if (!url.isValid() || url.isRelative() || url.host().isEmpty() || !url.userInfo().isEmpty())
        return false;
    if (url.scheme() == QLatin1String("https"))
        return true;
    return url.scheme() == QLatin1String("http") && isLoopbackHost(url.host());
}

} // namespace SecureUrl
