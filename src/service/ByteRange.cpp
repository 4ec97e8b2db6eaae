#include "service/ByteRange.h"

#include "service/TextRules.h"

#include <algorithm>
#include <charconv>

namespace {

std::optional<uint64_t> number(std::string_view text)
{
    uint64_t value = 0;
    if (text.empty())
        return std::nullopt;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

} // namespace

ByteRange::Outcome ByteRange::parse(const std::string &header, uint64_t fileSize, ByteRange &range)
{
    std::string_view text = TextRules::trimmedBlanks(header);
    constexpr std::string_view unit = "bytes=";
    if (text.substr(0, unit.size()) != unit)
        return Outcome::whole;
    text = TextRules::trimmedBlanks(text.substr(unit.size()));
    if (text.find(',') != std::string_view::npos)
        return Outcome::whole;
    const size_t dash = text.find('-');
    if (dash == std::string_view::npos)
        return Outcome::unsatisfiable;
    const std::string_view from = TextRules::trimmedBlanks(text.substr(0, dash));
    const std::string_view to = TextRules::trimmedBlanks(text.substr(dash + 1));

    if (from.empty()) {
        // The last N bytes.
        const auto suffix = number(to);
        if (!suffix || *suffix == 0 || fileSize == 0)
            return Outcome::unsatisfiable;
        range.length = std::min(*suffix, fileSize);
        range.first = fileSize - range.length;
        return Outcome::partial;
    }
    const auto first = number(from);
    if (!first || *first >= fileSize)
        return Outcome::unsatisfiable;
    uint64_t last = fileSize - 1;
    if (!to.empty()) {
        const auto end = number(to);
        if (!end || *end < *first)
            return Outcome::unsatisfiable;
        last = std::min(*end, fileSize - 1);
    }
    range.first = *first;
    range.length = last - *first + 1;
    return Outcome::partial;
}
