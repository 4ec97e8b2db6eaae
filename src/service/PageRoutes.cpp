#include "service/PageRoutes.h"

#include "service/Authentication.h"
#include "service/ClipRemoval.h"
#include "service/HttpReply.h"
#include "service/Pages.h"
#include "service/RequestBody.h"
#include "service/Secrets.h"

#include <algorithm>
#include <cctype>

using httplib::ContentReader;
using httplib::Request;
using httplib::Response;

namespace {

constexpr uint64_t formLimit = 8 * 1024;

// Reads a form body; answers the error page itself and returns false when it cannot.
bool readForm(const Request &req, Response &res, const ContentReader &reader,
              std::map<std::string, std::string> &fields)
{
    std::string body;
    switch (RequestBody::readSmall(req, reader, formLimit, body)) {
    case RequestBody::Outcome::tooLarge:
        HttpReply::html(res, 413, Pages::message("Too much", "The form sent was too large."));
        return false;
    case RequestBody::Outcome::broken:
        HttpReply::html(res, 400, Pages::message("Incomplete", "The form arrived incomplete."));
        return false;
    case RequestBody::Outcome::ok:
        break;
    }
    fields = RequestBody::parseForm(body);
    return true;
}

// Seconds to wait before another password attempt, or 0 when this one may go ahead. Tries are
// counted by client and by account: many addresses guessing at one account are held back too.
int passwordWait(ServiceContext &context, const Request &req, const std::string &email)
{
    if (!context.passwordAttempts.allow(req.remote_addr))
        return context.passwordAttempts.retryAfterSeconds();
    std::string account = email;
    std::transform(account.begin(), account.end(), account.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    if (!context.accountPasswordAttempts.allow(account))
        return context.accountPasswordAttempts.retryAfterSeconds();
    return 0;
}

// The page for a code that cannot be approved (any more).
void deviceCodePage(Response &res, DeviceCodeState state, const std::string &code)
{
    switch (state) {
    case DeviceCodeState::approved:
    case DeviceCodeState::claimed:
        return HttpReply::html(res, 200, Pages::deviceApproved(code));
    case DeviceCodeState::expired:
        return HttpReply::html(res, 410,
                               Pages::message("This code has expired",
                                              "Sign-in codes last ten minutes. Start "
                                              "signing in again from Vantrel."));
    default:
        return HttpReply::html(res, 404,
                               Pages::message("Unknown code",
                                              "This sign-in code is not known. Start "
                                              "signing in again from Vantrel."));
    }
}

void showDevice(ServiceContext &context, const Request &req, Response &res)
{
    const std::string code = req.get_param_value("code");
    if (code.empty() || code.size() > 32)
        return HttpReply::html(res, 400,
                               Pages::message("Sign in from Vantrel",
                                              "Open this page with Sign in in the "
                                              "Vantrel program."));
    // The page tells a pending code from an unknown one: guesses are held to the poll's rate.
    if (!context.devicePages.allow(req.remote_addr)) {
        res.set_header("Retry-After", std::to_string(context.devicePages.retryAfterSeconds()));
        return HttpReply::html(res, 429,
                               Pages::message("Too many attempts",
                                              "Wait a minute, then open the page from Vantrel "
                                              "again."));
    }
    const DeviceCodeState state = context.records.deviceCodeState(code, unixNow());
    if (state != DeviceCodeState::pending)
        return deviceCodePage(res, state, code);
    HttpReply::html(res, 200, Pages::device(code, {}, {}));
}

void approveDevice(ServiceContext &context, const Request &req, Response &res,
                   const ContentReader &reader)
{
    std::map<std::string, std::string> form;
    if (!readForm(req, res, reader, form))
        return;
    const std::string code = form["code"].substr(0, 32);
    const std::string email = form["email"].substr(0, 254);
    if (const int wait = passwordWait(context, req, email); wait > 0) {
        res.set_header("Retry-After", std::to_string(wait));
        return HttpReply::html(res, 429,
                               Pages::device(code, email,
                                             "Too many attempts. Wait a minute and try "
                                             "again."));
    }
    const DeviceCodeState state = context.records.deviceCodeState(code, unixNow());
    if (state != DeviceCodeState::pending)
        return deviceCodePage(res, state, code);
    const std::optional<UserRecord> user =
        Authentication::password(context, email, form["password"]);
    if (!user)
        return HttpReply::html(
            res, 401, Pages::device(code, email, "The email or the password is not right."));
    const DeviceCodeState before = context.records.approveDeviceCode(code, user->id, unixNow());
    if (before != DeviceCodeState::pending)
        return deviceCodePage(res, before, code);
    HttpReply::html(res, 200, Pages::deviceApproved(code));
}

void showAccount(ServiceContext &context, const Request &req, Response &res,
                 const std::string &message = {})
{
    const std::optional<UserRecord> user = Authentication::session(context, req);
    if (!user)
        return HttpReply::html(res, 200, Pages::accountSignIn({}, message));
    HttpReply::html(res, 200,
                    Pages::account(*user, context.records.clipsOfUser(user->id),
                                   context.records.packsOfUser(user->id), message));
}

std::string sessionCookie(ServiceContext &context, const std::string &value, int maxAgeSeconds)
{
    std::string cookie = std::string(Authentication::sessionCookie) + "=" + value +
        "; Path=/; HttpOnly; SameSite=Strict; Max-Age=" + std::to_string(maxAgeSeconds);
    if (context.publicUrl.rfind("https://", 0) == 0)
        cookie += "; Secure";
    return cookie;
}

void signInAccount(ServiceContext &context, const Request &req, Response &res,
                   const ContentReader &reader)
{
    std::map<std::string, std::string> form;
    if (!readForm(req, res, reader, form))
        return;
    const std::string email = form["email"].substr(0, 254);
    if (const int wait = passwordWait(context, req, email); wait > 0) {
        res.set_header("Retry-After", std::to_string(wait));
        return HttpReply::html(res, 429,
                               Pages::accountSignIn(email,
                                                    "Too many attempts. Wait a "
                                                    "minute and try again."));
    }
    const std::optional<UserRecord> user =
        Authentication::password(context, email, form["password"]);
    if (!user)
        return HttpReply::html(res, 401,
                               Pages::accountSignIn(email,
                                                    "The email or the password is "
                                                    "not right."));
    const std::string token = Secrets::newToken();
    const int64_t now = unixNow();
    context.records.addToken(Secrets::tokenHash(token), user->id, TokenKind::web, now,
                             now + context.limits.webSessionSeconds);
    res.set_header("Set-Cookie", sessionCookie(context, token, context.limits.webSessionSeconds));
    res.set_redirect("/account", 303);
}

void signOutAccount(ServiceContext &context, const Request &req, Response &res,
                    const ContentReader &reader)
{
    std::map<std::string, std::string> form;
    if (!readForm(req, res, reader, form))
        return;
    const std::optional<UserRecord> user = Authentication::session(context, req);
    std::string message = "You are signed out.";
    if (user) {
        const int64_t now = unixNow();
        if (form["everywhere"] == "1") {
            context.records.revokeAllTokens(user->id, now);
            message = "You are signed out here and in every Vantrel program.";
        } else if (const auto token = HttpReply::cookie(req, Authentication::sessionCookie)) {
            context.records.revokeToken(Secrets::tokenHash(*token), now);
        }
    }
    res.set_header("Set-Cookie", sessionCookie(context, "", 0));
    HttpReply::html(res, 200, Pages::accountSignIn({}, message));
}

// A form sent from another site: the session cookie is SameSite=Strict, so a browser does not
// send it along, but a browser that says where the form came from is held to it as well.
bool fromElsewhere(ServiceContext &context, const Request &req)
{
    const std::string origin = req.get_header_value("Origin");
    return !origin.empty() && origin != context.publicUrl;
}

void deleteClip(ServiceContext &context, const Request &req, Response &res,
                const ContentReader &reader)
{
    std::map<std::string, std::string> form;
    if (!readForm(req, res, reader, form))
        return;
    const std::optional<UserRecord> user = Authentication::session(context, req);
    if (!user || fromElsewhere(context, req))
        return res.set_redirect("/account", 303);
    const std::string id = req.matches[1];
    const std::optional<ClipRecord> clip = context.records.clip(id);
    if (!clip || clip->userId != user->id)
        return showAccount(context, req, res, "That clip is not among yours any more.");
    if (form["confirm"] != "1")
        return HttpReply::html(res, 200, Pages::confirmDelete(*clip));
    ClipRemoval::remove(context.records, context.files, id);
    showAccount(context, req, res, "“" + clip->name + "” is deleted; its link now says so.");
}

void showClip(ServiceContext &context, const Request &req, Response &res)
{
    if (context.records.clipDeleted(req.matches[1]))
        return HttpReply::html(
            res, 410, Pages::message("Clip deleted", "Whoever shared this clip has deleted it."));
    const std::optional<ClipRecord> clip = context.records.clip(req.matches[1]);
    const std::optional<UserRecord> owner =
        clip ? context.records.userById(clip->userId) : std::nullopt;
    if (!clip || !owner)
        return HttpReply::html(res, 404,
                               Pages::message("Clip not found",
                                              "This clip does not exist, or it was "
                                              "removed."));
    HttpReply::html(res, 200, Pages::clip(context.publicUrl, *clip, *owner));
}

void showPack(ServiceContext &context, const Request &req, Response &res)
{
    const std::optional<PackRecord> pack = context.records.pack(req.matches[1]);
    if (!pack)
        return HttpReply::html(res, 404,
                               Pages::message("Folder not found",
                                              "This folder does not exist, or it was "
                                              "removed."));
    std::vector<ClipRecord> clips;
    for (const std::string &id : pack->clipIds)
        if (std::optional<ClipRecord> clip = context.records.clip(id))
            clips.push_back(std::move(*clip));
    HttpReply::html(res, 200, Pages::pack(context.publicUrl, *pack, clips));
}

} // namespace

namespace PageRoutes {

void install(httplib::Server &server, ServiceContext &context)
{
    ServiceContext *c = &context;
    server.Get("/",
               [](const Request &, Response &res) { HttpReply::html(res, 200, Pages::home()); });
    server.Get("/site.css", [](const Request &, Response &res) {
        res.set_header("Cache-Control", "public, max-age=3600");
        res.set_content(Pages::stylesheet(), "text/css; charset=utf-8");
    });
    server.Get("/device", [c](const Request &req, Response &res) { showDevice(*c, req, res); });
    server.Post("/device", [c](const Request &req, Response &res, const ContentReader &reader) {
        approveDevice(*c, req, res, reader);
    });
    server.Get("/account", [c](const Request &req, Response &res) { showAccount(*c, req, res); });
    server.Post("/account", [c](const Request &req, Response &res, const ContentReader &reader) {
        signInAccount(*c, req, res, reader);
    });
    server.Post("/account/sign-out",
                [c](const Request &req, Response &res, const ContentReader &reader) {
                    signOutAccount(*c, req, res, reader);
                });
    server.Post(R"(/account/clips/([a-z0-9]{1,32})/delete)",
                [c](const Request &req, Response &res, const ContentReader &reader) {
                    deleteClip(*c, req, res, reader);
                });
    server.Get(R"(/c/([a-z0-9]{1,32}))",
               [c](const Request &req, Response &res) { showClip(*c, req, res); });
    server.Get(R"(/p/([a-z0-9]{1,32}))",
               [c](const Request &req, Response &res) { showPack(*c, req, res); });
}

} // namespace PageRoutes
