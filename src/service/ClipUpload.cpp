#include "service/ClipUpload.h"

#include "service/ClipVetting.h"
#include "service/PosterMaker.h"
#include "service/RequestStream.h"
#include "service/Secrets.h"
#include "service/TextRules.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t bufferBytes = 256 * 1024;

std::string sizeText(uint64_t bytes)
{
    char text[32];
    if (bytes >= (uint64_t(1) << 30) && bytes % (uint64_t(1) << 30) == 0)
        std::snprintf(text, sizeof text, "%llu GiB", static_cast<unsigned long long>(bytes >> 30));
    else if (bytes >= (uint64_t(1) << 20))
        std::snprintf(text, sizeof text, "%.0f MiB", static_cast<double>(bytes) / (1 << 20));
    else
        std::snprintf(text, sizeof text, "%llu bytes", static_cast<unsigned long long>(bytes));
    return text;
}

} // namespace

std::string ClipUpload::tooLargeDetail(const ServiceLimits &limits)
{
    return "The file is larger than the upload limit of " + sizeText(limits.maxUploadBytes) + ".";
}

ClipUpload::ClipUpload(ServiceContext &context, const UserRecord &owner)
    : m_context(context)
    , m_owner(owner)
{
}

bool ClipUpload::fail(int status, std::string detail)
{
    if (m_failedStatus == 0) {
        m_failedStatus = status;
        m_failedDetail = std::move(detail);
        m_file.reset();
    }
    // The rest of a refused body is read and dropped, so that the client's connection stays in
    // step for its next request; its length is within the upload limit.
    return true;
}

bool ClipUpload::onPartHeader(const MultipartStream::Part &part)
{
    if (m_failedStatus != 0)
        return true;
    if (part.name == "name") {
        if (m_sawName)
            return fail(400, "The form has more than one \"name\" part.");
        m_sawName = true;
        m_part = Part::name;
        return true;
    }
    if (part.name == "file") {
        if (m_file)
            return fail(400, "The form has more than one \"file\" part.");
        if (!TextRules::isPlainFileName(part.fileName))
            return fail(400, "The file's name must be a plain file name, without folders.");
        if (part.contentType != "video/mp4")
            return fail(415, "The file must be sent as video/mp4.");
        try {
            // The id is chosen now: a store that sends files away starts as the bytes come.
            m_clipId = Secrets::randomId(12);
            m_file = m_context.files.create(FileKind::clip, m_clipId + ".mp4");
        } catch (const FileError &) {
            return fail(507, "The service has no room for the upload right now.");
        }
        m_fileName = part.fileName;
        m_buffer.reserve(bufferBytes);
        m_part = Part::file;
        return true;
    }
    return fail(400, "The form has a part the service does not know: \"" + part.name + "\".");
}

bool ClipUpload::onPartData(const char *data, size_t size)
{
    if (m_failedStatus != 0)
        return true;
    if (m_part == Part::name) {
        // Four bytes per character is the most UTF-8 needs; anything longer is too long anyway.
        if (m_name.size() + size > size_t(m_context.limits.maxNameCharacters) * 4)
            return fail(400,
                        "The clip's name is longer than " +
                            std::to_string(m_context.limits.maxNameCharacters) + " characters.");
        m_name.append(data, size);
        return true;
    }
    if (m_part != Part::file)
        return true;
    m_fileBytes += size;
    if (m_fileBytes > m_context.limits.maxUploadBytes)
        return fail(413, tooLargeDetail(m_context.limits));
    try {
        if (m_buffer.size() + size > bufferBytes)
            flush();
        // Large pieces go to the file where they lie; small ones are gathered first.
        if (size >= bufferBytes / 4) {
            flush();
            m_file->write(data, size);
        } else
            m_buffer.insert(m_buffer.end(), data, data + size);
    } catch (const FileError &) {
        return fail(507, "The service has no room for the upload right now.");
    }
    return true;
}

void ClipUpload::flush()
{
    if (!m_buffer.empty()) {
        m_file->write(m_buffer.data(), m_buffer.size());
        m_buffer.clear();
    }
}

ClipUpload::Outcome ClipUpload::run(const httplib::Request &req, httplib::Response &res,
                                    const httplib::ContentReader &reader)
{
    const std::string boundary = MultipartStream::boundaryOf(req.get_header_value("Content-Type"));
    // A refusal before the body leaves it unread: the connection closes after the answer.
    if (boundary.empty()) {
        return {
            400, "The upload must be a multipart form with a \"name\" and a \"file\" part.", {}};
    }
    MultipartStream parts(
        boundary, [this](const MultipartStream::Part &part) { return onPartHeader(part); },
        [this](const char *data, size_t size) { return onPartData(data, size); });
    // The form is parsed here, so the library is told it is plain bytes and hands them over
    // untouched.
    auto &raw = const_cast<httplib::Request &>(req);
    raw.headers.erase("Content-Type");
    raw.headers.emplace("Content-Type", "application/octet-stream");
    bool parsing = true;
    const auto feed = [&](const char *data, size_t size) {
        if (parsing && !parts.feed(data, size)) {
            parsing = false;
            fail(400, "The upload is not a well-formed multipart form.");
        }
        return true;
    };
    bool read = true;
    if (RequestStream *stream = RequestStream::current()) {
        // Straight from the connection in blocks of up to 256 KiB: the library's reader would
        // hand the body over 4 KiB at a time.
        for (std::string_view block = stream->takeBodyBlock(); !block.empty();
             block = stream->takeBodyBlock())
            feed(block.data(), block.size());
        read = !stream->failed() && stream->bodyRead();
    } else {
        read = reader(feed);
    }
    if (m_failedStatus != 0)
        return {m_failedStatus, m_failedDetail, {}};
    if (!read) {
        // The library's own refusal of an oversized body comes as a 413 status.
        if (res.status == 413)
            return {413, tooLargeDetail(m_context.limits), {}};
        return {400, "The upload is incomplete: the connection ended before the form did.", {}};
    }
    if (!parts.complete())
        return {400, "The upload is incomplete: the form ended before its last part.", {}};
    if (!m_file)
        return {400, "The form has no \"file\" part.", {}};
    try {
        flush();
        m_file->finish();
    } catch (const FileError &) {
        return {507, "The service has no room for the upload right now.", {}};
    }
    return store();
}

ClipUpload::Outcome ClipUpload::store()
{
    const std::optional<std::string> cleaned = TextRules::cleanLine(m_name);
    if (!cleaned)
        return {400, "The clip's name is not valid UTF-8 text.", {}};
    std::string name = *cleaned;
    if (name.empty())
        name = TextRules::cleanLine(TextRules::withoutExtension(m_fileName)).value_or("Clip");
    if (TextRules::characterCount(name) > size_t(m_context.limits.maxNameCharacters))
        return {400,
                "The clip's name is longer than " +
                    std::to_string(m_context.limits.maxNameCharacters) + " characters.",
                {}};

    ClipVetting::Budget budget;
    budget.memoryBytes = m_context.limits.posterMemoryBytes;
    budget.bounds = {m_context.limits.maxVideoWidth, m_context.limits.maxVideoHeight};
    const ClipVetting inspection = ClipVetting::check(m_file->path(), budget);
    const ClipProbeResult &probe = inspection.probe;
    if (inspection.childFailed)
        return {503, "The service could not check the video. Try again later.", {}};
    if (!probe.isMp4)
        return {415, probe.problem, {}};

    ClipRecord clip;
    clip.id = m_clipId;
    clip.userId = m_owner.id;
    clip.name = name;
    clip.sizeBytes = static_cast<int64_t>(m_file->size());
    clip.width = probe.width;
    clip.height = probe.height;
    clip.durationMs = probe.durationMs;
    clip.hasPoster = false;
    clip.createdAt = unixNow();

    // The poster is made after the answer, from the file held open here: its pending name goes
    // with the commit.
    int forPoster = m_context.posters ? ::open(m_file->path().c_str(), O_RDONLY | O_CLOEXEC) : -1;
    // Files first, record last: a record never points at a file that is not there.
    try {
        m_context.files.commit(std::move(m_file), FileKind::clip, clip.id + ".mp4");
        try {
            m_context.records.addClip(clip);
        } catch (...) {
            m_context.files.remove(FileKind::clip, clip.id + ".mp4");
            throw;
        }
    } catch (...) {
        if (forPoster >= 0)
            ::close(forPoster);
        throw;
    }
    if (forPoster >= 0)
        m_context.posters->add(clip.id, forPoster);
    return {200, {}, clip};
}
