#pragma once

#include <QException>
#include <QString>

// The capture pipeline's error. Its text is the sentence the user sees in the status line, except
// for the two kinds that tell the user to press the clip key (notArmed, stillStarting): the
// pipeline does not know the key's name, so their text() says "the clip key" and the application
// words them with the key the user bound.
class RecorderError : public QException
{
public:
    enum class Kind { writerFailed, noDisplay, notReady, notArmed, stillStarting };

    static RecorderError writerFailed(const QString &message)
    {
        return {Kind::writerFailed, message};
    }
    static RecorderError noDisplay() { return {Kind::noDisplay, {}}; }
    // `why`, when given, replaces the general sentence: what happened and what to do about it
    // (a desktop that asked the user and was told no).
    static RecorderError notReady(const QString &why = {}) { return {Kind::notReady, why}; }
    // A save while nothing is armed.
    static RecorderError notArmed() { return {Kind::notArmed, {}}; }
    // A save before the buffer holds a key frame with its format.
    static RecorderError stillStarting() { return {Kind::stillStarting, {}}; }

    Kind kind() const { return m_kind; }
    QString text() const;
    const char *what() const noexcept override { return m_utf8.constData(); }

    void raise() const override { throw *this; }
    RecorderError *clone() const override { return new RecorderError(*this); }

private:
    RecorderError(Kind kind, const QString &detail);

    Kind m_kind;
    QString m_detail;
    QByteArray m_utf8;
};
