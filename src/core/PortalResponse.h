#pragma once

#include <QObject>
#include <QVariantMap>

// Receives one Response signal of a desktop portal request (see DesktopPortal::request).
class PortalResponse : public QObject
{
    Q_OBJECT

public:
    bool answered() const { return m_answered; }
    uint code() const { return m_code; }
    QVariantMap results() const { return m_results; }

public slots:
    void respond(uint code, const QVariantMap &results);

signals:
    void answeredNow();

private:
    bool m_answered = false;
    uint m_code = 2;
    QVariantMap m_results;
};
