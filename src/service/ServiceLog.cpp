#include "service/ServiceLog.h"

#include <cstdio>
#include <ctime>

namespace {

bool isCodeCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

bool isTokenCharacter(char c)
{
    return isCodeCharacter(c) || c == '-' || c == '_';
}

bool startsWith(std::string_view text, size_t at, std::string_view prefix)
{
    return text.substr(at, prefix.size()) == prefix;
}

// A sign-in code's shape, "KXRT-4QWM", standing alone (not inside a longer word).
bool isCodeAt(std::string_view text, size_t at)
{
    if (at + 9 > text.size() || text[at + 4] != '-')
        return false;
    for (size_t i = 0; i < 9; ++i)
        if (i != 4 && !isCodeCharacter(text[at + i]))
            return false;
    const bool before = at > 0 && isTokenCharacter(text[at - 1]);
    const bool after = at + 9 < text.size() && isTokenCharacter(text[at + 9]);
    return !before && !after;
}

} // namespace

namespace ServiceLog {

std::string redacted(std::string_view text)
{
    // Whatever follows these is secret up to the next separator, however it is spelled.
    static constexpr std::string_view secretStarts[] = {
        "/v1/auth/device/", "code=", "token=", "password=", "vt_", "Bearer "};
    std::string out;
    out.reserve(text.size());
    size_t at = 0;
    while (at < text.size()) {
        bool masked = false;
        for (const std::string_view start : secretStarts) {
            if (!startsWith(text, at, start))
                continue;
            size_t end = at + start.size();
            while (end < text.size() && text[end] != '/' && text[end] != '&' && text[end] != ' ' &&
                   text[end] != '"' && text[end] != '\'' && text[end] != ';')
                ++end;
            out += start;
            out += "[hidden]";
            at = end;
            masked = true;
            break;
        }
        if (masked)
            continue;
        if (isCodeAt(text, at)) {
            out += "[hidden]";
            at += 9;
            continue;
        }
        const char c = text[at++];
        // Control characters would let a client forge lines of its own.
        out += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
    }
    return out;
}

void line(const std::string &text)
{
    char when[32];
    const std::time_t now = std::time(nullptr);
    std::tm utc {};
    gmtime_r(&now, &utc);
    std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc);
    // One call, one line: lines from several threads never interleave.
    std::fprintf(stderr, "%s %s\n", when, redacted(text).c_str());
}

void request(const std::string &client, const std::string &via, const std::string &method,
             const std::string &path, int status)
{
    std::string text = client;
    if (!via.empty() && via != client)
        text += " (via " + via + ")";
    line(text + " " + method + " " + path + " " + std::to_string(status));
}

} // namespace ServiceLog
