#pragma once

#include "service/FileStore.h"
#include "service/RecordStore.h"

#include <string>

// Brings the records and the files back in step when a server starts, whatever moment an earlier
// process died at: pending files go, a clip file or poster without a record goes, and a clip
// record whose file is gone goes. On a store only this server writes, a file without a record
// goes at once; on one that other servers share (or for a release archive, which the command line
// may be adding right now), only once it is an hour old, since another process may be between
// storing it and recording it.
namespace StoreRecovery {

struct Report
{
    int abandonedFilesRemoved = 0;
    int recordsRemoved = 0;
    // Set when the records name clips but the store holds no clip at all: most likely the wrong
    // store, so nothing was removed.
    std::string warning;
};

Report repair(RecordStore &records, FileStore &files);

std::string describe(const Report &report);

} // namespace StoreRecovery
