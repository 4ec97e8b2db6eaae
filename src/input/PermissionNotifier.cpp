#include "input/PermissionNotifier.h"

#include "core/Log.h"

PermissionNotifier &PermissionNotifier::instance()
{
    static PermissionNotifier notifier;
    return notifier;
}

void PermissionNotifier::post(const PermissionNotice &notice)
{
    // The log keeps a trace even when no window is listening (a headless start).
    Log::system(QStringLiteral("permission notice: %1").arg(notice.title));
    emit noticePosted(notice);
}
