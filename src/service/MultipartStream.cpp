#include "service/MultipartStream.h"

#include "service/TextRules.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace {

constexpr size_t maxHeaderBytes = 16 * 1024;

bool startsWithNoCase(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() &&
        std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                   std::tolower(static_cast<unsigned char>(b));
           });
}

// The value of `key="…"` (or an unquoted key=…) among a header's parameters.
std::string parameter(std::string_view header, std::string_view key)
{
    size_t at = 0;
    while ((at = header.find(';', at)) != std::string_view::npos) {
        std::string_view rest = TextRules::trimmedBlanks(header.substr(at + 1));
        at += 1;
        if (!startsWithNoCase(rest, key) || rest.size() <= key.size() || rest[key.size()] != '=')
            continue;
        rest.remove_prefix(key.size() + 1);
        if (!rest.empty() && rest.front() == '"') {
            const size_t close = rest.find('"', 1);
            return std::string(rest.substr(
                1, close == std::string_view::npos ? std::string_view::npos : close - 1));
        }
        return std::string(TextRules::trimmedBlanks(rest.substr(0, rest.find(';'))));
    }
    return {};
}

} // namespace

MultipartStream::MultipartStream(std::string boundary, PartStarts onPart, PartData onData)
    : m_opening("--" + boundary + "\r\n")
    , m_delimiter("\r\n--" + boundary)
    , m_onPart(std::move(onPart))
    , m_onData(std::move(onData))
{
}

std::string MultipartStream::boundaryOf(const std::string &contentType)
{
    if (!startsWithNoCase(contentType, "multipart/form-data"))
        return {};
    std::string boundary = parameter(contentType, "boundary");
    return boundary.size() <= 70 ? boundary : std::string();
}

bool MultipartStream::feed(const char *data, size_t size)
{
    if (m_state == State::done)
        return true; // the epilogue, ignored
    if (const std::optional<bool> passed = passThrough(data, size))
        return *passed;
    m_buffer.append(data, size);
    bool progressed = true;
    while (progressed) {
        progressed = false;
        if (!step(progressed))
            return false;
    }
    return true;
}

std::optional<bool> MultipartStream::passThrough(const char *data, size_t size)
{
    // The common case of a large part: no delimiter in this block. Its bytes go to the part
    // where they lie, without a copy; only a tail that may start the delimiter is kept.
    const size_t keep = m_delimiter.size() - 1;
    if (m_state != State::body || m_buffer.size() > keep || size < keep)
        return std::nullopt;
    const std::string joint = m_buffer + std::string(data, keep);
    // (glibc's memmem skips along far faster than a search for the delimiter's first byte,
    // which turns up every 256 bytes of compressed video.)
    if (joint.find(m_delimiter) != std::string::npos ||
        ::memmem(data, size, m_delimiter.data(), m_delimiter.size()))
        return std::nullopt;
    if (!m_buffer.empty() && !m_onData(m_buffer.data(), m_buffer.size()))
        return false;
    if (size > keep && !m_onData(data, size - keep))
        return false;
    m_buffer.assign(data + size - keep, keep);
    return true;
}

bool MultipartStream::step(bool &progressed)
{
    std::string_view buffer(m_buffer);
    switch (m_state) {
    case State::preamble: {
        const size_t at = buffer.find(m_opening);
        if (at == std::string_view::npos) {
            // Keep only what could be the start of the opening boundary.
            if (m_buffer.size() > m_opening.size())
                m_buffer.erase(0, m_buffer.size() - m_opening.size());
            return m_buffer.size() <= maxHeaderBytes;
        }
        m_buffer.erase(0, at + m_opening.size());
        m_state = State::headers;
        progressed = true;
        return true;
    }
    case State::headers: {
        const size_t end = buffer.find("\r\n\r\n");
        if (end == std::string_view::npos)
            return m_buffer.size() <= maxHeaderBytes;
        if (!readHeaders(buffer.substr(0, end)))
            return false;
        m_buffer.erase(0, end + 4);
        m_state = State::body;
        progressed = true;
        return true;
    }
    case State::body: {
        const size_t at = buffer.find(m_delimiter);
        if (at == std::string_view::npos) {
            // All but a tail that may be the start of the delimiter belongs to the part.
            if (m_buffer.size() >= m_delimiter.size()) {
                const size_t ready = m_buffer.size() - (m_delimiter.size() - 1);
                if (!m_onData(m_buffer.data(), ready))
                    return false;
                m_buffer.erase(0, ready);
            }
            return true;
        }
        if (at > 0 && !m_onData(m_buffer.data(), at))
            return false;
        m_buffer.erase(0, at + m_delimiter.size());
        m_state = State::afterBoundary;
        progressed = true;
        return true;
    }
    case State::afterBoundary:
        if (m_buffer.size() < 2)
            return true;
        if (m_buffer.compare(0, 2, "--") == 0) {
            m_buffer.clear();
            m_state = State::done;
            return true;
        }
        if (m_buffer.compare(0, 2, "\r\n") != 0)
            return false;
        m_buffer.erase(0, 2);
        m_state = State::headers;
        progressed = true;
        return true;
    case State::done:
        return true;
    }
    return false;
}

bool MultipartStream::readHeaders(std::string_view block)
{
    Part part;
    bool disposition = false;
    size_t start = 0;
    while (start <= block.size()) {
        size_t end = block.find("\r\n", start);
        if (end == std::string_view::npos)
            end = block.size();
        const std::string_view line = block.substr(start, end - start);
        start = end + 2;
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            continue;
        const std::string_view name = TextRules::trimmedBlanks(line.substr(0, colon));
        const std::string_view value = TextRules::trimmedBlanks(line.substr(colon + 1));
        if (startsWithNoCase(name, "content-disposition") && name.size() == 19) {
            if (!startsWithNoCase(value, "form-data"))
                return false;
            disposition = true;
            part.name = parameter(value, "name");
            part.fileName = parameter(value, "filename");
        } else if (startsWithNoCase(name, "content-type") && name.size() == 12) {
            part.contentType = std::string(value);
        }
    }
    return disposition && m_onPart(part);
}
