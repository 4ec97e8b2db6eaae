#include "input/PermissionOnce.h"

#include "core/Preferences.h"
#include "input/InputAccess.h"
#include "input/PermissionNotifier.h"
#include "input/PermissionTexts.h"
#include "input/ScreenAccess.h"

namespace PermissionOnce {

namespace {

const QString kScreenFlag = QStringLiteral("noticeShownScreenCast");
const QString kKeyboardsFlag = QStringLiteral("noticeShownKeyboards");
const QString kX11KeysFlag = QStringLiteral("noticeShownX11Keys");

bool flag(const QString &key)
{
    return Preferences::open()->value(key, false).toBool();
}

void setFlag(const QString &key)
{
    Preferences::open()->setValue(key, true);
}

} // namespace

void rememberExistingAccess()
{
    if (InputAccess::xinput2Available())
        setFlag(kX11KeysFlag);
    if (InputAccess::keyboardsReadable())
        setFlag(kKeyboardsFlag);
    if (ScreenAccess::isGranted())
        setFlag(kScreenFlag);
}

bool screenCastNoticeShown()
{
    return flag(kScreenFlag);
}

bool noticeScreenCastIfNeeded()
{
    if (ScreenAccess::isGranted())
        return false;
    if (!flag(kScreenFlag)) {
        setFlag(kScreenFlag);
        PermissionNotifier::instance().post(PermissionTexts::screenCast(true));
        return ScreenAccess::isGranted();
    }
    PermissionNotifier::instance().post(PermissionTexts::screenCast(false));
    return false;
}

void noticeX11KeysIfNeeded()
{
    if (flag(kX11KeysFlag) || InputAccess::xinput2Available())
        return;
    setFlag(kX11KeysFlag);
    PermissionNotifier::instance().post(
        PermissionTexts::x11Keys(true, InputAccess::keyboardsReadable()));
}

void noticeKeyboardsIfNeeded()
{
    if (flag(kKeyboardsFlag) || InputAccess::keyboardsReadable())
        return;
    setFlag(kKeyboardsFlag);
    PermissionNotifier::instance().post(
        PermissionTexts::keyboards(true, InputAccess::xinput2Available()));
}

void noticeClipKeyIfNeeded()
{
    noticeX11KeysIfNeeded();
    noticeKeyboardsIfNeeded();
}

} // namespace PermissionOnce
