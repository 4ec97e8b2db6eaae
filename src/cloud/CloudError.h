#pragma once

#include <QByteArray>
#include <QException>
#include <QString>

// What a call to the service throws when the service itself says no. Its text is the sentence
// the user sees. A failure below HTTP (no network, a time-out, a bad certificate) is not a
// CloudError: it comes as a plain std::runtime_error carrying the network stack's own sentence.
class CloudError : public QException
{
public:
    enum class Kind { message, unauthorized };

    static CloudError message(const QString &text) { return {Kind::message, text}; }
    // The token was refused; callers compare with this to sign the user out.
    static CloudError unauthorized() { return {Kind::unauthorized, {}}; }

    Kind kind() const { return m_kind; }
    QString text() const;
    const char *what() const noexcept override { return m_utf8.constData(); }

    friend bool operator==(const CloudError &a, const CloudError &b)
    {
        return a.m_kind == b.m_kind && a.m_text == b.m_text;
    }

    void raise() const override { throw *this; }
    CloudError *clone() const override { return new CloudError(*this); }

private:
    CloudError(Kind kind, const QString &text);

    Kind m_kind;
    QString m_text; // the message's text; empty for unauthorized
    QByteArray m_utf8;
};
