#include "app/AppModel.h"

#include "input/ClipHotkey.h"

AppModel::AppModel(QObject *parent)
    : QObject(parent)
    , m_status(QStringLiteral("Arm recording, then press your clip key."))
    , m_mode(ClipSettings::mode())
    , m_clipLength(ClipSettings::maxDuration())
    , m_captureMic(ClipSettings::captureMic())
    , m_armOnLaunch(ClipSettings::armOnLaunch())
    , m_hotkeyName(ClipHotkey::displayName())
{
}

void AppModel::setMode(RecordMode value)
{
    assign(m_mode, value, &AppModel::modeChanged);
    ClipSettings::setMode(value);
}

void AppModel::setClipLength(double seconds)
{
    assign(m_clipLength, seconds, &AppModel::clipLengthChanged);
    ClipSettings::setMaxDuration(seconds);
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
