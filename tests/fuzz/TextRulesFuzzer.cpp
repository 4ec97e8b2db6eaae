// A name, title or address as people type them. A cleaned line is valid UTF-8 without control
// characters or blanks at its ends, so cleaning it again changes nothing.

#include "FuzzCheck.h"

#include "service/TextRules.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    if (const std::optional<std::string> line = TextRules::cleanLine(text)) {
        FUZZ_CHECK(TextRules::cleanLine(*line) == line);
        FUZZ_CHECK(line->size() <= text.size());
        FUZZ_CHECK(line->empty() || (line->front() != ' ' && line->back() != ' '));
        for (const char c : *line)
            FUZZ_CHECK(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f);
        FUZZ_CHECK(TextRules::characterCount(*line) <= line->size());
    }
    if (TextRules::isPlainFileName(text)) {
        FUZZ_CHECK(text.find('/') == std::string::npos && text.find("..") == std::string::npos);
        const std::string stem = TextRules::withoutExtension(text);
        FUZZ_CHECK(!stem.empty() && text.starts_with(stem));
    }
    if (TextRules::looksLikeEmail(text))
        FUZZ_CHECK(text.find('@') != std::string::npos && text.find(' ') == std::string::npos);
    TextRules::withoutExtension(text);
    return 0;
}
