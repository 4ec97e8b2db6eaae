#pragma once

#include "app/ClipFile.h"

#include <QFileSystemWatcher>
#include <QObject>
#include <QPointer>
#include <QTimer>

class AppModel;

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

    void openClip(const QUrl &url);
    void copyClip(const QUrl &url);
    // Opens the recordings folder in the file manager.
    void revealFolder();
    // Shows one file selected in the file manager, or its folder where that is not possible.
    static void revealFile(const QString &path);
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
