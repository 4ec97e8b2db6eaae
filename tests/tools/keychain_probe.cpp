// A second process for the secret-store tests: `keychain_probe load` prints the stored sign-in
// token (or "none"), `keychain_probe save TOKEN` and `keychain_probe remove` change it and print
// "ok" or "failed".

#include "cloud/KeychainStore.h"

#include <QCoreApplication>
#include <QTimer>

#include <qcoro/qcorotask.h>

#include <cstdio>
#include <cstring>

namespace {

QCoro::Task<void> run(int argc, char **argv, int &status)
{
    if (argc >= 2 && std::strcmp(argv[1], "load") == 0) {
        const std::optional<QString> token = KeychainStore::load();
        std::printf("%s\n", token ? qPrintable(*token) : "none");
    } else if (argc >= 3 && std::strcmp(argv[1], "save") == 0) {
        std::printf("%s\n",
                    co_await KeychainStore::save(QString::fromUtf8(argv[2])) ? "ok" : "failed");
    } else if (argc >= 2 && std::strcmp(argv[1], "remove") == 0) {
        std::printf("%s\n", co_await KeychainStore::remove() ? "ok" : "failed");
    } else {
        std::fprintf(stderr, "usage: keychain_probe load | save TOKEN | remove\n");
        status = 2;
    }
    QCoreApplication::quit();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    int status = 0;
    QTimer::singleShot(0, [&] { run(argc, argv, status); });
    const int loop = app.exec();
    return status ? status : loop;
}
