#include "cloud/KeychainStore.h"

#include "core/Log.h"

#include <QEventLoop>
#include <QTimer>

#include <qcoro/qcorosignal.h>
#include <qt6keychain/keychain.h>

#include <memory>

using namespace std::chrono_literals;

namespace KeychainStore {

namespace {

const QString service = QStringLiteral("com.quillfen.vantrel.session");
const QString key = QStringLiteral("session");

// A locked store may ask the user for its password before it answers; give them time to type
// it, but never keep the launch waiting on a store that does not answer at all.
constexpr auto longestLoad = 60s;

struct DeleteLater
{
    void operator()(QObject *object) const { object->deleteLater(); }
};

template<typename Job> std::unique_ptr<Job, DeleteLater> makeJob()
{
    std::unique_ptr<Job, DeleteLater> job(new Job(service));
    job->setKey(key);
    // A token on disk in the clear is worse than asking the user to sign in again.
    job->setInsecureFallback(false);
    // Freed by us, later: QCoro resumes inside finished().
    job->setAutoDelete(false);
    return job;
}

void reportUnavailable(const QString &what, const QKeychain::Job &job)
{
    Log::reportOnce("secret-store",
                    QStringLiteral("%1: the secret store answered \"%2\" (error %3)")
                        .arg(what, job.errorString())
                        .arg(int(job.error())));
}

} // namespace

QCoro::Task<bool> save(QString token)
{
    auto job = makeJob<QKeychain::WritePasswordJob>();
    job->setTextData(token);
    job->start();
    co_await qCoro(job.get(), &QKeychain::Job::finished);
    if (job->error() != QKeychain::NoError) {
        reportUnavailable(QStringLiteral("the sign-in is kept for this run only"), *job);
        co_return false;
    }
    co_return true;
}

std::optional<QString> load()
{
    auto job = makeJob<QKeychain::ReadPasswordJob>();
    QEventLoop loop;
    bool finished = false;
    QObject::connect(job.get(), &QKeychain::Job::finished, &loop, [&] {
        finished = true;
        loop.quit();
    });
    QTimer::singleShot(longestLoad, &loop, &QEventLoop::quit);
    job->start();
    loop.exec(QEventLoop::ExcludeUserInputEvents);
    if (!finished) {
        // The store may still answer; the job frees itself then.
        job->setAutoDelete(true);
        job.release();
        Log::reportOnce("secret-store",
                        QStringLiteral("the secret store did not answer; starting signed out"));
        return std::nullopt;
    }
    if (job->error() == QKeychain::EntryNotFound)
        return std::nullopt;
    if (job->error() != QKeychain::NoError) {
        reportUnavailable(QStringLiteral("starting signed out"), *job);
        return std::nullopt;
    }
    const QString token = job->textData();
    if (token.isEmpty())
        return std::nullopt;
    return token;
}

QCoro::Task<bool> remove()
{
    auto job = makeJob<QKeychain::DeletePasswordJob>();
    job->start();
    co_await qCoro(job.get(), &QKeychain::Job::finished);
    if (job->error() != QKeychain::NoError && job->error() != QKeychain::EntryNotFound) {
        reportUnavailable(QStringLiteral("the sign-in could not be removed"), *job);
        co_return false;
    }
    co_return true;
}

} // namespace KeychainStore
