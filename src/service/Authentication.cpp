#include "service/Authentication.h"

#include "service/HttpReply.h"
#include "service/Secrets.h"

namespace Authentication {

std::optional<UserRecord> bearer(ServiceContext &context, const httplib::Request &req,
                                 httplib::Response &res)
{
    const std::optional<std::string> token = HttpReply::bearerToken(req);
    if (!token) {
        HttpReply::error(res, 401, "Please sign in to Vantrel first.");
        return std::nullopt;
    }
    const std::string hash = Secrets::tokenHash(*token);
    if (!context.tokenRequests.allow(hash)) {
        HttpReply::tooManyRequests(res, context.tokenRequests.retryAfterSeconds());
        return std::nullopt;
    }
    std::optional<UserRecord> user = context.records.userForToken(hash, unixNow());
    if (!user)
        HttpReply::error(res, 401, "Your sign-in is no longer valid. Please sign in again.");
    return user;
}

std::optional<UserRecord> session(ServiceContext &context, const httplib::Request &req)
{
    const std::optional<std::string> token = HttpReply::cookie(req, sessionCookie);
    if (!token || token->empty() || token->size() > 200)
        return std::nullopt;
    return context.records.userForToken(Secrets::tokenHash(*token), unixNow());
}

std::optional<UserRecord> password(ServiceContext &context, const std::string &email,
                                   const std::string &password)
{
    // Checked against when the email has no account, so both answers cost one hash check.
    static const std::string standIn = Secrets::hashPassword("no account has this password");
    std::optional<UserRecord> user = context.records.userByEmail(email);
    context.passwordChecks.acquire();
    const bool right = Secrets::verifyPassword(user ? user->passwordHash : standIn, password);
    context.passwordChecks.release();
    if (!right || !user)
        return std::nullopt;
    return user;
}

} // namespace Authentication
