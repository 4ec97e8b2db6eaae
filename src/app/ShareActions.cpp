#include "app/ShareActions.h"

#include "app/AppModel.h"
#include "app/ClipLibrary.h"
#include "app/ClipLinks.h"
#include "cloud/AccountStore.h"
#include "cloud/ClipCloud.h"
#include "cloud/CloudConfig.h"
#include "cloud/HostedClips.h"
#include "engine/ClipEngine.h"

#include <QClipboard>
#include <QFileInfo>
#include <QGuiApplication>
#include <QPointer>

#include <qcoro/qcorotask.h>

namespace {

bool fileExists(const QUrl &clip)
{
    return QFileInfo(clip.toLocalFile()).isFile();
}

void copyToClipboard(const QString &text)
{
    // setText replaces whatever the clipboard held.
    QGuiApplication::clipboard()->setText(text, QClipboard::Clipboard);
}

} // namespace

ShareActions::ShareActions(AppModel &model, ClipLibrary &library, QObject *parent)
    : QObject(parent)
    , m_model(model)
    , m_library(library)
{
}

void ShareActions::restoreLinks(const QString &folder)
{
    QMap<QUrl, QString> shares = ClipLinks::inFolder(folder);
    shares.insert(m_model.shares()); // what this run shared counts over what was kept
    m_model.setShares(shares);
}

void ShareActions::shareClip(const QUrl &clip)
{
    if (!fileExists(clip)) {
        m_model.setStatus(QStringLiteral("That clip file is gone."));
        m_library.refreshClips(false);
        return;
    }
    const AccountStore &account = AccountStore::shared();
    if (!account.isSignedIn()) {
        m_model.setStatus(QStringLiteral("Saved. Sign in to share a link."));
        return;
    }
    setUploading(clip, true);
    m_model.setStatus(
        QStringLiteral("Uploading %1…").arg(QFileInfo(clip.toLocalFile()).fileName()));
    runShare(clip, *account.token());
}

QCoro::Task<void> ShareActions::runShare(QUrl clip, QString token)
{
    QPointer<ShareActions> self(this);
    try {
        const SharedClip shared = co_await ClipCloud::upload(clip, token);
        if (!self)
            co_return;
        HostedClips::remember(clip, shared.id);
        const QString link = shared.url.toString(QUrl::FullyEncoded);
        recordShare(clip, link);
        copyToClipboard(link);
        m_model.setStatus(QStringLiteral("Link copied — paste it anywhere."));
    } catch (const std::exception &error) {
        if (!self)
            co_return;
        m_model.setStatus(QString::fromUtf8(error.what()));
    }
    setUploading(clip, false);
}

void ShareActions::shareAllClips()
{
    QList<QUrl> clips;
    for (const ClipFile &clip : m_model.clips()) {
        if (fileExists(clip.id))
            clips << clip.id;
    }
    if (clips.isEmpty()) {
        m_model.setStatus(QStringLiteral("No clips to send."));
        return;
    }
    const AccountStore &account = AccountStore::shared();
    if (!account.isSignedIn()) {
        m_model.setStatus(QStringLiteral("Sign in to share a folder link."));
        return;
    }
    m_model.setSharingAll(true);
    m_model.setStatus(QStringLiteral("Uploading %1 clips…").arg(clips.size()));
    runShareAll(clips, *account.token());
}

QCoro::Task<void> ShareActions::runShareAll(QList<QUrl> clips, QString token)
{
    QPointer<ShareActions> self(this);
    try {
        // One at a time, in list order: the pack lists them in the order they went up.
        QStringList ids;
        for (const QUrl &clip : clips) {
            const SharedClip shared = co_await ClipCloud::upload(clip, token);
            if (!self)
                co_return;
            HostedClips::remember(clip, shared.id);
            recordShare(clip, shared.url.toString(QUrl::FullyEncoded));
            ids << shared.id;
        }
        const QUrl pack =
            co_await ClipCloud::createPack(QStringLiteral("Vantrel clips"), ids, token);
        if (!self)
            co_return;
        const QString link = pack.toString(QUrl::FullyEncoded);
        m_model.setPackLink(link);
        copyToClipboard(link);
        ClipEngine::log(QStringLiteral("shared %1 clips as %2").arg(clips.size()).arg(link));
        m_model.setStatus(QStringLiteral("Folder link copied — %1 clips on %2.")
                              .arg(clips.size())
                              .arg(CloudConfig::host()));
    } catch (const std::exception &error) {
        if (!self)
            co_return;
        m_model.setStatus(QString::fromUtf8(error.what()));
    }
    m_model.setSharingAll(false);
}

void ShareActions::takeDown(const QUrl &clip)
{
    const QString name = QFileInfo(clip.toLocalFile()).fileName();
    const QString id = HostedClips::all().value(name);
    if (id.isEmpty())
        return; // never shared: the Trash was all there was to it
    const AccountStore &account = AccountStore::shared();
    if (!account.isSignedIn()) {
        m_model.setStatus(
            QStringLiteral(
                "Deleted %1, but its link could not be taken down: you are not signed in.")
                .arg(name));
        return;
    }
    m_model.setStatus(QStringLiteral("Deleted %1. Taking its link down…").arg(name));
    runTakeDown(clip, id, *account.token());
}

QCoro::Task<void> ShareActions::runTakeDown(QUrl clip, QString id, QString token)
{
    QPointer<ShareActions> self(this);
    const QString name = QFileInfo(clip.toLocalFile()).fileName();
    QString failure;
    try {
        co_await ClipCloud::deleteClip(id, token);
    } catch (const std::exception &error) {
        failure = QString::fromUtf8(error.what());
    }
    if (!self)
        co_return;
    if (!failure.isEmpty()) {
        ClipEngine::log(QStringLiteral("could not take %1 (%2) down: %3").arg(name, id, failure));
        m_model.setStatus(QStringLiteral("Deleted %1, but its link could not be taken down: %2")
                              .arg(name, failure));
        co_return;
    }
    HostedClips::forget(clip);
    ClipLinks::forget(clip);
    QMap<QUrl, QString> shares = m_model.shares();
    if (shares.remove(clip) > 0)
        m_model.setShares(shares);
    ClipEngine::log(QStringLiteral("took %1 (%2) down").arg(name, id));
    m_model.setStatus(QStringLiteral("Deleted %1. Its link no longer works.").arg(name));
}

void ShareActions::recordShare(const QUrl &clip, const QString &link)
{
    QMap<QUrl, QString> shares = m_model.shares();
    shares.insert(clip, link);
    m_model.setShares(shares);
    ClipLinks::remember(clip, link);
    // The links are public pages; the log keeps them for a user who missed the clipboard.
    ClipEngine::log(
        QStringLiteral("shared %1 as %2").arg(QFileInfo(clip.toLocalFile()).fileName(), link));
}

void ShareActions::setUploading(const QUrl &clip, bool uploading)
{
    QSet<QUrl> inFlight = m_model.uploading();
    if (uploading)
        inFlight.insert(clip);
    else
        inFlight.remove(clip);
    m_model.setUploading(inFlight);
}
