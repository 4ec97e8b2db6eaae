#pragma once

#include <cstdint>
#include <optional>
#include <string>

// One byte range of a file, as a "Range: bytes=…" header asks for it.
struct ByteRange
{
    uint64_t first = 0;
    uint64_t length = 0;

    enum class Outcome { whole, partial, unsatisfiable };
    // `whole` for no header, a header in another unit, or several ranges (the whole file is a
    // valid answer to those); `partial` with the range clamped to the file; `unsatisfiable` when
    // the range starts past the end or is malformed.
    static Outcome parse(const std::string &header, uint64_t fileSize, ByteRange &range);
};
