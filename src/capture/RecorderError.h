#pragma once

#include <QException>
#include <QString>

// The capture pipeline's error. Its text is the sentence the user sees in the status line.
class RecorderError : public QException
{
public:
    enum class Kind { writerFailed, noDisplay, notReady, notArmed, needsRelaunch };

    static RecorderError writerFailed(const QString &message)
    {
        return {Kind::writerFailed, message};
    }
    static RecorderError noDisplay() { return {Kind::noDisplay, {}}; }
    // `why`, when given, replaces the general sentence: what happened and what to do about it.
    static RecorderError notReady(const QString &why = {}) { return {Kind::notReady, why}; }
    // `clipKey` is the clip key's display text ("F12"), named in the sentence.
    static RecorderError notArmed(const QString &clipKey) { return {Kind::notArmed, clipKey}; }
    static RecorderError needsRelaunch() { return {Kind::needsRelaunch, {}}; }

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
