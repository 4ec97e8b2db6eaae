#pragma once

#include "service/FileStore.h"
#include "service/RecordStore.h"

#include <string>

// Brings the records and the files back in step when the server starts, whatever moment an
// earlier process died at: pending files go, a clip file or poster without a record goes, and a
// clip record whose file is gone goes. A release archive without a record goes only once it is
// an hour old, since the command line may be adding that release right now.
namespace StoreRecovery {

struct Report
{
    int abandonedFilesRemoved = 0;
    int recordsRemoved = 0;
};

Report repair(RecordStore &records, FileStore &files);

std::string describe(const Report &report);

} // namespace StoreRecovery
