#include "cloud/AccountProfile.h"

#include "cloud/JsonObject.h"

AccountProfile AccountProfile::fromJson(const JsonObject &reply)
{
    AccountProfile profile;
    profile.id = reply.string(QStringLiteral("id")).value_or(profile.id);
    profile.vantrelCode =
        reply.string(QStringLiteral("vantrel_code")).value_or(profile.vantrelCode);
    profile.name = reply.string(QStringLiteral("name")).value_or(profile.name);
    profile.email = reply.string(QStringLiteral("email")).value_or(profile.email);
    profile.avatarURL = reply.string(QStringLiteral("avatar_url")).value_or(profile.avatarURL);
    profile.discordLinked =
        reply.boolean(QStringLiteral("discord_linked")).value_or(profile.discordLinked);
    profile.googleLinked =
        reply.boolean(QStringLiteral("google_linked")).value_or(profile.googleLinked);
    profile.googleLogin =
        reply.boolean(QStringLiteral("google_login")).value_or(profile.googleLogin);
    profile.discordOAuth =
        reply.boolean(QStringLiteral("discord_oauth")).value_or(profile.discordOAuth);
    return profile;
}
