#pragma once

#include <QObject>
#include <QString>

// What the user should be told about one of the program's access rights: what is missing and what
// they can do about it. The application shows the text (this library never opens a window).
struct PermissionNotice
{
    enum class Kind {
        // The desktop portal that shares the screen under Wayland.
        screenCast,
        // Read access to the keyboards under /dev/input: the clip key in every application.
        keyboards,
        // An X server with XInput2: the clip key in other X11 applications.
        x11Keys,
    };

    Kind kind = Kind::screenCast;
    // True for the one-time notice, false for the help shown when the user asks again.
    bool isFirstPrompt = true;
    QString title;
    QString text;
};

// The process-wide sender of permission notices. Notices are emitted on the thread that asked
// (the main thread in this program), so a directly connected slot may show a dialog at once.
class PermissionNotifier : public QObject
{
    Q_OBJECT

public:
    static PermissionNotifier &instance();

    void post(const PermissionNotice &notice);

signals:
    void noticePosted(const PermissionNotice &notice);

private:
    PermissionNotifier() = default;
};
