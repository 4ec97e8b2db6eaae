#pragma once

#include <QString>

// The real vantrel-service that the ctest fixture "service" runs over TLS on 127.0.0.1, and its
// command line for accounts and tokens. Tests skip when the fixture is not there.
struct TestService
{
    QString url; // https://127.0.0.1:PORT
    QString certificate; // the test certificate to trust, PEM
    QString data; // its data folder
    QString binary;

    // From the fixture's environment; empty `url` when there is none.
    static TestService fromEnvironment();
    // Points this process's service client at it and trusts its certificate (before first use).
    void useInThisProcess() const;

    // `user add`, the password given on standard input; true on success.
    bool addUser(const QString &email, const QString &name, const QString &password) const;
    // `token issue`: a fresh bearer token for the user; empty on failure.
    QString issueToken(const QString &email) const;
    bool revokeToken(const QString &token) const;
    // `ads set`: the sponsor cards the service hands out, as JSON; true on success.
    bool setAds(const QByteArray &json) const;
};

// Why a test that needs the service cannot run, for GTEST_SKIP.
inline const char *const noServiceReason =
    "needs the vantrel-service fixture (VANTREL_TEST_SERVICE_URL is not set)";
