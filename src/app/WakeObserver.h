#pragma once

#include <QObject>

// Tells when the computer has woken from sleep: logind's PrepareForSleep(false) on the system
// bus. Without a system bus (containers, some test machines) it simply never fires.
class WakeObserver : public QObject
{
    Q_OBJECT
public:
    explicit WakeObserver(QObject *parent = nullptr);
    bool isListening() const { return m_listening; }

signals:
    void didWake();

private slots:
    void onPrepareForSleep(bool sleeping);

private:
    bool m_listening = false;
};
