#pragma once

#include <QObject>
#include <QString>

// What the user should be told about one of the program's access rights. Linux has no consent
// prompts for these, so where the program would ask the system, it tells the user instead what
// they can do; the application shows the text (this library never opens a window).
struct PermissionNotice
{
    enum class Kind {
        ScreenRecording,
        // Read access to the keyboards under /dev/input: the clip key in every application.
        InputMonitoring,
        // An X server with XInput2: the clip key in other X11 applications.
        Accessibility,
    };

    Kind kind = Kind::ScreenRecording;
    // True for the one-time prompt, false for the help shown when the user asks again (what the
    // settings pane is on other systems).
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
