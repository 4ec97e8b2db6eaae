#pragma once

#include <optional>
#include <string>
#include <string_view>

// Checks and clean-ups for the short texts people send: names, titles, emails.
namespace TextRules {

// The text with white space trimmed at both ends and control characters removed; none when it
// is not valid UTF-8.
std::optional<std::string> cleanLine(const std::string &text);

// The text without the blanks (spaces and tabs) at its ends.
std::string_view trimmedBlanks(std::string_view text);

// Characters (code points) of valid UTF-8 text.
size_t characterCount(const std::string &text);

// A file name a client gave: a plain name, no folder parts, no control characters.
bool isPlainFileName(const std::string &name);

// "name.mp4" → "name".
std::string withoutExtension(const std::string &fileName);

// Something shaped like an address: one '@' with text on both sides, no blanks, at most 254.
bool looksLikeEmail(const std::string &email);

} // namespace TextRules
