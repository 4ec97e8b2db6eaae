#include "media/Bytes.h"

#include <cstring>

Bytes Bytes::allocate(size_t size)
{
    Bytes out;
    if (size == 0)
        return out;
    auto storage = std::make_shared_for_overwrite<uint8_t[]>(size);
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

Bytes Bytes::copy(std::span<const uint8_t> data)
{
    return concat({data});
}

Bytes Bytes::concat(std::initializer_list<std::span<const uint8_t>> pieces)
{
    return concatRange(pieces);
}
