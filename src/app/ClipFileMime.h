#pragma once

#include <QMimeData>
#include <QUrl>

// A clip file on the clipboard. File managers paste it from `text/uri-list` (KDE, browsers, chat
// programs) or `x-special/gnome-copied-files` (GNOME's Files and those built like it: Nemo, Caja,
// Thunar); programs that take an attachment only as its contents ask for the file's own type
// (`video/mp4`) and get the bytes; text fields get the path.
//
// The bytes are read only when a program asks for them, on the thread that answers the
// clipboard (the window's): a clip of a few hundred megabytes is not held in memory because it
// was copied, and one that was deleted since gives nothing rather than a stale copy.
class ClipFileMime : public QMimeData
{
public:
    explicit ClipFileMime(const QUrl &url);

    // The type the file's contents are offered as (from its name and contents; `video/mp4`
    // for clips).
    QString contentType() const { return m_contentType; }

    bool hasFormat(const QString &mimeType) const override;
    QStringList formats() const override;

protected:
    QVariant retrieveData(const QString &mimeType, QMetaType type) const override;

private:
    const QString m_path;
    const QString m_contentType;
};
