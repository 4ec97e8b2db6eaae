#include "media/Bytes.h"

#include "media/BytesArena.h"

#include <array>
#include <cstring>

Bytes Bytes::allocate(size_t size, BytesArena *arena)
{
    Bytes out;
    if (size == 0)
        return out;
    std::shared_ptr<uint8_t[]> storage =
        arena ? arena->allocate(size) : std::make_shared_for_overwrite<uint8_t[]>(size);
    out.m_writable = storage.get();
    out.m_data = std::move(storage);
    out.m_size = size;
    return out;
}

uint8_t *Bytes::copyInto(uint8_t *cursor, std::span<const uint8_t> piece)
{
    if (piece.empty())
        return cursor;
    std::memcpy(cursor, piece.data(), piece.size());
    return cursor + piece.size();
}

Bytes Bytes::copy(std::span<const uint8_t> data, BytesArena *arena)
{
    const std::array<std::span<const uint8_t>, 1> pieces {data};
    return concatRange(pieces, arena);
}

Bytes Bytes::concat(std::initializer_list<std::span<const uint8_t>> pieces)
{
    return concatRange(pieces);
}
