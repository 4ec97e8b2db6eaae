#pragma once

#include <QMap>
#include <QObject>
#include <QUrl>

class AppDelegate;
class DesktopNotifications;
struct PermissionNotice;

// What Vantrel tells the desktop as it happens, for a user whose window is closed: a clip saved
// (with "Open" and "Show in folder"), a link or folder link put on the clipboard, a save that
// failed, and the notices about the clip key's and the screen's access.
class ClipNotifications : public QObject
{
    Q_OBJECT

public:
    explicit ClipNotifications(AppDelegate &delegate);

private:
    void clipSaved(const QString &path);
    void linksChanged();
    void noticePosted(const PermissionNotice &notice);

    AppDelegate &m_delegate;
    DesktopNotifications *m_desktop = nullptr;
    QMap<QUrl, QString> m_knownLinks;
};
