#pragma once

#include "media/Bytes.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

// The two H.264 byte layouts the pipeline meets. Encoders hand out Annex B (NAL units behind
// 00 00 01 start codes); MP4 samples carry each NAL unit behind a 4-byte big-endian length, and
// the track's decoder configuration is an avcC record holding the SPS and PPS.
namespace H264Bitstream {

using Unit = std::span<const uint8_t>;

enum NalType : uint8_t { nalIdr = 5, nalSps = 7, nalPps = 8 };

inline uint8_t nalType(Unit unit)
{
    return unit.empty() ? 0 : unit[0] & 0x1f;
}

// The NAL units of an Annex B stream, without their start codes and without the zero bytes that
// may pad a unit before the next start code. Empty units are skipped.
std::vector<Unit> annexBUnits(std::span<const uint8_t> data);

// The units one after another, each behind its 4-byte big-endian length.
Bytes lengthPrefixed(std::span<const Unit> units, BytesArena *arena = nullptr);

// An avcC record (4-byte lengths) from the SPS and PPS among `units`; the other units are ignored.
// Empty when there is no usable SPS or no PPS. For the High profiles it carries the chroma format
// and bit depths read from the SPS, as ISO/IEC 14496-15 asks.
std::vector<uint8_t> avcC(std::span<const Unit> units);

// The SPS and PPS units an avcC record carries, in its order; empty when it is malformed.
std::vector<Unit> avcCUnits(std::span<const uint8_t> avcC);
// The bytes of each NAL unit length of an avcC record (1, 2 or 4); 0 when it is malformed.
int avcCLengthSize(std::span<const uint8_t> avcC);

// The units of an MP4 sample whose lengths take `lengthSize` bytes; empty when it is malformed.
std::vector<Unit> sampleUnits(std::span<const uint8_t> sample, int lengthSize = 4);

// The id an SPS or a PPS gives itself (seq_parameter_set_id, pic_parameter_set_id).
std::optional<uint32_t> parameterSetId(Unit unit);
// The SPS a PPS refers to.
std::optional<uint32_t> ppsSpsId(Unit pps);
// The PPS a slice (an IDR or non-IDR picture's) refers to.
std::optional<uint32_t> slicePpsId(Unit slice);

} // namespace H264Bitstream
