#include "cloud/CloudError.h"

CloudError::CloudError(Kind kind, const QString &text)
    : m_kind(kind)
    , m_text(text)
    , m_utf8(this->text().toUtf8())
{
}

QString CloudError::text() const
{
    if (m_kind == Kind::unauthorized)
        return QStringLiteral("Please sign in again.");
    return m_text;
}
