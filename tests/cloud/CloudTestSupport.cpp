#include "CloudTestSupport.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

bool waitUntil(const std::function<bool()> &done, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        // Sleeps in the event loop rather than spinning: the machine is shared.
        QEventLoop loop;
        QTimer::singleShot(5, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}
