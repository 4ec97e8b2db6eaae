#pragma once

class QNetworkAccessManager;
class QSslConfiguration;

// The one network access manager that every call to the service goes through, as a browser
// shares one connection pool. Main thread only; made on first use.
//
// VANTREL_SERVICE_CA names a PEM file of certificates to trust beside the system's: a
// self-hosted service with its own certificate authority, or a test's service on 127.0.0.1.
namespace SharedNetwork {

QNetworkAccessManager &manager();
// What the manager's connections trust, for a connection made outside it.
QSslConfiguration sslConfiguration();

} // namespace SharedNetwork
