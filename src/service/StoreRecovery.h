#pragma once

#include "service/FileStore.h"
#include "service/RecordStore.h"

#include <string>

// Brings the records and the files back in step when a server starts, whatever moment an earlier
// process died at: pending files go, a clip file or poster without a record goes, and a clip
// record whose file is gone goes. On a store only this server writes, a file without a record
// goes at once; on one that other servers share, only once it is `orphanGraceSeconds` old (an
// hour by default, --orphan-grace), since another process may be between storing it and
// recording it. A release archive without a record goes once it is an hour old on either: the
// command line may be adding that release right now.
namespace StoreRecovery {

struct Report
{
    int abandonedFilesRemoved = 0;
    int recordsRemoved = 0;
    // Set when the records name clips but the store holds no clip at all: most likely the wrong
    // store, so nothing was removed.
    std::string warning;
};

Report repair(RecordStore &records, FileStore &files, int64_t orphanGraceSeconds = 3600);

std::string describe(const Report &report);

} // namespace StoreRecovery
