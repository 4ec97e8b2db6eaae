#pragma once

#include <QList>
#include <QMetaType>
#include <QString>
#include <QUrl>

#include <optional>

class QJsonObject;

// One sponsor card of the rail, identified by `id` in lists.
struct AdSlot
{
    QString id;
    QString name; // the card's title
    QString line; // one line of text under the name
    std::optional<QUrl> imageURL; // none: the card has no picture

    // What the rail shows until the service has answered: three "This spot" cards.
    static QList<AdSlot> placeholders();

    // The slot made of one object of the service's list at `position` (counted from 1), with
    // pictures resolved against `base`.
    static AdSlot fromJson(const QJsonObject &object, int position, const QUrl &base);

    // The first three slots of a reply body, or none when the body is not a JSON object whose
    // "slots" is a list of objects. An empty list gives an empty result, which callers keep
    // apart from a usable one.
    static std::optional<QList<AdSlot>> listFromReply(const QByteArray &body, const QUrl &base);

    friend bool operator==(const AdSlot &, const AdSlot &) = default;
};

Q_DECLARE_METATYPE(AdSlot)
