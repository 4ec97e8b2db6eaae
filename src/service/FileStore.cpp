#include "service/FileStore.h"

void FileStore::checkKey(const std::string &key)
{
    if (key.empty() || key.find('/') != std::string::npos || key.find('\0') != std::string::npos ||
        key.front() == '.')
        throw FileError("Not a file key: " + key);
}

const char *FileStore::folderName(FileKind kind)
{
    switch (kind) {
    case FileKind::clip:
        return "clips";
    case FileKind::poster:
        return "posters";
    case FileKind::release:
        return "releases";
    }
    return "tmp";
}
