// The program's entry point. Makes the application, launches the shell and runs the event loop.
// A second launch passes its vantrel:// links to the first and exits.

#include "app/AppShell.h"
#include "core/Paths.h"
#include "core/Preferences.h"
#include "core/ProgramVersion.h"
#include "update/ArchiveInstall.h"

#include <QApplication>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTextStream>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
#include <libavutil/log.h>
}

namespace {

const char *const helpText = R"(Usage: vantrel [options] [vantrel://LINK ...]

Keeps an instant replay of the screen in memory. The clip key (F12 unless you chose another)
saves the last 15 to 120 seconds into ~/Videos/Vantrel as an MP4.

Links (also from a terminal or a script; they reach the running Vantrel):
  vantrel://start    arm recording
  vantrel://stop     stop recording and keep the session file
  vantrel://clip     save a clip now, as the clip key does
  vantrel://open     show the window
  vantrel://auth?code=CODE   check now whether the sign-in showing CODE was approved (no link
                     signs Vantrel in: the token only ever comes from the service)

Options:
  --help       show this text
  --version    show the version
  --paths      show where clips, settings and the log live, then exit
  --install ARCHIVE [--signature FILE]
               install a release archive (Vantrel-VERSION-linux-x86_64.tar.gz) for this user
               in ~/.local/opt/Vantrel, checking its signature (ARCHIVE.sig) first

Environment:
  VANTREL_CAPTURE=x11|wayland     choose the screen capture backend (normally chosen by the session)
  VANTREL_ENCODER=libx264         force one H.264 encoder (h264_vaapi, h264_nvenc, h264_qsv, libx264)
  VANTREL_SERVICE_URL=URL         use another web service (a self-hosted one)
  VANTREL_SERVICE_CA=FILE         also trust the certificates in this PEM file for it
  VANTREL_PREFIX=DIR              where --install puts Vantrel (instead of ~/.local/opt/Vantrel)
  QT_QPA_PLATFORM=offscreen       run without windows or tray (capture still needs a display)
)";

int signalPipe[2] = {-1, -1};

void onTerminate(int)
{
    const char byte = 1;
    [[maybe_unused]] ssize_t n = ::write(signalPipe[1], &byte, 1);
}

void printPaths(QTextStream &out)
{
    out << "recordings: " << Paths::recordings() << '\n'
        << "settings:   " << Preferences::open()->fileName() << '\n'
        << "log:        " << Paths::logFile() << '\n';
}

void nameTheApplication()
{
    QCoreApplication::setOrganizationName(QStringLiteral("quillfen"));
    QCoreApplication::setApplicationName(QStringLiteral("Vantrel"));
    QCoreApplication::setApplicationVersion(ProgramVersion::current());
}

} // namespace

namespace VantrelMain {

int run(int argc, char *argv[])
{
    // The options are answered before any window-system connection, so they work over ssh and
    // in scripts without a display.
    QStringList links;
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
        QTextStream out(stdout);
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            out << helpText;
            return 0;
        }
        if (argument == QLatin1String("--version")) {
            out << "Vantrel " << ProgramVersion::current() << '\n';
            return 0;
        }
        if (argument == QLatin1String("--install")) {
            QString archive, signature;
            if (i + 1 < argc)
                archive = QString::fromLocal8Bit(argv[i + 1]);
            if (i + 3 < argc && QLatin1String(argv[i + 2]) == QLatin1String("--signature"))
                signature = QString::fromLocal8Bit(argv[i + 3]);
            if (archive.isEmpty()) {
                QTextStream(stderr) << "vantrel: --install needs the archive to install\n";
                return 2;
            }
            QCoreApplication core(argc, argv);
            nameTheApplication();
            QTextStream err(stderr);
            return ArchiveInstall::run(archive, signature, out, err);
        }
        if (argument == QLatin1String("--paths")) {
            QCoreApplication core(argc, argv);
            nameTheApplication();
            out << "Vantrel " << ProgramVersion::current() << '\n';
            printPaths(out);
            return 0;
        }
        if (!argument.startsWith(QLatin1String("vantrel:"))) {
            QTextStream(stderr) << "vantrel: unknown argument " << argument << " (see --help)\n";
            return 2;
        }
        links << argument;
    }

    // Without any display the program still runs: the tray and the window are skipped, the
    // clip key works through the keyboards, and arming says why it cannot capture. With one, a
    // platform plugin that is missing (Qt's Wayland plugin is a package of its own) falls back to
    // the next that works rather than end the program: recording needs none of them.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        if (!qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
            qputenv("QT_QPA_PLATFORM", "wayland;xcb;offscreen");
        else if (!qEnvironmentVariableIsEmpty("DISPLAY"))
            qputenv("QT_QPA_PLATFORM", "xcb;offscreen");
        else
            qputenv("QT_QPA_PLATFORM", "offscreen");
    }

    // The trim view plays clips through Qt Multimedia's FFmpeg backend: the libraries the
    // capture already links, where the GStreamer one would need plugins Vantrel does not install.
    if (qEnvironmentVariableIsEmpty("QT_MEDIA_BACKEND"))
        qputenv("QT_MEDIA_BACKEND", "ffmpeg");

    QApplication app(argc, argv);
    nameTheApplication();
    QApplication::setDesktopFileName(QStringLiteral("vantrel"));
    // Closing the dashboard leaves Vantrel running in the tray.
    QApplication::setQuitOnLastWindowClosed(false);
    // FFmpeg's own chatter (encoder banners, muxer notes) would drown our log on the terminal.
    av_log_set_level(AV_LOG_ERROR);
    QTextStream out(stdout);

    // SIGTERM and SIGINT quit like the menu's Quit, so a session in progress is kept. Taken
    // before launching goes on, so a stop asked for during it (a nested loop reading the secret
    // store may see it) is kept for the main loop rather than lost.
    bool quitAsked = false;
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) == 0) {
        auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
        QObject::connect(notifier, &QSocketNotifier::activated, &app, [&quitAsked] {
            char byte;
            [[maybe_unused]] ssize_t n = ::read(signalPipe[0], &byte, 1);
            quitAsked = true;
            QCoreApplication::quit();
        });
        std::signal(SIGTERM, onTerminate);
        std::signal(SIGINT, onTerminate);
    }
    AppShell shell;
    if (!shell.launch(links))
        return 0; // the running instance took the links
    out << "Vantrel " << ProgramVersion::current() << '\n';
    printPaths(out);
    out.flush();

    if (quitAsked)
        QMetaObject::invokeMethod(&app, &QCoreApplication::quit, Qt::QueuedConnection);
    return app.exec();
}

} // namespace VantrelMain

int main(int argc, char *argv[])
{
    return VantrelMain::run(argc, argv);
}
