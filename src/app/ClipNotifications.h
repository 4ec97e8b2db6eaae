#pragma once

#include <QMap>
#include <QObject>
#include <QPointer>
#include <QUrl>
#include <QWidget>

class AppModel;
class ClipLibrary;
class ClipSaver;
class DesktopNotifications;
struct PermissionNotice;

// What Vantrel tells the desktop as it happens, for a user whose window is closed: a clip saved
// (with "Open" and "Show in folder"), a link or folder link put on the clipboard, a save that
// failed, and the notices about the clip key's and the screen's access.
class ClipNotifications : public QObject
{
    Q_OBJECT

public:
    ClipNotifications(ClipSaver &saver, AppModel &model, ClipLibrary &library,
                      QObject *parent = nullptr);

    // While this window is on screen, help the user asked for is shown over it instead.
    void setWindow(QWidget *window) { m_window = window; }

private:
    void clipSaved(const QString &path);
    void linksChanged();
    void noticePosted(const PermissionNotice &notice);

    AppModel &m_model;
    ClipLibrary &m_library;
    QPointer<QWidget> m_window;
    DesktopNotifications *m_desktop = nullptr;
    QMap<QUrl, QString> m_knownLinks;
};
