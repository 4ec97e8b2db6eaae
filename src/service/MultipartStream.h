#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

// A multipart/form-data body parsed as it streams in, part by part, without holding more than a
// part's headers and a boundary's length of it. (The HTTP library's own parser copies every
// byte one at a time, which halved the upload speed.)
class MultipartStream
{
public:
    struct Part
    {
        std::string name;
        std::string fileName;
        std::string contentType;
    };
    using PartStarts = std::function<bool(const Part &)>;
    using PartData = std::function<bool(const char *data, size_t size)>;

    MultipartStream(std::string boundary, PartStarts onPart, PartData onData);

    // The boundary of a "multipart/form-data; boundary=…" content type; empty when it has none.
    static std::string boundaryOf(const std::string &contentType);

    // Takes the next bytes of the body; false when the body is malformed or a callback said
    // stop.
    bool feed(const char *data, size_t size);
    // True once the closing boundary has come.
    bool complete() const { return m_state == State::done; }

private:
    enum class State { preamble, headers, body, afterBoundary, done };

    bool step(bool &progressed);
    // Hands a block of a part's body on where it lies; none when the block needs the buffer.
    std::optional<bool> passThrough(const char *data, size_t size);
    bool readHeaders(std::string_view block);

    std::string m_opening; // "--BOUNDARY\r\n"
    std::string m_delimiter; // "\r\n--BOUNDARY"
    PartStarts m_onPart;
    PartData m_onData;
    State m_state = State::preamble;
    std::string m_buffer;
};
