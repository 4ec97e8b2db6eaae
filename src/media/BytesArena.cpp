#include "media/BytesArena.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <vector>

namespace {

// An emptied block kept for the next one: its pages stay resident, so filling it again costs
// no page faults. The replay buffer frees about one block as it fills one.
constexpr size_t maxSpareBlocks = 1;
// A payload larger than this share of a block gets a mapping of its own rather than leave most
// of a block's end unused.
constexpr size_t largeShare = 4;

uint8_t *mapBytes(size_t bytes)
{
    void *memory =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    return static_cast<uint8_t *>(memory);
}

} // namespace

struct BytesArena::Blocks
{
    explicit Blocks(size_t blockBytes)
        : blockBytes(blockBytes)
    {
    }
    ~Blocks()
    {
        for (uint8_t *block : spare)
            munmap(block, blockBytes);
    }

    const size_t blockBytes;
    std::atomic<size_t> mapped {0};
    std::mutex lock; // guards `spare`
    std::vector<uint8_t *> spare;
};

BytesArena::BytesArena(size_t blockBytes)
    : m_blocks(std::make_shared<Blocks>(std::max<size_t>(blockBytes, 4096)))
{
}

BytesArena::~BytesArena() = default;

size_t BytesArena::mappedBlocks() const
{
    return m_blocks->mapped.load();
}

std::shared_ptr<uint8_t[]> BytesArena::newBlock()
{
    uint8_t *block = nullptr;
    {
        std::scoped_lock lock(m_blocks->lock);
        if (!m_blocks->spare.empty()) {
            block = m_blocks->spare.back();
            m_blocks->spare.pop_back();
        }
    }
    if (!block) {
        block = mapBytes(m_blocks->blockBytes);
        m_blocks->mapped.fetch_add(1);
    }
    // The deleter holds the block list, so a payload outliving the arena still has a home.
    return std::shared_ptr<uint8_t[]>(block, [blocks = m_blocks](uint8_t *emptied) {
        std::unique_lock lock(blocks->lock);
        if (blocks->spare.size() < maxSpareBlocks) {
            blocks->spare.push_back(emptied);
            return;
        }
        lock.unlock();
        munmap(emptied, blocks->blockBytes);
        blocks->mapped.fetch_sub(1);
    });
}

std::shared_ptr<uint8_t[]> BytesArena::allocate(size_t size)
{
    if (size == 0)
        return nullptr;
    const size_t rounded = (size + 15) & ~size_t(15);
    if (rounded > m_blocks->blockBytes / largeShare) {
        const size_t pages = (size + 4095) & ~size_t(4095);
        return std::shared_ptr<uint8_t[]>(mapBytes(pages),
                                          [pages](uint8_t *memory) { munmap(memory, pages); });
    }
    if (!m_current || m_used + rounded > m_blocks->blockBytes) {
        m_current = newBlock();
        m_used = 0;
    }
    std::shared_ptr<uint8_t[]> room(m_current, m_current.get() + m_used);
    m_used += rounded;
    return room;
}
