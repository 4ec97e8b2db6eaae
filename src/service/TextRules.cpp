#include "service/TextRules.h"

namespace {

// Length of the UTF-8 sequence starting at `i`, 0 when it is not a valid one.
size_t sequenceLength(const std::string &text, size_t i)
{
    const auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(i);
    size_t length = 0;
    uint32_t point = 0;
    if (lead < 0x80)
        return 1;
    if ((lead & 0xE0) == 0xC0) {
        length = 2;
        point = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3;
        point = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4;
        point = lead & 0x07;
    } else {
        return 0;
    }
    if (i + length > text.size())
        return 0;
    for (size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80)
            return 0;
        point = (point << 6) | (byte(i + k) & 0x3F);
    }
    const uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (point < smallest[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
        return 0;
    return length;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

} // namespace

namespace TextRules {

std::optional<std::string> cleanLine(const std::string &text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const size_t length = sequenceLength(text, i);
        if (length == 0)
            return std::nullopt;
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (length == 1 && (c < 0x20 || c == 0x7F))
            out += isBlank(text[i]) ? ' ' : '\0';
        else
            out.append(text, i, length);
        i += length;
    }
    std::erase(out, '\0');
    const size_t first = out.find_first_not_of(' ');
    if (first == std::string::npos)
        return std::string();
    const size_t last = out.find_last_not_of(' ');
    return out.substr(first, last - first + 1);
}

std::string_view trimmedBlanks(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

size_t characterCount(const std::string &text)
{
    size_t count = 0;
    for (const char c : text)
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80)
            ++count;
    return count;
}

bool isPlainFileName(const std::string &name)
{
    if (name.empty() || name.size() > 255 || name == "." || name == "..")
        return false;
    if (name.find("..") != std::string::npos)
        return false;
    for (const char c : name)
        if (c == '/' || c == '\\' || static_cast<unsigned char>(c) < 0x20)
            return false;
    return true;
}

std::string withoutExtension(const std::string &fileName)
{
    const size_t dot = fileName.rfind('.');
    return dot == std::string::npos || dot == 0 ? fileName : fileName.substr(0, dot);
}

bool looksLikeEmail(const std::string &email)
{
    const size_t at = email.find('@');
    if (email.size() > 254 || at == std::string::npos || at == 0 || at + 1 >= email.size() ||
        email.find('@', at + 1) != std::string::npos)
        return false;
    for (const char c : email)
        if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7F || c == '<' || c == '>' || c == '"')
            return false;
    return true;
}

} // namespace TextRules
