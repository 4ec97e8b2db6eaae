#include "media/H264Bitstream.h"

#include <array>
#include <optional>

namespace H264Bitstream {

namespace {

// Reads exp-Golomb codes from an SPS payload, skipping the emulation-prevention bytes (the 03 in
// 00 00 03) that the encoder inserted.
class BitReader
{
public:
    explicit BitReader(Unit data)
        : m_data(data)
    {
    }

    std::optional<uint32_t> bit()
    {
        if (m_bit == 0) {
            if (m_pos >= m_data.size())
                return std::nullopt;
            if (m_zeros >= 2 && m_data[m_pos] == 3) {
                m_zeros = 0;
                if (++m_pos >= m_data.size())
                    return std::nullopt;
            }
            m_zeros = m_data[m_pos] == 0 ? m_zeros + 1 : 0;
            m_byte = m_data[m_pos++];
            m_bit = 8;
        }
        --m_bit;
        return (m_byte >> m_bit) & 1;
    }

    std::optional<uint32_t> unsignedGolomb()
    {
        int leadingZeros = 0;
        for (;;) {
            const auto b = bit();
            if (!b)
                return std::nullopt;
            if (*b)
                break;
            if (++leadingZeros > 31)
                return std::nullopt;
        }
        uint32_t value = 0;
        for (int i = 0; i < leadingZeros; ++i) {
            const auto b = bit();
            if (!b)
                return std::nullopt;
            value = (value << 1) | *b;
        }
        return (uint32_t(1) << leadingZeros) - 1 + value;
    }

private:
    Unit m_data;
    size_t m_pos = 0;
    int m_zeros = 0;
    uint8_t m_byte = 0;
    int m_bit = 0;
};

struct ChromaInfo
{
    uint32_t chromaFormat = 1;
    uint32_t lumaDepthMinus8 = 0;
    uint32_t chromaDepthMinus8 = 0;
};

// Baseline, Main and Extended carry no chroma format in the SPS (it is 4:2:0, 8 bits).
bool hasChromaInfo(uint8_t profile)
{
    return profile != 66 && profile != 77 && profile != 88;
}

// Exp-Golomb codes read from `unit` past its first `skip` bytes.
std::optional<uint32_t> golombAt(Unit unit, size_t skip, int index)
{
    if (unit.size() <= skip)
        return std::nullopt;
    BitReader reader(unit.subspan(skip));
    std::optional<uint32_t> value;
    for (int i = 0; i <= index; ++i) {
        value = reader.unsignedGolomb();
        if (!value)
            return std::nullopt;
    }
    return value;
}

std::optional<ChromaInfo> readChromaInfo(Unit sps)
{
    BitReader reader(sps.subspan(4)); // past the NAL header, profile, constraints and level
    ChromaInfo info;
    if (!reader.unsignedGolomb()) // seq_parameter_set_id
        return std::nullopt;
    const auto format = reader.unsignedGolomb();
    if (!format || *format > 3)
        return std::nullopt;
    info.chromaFormat = *format;
    if (*format == 3 && !reader.bit()) // separate_colour_plane_flag
        return std::nullopt;
    const auto luma = reader.unsignedGolomb();
    const auto chroma = reader.unsignedGolomb();
    if (!luma || !chroma || *luma > 6 || *chroma > 6)
        return std::nullopt;
    info.lumaDepthMinus8 = *luma;
    info.chromaDepthMinus8 = *chroma;
    return info;
}

void appendSized(std::vector<uint8_t> &out, Unit unit)
{
    out.push_back(uint8_t(unit.size() >> 8));
    out.push_back(uint8_t(unit.size()));
    out.insert(out.end(), unit.begin(), unit.end());
}

} // namespace

std::vector<Unit> annexBUnits(std::span<const uint8_t> data)
{
    std::vector<Unit> units;
    const size_t size = data.size();
    // Where the next 00 00 01 at or after `from` begins, or `size` when there is none.
    auto findStartCode = [&](size_t from) {
        for (size_t i = from; i + 2 < size; ++i) {
            if (data[i + 2] > 1) {
                i += 2; // no start code can end at i + 2, nor begin before i + 3
                continue;
            }
            if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1)
                return i;
        }
        return size;
    };
    size_t code = findStartCode(0);
    while (code < size) {
        const size_t start = code + 3;
        code = findStartCode(start);
        size_t end = code;
        // A 4-byte start code's first zero, and any trailing_zero_8bits, belong to no unit.
        while (end > start && data[end - 1] == 0)
            --end;
        if (end > start)
            units.push_back(data.subspan(start, end - start));
    }
    return units;
}

Bytes lengthPrefixed(std::span<const Unit> units, BytesArena *arena)
{
    std::vector<std::span<const uint8_t>> pieces;
    std::vector<std::array<uint8_t, 4>> lengths(units.size());
    pieces.reserve(units.size() * 2);
    for (size_t i = 0; i < units.size(); ++i) {
        const auto n = uint32_t(units[i].size());
        lengths[i] = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
        pieces.emplace_back(lengths[i]);
        pieces.push_back(units[i]);
    }
    return Bytes::concatRange(pieces, arena);
}

std::vector<uint8_t> avcC(std::span<const Unit> units)
{
    std::vector<Unit> sps, pps;
    for (Unit unit : units) {
        // Both lists carry 16-bit sizes; at most 31 SPS and 255 PPS fit the record.
        if (unit.size() > 0xffff)
            continue;
        if (nalType(unit) == nalSps && unit.size() >= 4 && sps.size() < 31)
            sps.push_back(unit);
        else if (nalType(unit) == nalPps && pps.size() < 255)
            pps.push_back(unit);
    }
    if (sps.empty() || pps.empty())
        return {};

    const Unit first = sps.front();
    std::vector<uint8_t> out {1,        first[1], first[2],
                              first[3], 0xfc | 3, uint8_t(0xe0 | sps.size())};
    for (Unit unit : sps)
        appendSized(out, unit);
    out.push_back(uint8_t(pps.size()));
    for (Unit unit : pps)
        appendSized(out, unit);
    if (hasChromaInfo(first[1])) {
        if (const auto info = readChromaInfo(first)) {
            out.push_back(uint8_t(0xfc | info->chromaFormat));
            out.push_back(uint8_t(0xf8 | info->lumaDepthMinus8));
            out.push_back(uint8_t(0xf8 | info->chromaDepthMinus8));
            out.push_back(0); // no SPS extensions
        }
    }
    return out;
}

std::vector<Unit> avcCUnits(std::span<const uint8_t> avcC)
{
    std::vector<Unit> units;
    if (avcC.size() < 7 || avcC[0] != 1)
        return {};
    size_t at = 5;
    // The SPS count's five bits, then the PPS count's eight.
    for (const uint8_t countMask : {uint8_t(0x1f), uint8_t(0xff)}) {
        if (at >= avcC.size())
            return {};
        const size_t count = avcC[at++] & countMask;
        for (size_t i = 0; i < count; ++i) {
            if (at + 2 > avcC.size())
                return {};
            const size_t size = size_t(avcC[at]) << 8 | avcC[at + 1];
            at += 2;
            if (size == 0 || at + size > avcC.size())
                return {};
            units.push_back(avcC.subspan(at, size));
            at += size;
        }
    }
    return units;
}

int avcCLengthSize(std::span<const uint8_t> avcC)
{
    if (avcC.size() < 7 || avcC[0] != 1)
        return 0;
    const int size = (avcC[4] & 3) + 1;
    return size == 3 ? 0 : size;
}

std::vector<Unit> sampleUnits(std::span<const uint8_t> sample, int lengthSize)
{
    std::vector<Unit> units;
    size_t at = 0;
    while (at < sample.size()) {
        if (at + size_t(lengthSize) > sample.size())
            return {};
        size_t size = 0;
        for (int i = 0; i < lengthSize; ++i)
            size = size << 8 | sample[at + size_t(i)];
        at += size_t(lengthSize);
        if (size == 0 || size > sample.size() - at)
            return {};
        units.push_back(sample.subspan(at, size));
        at += size;
    }
    return units;
}

std::optional<uint32_t> parameterSetId(Unit unit)
{
    switch (nalType(unit)) {
    case nalSps:
        return golombAt(unit, 4, 0); // past the header, profile, constraints and level
    case nalPps:
        return golombAt(unit, 1, 0);
    default:
        return std::nullopt;
    }
}

std::optional<uint32_t> ppsSpsId(Unit pps)
{
    return nalType(pps) == nalPps ? golombAt(pps, 1, 1) : std::nullopt;
}

std::optional<uint32_t> slicePpsId(Unit slice)
{
    // first_mb_in_slice, slice_type, pic_parameter_set_id.
    const uint8_t type = nalType(slice);
    return type == 1 || type == nalIdr ? golombAt(slice, 1, 2) : std::nullopt;
}

} // namespace H264Bitstream
