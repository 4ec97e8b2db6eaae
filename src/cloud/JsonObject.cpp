#include "cloud/JsonObject.h"

#include <QJsonDocument>
#include <QJsonParseError>

#include <stdexcept>

JsonObject JsonObject::parse(const QByteArray &bytes)
{
    QJsonParseError error {};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError)
        throw std::runtime_error(QStringLiteral("The service's reply could not be read (%1).")
                                     .arg(error.errorString())
                                     .toStdString());
    return JsonObject(document.isObject() ? document.object() : QJsonObject());
}

std::optional<QString> JsonObject::string(const QString &key) const
{
    const QJsonValue value = m_object.value(key);
    if (!value.isString())
        return std::nullopt;
    return value.toString();
}

std::optional<bool> JsonObject::boolean(const QString &key) const
{
    const QJsonValue value = m_object.value(key);
    if (!value.isBool())
        return std::nullopt;
    return value.toBool();
}

std::optional<double> JsonObject::number(const QString &key) const
{
    const QJsonValue value = m_object.value(key);
    if (!value.isDouble())
        return std::nullopt;
    return value.toDouble();
}

std::optional<QJsonArray> JsonObject::array(const QString &key) const
{
    const QJsonValue value = m_object.value(key);
    if (!value.isArray())
        return std::nullopt;
    return value.toArray();
}

std::optional<JsonObject> JsonObject::object(const QString &key) const
{
    const QJsonValue value = m_object.value(key);
    if (!value.isObject())
        return std::nullopt;
    return JsonObject(value.toObject());
}

std::optional<QUrl> JsonObject::link(const QString &key) const
{
    const std::optional<QString> text = string(key);
    if (!text)
        return std::nullopt;
    const QUrl url(*text, QUrl::StrictMode);
    if (!url.isValid() || url.isRelative() || url.host().isEmpty())
        return std::nullopt;
    return url;
}

JsonObject &JsonObject::insert(const QString &key, const QJsonValue &value)
{
    m_object.insert(key, value);
    return *this;
}

QByteArray JsonObject::serialized() const
{
    return QJsonDocument(m_object).toJson(QJsonDocument::Compact);
}
