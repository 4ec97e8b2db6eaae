#include "service/S3Xml.h"

#include <cstdio>
#include <ctime>

namespace {

std::string decode(const std::string &text)
{
    static const std::pair<const char *, char> entities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    std::string decoded;
    for (size_t i = 0; i < text.size();) {
        bool replaced = false;
        if (text[i] == '&') {
            for (const auto &[entity, character] : entities) {
                if (text.compare(i, std::char_traits<char>::length(entity), entity) == 0) {
                    decoded += character;
                    i += std::char_traits<char>::length(entity);
                    replaced = true;
                    break;
                }
            }
        }
        if (!replaced)
            decoded += text[i++];
    }
    return decoded;
}

} // namespace

namespace S3Xml {

std::vector<std::string> elements(const std::string &xml, const std::string &name)
{
    std::vector<std::string> found;
    const std::string open = "<" + name + ">";
    const std::string close = "</" + name + ">";
    for (size_t at = xml.find(open); at != std::string::npos; at = xml.find(open, at)) {
        const size_t start = at + open.size();
        const size_t end = xml.find(close, start);
        if (end == std::string::npos)
            break;
        found.push_back(xml.substr(start, end - start));
        at = end + close.size();
    }
    return found;
}

std::string element(const std::string &xml, const std::string &name)
{
    const std::vector<std::string> found = elements(xml, name);
    return found.empty() ? std::string() : decode(found.front());
}

int64_t time(const std::string &text)
{
    std::tm parts {};
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d", &parts.tm_year, &parts.tm_mon,
                    &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec) != 6)
        return 0;
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    return int64_t(::timegm(&parts));
}

} // namespace S3Xml
