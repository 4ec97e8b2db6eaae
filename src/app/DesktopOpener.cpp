#include "app/DesktopOpener.h"

#include <QPointer>
#include <QProcess>
#include <QTimer>

namespace DesktopOpener {

void open(const QUrl &url, QObject *context, std::function<void()> onFailure)
{
    const QString program = qEnvironmentVariableIsEmpty("VANTREL_OPEN_COMMAND")
        ? QStringLiteral("xdg-open")
        : qEnvironmentVariable("VANTREL_OPEN_COMMAND");
    // No parent: a player that xdg-open runs in its own place must outlive a Vantrel that quits
    // (a QProcess that is destroyed kills its program). The object goes once the program ends.
    auto *process = new QProcess;
    process->setProgram(program);
    process->setArguments({url.toString(QUrl::FullyEncoded)});
    process->setStandardOutputFile(QProcess::nullDevice());
    process->setStandardErrorFile(QProcess::nullDevice());
    QPointer<QObject> watcher(context);
    auto answered = std::make_shared<bool>(false);
    const auto answer = [watcher, answered, onFailure](bool opened) {
        if (*answered)
            return;
        *answered = true;
        if (!opened && watcher && onFailure)
            onFailure();
    };
    QObject::connect(process, &QProcess::finished, process,
                     [process, answer](int code, QProcess::ExitStatus status) {
                         answer(status == QProcess::NormalExit && code == 0);
                         process->deleteLater();
                     });
    QObject::connect(process, &QProcess::errorOccurred, process,
                     [process, answer](QProcess::ProcessError error) {
                         if (error != QProcess::FailedToStart)
                             return;
                         answer(false);
                         process->deleteLater();
                     });
    // xdg-open on some desktops waits for the program it started; one still running after this
    // long has found a handler.
    QTimer::singleShot(8000, process, [answer] { answer(true); });
    process->start();
}

} // namespace DesktopOpener
