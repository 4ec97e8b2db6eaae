#include "service/S3Client.h"

#include "service/S3Xml.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <strings.h>
#include <unistd.h>

namespace {

// Objects above this go up in parts of this size, several at once.
constexpr uint64_t partBytes = 16 << 20;
constexpr int partsAtOnce = 4;
// A reader holds at most this much of an object that its client has not taken yet.
constexpr size_t readAheadBytes = 4 << 20;
// A body read in full (an error, a listing) is never larger.
constexpr size_t maxReplyBytes = 16 << 20;
constexpr long stallSeconds = 60;

// Encodes a key for the path: everything but the unreserved characters and '/'.
std::string encode(const std::string &text, bool keepSlash)
{
    static const char *hex = "0123456789ABCDEF";
    std::string encoded;
    for (const unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' ||
            (keepSlash && c == '/')) {
            encoded += char(c);
        } else {
            encoded += '%';
            encoded += hex[c >> 4];
            encoded += hex[c & 15];
        }
    }
    return encoded;
}

// What one request brought back.
struct Reply
{
    long status = 0;
    std::string body;
    std::string etag;
};

size_t collectBody(char *data, size_t size, size_t count, void *user)
{
    auto *reply = static_cast<Reply *>(user);
    const size_t bytes = size * count;
    if (reply->body.size() + bytes > maxReplyBytes)
        return 0;
    reply->body.append(data, bytes);
    return bytes;
}

size_t collectHeader(char *data, size_t size, size_t count, void *user)
{
    auto *reply = static_cast<Reply *>(user);
    const std::string_view line(data, size * count);
    if (line.size() > 5 && strncasecmp(line.data(), "etag:", 5) == 0) {
        std::string_view value = line.substr(5);
        while (!value.empty() && (value.front() == ' ' || value.front() == '"'))
            value.remove_prefix(1);
        while (!value.empty() &&
               (value.back() == '\r' || value.back() == '\n' || value.back() == '"'))
            value.remove_suffix(1);
        reply->etag = value;
    }
    return size * count;
}

// A stretch of an open file, sent as a request's body.
struct FileSource
{
    int fd;
    uint64_t offset;
    uint64_t left;
};

size_t readFile(char *buffer, size_t size, size_t count, void *user)
{
    auto *source = static_cast<FileSource *>(user);
    const size_t want = size_t(std::min<uint64_t>(size * count, source->left));
    if (want == 0)
        return 0;
    ssize_t got = -1;
    do
        got = ::pread(source->fd, buffer, want, off_t(source->offset));
    while (got < 0 && errno == EINTR);
    if (got <= 0)
        return CURL_READFUNC_ABORT;
    source->offset += uint64_t(got);
    source->left -= uint64_t(got);
    return size_t(got);
}

[[noreturn]] void failed(const std::string &what, const std::string &key, const Reply &reply,
                         CURLcode code)
{
    std::string reason;
    if (code != CURLE_OK)
        reason = curl_easy_strerror(code);
    else
        reason = "HTTP " + std::to_string(reply.status) + " " + S3Xml::element(reply.body, "Code");
    throw FileError("The object store refused to " + what + " " + key + ": " + reason);
}

bool succeeded(const Reply &reply)
{
    return reply.status >= 200 && reply.status < 300;
}

} // namespace

struct S3Client::Handle
{
    Handle()
        : curl(curl_easy_init())
    {
        if (!curl)
            throw FileError("libcurl could not start a request.");
    }
    ~Handle()
    {
        curl_easy_cleanup(curl);
        curl_slist_free_all(headers);
    }
    CURL *curl;
    curl_slist *headers = nullptr;
};

S3Client::S3Client(S3Settings settings)
    : m_settings(std::move(settings))
{
    static const CURLcode started = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (started != CURLE_OK)
        throw FileError("libcurl could not start.");
}

S3Client::~S3Client() = default;

std::unique_ptr<S3Client::Handle> S3Client::borrow()
{
    {
        std::scoped_lock lock(m_mutex);
        if (!m_idle.empty()) {
            std::unique_ptr<Handle> handle = std::move(m_idle.back());
            m_idle.pop_back();
            return handle;
        }
    }
    auto handle = std::make_unique<Handle>();
    // (An empty "Expect:" to keep curl from asking before a large body would be signed as a
    // header and then not sent: the store refuses the signature. curl asks, and waits at most
    // the time set in prepare().)
    handle->headers = curl_slist_append(nullptr, "x-amz-content-sha256: UNSIGNED-PAYLOAD");
    return handle;
}

void S3Client::giveBack(std::unique_ptr<Handle> handle)
{
    std::scoped_lock lock(m_mutex);
    m_idle.push_back(std::move(handle));
}

std::string S3Client::objectUrl(const std::string &key, const std::string &query) const
{
    std::string endpoint = m_settings.endpoint;
    while (!endpoint.empty() && endpoint.back() == '/')
        endpoint.pop_back();
    std::string url = endpoint + "/" + encode(m_settings.bucket, false);
    if (!key.empty())
        url += "/" + encode(key, true);
    if (!query.empty())
        url += "?" + query;
    return url;
}

void S3Client::prepare(CURL *curl, const std::string &url, const char *method) const
{
    // Reset keeps the handle's open connection for the next request.
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    const std::string signing = "aws:amz:" + m_settings.region + ":s3";
    curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, signing.c_str());
    curl_easy_setopt(curl, CURLOPT_USERNAME, m_settings.accessKey.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, m_settings.secretKey.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, stallSeconds);
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 256L * 1024);
    curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, 512L * 1024);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_EXPECT_100_TIMEOUT_MS, 200L);
    if (std::string_view(method) == "HEAD")
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    else if (std::string_view(method) != "GET")
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method);
}

namespace {

// One request on a borrowed handle, its body from `source` (or none), its reply read whole.
CURLcode perform(CURL *curl, curl_slist *headers, Reply &reply, FileSource *source,
                 const std::string *postBody)
{
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collectBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, collectHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &reply);
    if (source) {
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, readFile);
        curl_easy_setopt(curl, CURLOPT_READDATA, source);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, curl_off_t(source->left));
    } else if (postBody) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, postBody->c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(postBody->size()));
    }
    const CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
    return code;
}

} // namespace

std::optional<S3Client::Object> S3Client::head(const std::string &key)
{
    std::unique_ptr<Handle> handle = borrow();
    prepare(handle->curl, objectUrl(key), "HEAD");
    curl_easy_setopt(handle->curl, CURLOPT_FILETIME, 1L);
    Reply reply;
    const CURLcode code = perform(handle->curl, handle->headers, reply, nullptr, nullptr);
    curl_off_t length = 0, time = 0;
    curl_easy_getinfo(handle->curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    curl_easy_getinfo(handle->curl, CURLINFO_FILETIME_T, &time);
    giveBack(std::move(handle));
    if (code == CURLE_OK && reply.status == 404)
        return std::nullopt;
    if (code != CURLE_OK || !succeeded(reply))
        failed("describe", key, reply, code);
    return Object {key, uint64_t(std::max<curl_off_t>(0, length)), int64_t(time)};
}

void S3Client::putFile(const std::string &key, int fd, uint64_t size)
{
    if (size <= partBytes) {
        std::unique_ptr<Handle> handle = borrow();
        prepare(handle->curl, objectUrl(key), "PUT");
        FileSource source {fd, 0, size};
        Reply reply;
        const CURLcode code = perform(handle->curl, handle->headers, reply, &source, nullptr);
        giveBack(std::move(handle));
        if (code != CURLE_OK || !succeeded(reply))
            failed("store", key, reply, code);
        return;
    }
    const std::string uploadId = createUpload(key);
    try {
        std::vector<std::string> etags;
        putParts(key, uploadId, fd, size, etags);
        completeUpload(key, uploadId, etags);
    } catch (...) {
        try {
            abortUpload(key, uploadId);
        } catch (const FileError &) {
            // Left for the sweep at the next start.
        }
        throw;
    }
}

std::string S3Client::createUpload(const std::string &key)
{
    std::unique_ptr<Handle> handle = borrow();
    prepare(handle->curl, objectUrl(key, "uploads="), "POST");
    Reply reply;
    const std::string empty;
    const CURLcode code = perform(handle->curl, handle->headers, reply, nullptr, &empty);
    giveBack(std::move(handle));
    const std::string uploadId = S3Xml::element(reply.body, "UploadId");
    if (code != CURLE_OK || !succeeded(reply) || uploadId.empty())
        failed("begin an upload of", key, reply, code);
    return uploadId;
}

std::string S3Client::putPart(const std::string &key, const std::string &uploadId, int number,
                              int fd, uint64_t offset, uint64_t size)
{
    std::unique_ptr<Handle> handle = borrow();
    prepare(
        handle->curl,
        objectUrl(key,
                  "partNumber=" + std::to_string(number) + "&uploadId=" + encode(uploadId, false)),
        "PUT");
    FileSource source {fd, offset, size};
    Reply reply;
    const CURLcode code = perform(handle->curl, handle->headers, reply, &source, nullptr);
    giveBack(std::move(handle));
    if (code != CURLE_OK || !succeeded(reply) || reply.etag.empty())
        failed("store a part of", key, reply, code);
    return reply.etag;
}

void S3Client::putParts(const std::string &key, const std::string &uploadId, int fd, uint64_t size,
                        std::vector<std::string> &etags)
{
    struct Part
    {
        std::unique_ptr<Handle> handle;
        FileSource source;
        Reply reply;
        std::string url;
    };
    const size_t count = size_t((size + partBytes - 1) / partBytes);
    etags.assign(count, {});
    std::vector<Part> parts(count);
    CURLM *multi = curl_multi_init();
    if (!multi)
        throw FileError("libcurl could not start an upload.");
    std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)> owner(multi, curl_multi_cleanup);
    size_t next = 0;
    int running = 0;
    std::string failure;
    const auto start = [&](size_t index) {
        Part &part = parts[index];
        part.handle = borrow();
        part.url = objectUrl(key,
                             "partNumber=" + std::to_string(index + 1) +
                                 "&uploadId=" + encode(uploadId, false));
        prepare(part.handle->curl, part.url, "PUT");
        const uint64_t offset = uint64_t(index) * partBytes;
        part.source = {fd, offset, std::min(partBytes, size - offset)};
        CURL *curl = part.handle->curl;
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, part.handle->headers);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collectBody);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &part.reply);
        curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, collectHeader);
        curl_easy_setopt(curl, CURLOPT_HEADERDATA, &part.reply);
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, readFile);
        curl_easy_setopt(curl, CURLOPT_READDATA, &part.source);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, curl_off_t(part.source.left));
        curl_easy_setopt(curl, CURLOPT_PRIVATE, &part);
        curl_multi_add_handle(multi, curl);
    };
    const auto finish = [&](Part &part, CURLcode code) {
        curl_easy_getinfo(part.handle->curl, CURLINFO_RESPONSE_CODE, &part.reply.status);
        curl_multi_remove_handle(multi, part.handle->curl);
        if ((code != CURLE_OK || !succeeded(part.reply) || part.reply.etag.empty()) &&
            failure.empty())
            failure = code != CURLE_OK ? curl_easy_strerror(code)
                                       : "HTTP " + std::to_string(part.reply.status) + " " +
                    S3Xml::element(part.reply.body, "Code");
        etags[size_t(&part - parts.data())] = part.reply.etag;
        giveBack(std::move(part.handle));
    };
    do {
        while (failure.empty() && next < count && running < partsAtOnce) {
            start(next++);
            ++running;
        }
        int active = 0;
        curl_multi_perform(multi, &active);
        int queued = 0;
        while (CURLMsg *message = curl_multi_info_read(multi, &queued)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            Part *part = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &part);
            const CURLcode code = message->data.result;
            finish(*part, code);
            --running;
        }
        if (running > 0)
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    } while (running > 0 || (failure.empty() && next < count));
    if (!failure.empty())
        throw FileError("The object store refused a part of " + key + ": " + failure);
}

void S3Client::completeUpload(const std::string &key, const std::string &uploadId,
                              const std::vector<std::string> &etags)
{
    std::string body = "<CompleteMultipartUpload>";
    for (size_t i = 0; i < etags.size(); ++i)
        body += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><ETag>\"" + etags[i] +
            "\"</ETag></Part>";
    body += "</CompleteMultipartUpload>";
    std::unique_ptr<Handle> handle = borrow();
    prepare(handle->curl, objectUrl(key, "uploadId=" + encode(uploadId, false)), "POST");
    Reply reply;
    const CURLcode code = perform(handle->curl, handle->headers, reply, nullptr, &body);
    giveBack(std::move(handle));
    // The answer may be an error even with status 200: it comes after the server's work.
    if (code != CURLE_OK || !succeeded(reply) || !S3Xml::element(reply.body, "Code").empty())
        failed("complete the upload of", key, reply, code);
}

void S3Client::abortUpload(const std::string &key, const std::string &uploadId)
{
    std::unique_ptr<Handle> handle = borrow();
    prepare(handle->curl, objectUrl(key, "uploadId=" + encode(uploadId, false)), "DELETE");
    Reply reply;
    const CURLcode code = perform(handle->curl, handle->headers, reply, nullptr, nullptr);
    giveBack(std::move(handle));
    if (code != CURLE_OK || (!succeeded(reply) && reply.status != 404))
        failed("abort the upload of", key, reply, code);
}

void S3Client::remove(const std::string &key)
{
    std::unique_ptr<Handle> handle = borrow();
    prepare(handle->curl, objectUrl(key), "DELETE");
    Reply reply;
    const CURLcode code = perform(handle->curl, handle->headers, reply, nullptr, nullptr);
    giveBack(std::move(handle));
    if (code != CURLE_OK || (!succeeded(reply) && reply.status != 404))
        failed("delete", key, reply, code);
}

std::vector<S3Client::Object> S3Client::list(const std::string &prefix)
{
    std::vector<Object> objects;
    std::string token;
    for (;;) {
        // Sorted by name, as the signature wants them.
        std::string query;
        if (!token.empty())
            query = "continuation-token=" + encode(token, false) + "&";
        query += "list-type=2&prefix=" + encode(prefix, false);
        std::unique_ptr<Handle> handle = borrow();
        prepare(handle->curl, objectUrl({}, query), "GET");
        Reply reply;
        const CURLcode code = perform(handle->curl, handle->headers, reply, nullptr, nullptr);
        giveBack(std::move(handle));
        if (code != CURLE_OK || !succeeded(reply))
            failed("list", prefix, reply, code);
        for (const std::string &entry : S3Xml::elements(reply.body, "Contents"))
            objects.push_back({S3Xml::element(entry, "Key"),
                               std::strtoull(S3Xml::element(entry, "Size").c_str(), nullptr, 10),
                               S3Xml::time(S3Xml::element(entry, "LastModified"))});
        token = S3Xml::element(reply.body, "NextContinuationToken");
        if (S3Xml::element(reply.body, "IsTruncated") != "true" || token.empty())
            return objects;
    }
}

std::vector<S3Client::Upload> S3Client::unfinishedUploads(const std::string &prefix)
{
    std::unique_ptr<Handle> handle = borrow();
    prepare(handle->curl, objectUrl({}, "prefix=" + encode(prefix, false) + "&uploads="), "GET");
    Reply reply;
    const CURLcode code = perform(handle->curl, handle->headers, reply, nullptr, nullptr);
    giveBack(std::move(handle));
    if (code != CURLE_OK || !succeeded(reply))
        failed("list the uploads under", prefix, reply, code);
    // A thousand at most: what is left over goes at a later start.
    std::vector<Upload> uploads;
    for (const std::string &entry : S3Xml::elements(reply.body, "Upload"))
        uploads.push_back({S3Xml::element(entry, "Key"), S3Xml::element(entry, "UploadId"),
                           S3Xml::time(S3Xml::element(entry, "Initiated"))});
    return uploads;
}

void S3Client::ensureBucket()
{
    std::unique_ptr<Handle> handle = borrow();
    prepare(handle->curl, objectUrl({}), "PUT");
    Reply reply;
    const CURLcode code = perform(handle->curl, handle->headers, reply, nullptr, nullptr);
    giveBack(std::move(handle));
    const std::string error = S3Xml::element(reply.body, "Code");
    if (code != CURLE_OK ||
        (!succeeded(reply) && error != "BucketAlreadyOwnedByYou" && error != "BucketAlreadyExists"))
        failed("create the bucket", m_settings.bucket, reply, code);
}

struct S3Client::Reader::Transfer
{
    S3Client *client = nullptr;
    std::unique_ptr<Handle> handle;
    CURLM *multi = nullptr;
    std::string buffer;
    size_t taken = 0;
    bool paused = false;
    bool done = false;
    bool broken = false;
    std::string url;
    std::string range;

    ~Transfer()
    {
        if (multi) {
            // Removed mid-transfer, its connection is closed rather than reused.
            curl_multi_remove_handle(multi, handle->curl);
            curl_multi_cleanup(multi);
        }
        if (handle)
            client->giveBack(std::move(handle));
    }

    static size_t receive(char *data, size_t size, size_t count, void *user)
    {
        auto *transfer = static_cast<Transfer *>(user);
        long status = 0;
        curl_easy_getinfo(transfer->handle->curl, CURLINFO_RESPONSE_CODE, &status);
        // An error's body is not the object's bytes.
        if (status != 200 && status != 206) {
            transfer->broken = true;
            return 0;
        }
        if (transfer->buffer.size() - transfer->taken >= readAheadBytes) {
            transfer->paused = true;
            return CURL_WRITEFUNC_PAUSE;
        }
        if (transfer->taken > 0 && transfer->taken == transfer->buffer.size()) {
            transfer->buffer.clear();
            transfer->taken = 0;
        }
        transfer->buffer.append(data, size * count);
        return size * count;
    }
};

S3Client::Reader::Reader(std::unique_ptr<Transfer> transfer)
    : m_transfer(std::move(transfer))
{
}

S3Client::Reader::~Reader() = default;

std::unique_ptr<S3Client::Reader> S3Client::read(const std::string &key, uint64_t first,
                                                 uint64_t length)
{
    auto transfer = std::make_unique<Reader::Transfer>();
    transfer->client = this;
    transfer->handle = borrow();
    transfer->url = objectUrl(key);
    transfer->range = std::to_string(first) + "-" + std::to_string(first + length - 1);
    CURL *curl = transfer->handle->curl;
    prepare(curl, transfer->url, "GET");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, transfer->handle->headers);
    curl_easy_setopt(curl, CURLOPT_RANGE, transfer->range.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Reader::Transfer::receive);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, transfer.get());
    transfer->multi = curl_multi_init();
    if (!transfer->multi)
        throw FileError("libcurl could not start a download.");
    curl_multi_add_handle(transfer->multi, curl);
    return std::unique_ptr<Reader>(new Reader(std::move(transfer)));
}

int64_t S3Client::Reader::read(char *buffer, size_t size)
{
    Transfer &t = *m_transfer;
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(stallSeconds);
    while (t.taken == t.buffer.size() && !t.done) {
        if (t.paused) {
            t.paused = false;
            curl_easy_pause(t.handle->curl, CURLPAUSE_CONT);
        }
        int active = 0;
        curl_multi_perform(t.multi, &active);
        int queued = 0;
        while (CURLMsg *message = curl_multi_info_read(t.multi, &queued)) {
            if (message->msg == CURLMSG_DONE) {
                t.done = true;
                t.broken = t.broken || message->data.result != CURLE_OK;
            }
        }
        if (t.taken < t.buffer.size() || t.done)
            break;
        if (std::chrono::steady_clock::now() > giveUp)
            return -1;
        curl_multi_poll(t.multi, nullptr, 0, 1000, nullptr);
    }
    const size_t count = std::min(size, t.buffer.size() - t.taken);
    if (count == 0)
        return t.broken ? -1 : 0;
    std::copy_n(t.buffer.data() + t.taken, count, buffer);
    t.taken += count;
    return int64_t(count);
}
