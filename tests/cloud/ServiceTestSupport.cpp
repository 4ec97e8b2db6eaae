#include "ServiceTestSupport.h"

#include <QProcess>
#include <QTemporaryFile>

#include <optional>

#include <cstdlib>

namespace {

// Runs the service's command line; its standard output, or nothing when it failed.
std::optional<QByteArray> runService(const TestService &service, QStringList arguments,
                                     const QByteArray &input = {})
{
    arguments << QStringLiteral("--data") << service.data;
    QProcess process;
    process.start(service.binary, arguments);
    if (!process.waitForStarted(10000))
        return std::nullopt;
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        return std::nullopt;
    return process.readAllStandardOutput();
}

} // namespace

TestService TestService::fromEnvironment()
{
    return {qEnvironmentVariable("VANTREL_TEST_SERVICE_URL"),
            qEnvironmentVariable("VANTREL_TEST_SERVICE_CA"),
            qEnvironmentVariable("VANTREL_TEST_SERVICE_DATA"),
            qEnvironmentVariable("VANTREL_TEST_SERVICE_BIN")};
}

void TestService::useInThisProcess() const
{
    setenv("VANTREL_SERVICE_URL", url.toUtf8().constData(), 1);
    setenv("VANTREL_SERVICE_CA", certificate.toUtf8().constData(), 1);
}

bool TestService::addUser(const QString &email, const QString &name, const QString &password) const
{
    return runService(*this,
                      {QStringLiteral("user"), QStringLiteral("add"), email,
                       QStringLiteral("--name"), name},
                      password.toUtf8() + '\n')
        .has_value();
}

QString TestService::issueToken(const QString &email) const
{
    const std::optional<QByteArray> out =
        runService(*this, {QStringLiteral("token"), QStringLiteral("issue"), email});
    return out ? QString::fromUtf8(*out).trimmed() : QString();
}

bool TestService::revokeToken(const QString &token) const
{
    return runService(*this, {QStringLiteral("token"), QStringLiteral("revoke"), token})
        .has_value();
}

bool TestService::setAds(const QByteArray &json) const
{
    QTemporaryFile file;
    if (!file.open() || file.write(json) != json.size() || !file.flush())
        return false;
    return runService(*this, {QStringLiteral("ads"), QStringLiteral("set"), file.fileName()})
        .has_value();
}
