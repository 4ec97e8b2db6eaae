#include "media/RecorderError.h"

RecorderError::RecorderError(Kind kind, const QString &detail)
    : m_kind(kind)
    , m_detail(detail)
    , m_utf8(text().toUtf8())
{
}

QString RecorderError::text() const
{
    switch (m_kind) {
    case Kind::writerFailed:
        return m_detail;
    case Kind::noDisplay:
        return QStringLiteral("Could not find a display to capture.");
    case Kind::notReady:
        if (!m_detail.isEmpty())
            return m_detail;
        return QStringLiteral(
            "Vantrel may not record the screen yet. Allow it to share your screen "
            "when your desktop asks, then Arm again.");
    case Kind::notArmed:
        return QStringLiteral("Arm Instant Replay first, then press the clip key to save a clip.");
    case Kind::stillStarting:
        return QStringLiteral("Still getting started. Wait a second, then press the clip key.");
    }
    return m_detail;
}
