#include "capture/PixelBufferPool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

PixelBufferPool::Buffer::Buffer(int index, int width, int height)
    : m_index(index)
    , m_width(width)
    , m_height(height)
    , m_size(size_t(width) * size_t(height) * 4)
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

PixelBufferPool::Buffer::~Buffer()
{
    munmap(m_data, m_size);
    close(m_fd);
}

PixelBufferPool::PixelBufferPool(int count, int width, int height)
    : m_state(std::make_shared<State>())
{
    for (int i = 0; i < count; ++i) {
        m_state->buffers.push_back(std::make_unique<Buffer>(i, width, height));
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

int PixelBufferPool::freeCount() const
{
    std::scoped_lock lock(m_state->lock);
    return int(m_state->free.size());
}
