#include "app/ClipLibrary.h"

#include "app/AppModel.h"
#include "app/ClipFileMime.h"
#include "app/DesktopOpener.h"
#include "input/ClipHotkey.h"

#include <QClipboard>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMimeData>

#include <algorithm>

namespace {

QStringList comparisonKeys(const QList<ClipFile> &clips)
{
    QStringList keys;
    keys.reserve(clips.size());
    for (const ClipFile &clip : clips)
        keys.append(clip.id.toLocalFile() + QLatin1Char('|') + clip.size);
    return keys;
}

} // namespace

ClipLibrary::ClipLibrary(AppModel &model, QString folder, QObject *parent)
    : QObject(parent)
    , m_model(model)
    , m_folder(std::move(folder))
{
}

ClipLibrary::~ClipLibrary()
{
    stopWatchingClips();
}

QList<ClipFile> ClipLibrary::listClips(const QString &folder)
{
    // QDir::Unsorted keeps the listing order, which decides between clips of the same date.
    const QFileInfoList entries =
        QDir(folder).entryInfoList(QDir::Files | QDir::NoDotAndDotDot, QDir::Unsorted);
    QList<ClipFile> clips;
    for (const QFileInfo &entry : entries) {
        const QString name = entry.fileName();
        if (name.startsWith(QLatin1Char('.')) || entry.suffix().toLower() != QLatin1String("mp4") ||
            name.startsWith(QLatin1String("Session ")))
            continue;
        QFileInfo fresh(entry.filePath());
        if (!fresh.exists() || fresh.size() <= 1000)
            continue;
        QDateTime date = fresh.lastModified();
        if (!date.isValid())
            date = QDateTime::currentDateTime();
        clips.append(
            {QUrl::fromLocalFile(fresh.filePath()), name, date, formatFileSize(fresh.size())});
    }
    std::stable_sort(clips.begin(), clips.end(),
                     [](const ClipFile &a, const ClipFile &b) { return a.date > b.date; });
    return clips;
}

void ClipLibrary::refreshClips(bool force)
{
    const QList<ClipFile> clips = listClips(m_folder);
    if (!force && comparisonKeys(clips) == comparisonKeys(m_model.clips()))
        return;
    m_model.setClips(clips);
}

void ClipLibrary::startWatchingClips()
{
    stopWatchingClips();
    m_folderWatch = new QFileSystemWatcher(this);
    // A folder that cannot be watched leaves the poll alone to keep the list current.
    m_folderWatch->addPath(m_folder);
    connect(m_folderWatch, &QFileSystemWatcher::directoryChanged, this,
            [this] { refreshClips(false); });
    m_clipPoll = new QTimer(this);
    m_clipPoll->setInterval(1000);
    m_clipPoll->setTimerType(Qt::CoarseTimer);
    connect(m_clipPoll, &QTimer::timeout, this, [this] { refreshClips(false); });
    m_clipPoll->start();
}

void ClipLibrary::stopWatchingClips()
{
    delete m_clipPoll;
    delete m_folderWatch;
}

bool ClipLibrary::fileIsGone(const QUrl &url)
{
    if (QFileInfo::exists(url.toLocalFile()))
        return false;
    m_model.setStatus(QStringLiteral("That clip file is gone."));
    refreshClips(false);
    return true;
}

void ClipLibrary::openClip(const QUrl &url)
{
    if (fileIsGone(url))
        return;
    if (QFileInfo(url.toLocalFile()).size() <= 1000) {
        m_model.setStatus(QStringLiteral("That clip didn’t finish saving. Try %1 again.")
                              .arg(ClipHotkey::displayName()));
        return;
    }
    const QString path = url.toLocalFile();
    QPointer<ClipLibrary> self(this);
    DesktopOpener::open(url, this, [self, path] {
        // No player: the file manager can at least show the file, selected.
        revealFile(path, self, [self, path](bool shown) {
            if (!self)
                return;
            self->m_model.setStatus(
                shown ? QStringLiteral("Couldn’t open the clip in a player, so the file manager "
                                       "is showing the file.")
                      : QStringLiteral("No video player opened the clip. It is %1").arg(path));
        });
    });
}

void ClipLibrary::copyClip(const QUrl &url)
{
    if (fileIsGone(url))
        return;
    QGuiApplication::clipboard()->setMimeData(fileForClipboard(url));
    m_model.setStatus(QStringLiteral("Copied %1.").arg(QFileInfo(url.toLocalFile()).fileName()));
}

QMimeData *ClipLibrary::fileForClipboard(const QUrl &url)
{
    return new ClipFileMime(url);
}

void ClipLibrary::revealFolder()
{
    const QString folder = m_folder;
    QPointer<ClipLibrary> self(this);
    DesktopOpener::open(QUrl::fromLocalFile(folder), this, [self, folder] {
        if (self)
            self->m_model.setStatus(
                QStringLiteral("No file manager opened the folder. Your clips are in %1")
                    .arg(folder));
    });
}

void ClipLibrary::revealFile(const QString &path, QObject *context,
                             std::function<void(bool shown)> done)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList {QUrl::fromLocalFile(path).toString()} << QString();
    // Asked without waiting: a slow file manager must not freeze the window or the tray.
    auto *watcher =
        new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call, 3000));
    QPointer<QObject> watching(context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [path, watching, done](QDBusPendingCallWatcher *finished) {
                         finished->deleteLater();
                         if (!finished->isError()) {
                             if (watching && done)
                                 done(true);
                             return;
                         }
                         // Without the file manager's service, its folder at least.
                         const QUrl folder = QUrl::fromLocalFile(QFileInfo(path).path());
                         DesktopOpener::open(folder, watching, [done] {
                             if (done)
                                 done(false);
                         });
                         // DesktopOpener says nothing on success; neither does the folder.
                     });
}

bool ClipLibrary::deleteClip(const QUrl &url)
{
    if (fileIsGone(url))
        return false;
    QFile file(url.toLocalFile());
    const QString name = QFileInfo(file).fileName();
    if (!file.moveToTrash()) {
        m_model.setStatus(file.errorString().isEmpty()
                              ? QStringLiteral("Couldn’t move %1 to the Trash.").arg(name)
                              : file.errorString());
        return false;
    }
    m_model.setStatus(QStringLiteral("Deleted %1.").arg(name));
    refreshClips(true);
    return true;
}
