#include "update/UpdateStore.h"

#include "cloud/CappedReply.h"
#include "cloud/CloudConfig.h"
#include "cloud/SecureUrl.h"
#include "cloud/SharedNetwork.h"
#include "core/Log.h"
#include "core/Preferences.h"
#include "core/PrivateFolder.h"
#include "core/ProgramVersion.h"
#include "core/SharedPool.h"
#include "core/VersionOrder.h"
#include "update/InstalledCopy.h"
#include "update/Relaunch.h"
#include "update/ReleaseSignature.h"
#include "update/UpdateError.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>

#include <qcoro/qcorofuture.h>
#include <qcoro/qcorosignal.h>
#include <qcoro/qcorotask.h>

#include <memory>

namespace {

const QString autoInstallKey = QStringLiteral("autoInstallUpdates");
constexpr int requestTimeoutMs = 60000;

struct LaterDelete
{
    void operator()(QNetworkReply *reply) const { reply->deleteLater(); }
};
using ReplyPtr = std::unique_ptr<QNetworkReply, LaterDelete>;

ReplyPtr get(const QUrl &url)
{
    QNetworkRequest request(url);
    request.setTransferTimeout(requestTimeoutMs);
    return ReplyPtr(SharedNetwork::manager().get(request));
}

// The HTTP status of a reply, 0 when it is not an HTTP reply.
int httpStatus(QNetworkReply *reply)
{
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

bool newer(const QString &version, const QString &than)
{
    return VersionOrder::isNewer(version.toStdString(), than.toStdString());
}

// Each download gets a folder of its own in here, made for it alone: no other local user can
// plant a file or a link under its name first, or read or swap the archive between its check and
// its unpacking.
QString downloadsFolder()
{
    return PrivateFolder::cacheBase() + QStringLiteral("/Vantrel/updates");
}
const QString downloadPrefix = QStringLiteral("update-");

void removeDownloadLeftovers()
{
    const QString parent = downloadsFolder();
    for (const QString &name : QDir(parent).entryList({downloadPrefix + QLatin1Char('*')},
                                                      QDir::Dirs | QDir::NoSymLinks | QDir::Hidden))
        QDir(parent + QLatin1Char('/') + name).removeRecursively();
}

// An address as the status line names it: a data: one can be as long as an archive.
QString shownAddress(const QUrl &url)
{
    const QString text = url.toDisplayString();
    return text.size() > 80 ? text.left(79) + QStringLiteral("…") : text;
}

// What the copy to be replaced is: its VERSION, or this program's when it has none.
QString installedVersion(const QString &root)
{
    const QString version = ProgramVersion::readVersionFile(root + QStringLiteral("/VERSION"));
    return version.isEmpty() ? CloudConfig::appVersion() : version;
}

} // namespace

UpdateStore::UpdateStore(QObject *parent)
    : QObject(parent)
    , m_installedRoot(InstalledCopy::runningRoot())
    , m_packageManaged(InstalledCopy::managedByPackage())
{
}

UpdateStore::~UpdateStore() = default;

UpdateStore &UpdateStore::shared()
{
    static UpdateStore *const store = new UpdateStore(QCoreApplication::instance());
    return *store;
}

void UpdateStore::setShowSheet(bool show)
{
    if (m_showSheet == show)
        return;
    m_showSheet = show;
    emit showSheetChanged();
}

void UpdateStore::setAvailable(std::optional<AppRelease> release)
{
    if (m_available == release)
        return;
    m_available = std::move(release);
    emit availableChanged();
}

void UpdateStore::setStatus(const QString &status)
{
    if (m_status == status)
        return;
    m_status = status;
    emit statusChanged();
}

void UpdateStore::setBusy(bool busy)
{
    if (m_busy == busy)
        return;
    m_busy = busy;
    emit busyChanged();
}

bool UpdateStore::autoInstallUpdates()
{
    return Preferences::open()->value(autoInstallKey, true).toBool();
}

void UpdateStore::setAutoInstallUpdates(bool on)
{
    Preferences::open()->setValue(autoInstallKey, on);
}

void UpdateStore::refresh()
{
    load();
}

void UpdateStore::applyOnLaunch()
{
    // An install that crashed left its staging folder (perhaps holding the old copy) behind.
    if (const QString root = m_installedRoot; !root.isEmpty())
        SharedPool::run([root] { InstalledCopy::removeLeftovers(root); });
    runApplyOnLaunch();
}

QCoro::Task<void> UpdateStore::runApplyOnLaunch()
{
    QPointer<UpdateStore> self(this);
    QCoro::Task<void> loaded = load();
    co_await loaded;
    if (self && m_available && autoInstallUpdates())
        install();
}

QCoro::Task<void> UpdateStore::load()
{
    QPointer<UpdateStore> self(this);
    ReplyPtr reply = get(CloudConfig::appending(QStringLiteral("v1/version")));
    QCoro::Task<CappedReply::Body> reading =
        CappedReply::read(reply.get(), CappedReply::answerLimit);
    const CappedReply::Body body = co_await reading;
    if (!self)
        co_return;
    const int status = httpStatus(reply.get());
    std::optional<AppRelease> release;
    if (!body.tooLarge && reply->error() == QNetworkReply::NoError && status >= 200 &&
        status <= 299)
        release = AppRelease::fromCheckReply(body.bytes, CloudConfig::website());
    if (release && newer(release->version, CloudConfig::appVersion()))
        setAvailable(std::move(release));
    else
        setAvailable(std::nullopt);
}

void UpdateStore::install()
{
    if (!m_available || m_busy)
        return;
    if (const QString why = whyCannotUpdateItself(); !why.isEmpty()) {
        setStatus(why);
        return;
    }
    setBusy(true);
    setStatus(QStringLiteral("Downloading %1…").arg(m_available->version));
    runInstall(*m_available);
}

QString UpdateStore::whyCannotUpdateItself() const
{
    // One check per reason, the first that holds is told.
    const std::pair<bool, QString (*)()> reasons[] = {
        {m_packageManaged, &UpdateError::installedByPackage},
        {m_installedRoot.isEmpty(), &UpdateError::notInstalledCopy},
    };
    for (const auto &[holds, text] : reasons) {
        if (holds)
            return text();
    }
    return {};
}

QCoro::Task<void> UpdateStore::runInstall(AppRelease release)
{
    QPointer<UpdateStore> self(this);
    QString failure;
    try {
        QCoro::Task<void> applied = apply(std::move(release));
        co_await applied;
    } catch (const UpdateError &error) {
        failure = error.text();
    } catch (const std::exception &error) {
        failure = QString::fromUtf8(error.what());
    }
    if (!self || failure.isEmpty())
        co_return;
    Log::system(QStringLiteral("update: failed: ") + failure);
    setStatus(failure);
    setBusy(false);
}

QCoro::Task<void> UpdateStore::download(const AppRelease &release, const QString &path)
{
    QPointer<UpdateStore> self(this);
    // The archive's signature is checked later, but what is fetched, and from where, is decided
    // now: never a local file, inline data or a plain-http host a network can impersonate.
    if (!SecureUrl::isSecure(release.url))
        throw UpdateError(UpdateError::insecureAddress(shownAddress(release.url)));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        throw UpdateError(QStringLiteral("Couldn’t save the update: %1").arg(file.errorString()));

    QNetworkRequest request(release.url);
    request.setTransferTimeout(requestTimeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::UserVerifiedRedirectPolicy);
    ReplyPtr reply(SharedNetwork::manager().get(request));
    QNetworkReply *raw = reply.get();
    bool writeFailed = false;
    QString refusal;
    // A redirect is held to the same rule as the address it came from.
    connect(raw, &QNetworkReply::redirected, this, [raw, &refusal](const QUrl &next) {
        if (SecureUrl::isSecure(next)) {
            emit raw->redirectAllowed();
        } else {
            refusal = UpdateError::insecureAddress(shownAddress(next));
            raw->abort();
        }
    });
    const auto tooLarge = [raw, &refusal] {
        refusal = UpdateError::tooLarge();
        raw->abort();
    };
    connect(raw, &QNetworkReply::metaDataChanged, this, [raw, tooLarge] {
        bool ok = false;
        const qint64 length = raw->header(QNetworkRequest::ContentLengthHeader).toLongLong(&ok);
        const int status = httpStatus(raw);
        if (ok && status >= 200 && status <= 299 && length > ReleaseSignature::largestArchiveBytes)
            tooLarge();
    });
    const auto save = [raw, &file, &writeFailed, &refusal, tooLarge] {
        if (!refusal.isEmpty())
            return;
        const QByteArray chunk = raw->readAll();
        if (file.pos() + chunk.size() > ReleaseSignature::largestArchiveBytes) {
            tooLarge();
            return;
        }
        if (!writeFailed && file.write(chunk) != chunk.size()) {
            writeFailed = true;
            raw->abort();
        }
    };
    // Only a successful reply's body is the archive; an error page is not written anywhere.
    connect(raw, &QNetworkReply::readyRead, this, [raw, save] {
        const int status = httpStatus(raw);
        if (status >= 200 && status <= 299)
            save();
    });
    int shownPercent = -1;
    const QString version = release.version;
    connect(raw, &QNetworkReply::downloadProgress, this,
            [this, version, &shownPercent](qint64 received, qint64 total) {
                if (total <= 0)
                    return;
                const int percent = int(received * 100 / total);
                if (percent == shownPercent)
                    return;
                shownPercent = percent;
                setStatus(QStringLiteral("Downloading %1… %2%").arg(version).arg(percent));
            });
    co_await qCoro(raw, &QNetworkReply::finished);
    raw->disconnect(this);
    if (!self)
        throw UpdateError(QStringLiteral("Vantrel is quitting."));
    if (!refusal.isEmpty())
        throw UpdateError(refusal);

    const int status = httpStatus(raw);
    if (status != 0 && (status < 200 || status > 299))
        throw UpdateError(UpdateError::cannotDownload(), status);
    if (writeFailed)
        throw UpdateError(QStringLiteral("Couldn’t save the update: %1").arg(file.errorString()));
    if (raw->error() != QNetworkReply::NoError)
        throw UpdateError(raw->errorString());
    save();
    if (writeFailed || !file.flush())
        throw UpdateError(QStringLiteral("Couldn’t save the update: %1").arg(file.errorString()));
}

QCoro::Task<void> UpdateStore::apply(AppRelease release)
{
    QPointer<UpdateStore> self(this);
    const QString root = m_installedRoot;
    // One install runs at a time (`busy`): any other download folder is a crashed install's.
    removeDownloadLeftovers();
    const QString folder = PrivateFolder::makeUnique(downloadsFolder(), downloadPrefix);
    if (folder.isEmpty())
        throw UpdateError(QStringLiteral("Couldn’t save the update: no private folder in %1.")
                              .arg(downloadsFolder()));
    const QString archive = folder + QStringLiteral("/Vantrel-update.tar.gz");
    // The download goes whether the install works or not; a partial or rejected one is useless.
    struct Remover
    {
        QString path;
        ~Remover() { QDir(path).removeRecursively(); }
    } remover {folder};

    // Every awaited operation is a named local: GCC 12 destroys temporaries of a co_await
    // expression twice when it throws.
    QCoro::Task<void> fetched = download(release, archive);
    co_await fetched;
    if (self)
        setStatus(QStringLiteral("Installing…"));
    Log::system(QStringLiteral("update: downloaded %1 from %2")
                    .arg(release.version, release.url.toDisplayString()));

    const QByteArray signature = release.signature;
    const QString offered = release.version;
    const QString installed = installedVersion(root);
    // The signature covers the archive, and the archive its VERSION: that, not what the service
    // says, is the release's version. A service (or a network) that offers an older signed
    // release under a newer number is refused here, before the swap.
    const InstalledCopy::VersionCheck checkVersion = [offered, installed](const QString &found) {
        if (found.isEmpty())
            throw UpdateError(UpdateError::unknownVersion());
        if (!newer(found, installed))
            throw UpdateError(UpdateError::notNewer(found, installed));
        if (found != offered)
            throw UpdateError(UpdateError::notAsOffered(offered, found));
    };
    QFuture<void> swapped = SharedPool::task<void>([archive, signature, root, checkVersion] {
        // Nothing in the archive is looked at before its signature holds.
        if (!ReleaseSignature::verify(archive, signature))
            throw UpdateError(UpdateError::cannotVerify());
        InstalledCopy::installFrom(
            archive, root,
            [](const char *step) {
                Log::system(QStringLiteral("update: %1").arg(QLatin1String(step)));
            },
            checkVersion);
    });
    co_await swapped;
    if (!self)
        co_return;
    setStatus(QStringLiteral("Restarting…"));
    Relaunch::start(root + QStringLiteral("/bin/vantrel"), m_relaunchDelay);
    // As the menu's Quit: the session in progress is finished and kept on the way out.
    QCoreApplication::quit();
}
