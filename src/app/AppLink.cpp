#include "app/AppLink.h"

#include <QUrl>
#include <QUrlQuery>

namespace {

// Our links are a few dozen characters; a sign-in code is short.
constexpr qsizetype longestLink = 2048;

AppLink::Kind kindOf(const QString &host)
{
    if (host == QLatin1String("start"))
        return AppLink::Kind::start;
    if (host == QLatin1String("stop"))
        return AppLink::Kind::stop;
    if (host == QLatin1String("clip"))
        return AppLink::Kind::clip;
    if (host == QLatin1String("open"))
        return AppLink::Kind::open;
    if (host == QLatin1String("auth"))
        return AppLink::Kind::auth;
    return AppLink::Kind::unknown;
}

} // namespace

AppLink AppLink::parse(const QString &text)
{
    if (text.size() > longestLink)
        return {};
    const QUrl url(text, QUrl::StrictMode);
    // QUrl lower-cases the scheme and the host, as URLs compare them.
    if (!url.isValid() || url.scheme() != QLatin1String("vantrel") || !url.userInfo().isEmpty() ||
        url.port() != -1)
        return {};
    const QString path = url.path(QUrl::FullyEncoded);
    if (!path.isEmpty() && path != QLatin1String("/"))
        return {};
    AppLink link;
    link.kind = kindOf(url.host(QUrl::FullyEncoded));
    if (link.kind == Kind::auth)
        link.code = QUrlQuery(url).queryItemValue(QStringLiteral("code"), QUrl::FullyDecoded);
    return link;
}
