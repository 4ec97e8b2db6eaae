#pragma once

#include <QEvent>
#include <QObject>
#include <QTimer>

#include <functional>

// Installed on a window's content: calls `then` once that content has been painted, from the
// event loop's next turn, after the paint has reached the screen.
class FirstFrame : public QObject
{
public:
    explicit FirstFrame(std::function<void()> then)
        : m_then(std::move(then))
    {
    }

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Paint && !m_seen) {
            m_seen = true;
            QTimer::singleShot(0, this, m_then);
        }
        return QObject::eventFilter(watched, event);
    }

private:
    std::function<void()> m_then;
    bool m_seen = false;
};
