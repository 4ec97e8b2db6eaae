#include "app/AppModel.h"

#include "core/LengthKeys.h"
#include "input/ClipHotkey.h"

AppModel::AppModel(QObject *parent)
    : QObject(parent)
    , m_status(QStringLiteral("Arm recording, then press your clip key."))
    , m_mode(ClipSettings::mode())
    , m_clipLength(ClipSettings::maxDuration())
    , m_captureMic(ClipSettings::captureMic())
    , m_armOnLaunch(ClipSettings::armOnLaunch())
    , m_hotkeyName(ClipHotkey::displayName())
    , m_lengthKeyNames(storedLengthKeyNames())
{
}

QMap<int, QString> AppModel::storedLengthKeyNames()
{
    QMap<int, QString> names;
    for (int seconds : LengthKeys::lengths)
        if (const auto binding = LengthKeys::binding(seconds))
            names.insert(seconds, binding->displayName);
    return names;
}

void AppModel::setMode(RecordMode value)
{
    assign(m_mode, value, &AppModel::modeChanged);
    ClipSettings::setMode(value);
}

void AppModel::setClipLength(double seconds)
{
    // Stored first: what the replay keeps follows it, and observers read that when told.
    ClipSettings::setMaxDuration(seconds);
    assign(m_clipLength, seconds, &AppModel::clipLengthChanged);
}

void AppModel::setCaptureMic(bool value)
{
    assign(m_captureMic, value, &AppModel::captureMicChanged);
    ClipSettings::setCaptureMic(value);
}

void AppModel::setArmOnLaunch(bool value)
{
    assign(m_armOnLaunch, value, &AppModel::armOnLaunchChanged);
    ClipSettings::setArmOnLaunch(value);
}
