#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QString>
#include <QWidget>

#include <gtest/gtest.h>

#include <functional>

// Runs the event loop until `done` or `timeoutMs` passes; answers `done()`.
inline bool waitUntil(const std::function<bool()> &done, int timeoutMs = 5000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

// The child of `root` with this object name, or a test failure.
template<typename T = QWidget> T *child(const QObject *root, const QString &name)
{
    T *found = root->findChild<T *>(name);
    EXPECT_NE(found, nullptr) << "no " << name.toStdString();
    return found;
}

// Clicks `widget` through the window system's event path, as a user's click arrives; fails
// when the widget is not on screen (a hidden button cannot be clicked).
void clickOn(QWidget *widget, QPoint at = {});

// Saves a picture of `widget` as NAME.png in $VANTREL_SCREENSHOT_DIR, when that is set.
void saveScreen(QWidget *widget, const QString &name);
