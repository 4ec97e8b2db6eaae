#include "cloud/SharedNetwork.h"

#include "core/Log.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QSslCertificate>
#include <QSslConfiguration>

namespace {

void trustExtraAuthorities()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    const QString path = qEnvironmentVariable("VANTREL_SERVICE_CA");
    if (path.isEmpty())
        return;
    const QList<QSslCertificate> extra = QSslCertificate::fromPath(path, QSsl::Pem);
    if (extra.isEmpty()) {
        Log::reportOnce("service-ca",
                        QStringLiteral("VANTREL_SERVICE_CA names no readable PEM certificate: %1")
                            .arg(path));
        return;
    }
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.addCaCertificates(extra);
    QSslConfiguration::setDefaultConfiguration(config);
}

} // namespace

namespace SharedNetwork {

QNetworkAccessManager &manager()
{
    static QNetworkAccessManager *const shared = [] {
        trustExtraAuthorities();
        // Parented to the application so it goes before Qt's network internals do.
        return new QNetworkAccessManager(QCoreApplication::instance());
    }();
    return *shared;
}

QSslConfiguration sslConfiguration()
{
    trustExtraAuthorities();
    return QSslConfiguration::defaultConfiguration();
}

} // namespace SharedNetwork
