#include "promo/AdSlot.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

const QString placeholderName = QStringLiteral("This spot");
const QString placeholderLine = QStringLiteral("Sponsored");
constexpr int maxSlots = 3;

QString trimmedString(const QJsonObject &object, const char *key)
{
    const QJsonValue value = object.value(QLatin1String(key));
    return value.isString() ? value.toString().trimmed() : QString();
}

// Prices and subscriptions are not for the rail: a line that mentions them reads "Sponsored".
bool mentionsPrice(const QString &line)
{
    const QString lower = line.toLower();
    return lower.contains(QLatin1String("$20")) || lower.contains(QLatin1String("month"));
}

std::optional<QUrl> pictureUrl(const QString &text, const QUrl &base)
{
    if (text.isEmpty())
        return std::nullopt;
    QUrl url;
    if (text.startsWith(QLatin1String("http"))) {
        url = QUrl(text, QUrl::StrictMode);
    } else {
        const QUrl relative(text, QUrl::StrictMode);
        if (relative.isValid())
            url = base.resolved(relative);
    }
    // Only a picture on the web: a file: or data: address from the service is no picture of its.
    if (!url.isValid() || url.isRelative() || url.host().isEmpty() ||
        (url.scheme() != QLatin1String("https") && url.scheme() != QLatin1String("http")))
        return std::nullopt;
    return url;
}

} // namespace

QList<AdSlot> AdSlot::placeholders()
{
    QList<AdSlot> list;
    for (int i = 1; i <= maxSlots; ++i)
        list.append({QString::number(i), placeholderName, placeholderLine, std::nullopt});
    return list;
}

AdSlot AdSlot::fromJson(const QJsonObject &object, int position, const QUrl &base)
{
    AdSlot slot;
    slot.id = trimmedString(object, "id");
    if (slot.id.isEmpty())
        slot.id = QString::number(position);
    slot.name = trimmedString(object, "name");
    if (slot.name.isEmpty())
        slot.name = placeholderName;
    slot.line = trimmedString(object, "line");
    if (slot.line.isEmpty() || mentionsPrice(slot.line))
        slot.line = placeholderLine;
    slot.imageURL = pictureUrl(trimmedString(object, "image"), base);
    return slot;
}

std::optional<QList<AdSlot>> AdSlot::listFromReply(const QByteArray &body, const QUrl &base)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const QJsonValue value = document.object().value(QLatin1String("slots"));
    if (!value.isArray())
        return std::nullopt;
    const QJsonArray array = value.toArray();
    for (const QJsonValue &item : array) {
        if (!item.isObject())
            return std::nullopt;
    }
    QList<AdSlot> list;
    for (qsizetype i = 0; i < array.size() && i < maxSlots; ++i)
        list.append(fromJson(array.at(i).toObject(), int(i) + 1, base));
    return list;
}
