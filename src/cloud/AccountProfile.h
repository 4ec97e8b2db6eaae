#pragma once

#include <QMetaType>
#include <QObject>
#include <QString>

class JsonObject;

// The signed-in user as the service describes them. A key the reply lacks, or carries with
// another type, takes the default given here.
struct AccountProfile
{
    Q_GADGET
    Q_PROPERTY(QString id MEMBER id)
    Q_PROPERTY(QString vantrelCode MEMBER vantrelCode)
    Q_PROPERTY(QString name MEMBER name)
    Q_PROPERTY(QString email MEMBER email)
    Q_PROPERTY(QString avatarURL MEMBER avatarURL)
    Q_PROPERTY(bool discordLinked MEMBER discordLinked)
    Q_PROPERTY(bool googleLinked MEMBER googleLinked)
    Q_PROPERTY(bool googleLogin MEMBER googleLogin)
    Q_PROPERTY(bool discordOAuth MEMBER discordOAuth)

public:
    QString id;
    QString vantrelCode; // the code the service gave this user
    QString name = QStringLiteral("Vantrel");
    QString email;
    QString avatarURL; // kept as text; nothing here loads it
    bool discordLinked = false;
    bool googleLinked = false;
    bool googleLogin = false;
    bool discordOAuth = false;

    static AccountProfile fromJson(const JsonObject &reply);

    friend bool operator==(const AccountProfile &, const AccountProfile &) = default;
};

Q_DECLARE_METATYPE(AccountProfile)
