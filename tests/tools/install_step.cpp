// install_step ARCHIVE ROOT STEP: installs ARCHIVE at ROOT as an update does, printing each step
// as it is reached, and stops itself (SIGSTOP) at STEP so that a test can kill it right there.
#include "update/InstalledCopy.h"
#include "update/UpdateError.h"

#include <QString>

#include <csignal>
#include <cstdio>
#include <cstring>

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    const char *stopAt = argv[3];
    try {
        InstalledCopy::installFrom(QString::fromLocal8Bit(argv[1]), QString::fromLocal8Bit(argv[2]),
                                   [stopAt](const char *step) {
                                       std::printf("%s\n", step);
                                       std::fflush(stdout);
                                       if (std::strcmp(step, stopAt) == 0)
                                           std::raise(SIGSTOP);
                                   });
    } catch (const UpdateError &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    std::printf("done\n");
    return 0;
}
