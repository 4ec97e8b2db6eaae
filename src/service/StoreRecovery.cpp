#include "service/StoreRecovery.h"

#include <set>

namespace {

std::string stem(const std::string &key, const std::string &extension)
{
    if (key.size() <= extension.size() ||
        key.compare(key.size() - extension.size(), extension.size(), extension) != 0)
        return {};
    return key.substr(0, key.size() - extension.size());
}

} // namespace

namespace StoreRecovery {

Report repair(RecordStore &records, FileStore &files)
{
    Report report;
    files.discardAbandoned();

    std::set<std::string> recorded;
    for (const std::string &id : records.allClipIds()) {
        if (files.exists(FileKind::clip, id + ".mp4")) {
            recorded.insert(id);
        } else {
            records.removeClip(id);
            files.remove(FileKind::poster, id + ".jpg");
            ++report.recordsRemoved;
        }
    }
    for (const auto &[kind, extension] : {std::pair {FileKind::clip, std::string(".mp4")},
                                          {FileKind::poster, std::string(".jpg")}}) {
        for (const std::string &key : files.keys(kind)) {
            if (!recorded.contains(stem(key, extension))) {
                files.remove(kind, key);
                ++report.abandonedFilesRemoved;
            }
        }
    }
    std::set<std::string> releaseFiles;
    for (const ReleaseRecord &release : records.releases())
        releaseFiles.insert(release.fileName);
    for (const std::string &key : files.keys(FileKind::release)) {
        if (!releaseFiles.contains(key) && files.ageSeconds(FileKind::release, key) > 3600) {
            files.remove(FileKind::release, key);
            ++report.abandonedFilesRemoved;
        }
    }
    return report;
}

std::string describe(const Report &report)
{
    return "removed " + std::to_string(report.abandonedFilesRemoved) +
        " file(s) without a record and " + std::to_string(report.recordsRemoved) +
        " record(s) without a file";
}

} // namespace StoreRecovery
