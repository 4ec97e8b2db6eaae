#include "input/PermissionOnce.h"

#include "core/Preferences.h"
#include "input/InputAccess.h"
#include "input/PermissionNotifier.h"
#include "input/PermissionTexts.h"
#include "input/ScreenAccess.h"

namespace PermissionOnce {

namespace {

const QString kScreenFlag = QStringLiteral("promptedScreenRecording");
const QString kInputFlag = QStringLiteral("promptedInputMonitoring");
const QString kAccessibilityFlag = QStringLiteral("promptedAccessibility");

bool flag(const QString &key)
{
    return Preferences::open()->value(key, false).toBool();
}

void setFlag(const QString &key)
{
    Preferences::open()->setValue(key, true);
}

} // namespace

void rememberExistingPrompts()
{
    if (InputAccess::xinput2Available())
        setFlag(kAccessibilityFlag);
    if (InputAccess::keyboardsReadable())
        setFlag(kInputFlag);
    if (ScreenAccess::isGranted())
        setFlag(kScreenFlag);
}

bool didPromptScreenRecording()
{
    return flag(kScreenFlag);
}

bool promptScreenRecordingIfNeeded()
{
    if (ScreenAccess::isGranted())
        return false;
    if (!flag(kScreenFlag)) {
        setFlag(kScreenFlag);
        PermissionNotifier::instance().post(PermissionTexts::screenRecording(true));
        return ScreenAccess::isGranted();
    }
    PermissionNotifier::instance().post(PermissionTexts::screenRecording(false));
    return false;
}

void promptAccessibilityIfNeeded()
{
    if (flag(kAccessibilityFlag) || InputAccess::xinput2Available())
        return;
    setFlag(kAccessibilityFlag);
    PermissionNotifier::instance().post(
        PermissionTexts::accessibility(true, InputAccess::keyboardsReadable()));
}

void promptInputMonitoringIfNeeded()
{
    if (flag(kInputFlag) || InputAccess::keyboardsReadable())
        return;
    setFlag(kInputFlag);
    PermissionNotifier::instance().post(
        PermissionTexts::inputMonitoring(true, InputAccess::xinput2Available()));
}

void promptHotkeysIfNeeded()
{
    promptAccessibilityIfNeeded();
    promptInputMonitoringIfNeeded();
}

} // namespace PermissionOnce
