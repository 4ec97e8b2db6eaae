#pragma once

#include <QObject>
#include <QStringList>

class QLocalServer;

// One running Vantrel per user. The first instance listens on a per-user local socket; a later
// launch hands its arguments (the vantrel:// links) to it and exits.
class SingleInstance : public QObject
{
    Q_OBJECT
public:
    explicit SingleInstance(QString name = defaultName(), QObject *parent = nullptr);
    ~SingleInstance() override;

    // The socket's path, in a folder only this user can enter ($XDG_RUNTIME_DIR/vantrel, or
    // ~/.cache/Vantrel/run without a private runtime folder); empty when neither can be had, and
    // the program then runs without the hand-off.
    static QString defaultName();

    // True when another instance took `arguments` (this process should exit); false when this
    // process is now the one instance. A socket left behind by a crashed instance is reclaimed.
    bool handOffToRunningInstance(const QStringList &arguments);

signals:
    // Arguments handed over by a later launch (empty for a plain relaunch), on the main thread.
    void argumentsReceived(const QStringList &arguments);

private:
    const QString m_name;
    QLocalServer *m_server = nullptr;
};
