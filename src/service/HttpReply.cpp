#include "service/HttpReply.h"

#include "service/ServiceContext.h"

#include <chrono>

int64_t unixNow()
{
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

namespace HttpReply {

std::string dump(const nlohmann::json &value)
{
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void json(httplib::Response &res, int status, const nlohmann::json &body)
{
    res.status = status;
    res.headers.erase("Cache-Control");
    res.set_header("Cache-Control", "no-store");
    res.set_content(dump(body), "application/json");
}

void error(httplib::Response &res, int status, const std::string &detail)
{
    json(res, status, {{"detail", detail}});
}

void tooManyRequests(httplib::Response &res, int retryAfterSeconds)
{
    res.set_header("Retry-After", std::to_string(retryAfterSeconds));
    error(res, 429, "Too many requests. Wait a moment and try again.");
}

void html(httplib::Response &res, int status, const std::string &page)
{
    res.status = status;
    // Pages carry no script at all; media and pictures come from this service only. The
    // referrer stays home because the device page's address holds a sign-in code.
    res.set_header("Content-Security-Policy",
                   "default-src 'none'; img-src 'self'; media-src 'self'; style-src 'self'; "
                   "form-action 'self'; base-uri 'none'; frame-ancestors 'none'");
    res.set_header("Referrer-Policy", "no-referrer");
    res.set_header("Cache-Control", "no-store");
    res.set_content(page, "text/html; charset=utf-8");
}

std::optional<std::string> bearerToken(const httplib::Request &req)
{
    const std::string header = req.get_header_value("Authorization");
    constexpr std::string_view scheme = "Bearer ";
    if (header.size() <= scheme.size() || header.compare(0, scheme.size(), scheme) != 0)
        return std::nullopt;
    std::string token = header.substr(scheme.size());
    while (!token.empty() && token.back() == ' ')
        token.pop_back();
    if (token.empty() || token.size() > 200)
        return std::nullopt;
    return token;
}

std::optional<std::string> cookie(const httplib::Request &req, const std::string &name)
{
    const std::string header = req.get_header_value("Cookie");
    size_t start = 0;
    while (start < header.size()) {
        size_t end = header.find(';', start);
        if (end == std::string::npos)
            end = header.size();
        std::string part = header.substr(start, end - start);
        const size_t first = part.find_first_not_of(' ');
        if (first != std::string::npos)
            part.erase(0, first);
        if (part.size() > name.size() && part.compare(0, name.size(), name) == 0 &&
            part[name.size()] == '=')
            return part.substr(name.size() + 1);
        start = end + 1;
    }
    return std::nullopt;
}

} // namespace HttpReply
