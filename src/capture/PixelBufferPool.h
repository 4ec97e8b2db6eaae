#pragma once

#include "media/VideoFrame.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

// A fixed set of pixel buffers that frames borrow and give back, either BGRA or I420 (a Y plane
// then the U and V planes at half size, rows packed). Each buffer lives in a memfd, so the X
// server can write a grab straight into it (MIT-SHM). The pool's size is the bound on frames in
// flight: when every buffer is out, acquire() says so and the caller skips a frame instead of
// allocating.
class PixelBufferPool
{
public:
    enum class Format { bgra, i420 };

    class Buffer
    {
    public:
        Buffer(int index, int width, int height, Format format); // throws std::runtime_error
        ~Buffer();
        Buffer(const Buffer &) = delete;
        Buffer &operator=(const Buffer &) = delete;

        int index() const { return m_index; }
        int fd() const { return m_fd; } // stays owned by the buffer
        uint8_t *data() const { return m_data; }
        size_t size() const { return m_size; }
        int width() const { return m_width; }
        int height() const { return m_height; }
        Format format() const { return m_format; }
        // Bytes per row of the first plane (the only one of a BGRA buffer).
        int stride() const { return m_format == Format::bgra ? m_width * 4 : m_width; }
        // An I420 buffer's U (1) and V (2) planes, and their bytes per row.
        uint8_t *chroma(int plane) const;
        int chromaStride() const { return (m_width + 1) / 2; }

    private:
        int m_index;
        Format m_format;
        int m_width;
        int m_height;
        size_t m_size;
        int m_fd = -1;
        uint8_t *m_data = nullptr;
    };

    // Throws std::runtime_error when the memory cannot be had.
    PixelBufferPool(int count, int width, int height, Format format = Format::bgra);

    // A free buffer, returned to the pool when the last holder lets go (which may be after the
    // pool itself is gone); null when all are out.
    std::shared_ptr<Buffer> acquire();

    // A complete frame showing `buffer`'s pixels; it holds the buffer until the last copy of it
    // is gone.
    static VideoFrame frameOf(std::shared_ptr<Buffer> buffer, MediaTime pts, MediaTime duration);

    int freeCount() const;

private:
    struct State
    {
        std::vector<std::unique_ptr<Buffer>> buffers; // fixed after construction
        // Guards `free`, the indices of the buffers nobody holds.
        std::mutex lock;
        std::vector<int> free;
    };
    std::shared_ptr<State> m_state;
};
