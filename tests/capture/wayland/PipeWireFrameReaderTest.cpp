#include "capture/wayland/PipeWireFrameReader.h"

#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>

#include <gtest/gtest.h>

#include <cstring>

#include <vector>

namespace {

using Outcome = PipeWireFrameReader::Outcome;
using PipeWireParams::PixelLayout;

// One buffer as PipeWire hands it to a stream: a mapped plane and its chunk, and optionally the
// header and damage metadata.
struct FakeBuffer
{
    std::vector<uint8_t> pixels;
    spa_chunk chunk {};
    spa_data data {};
    spa_meta_header header {};
    spa_meta_region damage[2] {};
    spa_meta metas[2] {};
    spa_buffer buffer {};

    FakeBuffer(int width, int height, int stride, uint32_t first)
        : pixels(size_t(stride) * size_t(height))
    {
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const uint32_t value = first + uint32_t(y * width + x);
                std::memcpy(&pixels[size_t(y * stride + x * 4)], &value, 4);
            }
        chunk.size = uint32_t(pixels.size());
        chunk.stride = stride;
        data.type = SPA_DATA_MemPtr;
        data.maxsize = uint32_t(pixels.size());
        data.data = pixels.data();
        data.chunk = &chunk;
        buffer.n_datas = 1;
        buffer.datas = &data;
    }
    void withMetadata(bool corrupted, bool damaged)
    {
        header.flags = corrupted ? SPA_META_HEADER_FLAG_CORRUPTED : 0;
        damage[0].region = {{0, 0}, {damaged ? 2u : 0u, damaged ? 2u : 0u}};
        metas[0] = {SPA_META_Header, sizeof header, &header};
        metas[1] = {SPA_META_VideoDamage, sizeof damage, damage};
        buffer.n_metas = 2;
        buffer.metas = metas;
    }
};

PipeWireParams::Format format(PixelLayout layout, int width, int height)
{
    return {layout, width, height, std::nullopt};
}

} // namespace

// Rows are read through the buffer's stride, not its width, and land as BGRA rows of ours.
TEST(PipeWireFrameReader, CopiesRowsThroughTheStrideAndSwapsRgbLayouts)
{
    PipeWireFrameReader reader;
    FakeBuffer bgrx(3, 2, 16, 0x01020300);
    std::vector<uint32_t> out(6, 0);
    ASSERT_EQ(reader.read(bgrx.buffer, format(PixelLayout::bgrx, 3, 2),
                          reinterpret_cast<uint8_t *>(out.data()), 12, 3, 2),
              Outcome::copied);
    EXPECT_EQ(out[0], 0x01020300u);
    EXPECT_EQ(out[5], 0x01020305u);

    // R, G, B, x in memory becomes B, G, R, x.
    FakeBuffer rgbx(3, 2, 12, 0x00ccbbaa);
    ASSERT_EQ(reader.read(rgbx.buffer, format(PixelLayout::rgbx, 3, 2),
                          reinterpret_cast<uint8_t *>(out.data()), 12, 3, 2),
              Outcome::copied);
    EXPECT_EQ(out[0] & 0xffffffu, 0x00aabbccu);

    // A larger source is scaled to the capture size.
    FakeBuffer large(4, 4, 16, 0x00404040);
    std::vector<uint32_t> small(4, 0);
    EXPECT_EQ(reader.read(large.buffer, format(PixelLayout::bgra, 4, 4),
                          reinterpret_cast<uint8_t *>(small.data()), 8, 2, 2),
              Outcome::copied);
    EXPECT_NE(small[0], 0u);
}

// What the compositor marks: nothing changed is an idle frame, a corrupted or short buffer is
// never read.
TEST(PipeWireFrameReader, TellsUnchangedAndUnreadableBuffersApart)
{
    PipeWireFrameReader reader;
    std::vector<uint32_t> out(4, 0);
    const auto read = [&](FakeBuffer &buffer) {
        return reader.read(buffer.buffer, format(PixelLayout::bgrx, 2, 2),
                           reinterpret_cast<uint8_t *>(out.data()), 8, 2, 2);
    };
    FakeBuffer empty(2, 2, 8, 1);
    empty.chunk.size = 0;
    EXPECT_EQ(read(empty), Outcome::unchanged);

    FakeBuffer undamaged(2, 2, 8, 1);
    undamaged.withMetadata(false, false);
    EXPECT_EQ(read(undamaged), Outcome::unchanged);

    FakeBuffer damaged(2, 2, 8, 1);
    damaged.withMetadata(false, true);
    EXPECT_EQ(read(damaged), Outcome::copied);

    FakeBuffer corrupted(2, 2, 8, 1);
    corrupted.withMetadata(true, true);
    EXPECT_EQ(read(corrupted), Outcome::unreadable);

    FakeBuffer shortBuffer(2, 2, 8, 1);
    shortBuffer.data.maxsize = 8;
    EXPECT_EQ(read(shortBuffer), Outcome::unreadable);
    EXPECT_EQ(out, std::vector<uint32_t>({1, 2, 3, 4}));
}
