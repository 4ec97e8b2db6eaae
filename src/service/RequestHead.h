#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// How large a request head may be. Heads from the program and from browsers are well under a
// kilobyte or two; these leave room for long cookies and still keep a waiting connection cheap.
struct RequestHeadLimits
{
    // The request line, every header and the blank line.
    size_t maxBytes = 16 * 1024;
    size_t maxHeaders = 100;
    size_t maxTargetBytes = 8 * 1024;
};

// The head of one HTTP/1.x request, read and checked before the HTTP library sees it: the
// library would keep any number of header lines, take the first of two different lengths, and
// read a POST without a length until the client hangs up. A head that passes is handed on in
// the plain form text() gives, so the library never reads anything this did not check.
class RequestHead
{
public:
    struct Header
    {
        std::string name;
        std::string value;
    };

    // Finds the end of a head that arrives in pieces, looking at each byte once (a client
    // sending a byte at a time must not make every piece cost a search of all before it).
    class Scanner
    {
    public:
        explicit Scanner(const RequestHeadLimits &limits)
            : m_limits(limits)
        {
        }
        // `bytes` is all that has arrived of this head and after it, from the same start each
        // time. Returns where the head ends (just past its blank line); none while it has not.
        std::optional<size_t> scan(std::string_view bytes);
        // With no end yet: true when what has come is already too large to be a head (431
        // without waiting for more).
        bool tooLarge() const;

    private:
        RequestHeadLimits m_limits;
        size_t m_scanned = 0;
        size_t m_lines = 0;
    };

    // Parses a whole head, blank line included. Never throws: a head that cannot be served has
    // refusal() set, with a sentence in reason().
    static RequestHead parse(std::string_view head, const RequestHeadLimits &limits);

    // 0 when the head may be served; otherwise the status to answer with (400, 411, 414, 431
    // or 505).
    int refusal() const { return m_refusal; }
    const std::string &reason() const { return m_reason; }

    const std::string &method() const { return m_method; }
    const std::string &target() const { return m_target; }
    // The target without its query: query strings can hold secrets and stay out of the log.
    std::string path() const;
    const std::vector<Header> &headers() const { return m_headers; }
    // The first value of a header (names compared without letter case); empty when absent.
    std::string value(std::string_view name) const;
    // The body's length: 0 when the request has none.
    uint64_t contentLength() const { return m_contentLength; }
    bool expectsContinue() const { return m_expectsContinue; }
    // Whether the client keeps the connection open after the answer.
    bool keepAlive() const { return m_keepAlive; }
    // X-Forwarded-For entries of every such header, left to right.
    const std::vector<std::string> &forwardedFor() const { return m_forwardedFor; }

    // Drops every header of that name (the front door answers Expect itself for small bodies).
    void remove(std::string_view name);
    // The head as the HTTP library is given it: one line per header, CRLF, the blank line.
    std::string text() const;

private:
    bool refuse(int status, std::string reason);
    bool parseRequestLine(std::string_view line, const RequestHeadLimits &limits);
    bool parseHeaderLine(std::string_view line);
    bool checkFraming();

    int m_refusal = 0;
    std::string m_reason;
    std::string m_method;
    std::string m_target;
    std::string m_version;
    std::vector<Header> m_headers;
    uint64_t m_contentLength = 0;
    bool m_expectsContinue = false;
    bool m_keepAlive = true;
    std::vector<std::string> m_forwardedFor;
};
