#include "service/ApiRoutes.h"

#include "service/Authentication.h"
#include "service/ClipRemoval.h"
#include "service/ClipUpload.h"
#include "service/HttpReply.h"
#include "service/PackRequest.h"
#include "service/ReleaseVersion.h"
#include "service/RequestBody.h"
#include "service/Secrets.h"

using httplib::ContentReader;
using httplib::Request;
using httplib::Response;

namespace {

void startDevice(ServiceContext &context, const Request &req, Response &res,
                 const ContentReader &reader)
{
    RequestBody::discard(req, reader);
    if (!context.deviceStarts.allow(req.remote_addr))
        return HttpReply::tooManyRequests(res, context.deviceStarts.retryAfterSeconds());
    const int64_t now = unixNow();
    context.records.purgeDeviceCodes(now - 24 * 3600);
    for (int attempt = 0; attempt < 8; ++attempt) {
        const std::string code = Secrets::deviceCode();
        if (context.records.addDeviceCode(code, now, now + context.limits.deviceCodeSeconds))
            return HttpReply::json(res, 200,
                                   {{"code", code}, {"url", context.link("/device?code=" + code)}});
    }
    HttpReply::error(res, 503, "Could not make a sign-in code. Try again.");
}

// The answer for a code that is neither pending nor approved.
void deviceCodeGone(Response &res, DeviceCodeState state)
{
    switch (state) {
    case DeviceCodeState::expired:
        return HttpReply::error(res, 410, "This sign-in code has expired. Start signing in again.");
    case DeviceCodeState::claimed:
        return HttpReply::error(res, 410,
                                "This sign-in code was already used. Start signing in again.");
    default:
        return HttpReply::error(res, 404,
                                "This sign-in code is not known. Start signing in again.");
    }
}

void pollDevice(ServiceContext &context, const Request &req, Response &res)
{
    if (!context.devicePolls.allow(req.remote_addr))
        return HttpReply::tooManyRequests(res, context.devicePolls.retryAfterSeconds());
    const std::string code = req.matches[1];
    const int64_t now = unixNow();
    const DeviceCodeState state = context.records.deviceCodeState(code, now);
    if (state == DeviceCodeState::pending) {
        res.status = 204;
        res.set_header("Cache-Control", "no-store");
        return;
    }
    if (state != DeviceCodeState::approved)
        return deviceCodeGone(res, state);
    const std::string token = Secrets::newToken();
    const DeviceCodeState claimed =
        context.records.claimDeviceCode(code, Secrets::tokenHash(token), now);
    if (claimed != DeviceCodeState::approved)
        return deviceCodeGone(res, claimed);
    HttpReply::json(res, 200, {{"token", token}});
}

void me(ServiceContext &context, const Request &req, Response &res)
{
    const std::optional<UserRecord> user = Authentication::bearer(context, req, res);
    if (!user)
        return;
    HttpReply::json(res, 200,
                    {{"id", user->id},
                     {"vantrel_code", user->vantrelCode},
                     {"name", user->name},
                     {"email", user->email},
                     {"avatar_url", ""},
                     {"discord_linked", false},
                     {"google_linked", false},
                     {"google_login", false},
                     {"discord_oauth", false}});
}

void uploadClip(ServiceContext &context, const Request &req, Response &res,
                const ContentReader &reader)
{
    // A refused sender's body is left unread (an anonymous client must not make the service
    // read gigabytes): the connection closes after the answer instead.
    const std::optional<UserRecord> user = Authentication::bearer(context, req, res);
    if (!user)
        return;
    ClipUpload upload(context, *user);
    const ClipUpload::Outcome outcome = upload.run(req, res, reader);
    if (outcome.status != 200)
        return HttpReply::error(res, outcome.status, outcome.detail);
    HttpReply::json(res, 200,
                    {{"id", outcome.clip.id},
                     {"url", context.link("/c/" + outcome.clip.id)},
                     {"name", outcome.clip.name}});
}

// Takes one of the caller's own clips down. Someone else's clip answers as one that does not
// exist: the answer never tells which ids are taken.
void deleteClip(ServiceContext &context, const Request &req, Response &res)
{
    const std::optional<UserRecord> user = Authentication::bearer(context, req, res);
    if (!user)
        return;
    const std::string id = req.matches[1];
    const std::optional<ClipRecord> clip = context.records.clip(id);
    if (!clip || clip->userId != user->id ||
        !ClipRemoval::remove(context.records, context.files, id))
        return HttpReply::error(res, 404, "You have no clip with the id \"" + id + "\".");
    res.status = 204;
    res.set_header("Cache-Control", "no-store");
}

// Reads a small body; answers the error itself and returns none when it cannot.
std::optional<std::string> readSmallBody(ServiceContext &context, const Request &req, Response &res,
                                         const ContentReader &reader)
{
    std::string body;
    switch (RequestBody::readSmall(req, reader, context.limits.maxSmallBodyBytes, body)) {
    case RequestBody::Outcome::tooLarge:
        HttpReply::error(res, 413,
                         "The request is larger than " +
                             std::to_string(context.limits.maxSmallBodyBytes / 1024) + " KiB.");
        return std::nullopt;
    case RequestBody::Outcome::broken:
        HttpReply::error(res, 400, "The request body is incomplete.");
        return std::nullopt;
    case RequestBody::Outcome::ok:
        break;
    }
    return body;
}

void createPack(ServiceContext &context, const Request &req, Response &res,
                const ContentReader &reader)
{
    const std::optional<UserRecord> user = Authentication::bearer(context, req, res);
    if (!user)
        return;
    const std::optional<std::string> body = readSmallBody(context, req, res, reader);
    if (!body)
        return;
    std::string problem;
    const std::optional<PackRequest> request = PackRequest::parse(*body, context.limits, problem);
    if (!request)
        return HttpReply::error(res, 400, problem);

    PackRecord pack;
    for (const std::string &clipId : request->clipIds) {
        const std::optional<ClipRecord> clip =
            clipId.size() <= 64 ? context.records.clip(clipId) : std::nullopt;
        if (!clip)
            return HttpReply::error(
                res, 404, "There is no clip with the id \"" + clipId.substr(0, 64) + "\".");
        if (clip->userId != user->id)
            return HttpReply::error(res, 403,
                                    "The clip \"" + clipId + "\" belongs to someone else.");
        pack.clipIds.push_back(clipId);
    }
    pack.id = Secrets::randomId(12);
    pack.userId = user->id;
    pack.title = request->title.empty() ? "Vantrel clips" : request->title;
    pack.createdAt = unixNow();
    context.records.addPack(pack);
    HttpReply::json(res, 200, {{"url", context.link("/p/" + pack.id)}});
}

void version(ServiceContext &context, const Request &, Response &res)
{
    std::vector<ReleaseRecord> releases = context.records.releases();
    // A release whose archive is gone is not offered.
    std::erase_if(releases, [&](const ReleaseRecord &release) {
        return !context.files.exists(FileKind::release, release.fileName);
    });
    const std::optional<ReleaseRecord> newest = ReleaseVersion::newest(releases);
    if (!newest)
        return HttpReply::error(res, 404, "No release has been published yet.");
    HttpReply::json(res, 200,
                    {{"version", newest->version},
                     {"notes", newest->notes},
                     {"linux_url", "/download/" + newest->fileName},
                     {"linux_sig", newest->signatureBase64}});
}

void ads(ServiceContext &context, const Request &, Response &res)
{
    const std::string stored = context.records.ads();
    res.status = 200;
    res.set_header("Cache-Control", "no-cache");
    res.set_content(stored.empty() ? std::string(R"({"slots":[]})") : stored, "application/json");
}

} // namespace

namespace ApiRoutes {

void install(httplib::Server &server, ServiceContext &context)
{
    ServiceContext *c = &context;
    server.Post("/v1/auth/device",
                [c](const Request &req, Response &res, const ContentReader &reader) {
                    startDevice(*c, req, res, reader);
                });
    server.Get(R"(/v1/auth/device/([^/]{1,32}))",
               [c](const Request &req, Response &res) { pollDevice(*c, req, res); });
    server.Get("/v1/me", [c](const Request &req, Response &res) { me(*c, req, res); });
    server.Post("/v1/clips", [c](const Request &req, Response &res, const ContentReader &reader) {
        uploadClip(*c, req, res, reader);
    });
    server.Delete(R"(/v1/clips/([a-z0-9]{1,32}))",
                  [c](const Request &req, Response &res) { deleteClip(*c, req, res); });
    server.Post("/v1/packs", [c](const Request &req, Response &res, const ContentReader &reader) {
        createPack(*c, req, res, reader);
    });
    server.Get("/v1/version", [c](const Request &req, Response &res) { version(*c, req, res); });
    server.Get("/v1/ads", [c](const Request &req, Response &res) { ads(*c, req, res); });
}

} // namespace ApiRoutes
