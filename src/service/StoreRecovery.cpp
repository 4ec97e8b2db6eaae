#include "service/StoreRecovery.h"

#include <set>

namespace {

constexpr int64_t releaseGraceSeconds = 3600;

std::string stem(const std::string &key, const std::string &extension)
{
    if (key.size() <= extension.size() ||
        key.compare(key.size() - extension.size(), extension.size(), extension) != 0)
        return {};
    return key.substr(0, key.size() - extension.size());
}

} // namespace

namespace StoreRecovery {

Report repair(RecordStore &records, FileStore &files, int64_t orphanGraceSeconds)
{
    Report report;
    files.discardAbandoned(orphanGraceSeconds);
    const int64_t fileGrace = files.shared() ? orphanGraceSeconds : -1;

    // The records are read before the files are listed: an upload stores its file before its
    // record, so every record read here has its file in the listing, whatever another server
    // is doing meanwhile.
    const std::vector<std::string> clipIds = records.allClipIds();
    std::set<std::string> stored;
    for (const StoredEntry &entry : files.list(FileKind::clip))
        stored.insert(stem(entry.key, ".mp4"));
    if (stored.empty() && !clipIds.empty()) {
        report.warning = "the records name " + std::to_string(clipIds.size()) +
            " clip(s) but the file store holds none: is it the right one? Nothing was removed.";
        return report;
    }
    std::set<std::string> recorded;
    for (const std::string &id : clipIds) {
        if (stored.contains(id)) {
            recorded.insert(id);
        } else {
            records.removeClip(id);
            files.remove(FileKind::poster, id + ".jpg");
            ++report.recordsRemoved;
        }
    }
    for (const auto &[kind, extension] : {std::pair {FileKind::clip, std::string(".mp4")},
                                          {FileKind::poster, std::string(".jpg")}}) {
        for (const StoredEntry &entry : files.list(kind)) {
            if (!recorded.contains(stem(entry.key, extension)) && entry.ageSeconds >= fileGrace &&
                !records.clip(stem(entry.key, extension))) {
                files.remove(kind, entry.key);
                ++report.abandonedFilesRemoved;
            }
        }
    }
    std::set<std::string> releaseFiles;
    for (const ReleaseRecord &release : records.releases())
        releaseFiles.insert(release.fileName);
    for (const StoredEntry &entry : files.list(FileKind::release)) {
        if (!releaseFiles.contains(entry.key) && entry.ageSeconds > releaseGraceSeconds) {
            files.remove(FileKind::release, entry.key);
            ++report.abandonedFilesRemoved;
        }
    }
    return report;
}

std::string describe(const Report &report)
{
    if (!report.warning.empty())
        return report.warning;
    return "removed " + std::to_string(report.abandonedFilesRemoved) +
        " file(s) without a record and " + std::to_string(report.recordsRemoved) +
        " record(s) without a file";
}

} // namespace StoreRecovery
