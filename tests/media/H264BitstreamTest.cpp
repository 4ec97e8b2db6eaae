#include "media/H264Bitstream.h"

#include <gtest/gtest.h>

#include <vector>

using Vec = std::vector<uint8_t>;

namespace {

Vec bytes(std::span<const uint8_t> span)
{
    return {span.begin(), span.end()};
}

} // namespace

TEST(H264Bitstream, AnnexBBecomesLengthPrefixedUnitsAndAnAvcCRecord)
{
    // SPS (High, 4:2:0, 8 bits) behind a 4-byte start code, PPS behind a 3-byte one, then an IDR
    // slice that holds an emulation-prevention sequence and ends in padding zeros.
    const Vec sps {0x67, 0x64, 0x00, 0x1f, 0xae};
    const Vec pps {0x68, 0xee, 0x3c, 0x80};
    const Vec idr {0x65, 0x88, 0x00, 0x00, 0x03, 0x00, 0x01};
    Vec stream {0, 0, 0, 1};
    stream.insert(stream.end(), sps.begin(), sps.end());
    stream.insert(stream.end(), {0, 0, 1});
    stream.insert(stream.end(), pps.begin(), pps.end());
    stream.insert(stream.end(), {0, 0, 0, 1});
    stream.insert(stream.end(), idr.begin(), idr.end());
    stream.insert(stream.end(), {0, 0});

    const auto units = H264Bitstream::annexBUnits(stream);
    ASSERT_EQ(units.size(), 3u);
    EXPECT_EQ(bytes(units[0]), sps);
    EXPECT_EQ(bytes(units[1]), pps);
    EXPECT_EQ(bytes(units[2]), idr);
    EXPECT_TRUE(H264Bitstream::annexBUnits(Vec {0, 0, 1, 0, 0, 0, 1}).empty());

    const Bytes sample = H264Bitstream::lengthPrefixed(std::span(units).subspan(2));
    EXPECT_EQ(bytes(sample.span()), (Vec {0, 0, 0, 7, 0x65, 0x88, 0x00, 0x00, 0x03, 0x00, 0x01}));

    // High profile: the chroma format and bit depths follow the parameter sets.
    EXPECT_EQ(H264Bitstream::avcC(units),
              (Vec {1,    0x64, 0x00, 0x1f, 0xff, 0xe1, 0,    5,    0x67, 0x64, 0x00, 0x1f,
                    0xae, 1,    0,    4,    0x68, 0xee, 0x3c, 0x80, 0xfd, 0xf8, 0xf8, 0}));
    // Baseline has no such fields; without a PPS there is no record at all.
    const Vec baseline {0x67, 0x42, 0xc0, 0x1e, 0xd9};
    const std::vector<H264Bitstream::Unit> baselineUnits {baseline, pps};
    EXPECT_EQ(H264Bitstream::avcC(baselineUnits).size(), 6u + 2 + 5 + 1 + 2 + 4);
    EXPECT_TRUE(H264Bitstream::avcC(std::span(units).first(1)).empty());
}
