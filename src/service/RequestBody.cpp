#include "service/RequestBody.h"

namespace {

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string formDecode(const std::string &text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '+') {
            out += ' ';
        } else if (c == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
                   hexValue(text[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else {
            out += c;
        }
    }
    return out;
}

bool isChunked(const httplib::Request &req)
{
    return req.get_header_value("Transfer-Encoding").find("chunked") != std::string::npos;
}

// A request with neither a length nor chunks has no body. The library would read such a body
// until the client hangs up, so it is never asked to.
bool hasBody(const httplib::Request &req)
{
    return isChunked(req) || req.get_header_value<uint64_t>("Content-Length") > 0;
}

} // namespace

namespace RequestBody {

Outcome readSmall(const httplib::Request &req, const httplib::ContentReader &reader, uint64_t limit,
                  std::string &body)
{
    body.clear();
    if (!hasBody(req))
        return Outcome::ok;
    uint64_t total = 0;
    const bool chunked = isChunked(req);
    auto receive = [&](const char *data, size_t size) {
        total += size;
        if (total <= limit) {
            body.append(data, size);
            return true;
        }
        body.clear();
        // A chunked body has no end we know of; a counted one is bounded by the server's
        // largest payload, and reading it out keeps the connection in step.
        return !chunked;
    };
    bool read = false;
    if (req.is_multipart_form_data())
        read = reader([](const httplib::MultipartFormData &) { return true; }, receive);
    else
        read = reader(receive);
    if (total > limit)
        return Outcome::tooLarge;
    return read ? Outcome::ok : Outcome::broken;
}

void discard(const httplib::Request &req, const httplib::ContentReader &reader)
{
    if (!hasBody(req))
        return;
    const bool chunked = isChunked(req);
    uint64_t total = 0;
    auto drop = [&](const char *, size_t size) {
        total += size;
        return !chunked || total < (uint64_t(1) << 20);
    };
    if (req.is_multipart_form_data())
        reader([](const httplib::MultipartFormData &) { return true; }, drop);
    else
        reader(drop);
}

std::map<std::string, std::string> parseForm(const std::string &body)
{
    std::map<std::string, std::string> fields;
    size_t start = 0;
    while (start <= body.size()) {
        size_t end = body.find('&', start);
        if (end == std::string::npos)
            end = body.size();
        const std::string pair = body.substr(start, end - start);
        if (!pair.empty()) {
            const size_t equals = pair.find('=');
            const std::string name = formDecode(pair.substr(0, equals));
            const std::string value =
                equals == std::string::npos ? std::string() : formDecode(pair.substr(equals + 1));
            fields.try_emplace(name, value);
        }
        start = end + 1;
    }
    return fields;
}

} // namespace RequestBody
