#pragma once

#include "service/FileStore.h"
#include "service/RecordStore.h"

#include <string>

// Taking a shared clip down, for its owner (the program, the account page) and the operator
// (`vantrel-service clip delete`): the record, the file and the poster go together, and the
// clip's link answers 410 from then on.
namespace ClipRemoval {

// The record goes first, with the note that the clip was deleted, then the files: a crash in
// between leaves files without a record, which the next start of the server removes. False
// when there was no such clip.
bool remove(RecordStore &records, FileStore &files, const std::string &id);

} // namespace ClipRemoval
