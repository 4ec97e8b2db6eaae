#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>

namespace QCoro {
template<typename T> class Task;
}
class AppModel;
class ClipLibrary;

// The two ways of sharing: one clip as a link (also after every save), or every listed clip as one
// folder link; and taking a deleted clip's link down. Progress and outcomes go to the status line,
// the links into the model, onto the clipboard as text and into the settings store (ClipLinks),
// so a clip shared before a restart keeps its link. Main thread only; the service calls resume
// there.
class ShareActions : public QObject
{
    Q_OBJECT
public:
    // `library` is re-read for a clip that vanished behind the program's back.
    ShareActions(AppModel &model, ClipLibrary &library, QObject *parent = nullptr);

    // Puts the links of clips shared on earlier runs into the model.
    void restoreLinks(const QString &folder);

    void shareClip(const QUrl &clip);
    void shareAllClips();
    // After `clip` was deleted here: when it had been shared, asks the service to remove it, so
    // its link stops working, and says how that went. The record of the upload is kept until the
    // service confirms (a later attempt can then still find it).
    void takeDown(const QUrl &clip);

private:
    QCoro::Task<void> runShare(QUrl clip, QString token);
    QCoro::Task<void> runShareAll(QList<QUrl> clips, QString token);
    QCoro::Task<void> runTakeDown(QUrl clip, QString id, QString token);
    void recordShare(const QUrl &clip, const QString &link);
    void setUploading(const QUrl &clip, bool uploading);

    AppModel &m_model;
    ClipLibrary &m_library;
};
