#include "core/PortalResponse.h"

void PortalResponse::respond(uint code, const QVariantMap &results)
{
    if (m_answered)
        return;
    m_answered = true;
    m_code = code;
    m_results = results;
    emit answeredNow();
}
