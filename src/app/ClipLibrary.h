#pragma once

#include "app/ClipFile.h"

#include <QFileSystemWatcher>
#include <QObject>
#include <QPointer>
#include <QTimer>

#include <functional>

class AppModel;
class QMimeData;

// The list of saved clips in the recordings folder, kept in `AppModel::clips`, and the actions
// on one clip (open, copy, reveal, delete). Everything runs on the main thread.
class ClipLibrary : public QObject
{
    Q_OBJECT
public:
    ClipLibrary(AppModel &model, QString folder, QObject *parent = nullptr);
    ~ClipLibrary() override;

    // Rebuilds the list from the folder; unless forced, a list that reads the same (same files
    // in the same order with the same size texts) leaves the model untouched.
    void refreshClips(bool force);

    // A folder watch plus a one-second poll, both calling refreshClips(false).
    void startWatchingClips();
    void stopWatchingClips();

    // Opens a clip in the desktop's player; without one, shows it in the file manager, and
    // without that either, says where the file is.
    void openClip(const QUrl &url);
    // Puts the clip on the clipboard as a file, for file managers and chat programs to paste.
    void copyClip(const QUrl &url);
    // Opens the recordings folder in the file manager; without one, says where the folder is.
    void revealFolder();
    // Shows one file selected in the file manager, or its folder where that is not possible;
    // `done` (while `context` lives) says whether the file is shown selected: true when the file
    // manager took it, false when nothing opened even the folder (nothing is said when only the
    // folder opened).
    static void revealFile(const QString &path, QObject *context = nullptr,
                           std::function<void(bool shown)> done = {});
    // A clip file as the clipboard offers it: as a file to file managers and chat programs, its
    // bytes to programs that ask for a video, its path to text fields (ClipFileMime).
    static QMimeData *fileForClipboard(const QUrl &url);
    // Moves a clip to the Trash and says so; true when it went.
    bool deleteClip(const QUrl &url);

    // The clips of `folder`, newest first (ties keep the listing order).
    static QList<ClipFile> listClips(const QString &folder);

private:
    bool fileIsGone(const QUrl &url);

    AppModel &m_model;
    const QString m_folder;
    QPointer<QFileSystemWatcher> m_folderWatch;
    QPointer<QTimer> m_clipPoll;
};
