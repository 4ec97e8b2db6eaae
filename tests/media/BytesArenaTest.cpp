#include "media/Bytes.h"
#include "media/BytesArena.h"

#include <gtest/gtest.h>

#include <deque>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

namespace {

std::vector<uint8_t> pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> bytes(size);
    std::iota(bytes.begin(), bytes.end(), seed);
    return bytes;
}

} // namespace

// A replay buffer's life in miniature: payloads of every size made in order, each kept for a
// while, most let go of from the front and some held much longer (a snapshot being saved). Every
// payload keeps its own bytes whatever happens around it, and the mapped blocks follow what is
// held rather than what was ever made.
TEST(BytesArenaTest, PayloadsKeepTheirBytesAndBlocksFollowWhatIsHeld)
{
    constexpr size_t block = 64 * 1024;
    std::mt19937 random(7);
    std::deque<std::pair<Bytes, std::vector<uint8_t>>> held;
    std::vector<std::pair<Bytes, std::vector<uint8_t>>> snapshot;
    {
        BytesArena arena(block);
        size_t heldBytes = 0, snapshotBytes = 0;
        // A block holds at least its size less the largest small payload; the held stretch
        // begins and ends inside a block, and an emptied one may be kept spare.
        const auto bound = [&] { return (200 * 1024 + snapshotBytes) / (block - 6000) + 5; };
        for (int i = 0; i < 5000; ++i) {
            // Mostly small, now and then one too large to share a block.
            const size_t size = i % 97 == 0 ? block : 1 + random() % 6000;
            const std::vector<uint8_t> expected = pattern(size, uint8_t(i));
            Bytes bytes = Bytes::copy(expected, &arena);
            ASSERT_EQ(bytes.size(), size);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes.data()) % 16, 0u);
            heldBytes += size;
            held.emplace_back(std::move(bytes), expected);
            if (i == 1000) {
                snapshot.assign(held.begin(), held.end());
                for (const auto &[kept, unused] : snapshot)
                    snapshotBytes += kept.size() < block / 4 ? kept.size() : 0;
            }
            while (heldBytes > 200 * 1024) {
                heldBytes -= held.front().first.size();
                held.pop_front();
            }
            ASSERT_LE(arena.mappedBlocks(), bound()) << "at " << i;
        }
        for (const auto &[bytes, expected] : held)
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), bytes.data()));
        snapshot.clear();
        snapshotBytes = 0;
        EXPECT_LE(arena.mappedBlocks(), bound());
    }
    // Payloads outlive their arena, and are let go of on another thread.
    std::thread([&] {
        for (const auto &[bytes, expected] : held)
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), bytes.data()));
        held.clear();
    }).join();
    EXPECT_TRUE(Bytes::copy({}, nullptr).empty());
}
