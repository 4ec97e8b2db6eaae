#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QUrl>

#include <optional>

// A JSON object from or for the service, read key by key. A key that is missing, or whose value
// has another type than the one asked for, reads as absent; each caller picks its own default.
class JsonObject
{
public:
    JsonObject() = default;
    explicit JsonObject(QJsonObject object)
        : m_object(std::move(object))
    {
    }

    // Parses a reply body. Bytes that are not JSON throw std::runtime_error with the parser's
    // complaint; JSON whose top level is not an object (an array, say) gives an empty object.
    static JsonObject parse(const QByteArray &bytes);

    std::optional<QString> string(const QString &key) const;
    std::optional<bool> boolean(const QString &key) const;
    std::optional<double> number(const QString &key) const;
    std::optional<QJsonArray> array(const QString &key) const;
    std::optional<JsonObject> object(const QString &key) const;
    // A string that parses as an absolute URL ("https://…"); relative or malformed text is
    // absent, since such a link could be neither opened nor shared.
    std::optional<QUrl> link(const QString &key) const;

    JsonObject &insert(const QString &key, const QJsonValue &value);
    bool isEmpty() const { return m_object.isEmpty(); }
    const QJsonObject &raw() const { return m_object; }
    // Compact, as sent on the wire.
    QByteArray serialized() const;

    friend bool operator==(const JsonObject &, const JsonObject &) = default;

private:
    QJsonObject m_object;
};
