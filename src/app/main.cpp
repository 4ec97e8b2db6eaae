#include "capture/ClipEngine.h"
#include "capture/Paths.h"
#include "core/Preferences.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("quillfen"));
    QCoreApplication::setApplicationName(QStringLiteral("Vantrel"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VANTREL_VERSION));

    QTextStream out(stdout);
    out << "Vantrel " << VANTREL_VERSION << '\n'
        << "recordings: " << Paths::recordings() << '\n'
        << "settings:   " << Preferences::open()->fileName() << '\n'
        << "log:        " << Paths::logFile() << '\n';
    ClipEngine::log(QStringLiteral("launched version %1").arg(QStringLiteral(VANTREL_VERSION)));
    return 0;
}
