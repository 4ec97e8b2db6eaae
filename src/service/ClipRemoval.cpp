#include "service/ClipRemoval.h"

#include "service/ServiceContext.h"

namespace ClipRemoval {

bool remove(RecordStore &records, FileStore &files, const std::string &id)
{
    if (!records.deleteClip(id, unixNow()))
        return false;
    // A download already under way keeps its open file to its end; nobody can start another.
    files.remove(FileKind::clip, id + ".mp4");
    files.remove(FileKind::poster, id + ".jpg");
    return true;
}

} // namespace ClipRemoval
