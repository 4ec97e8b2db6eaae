#pragma once

#include <QString>

#include <optional>

// One look at a pending sign-in: the token once the user approved it in the browser, none
// until then.
struct DevicePoll
{
    std::optional<QString> token;
};
