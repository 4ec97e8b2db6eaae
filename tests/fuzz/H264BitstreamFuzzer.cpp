// An encoder's Annex B output (or anything claiming to be one): its NAL units, their MP4
// sample layout and the avcC record made of its parameter sets.

#include "FuzzCheck.h"

#include "media/H264Bitstream.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace {

bool holdsStartCode(H264Bitstream::Unit unit)
{
    const uint8_t code[] = {0, 0, 1};
    return std::search(unit.begin(), unit.end(), code, code + 3) != unit.end();
}

// Reads the record back: the version, the first SPS's profile, and the units it lists.
void checkAvcC(const std::vector<uint8_t> &record, const std::vector<H264Bitstream::Unit> &units)
{
    FUZZ_CHECK(record.size() >= 7 && record[0] == 1);
    size_t at = 5;
    std::vector<H264Bitstream::Unit> listed;
    const auto readList = [&](size_t count) {
        for (size_t i = 0; i < count; ++i) {
            FUZZ_CHECK(at + 2 <= record.size());
            const size_t size = size_t(record[at]) << 8 | record[at + 1];
            FUZZ_CHECK(at + 2 + size <= record.size());
            listed.emplace_back(record.data() + at + 2, size);
            at += 2 + size;
        }
    };
    const size_t spsCount = record[at++] & 0x1f;
    readList(spsCount);
    FUZZ_CHECK(at < record.size());
    readList(record[at++]);
    // Nothing, or the chroma format and bit depths with no SPS extensions.
    FUZZ_CHECK(at == record.size() || (at + 4 == record.size() && record.back() == 0));
    FUZZ_CHECK(spsCount > 0 && listed.size() > spsCount);
    FUZZ_CHECK(record[1] == listed.front()[1]);
    for (size_t i = 0; i < listed.size(); ++i) {
        FUZZ_CHECK(H264Bitstream::nalType(listed[i]) ==
                   (i < spsCount ? H264Bitstream::nalSps : H264Bitstream::nalPps));
        const auto same = [&](H264Bitstream::Unit unit) {
            return std::equal(unit.begin(), unit.end(), listed[i].begin(), listed[i].end());
        };
        FUZZ_CHECK(std::any_of(units.begin(), units.end(), same));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::span<const uint8_t> stream(data, size);
    const std::vector<H264Bitstream::Unit> units = H264Bitstream::annexBUnits(stream);
    size_t total = 0;
    for (const H264Bitstream::Unit unit : units) {
        FUZZ_CHECK(!unit.empty() && unit.back() != 0 && !holdsStartCode(unit));
        FUZZ_CHECK(unit.data() >= data && unit.data() + unit.size() <= data + size);
        total += 4 + unit.size();
    }

    const Bytes sample = H264Bitstream::lengthPrefixed(units);
    FUZZ_CHECK(sample.size() == total);
    size_t at = 0;
    for (const H264Bitstream::Unit unit : units) {
        const uint8_t *length = sample.data() + at;
        FUZZ_CHECK((size_t(length[0]) << 24 | size_t(length[1]) << 16 | size_t(length[2]) << 8 |
                    length[3]) == unit.size());
        FUZZ_CHECK(std::equal(unit.begin(), unit.end(), length + 4));
        at += 4 + unit.size();
    }

    const std::vector<uint8_t> record = H264Bitstream::avcC(units);
    if (!record.empty())
        checkAvcC(record, units);
    return 0;
}
