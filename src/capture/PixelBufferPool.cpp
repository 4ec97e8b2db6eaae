#include "capture/PixelBufferPool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {

size_t chromaPlaneSize(int width, int height)
{
    return size_t((width + 1) / 2) * size_t((height + 1) / 2);
}

} // namespace

PixelBufferPool::Buffer::Buffer(int index, int width, int height, Format format)
    : m_index(index)
    , m_format(format)
    , m_width(width)
    , m_height(height)
    , m_size(format == Format::bgra
                 ? size_t(width) * size_t(height) * 4
                 : size_t(width) * size_t(height) + 2 * chromaPlaneSize(width, height))
{
    if (width <= 0 || height <= 0)
        throw std::runtime_error("A pixel buffer needs a positive size.");
    m_fd = memfd_create("vantrel-frame", MFD_CLOEXEC);
    if (m_fd < 0 || ftruncate(m_fd, off_t(m_size)) != 0) {
        const int error = errno;
        if (m_fd >= 0)
            close(m_fd);
        throw std::runtime_error("Could not make a frame buffer: " + std::string(strerror(error)));
    }
    void *mapped = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (mapped == MAP_FAILED) {
        const int error = errno;
        close(m_fd);
        throw std::runtime_error("Could not map a frame buffer: " + std::string(strerror(error)));
    }
    m_data = static_cast<uint8_t *>(mapped);
}

uint8_t *PixelBufferPool::Buffer::chroma(int plane) const
{
    if (m_format != Format::i420 || plane < 1 || plane > 2)
        return nullptr;
    return m_data + size_t(m_width) * size_t(m_height) +
        size_t(plane - 1) * chromaPlaneSize(m_width, m_height);
}

PixelBufferPool::Buffer::~Buffer()
{
    munmap(m_data, m_size);
    close(m_fd);
}

PixelBufferPool::PixelBufferPool(int count, int width, int height, Format format)
    : m_state(std::make_shared<State>())
{
    for (int i = 0; i < count; ++i) {
        m_state->buffers.push_back(std::make_unique<Buffer>(i, width, height, format));
        m_state->free.push_back(i);
    }
}

std::shared_ptr<PixelBufferPool::Buffer> PixelBufferPool::acquire()
{
    int index = -1;
    {
        std::scoped_lock lock(m_state->lock);
        if (m_state->free.empty())
            return nullptr;
        index = m_state->free.back();
        m_state->free.pop_back();
    }
    // The deleter keeps the pool's state alive, so a frame that outlives the stream still
    // points at mapped memory.
    std::shared_ptr<State> state = m_state;
    return std::shared_ptr<Buffer>(state->buffers[size_t(index)].get(), [state](Buffer *buffer) {
        std::scoped_lock lock(state->lock);
        state->free.push_back(buffer->index());
    });
}

VideoFrame PixelBufferPool::frameOf(std::shared_ptr<Buffer> buffer, MediaTime pts,
                                    MediaTime duration)
{
    VideoFrame frame;
    frame.pixels = buffer->data();
    frame.stride = buffer->stride();
    frame.width = buffer->width();
    frame.height = buffer->height();
    frame.pts = pts;
    frame.duration = duration;
    if (buffer->format() == Format::i420) {
        frame.layout = VideoFrame::Layout::i420;
        frame.u = buffer->chroma(1);
        frame.v = buffer->chroma(2);
        frame.chromaStride = buffer->chromaStride();
    }
    frame.owner = std::move(buffer);
    return frame;
}

int PixelBufferPool::freeCount() const
{
    std::scoped_lock lock(m_state->lock);
    return int(m_state->free.size());
}
