#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

// Room for payloads that are made one after another and mostly let go of in the same order (a
// replay buffer's frames and sound blocks), packed into large blocks mapped for the purpose. A
// block goes back (to the next block, or to the system) as soon as the last payload in it is
// gone. In the general heap, a rolling buffer of tens of thousands of payloads of every size
// leaves free holes all over it that the program keeps holding: tens of megabytes at two
// minutes.
//
// allocate() is for one thread at a time, the producer's; payloads may be let go of on any
// thread, and may outlive the arena.
class BytesArena
{
public:
    explicit BytesArena(size_t blockBytes = size_t(1) << 20);
    ~BytesArena();
    BytesArena(const BytesArena &) = delete;
    BytesArena &operator=(const BytesArena &) = delete;

    // `size` writable bytes, 16-byte aligned, that last as long as the pointer or a copy of it.
    // Throws std::bad_alloc when no memory can be mapped.
    std::shared_ptr<uint8_t[]> allocate(size_t size);

    // Blocks mapped now, in use or kept spare.
    size_t mappedBlocks() const;

private:
    struct Blocks;
    std::shared_ptr<uint8_t[]> newBlock();

    std::shared_ptr<Blocks> m_blocks;
    std::shared_ptr<uint8_t[]> m_current;
    size_t m_used = 0;
};
