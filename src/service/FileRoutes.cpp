#include "service/FileRoutes.h"

#include "service/ByteRange.h"
#include "service/HttpReply.h"

#include <memory>
#include <vector>

using httplib::Request;
using httplib::Response;

namespace {

constexpr size_t chunkBytes = 256 * 1024;

void serve(const Request &req, Response &res, std::shared_ptr<StoredFile> file,
           const std::string &contentType)
{
    const uint64_t size = file->size();
    ByteRange range {0, size};
    switch (ByteRange::parse(req.get_header_value("Range"), size, range)) {
    case ByteRange::Outcome::unsatisfiable:
        res.set_header("Content-Range", "bytes */" + std::to_string(size));
        return HttpReply::error(res, 416, "The requested range is outside the file.");
    case ByteRange::Outcome::partial:
        res.status = 206;
        res.set_header("Content-Range",
                       "bytes " + std::to_string(range.first) + "-" +
                           std::to_string(range.first + range.length - 1) + "/" +
                           std::to_string(size));
        break;
    case ByteRange::Outcome::whole:
        res.status = 200;
        range = {0, size};
        break;
    }
    res.set_header("Accept-Ranges", "bytes");
    auto buffer = std::make_shared<std::vector<char>>(chunkBytes);
    const uint64_t first = range.first;
    file->willRead(range.first, range.length);
    res.set_content_provider(
        static_cast<size_t>(range.length), contentType,
        [file, buffer, first](size_t offset, size_t length, httplib::DataSink &sink) {
            const size_t want = std::min(length, buffer->size());
            const int64_t got = file->read(first + offset, buffer->data(), want);
            // A file that shrank under us, or a read error: end the reply short rather than
            // send made-up bytes.
            if (got <= 0)
                return false;
            return sink.write(buffer->data(), static_cast<size_t>(got));
        });
}

void clipFile(ServiceContext &context, const Request &req, Response &res)
{
    const std::string id = req.matches[1];
    const bool poster = req.matches[2] == "jpg";
    const std::optional<ClipRecord> clip = context.records.clip(id);
    if (!clip && context.records.clipDeleted(id))
        return HttpReply::error(res, 410, "This clip was deleted.");
    if (!clip || (poster && !clip->hasPoster))
        return HttpReply::error(res, 404, "There is no such clip.");
    std::shared_ptr<StoredFile> file = context.files.open(
        poster ? FileKind::poster : FileKind::clip, id + (poster ? ".jpg" : ".mp4"));
    if (!file)
        return HttpReply::error(res, 404, "There is no such clip.");
    // A clip's file never changes under its id, but its owner may take it down: shared caches
    // keep it an hour at most.
    res.set_header("Cache-Control", "public, max-age=3600");
    serve(req, res, std::move(file), poster ? "image/jpeg" : "video/mp4");
}

void release(ServiceContext &context, const Request &req, Response &res)
{
    const std::optional<ReleaseRecord> release = context.records.releaseByFileName(req.matches[1]);
    std::shared_ptr<StoredFile> file =
        release ? context.files.open(FileKind::release, release->fileName) : nullptr;
    if (!file)
        return HttpReply::error(res, 404, "There is no such release.");
    res.set_header("Content-Disposition", "attachment; filename=\"" + release->fileName + "\"");
    res.set_header("Cache-Control", "public, max-age=86400");
    serve(req, res, std::move(file), "application/gzip");
}

} // namespace

namespace FileRoutes {

void install(httplib::Server &server, ServiceContext &context)
{
    ServiceContext *c = &context;
    server.Get(R"(/files/([a-z0-9]{1,32})\.(mp4|jpg))",
               [c](const Request &req, Response &res) { clipFile(*c, req, res); });
    server.Get(R"(/download/([A-Za-z0-9.+_-]{1,100}))",
               [c](const Request &req, Response &res) { release(*c, req, res); });
}

} // namespace FileRoutes
