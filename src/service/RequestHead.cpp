#include "service/RequestHead.h"

#include "service/TextRules.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::string_view lineEnd = "\r\n";

bool isTokenCharacter(char c)
{
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))
        return true;
    return std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isToken(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return lower(x) == lower(y);
           });
}

// The comma-separated elements of a list header, trimmed, empty ones left out.
std::vector<std::string_view> listElements(std::string_view value)
{
    std::vector<std::string_view> elements;
    while (!value.empty()) {
        const size_t comma = value.find(',');
        const std::string_view element = TextRules::trimmedBlanks(value.substr(0, comma));
        if (!element.empty())
            elements.push_back(element);
        if (comma == std::string_view::npos)
            break;
        value.remove_prefix(comma + 1);
    }
    return elements;
}

// A field value holds visible characters, blanks and bytes of UTF-8 (or Latin-1) text; never
// another control character.
bool isFieldValue(std::string_view value)
{
    return std::none_of(value.begin(), value.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\t') || byte == 0x7f;
    });
}

} // namespace

std::optional<size_t> RequestHead::Scanner::scan(std::string_view bytes)
{
    // Past the largest head there is nothing to find: what is there is too large already.
    const size_t limit = std::min(bytes.size(), m_limits.maxBytes);
    for (; m_scanned < limit; ++m_scanned) {
        if (bytes[m_scanned] != '\n')
            continue;
        ++m_lines;
        if (m_scanned >= 3 && bytes.substr(m_scanned - 3, 4) == "\r\n\r\n")
            return ++m_scanned;
    }
    return std::nullopt;
}

bool RequestHead::Scanner::tooLarge() const
{
    // Every header takes a line: more line ends than the limit allows is too many already.
    return m_scanned >= m_limits.maxBytes || m_lines > m_limits.maxHeaders + 1;
}

bool RequestHead::refuse(int status, std::string reason)
{
    m_refusal = status;
    m_reason = std::move(reason);
    return false;
}

bool RequestHead::parseRequestLine(std::string_view line, const RequestHeadLimits &limits)
{
    const size_t firstSpace = line.find(' ');
    const size_t lastSpace = line.rfind(' ');
    if (firstSpace == std::string_view::npos || firstSpace == lastSpace)
        return refuse(400, "The request line is malformed.");
    const std::string_view method = line.substr(0, firstSpace);
    const std::string_view target = line.substr(firstSpace + 1, lastSpace - firstSpace - 1);
    const std::string_view version = line.substr(lastSpace + 1);
    if (!isToken(method))
        return refuse(400, "The request line is malformed.");
    if (target.size() > limits.maxTargetBytes)
        return refuse(414, "The address is too long.");
    if (target.empty() || target.find_first_of(" \t") != std::string_view::npos ||
        !isFieldValue(target))
        return refuse(400, "The request line is malformed.");
    if (version != "HTTP/1.1" && version != "HTTP/1.0")
        return refuse(505, "Only HTTP/1.1 and HTTP/1.0 are spoken here.");
    m_method = method;
    m_target = target;
    m_version = version;
    m_keepAlive = version == "HTTP/1.1";
    return true;
}

bool RequestHead::parseHeaderLine(std::string_view line)
{
    // A line that starts with a blank continues the previous one (obsolete folding): refused,
    // as the standard allows, since it is a favourite of request smuggling.
    if (line.empty() || line.front() == ' ' || line.front() == '\t')
        return refuse(400, "A header line is malformed.");
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || !isToken(line.substr(0, colon)))
        return refuse(400, "A header line is malformed.");
    const std::string_view value = TextRules::trimmedBlanks(line.substr(colon + 1));
    if (!isFieldValue(value))
        return refuse(400, "A header holds a control character.");
    m_headers.push_back({std::string(line.substr(0, colon)), std::string(value)});
    return true;
}

// What decides where the body ends: exactly one length, or none for a request without a body.
bool RequestHead::checkFraming()
{
    std::optional<uint64_t> length;
    for (const Header &header : m_headers) {
        if (equalsIgnoringCase(header.name, "Transfer-Encoding"))
            return refuse(411,
                          "Send the body with a Content-Length header; chunked bodies are "
                          "not taken.");
        if (!equalsIgnoringCase(header.name, "Content-Length"))
            continue;
        const std::vector<std::string_view> values = listElements(header.value);
        if (values.empty())
            return refuse(400, "The Content-Length header is malformed.");
        for (const std::string_view text : values) {
            uint64_t value = 0;
            const auto [end, error] =
                std::from_chars(text.data(), text.data() + text.size(), value);
            if (error != std::errc() || end != text.data() + text.size() || text.front() == '+')
                return refuse(400, "The Content-Length header is malformed.");
            if (length && *length != value)
                return refuse(400, "The request gives two different lengths.");
            length = value;
        }
    }
    // Without a length the library would read the body until the client hangs up.
    const bool mayCarryBody = m_method == "POST" || m_method == "PUT" || m_method == "PATCH";
    if (!length && mayCarryBody)
        return refuse(411, "Send the body with a Content-Length header.");
    m_contentLength = length.value_or(0);
    // Repeats of one length are allowed; the library is given a single one.
    if (length) {
        std::erase_if(m_headers, [](const Header &header) {
            return equalsIgnoringCase(header.name, "Content-Length");
        });
        m_headers.push_back({"Content-Length", std::to_string(*length)});
    }
    return true;
}

RequestHead RequestHead::parse(std::string_view head, const RequestHeadLimits &limits)
{
    RequestHead request;
    if (head.size() > limits.maxBytes) {
        request.refuse(431, "The request's headers are too large.");
        return request;
    }
    if (head.size() < 4 || head.substr(head.size() - 4) != "\r\n\r\n") {
        request.refuse(400, "The request head is incomplete.");
        return request;
    }
    head.remove_suffix(2); // the blank line's own line end
    size_t lineCount = 0;
    while (!head.empty()) {
        const size_t lineLength = head.find(lineEnd);
        const std::string_view line = head.substr(0, lineLength);
        head.remove_prefix(lineLength + lineEnd.size());
        // A bare line feed or carriage return inside a line is an end of line to some readers
        // and not to others.
        if (line.find_first_of("\r\n") != std::string_view::npos) {
            request.refuse(400, "A header line is malformed.");
            return request;
        }
        if (lineCount++ == 0) {
            if (!request.parseRequestLine(line, limits))
                return request;
            continue;
        }
        if (request.m_headers.size() >= limits.maxHeaders) {
            request.refuse(431, "The request has too many headers.");
            return request;
        }
        if (!request.parseHeaderLine(line))
            return request;
    }
    if (!request.checkFraming())
        return request;

    for (const Header &header : request.m_headers) {
        if (equalsIgnoringCase(header.name, "Connection")) {
            for (const std::string_view option : listElements(header.value)) {
                if (equalsIgnoringCase(option, "close"))
                    request.m_keepAlive = false;
                else if (equalsIgnoringCase(option, "keep-alive") &&
                         request.m_version == "HTTP/1.0")
                    request.m_keepAlive = true;
            }
        } else if (equalsIgnoringCase(header.name, "Expect")) {
            request.m_expectsContinue = equalsIgnoringCase(header.value, "100-continue");
        } else if (equalsIgnoringCase(header.name, "X-Forwarded-For")) {
            for (const std::string_view entry : listElements(header.value))
                request.m_forwardedFor.emplace_back(entry);
        }
    }
    return request;
}

std::string RequestHead::path() const
{
    return m_target.substr(0, m_target.find('?'));
}

std::string RequestHead::value(std::string_view name) const
{
    for (const Header &header : m_headers)
        if (equalsIgnoringCase(header.name, name))
            return header.value;
    return {};
}

void RequestHead::remove(std::string_view name)
{
    std::erase_if(m_headers,
                  [&](const Header &header) { return equalsIgnoringCase(header.name, name); });
    if (equalsIgnoringCase(name, "Expect"))
        m_expectsContinue = false;
}

std::string RequestHead::text() const
{
    std::string text = m_method + " " + m_target + " " + m_version + "\r\n";
    for (const Header &header : m_headers)
        text += header.name + ": " + header.value + "\r\n";
    text += "\r\n";
    return text;
}
