#include "core/SharedPool.h"

#include <QException>
#include <QString>

#include <gtest/gtest.h>

namespace {

// Shaped like the program's own errors: a QException carrying a message.
class Failure : public QException {
public:
    explicit Failure(QString message) : m_message(std::move(message)) {}
    void raise() const override { throw *this; }
    Failure *clone() const override { return new Failure(*this); }
    const QString &message() const { return m_message; }

private:
    QString m_message;
};

} // namespace

// Whichever side lets go of a task's answer last (the pool thread that gave it or the caller
// that read it) frees it; both orders come up over many tasks, with results and with errors.
TEST(SharedPool, AnswersAndErrorsReachTheCallerWhicheverSideLetsGoLast)
{
    for (int i = 0; i < 5000; ++i) {
        if (i % 2 == 0) {
            const QString answer =
                SharedPool::task<QString>([i] { return QString::number(i); }).result();
            ASSERT_EQ(answer, QString::number(i));
            continue;
        }
        try {
            SharedPool::task<void>([i] { throw Failure(QStringLiteral("task %1").arg(i)); })
                .waitForFinished();
            FAIL() << "no error from task " << i;
        } catch (const Failure &e) {
            ASSERT_EQ(e.message(), QStringLiteral("task %1").arg(i));
        }
    }
}
