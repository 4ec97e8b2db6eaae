#include "update/AppRelease.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

QUrl withPathAppended(QUrl base, const QString &components)
{
    QString path = base.path();
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    base.setPath(path + components);
    return base;
}

QUrl downloadUrl(const QString &location, const QUrl &base)
{
    QUrl url;
    if (location.startsWith(QLatin1String("http"))) {
        url = QUrl(location, QUrl::StrictMode);
        if (url.isRelative() || url.host().isEmpty())
            url = QUrl();
    } else {
        const QUrl reference(location, QUrl::StrictMode);
        if (reference.isValid())
            url = base.resolved(reference);
    }
    if (!url.isValid())
        url = withPathAppended(base, AppRelease::defaultPath().mid(1));
    return url;
}

} // namespace

QString AppRelease::defaultPath()
{
    return QStringLiteral("/download/Vantrel-linux-x86_64.tar.gz");
}

std::optional<AppRelease> AppRelease::fromCheckReply(const QByteArray &body, const QUrl &base)
{
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject())
        return std::nullopt;
    const QJsonObject reply = document.object();
    const QJsonValue version = reply.value(QLatin1String("version"));
    if (!version.isString())
        return std::nullopt;

    AppRelease release;
    release.version = version.toString();
    const QJsonValue notes = reply.value(QLatin1String("notes"));
    release.notes =
        notes.isString() ? notes.toString() : QStringLiteral("Bug fixes and improvements.");
    QString location = reply.value(QLatin1String("linux_url")).toString();
    if (location.isEmpty())
        location = defaultPath();
    release.url = downloadUrl(location, base);
    // A signature that is not valid base64 is no signature; the install refuses it later.
    const auto decoded = QByteArray::fromBase64Encoding(
        reply.value(QLatin1String("linux_sig")).toString().toLatin1(),
        QByteArray::AbortOnBase64DecodingErrors);
    if (decoded)
        release.signature = *decoded;
    return release;
}
