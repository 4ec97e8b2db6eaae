// A small request body as the service reads it: through RequestBody::readSmall (once counted,
// once chunked with a lower limit, arriving in uneven pieces), then as the JSON of a new pack and
// as a login or device form.

#include "FuzzCheck.h"

#include "service/PackRequest.h"
#include "service/RequestBody.h"
#include "service/TextRules.h"

#include <cstdint>
#include <string>

namespace {

// Hands the body to `receive` in pieces of 1, 2, 3 … bytes; false when the receiver stopped.
bool deliver(const std::string &body, const httplib::ContentReceiver &receive)
{
    size_t at = 0;
    for (size_t piece = 1; at < body.size(); ++piece) {
        const size_t size = std::min(piece, body.size() - at);
        if (!receive(body.data() + at, size))
            return false;
        at += size;
    }
    return true;
}

void readBody(const std::string &body, bool chunked, uint64_t limit)
{
    httplib::Request req;
    req.method = "POST";
    if (chunked)
        req.headers.emplace("Transfer-Encoding", "chunked");
    else
        req.headers.emplace("Content-Length", std::to_string(body.size()));
    bool stopped = false;
    const httplib::ContentReader reader(
        [&](const httplib::ContentReceiver &receive) {
            stopped = !deliver(body, receive);
            return !stopped;
        },
        [&](const httplib::MultipartContentHeader &, const httplib::ContentReceiver &receive) {
            stopped = !deliver(body, receive);
            return !stopped;
        });
    std::string read;
    switch (RequestBody::readSmall(req, reader, limit, read)) {
    case RequestBody::Outcome::ok:
        FUZZ_CHECK(read == body && !stopped);
        break;
    case RequestBody::Outcome::tooLarge:
        // A counted body is read to its end to keep the connection in step; a chunked one is
        // cut off.
        FUZZ_CHECK(body.size() > limit && read.empty() && stopped == chunked);
        break;
    case RequestBody::Outcome::broken:
        FUZZ_CHECK(false); // the reader here never fails
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string body(reinterpret_cast<const char *>(data), size);
    const ServiceLimits limits;
    readBody(body, false, limits.maxSmallBodyBytes);
    readBody(body, true, 1024);

    std::string problem;
    if (const std::optional<PackRequest> pack = PackRequest::parse(body, limits, problem)) {
        FUZZ_CHECK(problem.empty());
        FUZZ_CHECK(TextRules::cleanLine(pack->title) == pack->title);
        FUZZ_CHECK(TextRules::characterCount(pack->title) <= size_t(limits.maxNameCharacters));
        FUZZ_CHECK(pack->clipIds.size() <= size_t(limits.maxPackClips));
    } else {
        FUZZ_CHECK(!problem.empty());
    }

    for (const auto &[name, value] : RequestBody::parseForm(body))
        FUZZ_CHECK(name.size() + value.size() <= body.size());
    return 0;
}
