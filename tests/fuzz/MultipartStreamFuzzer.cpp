// An upload's form as a client sends it: the first line is the request's Content-Type, the rest
// its body. The body is read twice, whole and in small uneven pieces, and both readings must see
// the same parts, the same bytes and the same end.

#include "FuzzCheck.h"

#include "service/MultipartStream.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Reading
{
    std::vector<std::string> parts; // name, file name and type of each part, then its bytes
    bool accepted = true;
    bool complete = false;
};

Reading readForm(const std::string &boundary, std::string_view body, size_t firstPiece)
{
    Reading reading;
    MultipartStream stream(
        boundary,
        [&](const MultipartStream::Part &part) {
            reading.parts.push_back(part.name + '\n' + part.fileName + '\n' + part.contentType);
            reading.parts.emplace_back();
            // A part named "stop" is refused, as the upload refuses a part it does not know.
            return part.name != "stop";
        },
        [&](const char *data, size_t size) {
            FUZZ_CHECK(size > 0 && !reading.parts.empty());
            reading.parts.back().append(data, size);
            return true;
        });
    size_t piece = firstPiece;
    while (!body.empty() && reading.accepted) {
        const size_t size = std::min(piece, body.size());
        reading.accepted = stream.feed(body.data(), size);
        body.remove_prefix(size);
        piece = piece % 61 + 1; // 1 … 61 bytes, so a boundary is split at every offset
    }
    reading.complete = stream.complete();
    return reading;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t newline = input.find('\n');
    if (newline == std::string_view::npos)
        return 0;
    std::string contentType(input.substr(0, newline));
    if (!contentType.empty() && contentType.back() == '\r')
        contentType.pop_back();
    const std::string boundary = MultipartStream::boundaryOf(contentType);
    FUZZ_CHECK(boundary.size() <= 70);
    if (boundary.empty())
        return 0;

    const std::string_view body = input.substr(newline + 1);
    const Reading whole = readForm(boundary, body, body.size());
    const Reading pieces = readForm(boundary, body, size % 7 + 1);
    FUZZ_CHECK(whole.accepted == pieces.accepted);
    FUZZ_CHECK(whole.complete == pieces.complete);
    if (whole.accepted)
        FUZZ_CHECK(whole.parts == pieces.parts);
    return 0;
}
