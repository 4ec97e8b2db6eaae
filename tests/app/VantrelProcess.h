#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include <chrono>

// The real program, started as a user would start it, for end-to-end tests: its own HOME, the
// fixtures' X and audio servers, no windows (QT_QPA_PLATFORM=offscreen: the capture and the key
// grab talk to the X server themselves). Progress is read from its log file.
class VantrelProcess
{
public:
    explicit VantrelProcess(QString home);
    ~VantrelProcess();

    // Extra environment for this program and its later launches (set before start).
    void setEnv(const QString &name, const QString &value);
    void start(const QStringList &arguments = {});
    // Runs a second launch to completion (it hands its links to the first) and returns its
    // exit code.
    int launchAgain(const QStringList &arguments);
    // SIGTERM, as a desktop logout would; true when the program exited within the time.
    bool terminate(std::chrono::milliseconds within);
    void kill();
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    // Everything the program printed so far.
    QString output();
    // Waits until the program has printed `text` (it prints its locations once it runs).
    bool waitForOutput(const QString &text, std::chrono::milliseconds timeout);

    QString logPath() const;
    QString recordings() const;
    // Waits until a log line written since the program started contains `text`.
    bool waitForLog(const QString &text, std::chrono::milliseconds timeout);
    int countLog(const QString &text) const;
    QString logSinceStart() const;

    static QString binary();
    QProcessEnvironment environment() const;

private:
    QString m_home;
    QProcessEnvironment m_extra;
    QProcess m_process;
    qint64 m_logOffset = 0;
    QString m_output;
};

// Runs a command to completion; its standard output, or empty on failure.
QString runCommand(const QString &program, const QStringList &arguments, int timeoutMs = 30000);
