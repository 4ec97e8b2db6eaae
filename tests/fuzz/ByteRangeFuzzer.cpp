// A Range header as a client sends it, against files of several sizes: a partial answer always
// lies inside the file and is never empty.

#include "FuzzCheck.h"

#include "service/ByteRange.h"

#include <cstdint>
#include <limits>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string header(reinterpret_cast<const char *>(data), size);
    const uint64_t sizes[] = {
        0, 1, 100, size, uint64_t(1) << 40, std::numeric_limits<uint64_t>::max()};
    for (const uint64_t fileSize : sizes) {
        ByteRange range;
        const ByteRange::Outcome outcome = ByteRange::parse(header, fileSize, range);
        if (outcome != ByteRange::Outcome::partial)
            continue;
        FUZZ_CHECK(range.length > 0);
        FUZZ_CHECK(range.first < fileSize);
        FUZZ_CHECK(range.length <= fileSize - range.first);
    }
    return 0;
}
