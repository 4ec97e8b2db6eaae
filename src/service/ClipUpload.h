#pragma once

#include "service/MultipartStream.h"
#include "service/RecordStore.h"
#include "service/ServiceContext.h"

#include <httplib.h>

#include <memory>
#include <string>
#include <vector>

// One clip upload, from the multipart body to the stored clip. The file part is streamed to a
// pending file in the data folder (never held in memory), checked to be an MP4, moved into place
// under a new id and only then recorded: at any moment a crash leaves either nothing, a pending
// file the next start clears, or a stored file without a record that the next start removes.
// Its poster frame is made after the answer (PosterMaker).
class ClipUpload
{
public:
    struct Outcome
    {
        int status = 200;
        std::string detail; // when the status is not 200
        ClipRecord clip;
    };

    // What an upload's form may add around its file.
    static constexpr uint64_t formAllowanceBytes = 1 << 20;
    // The refusal of a file over the upload limit.
    static std::string tooLargeDetail(const ServiceLimits &limits);

    ClipUpload(ServiceContext &context, const UserRecord &owner);

    Outcome run(const httplib::Request &req, httplib::Response &res,
                const httplib::ContentReader &reader);

private:
    enum class Part { none, name, file };

    bool onPartHeader(const MultipartStream::Part &part);
    bool onPartData(const char *data, size_t size);
    bool fail(int status, std::string detail);
    void flush();
    Outcome store();

    ServiceContext &m_context;
    const UserRecord &m_owner;
    Part m_part = Part::none;
    bool m_sawName = false;
    std::string m_name;
    std::string m_fileName;
    std::string m_clipId;
    std::unique_ptr<PendingFile> m_file;
    uint64_t m_fileBytes = 0;
    std::vector<char> m_buffer;
    int m_failedStatus = 0;
    std::string m_failedDetail;
};
