#pragma once

#include <QString>

// One vantrel:// link, as a later launch, a terminal, a script or a web page hands it over, read
// without acting on it. Reading is pure (no state, no side effects, nothing but the text), so any
// text at all, a fuzzer's included, gives a value; the program decides what to do with it.
//
//   vantrel://start   arm recording          vantrel://clip   save a clip
//   vantrel://stop    stop recording         vantrel://open   show the window
//   vantrel://auth?code=CODE   the browser's word that the sign-in showing CODE is approved
//
// Anything else (another scheme, an unknown host, a user, a port, a path, a text too long to be a
// link of ours) is `unknown`. A sign-in link's token, if it carries one, is not read: the token
// the program keeps comes from the service alone.
struct AppLink
{
    enum class Kind { unknown, start, stop, clip, open, auth };

    Kind kind = Kind::unknown;
    // For `auth`: the first "code" item's value, decoded; empty when there is none.
    QString code;

    static AppLink parse(const QString &text);

    bool operator==(const AppLink &) const = default;
};
