#include "capture/wayland/PipeWireFrameReader.h"

#include <libyuv/convert_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>
#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>

#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>

namespace {

// A DMA-BUF mapped for reading while it lives; the sync calls tell the driver we read it on the
// processor, which some drivers need for the pixels to be current.
class MappedDmaBuf
{
public:
    MappedDmaBuf(int fd, size_t length)
        : m_fd(fd)
        , m_length(length)
    {
        void *data = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0);
        if (data == MAP_FAILED)
            return;
        m_data = static_cast<const uint8_t *>(data);
        sync(DMA_BUF_SYNC_START);
    }
    ~MappedDmaBuf()
    {
        if (!m_data)
            return;
        sync(DMA_BUF_SYNC_END);
        ::munmap(const_cast<uint8_t *>(m_data), m_length);
    }
    MappedDmaBuf(const MappedDmaBuf &) = delete;
    MappedDmaBuf &operator=(const MappedDmaBuf &) = delete;

    const uint8_t *data() const { return m_data; }

private:
    void sync(uint64_t when)
    {
        dma_buf_sync request {when | DMA_BUF_SYNC_READ};
        while (::ioctl(m_fd, DMA_BUF_IOCTL_SYNC, &request) == -1 && errno == EINTR) { }
    }

    int m_fd;
    size_t m_length;
    const uint8_t *m_data = nullptr;
};

bool damageFree(const spa_buffer &buffer)
{
    const spa_meta *damage = spa_buffer_find_meta(&buffer, SPA_META_VideoDamage);
    if (!damage || damage->size < sizeof(spa_meta_region))
        return false;
    // The list ends at the first empty region, so an empty first region means no damage.
    const auto *first = static_cast<const spa_meta_region *>(damage->data);
    return first->region.size.width == 0 || first->region.size.height == 0;
}

} // namespace

PipeWireFrameReader::Outcome PipeWireFrameReader::read(const spa_buffer &buffer,
                                                       const PipeWireParams::Format &format,
                                                       uint8_t *out, int outStride, int outWidth,
                                                       int outHeight)
{
    if (buffer.n_datas < 1 || !buffer.datas)
        return Outcome::unreadable;
    const auto *header = static_cast<const spa_meta_header *>(
        spa_buffer_find_meta_data(&buffer, SPA_META_Header, sizeof(spa_meta_header)));
    if (header && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED))
        return Outcome::unreadable;
    const spa_data &data = buffer.datas[0];
    if (!data.chunk || (data.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED))
        return Outcome::unreadable;
    // An empty chunk: only the cursor moved (sent as metadata) or nothing changed at all.
    if (data.chunk->size == 0 || damageFree(buffer))
        return Outcome::unchanged;

    const int stride = data.chunk->stride > 0 ? data.chunk->stride : format.width * 4;
    const size_t needed = size_t(stride) * size_t(format.height - 1) + size_t(format.width) * 4;
    const size_t offset = data.chunk->offset;
    if (data.type == SPA_DATA_DmaBuf && !data.data) {
        // Mapped here when PipeWire did not map it for us.
        const size_t length = data.maxsize ? data.maxsize : offset + needed;
        if (length < offset + needed)
            return Outcome::unreadable;
        MappedDmaBuf mapped(int(data.fd), length);
        if (!mapped.data()) {
            ++m_unmappable;
            return Outcome::unreadable;
        }
        return copy(mapped.data() + offset, stride, format, out, outStride, outWidth, outHeight);
    }
    if (!data.data || data.maxsize < offset + needed)
        return Outcome::unreadable;
    return copy(static_cast<const uint8_t *>(data.data) + offset, stride, format, out, outStride,
                outWidth, outHeight);
}

PipeWireFrameReader::Outcome PipeWireFrameReader::copy(const uint8_t *pixels, int stride,
                                                       const PipeWireParams::Format &format,
                                                       uint8_t *out, int outStride, int outWidth,
                                                       int outHeight)
{
    using PipeWireParams::PixelLayout;
    const bool swap = format.layout == PixelLayout::rgbx || format.layout == PixelLayout::rgba;
    const bool scale = format.width != outWidth || format.height != outHeight;
    if (swap) {
        // libyuv's "ABGR" is R, G, B, A in memory, its "ARGB" our B, G, R, A.
        uint8_t *target = out;
        int targetStride = outStride;
        if (scale) {
            m_staging.resize(size_t(format.width) * 4 * size_t(format.height));
            target = m_staging.data();
            targetStride = format.width * 4;
        }
        libyuv::ABGRToARGB(pixels, stride, target, targetStride, format.width, format.height);
        pixels = target;
        stride = targetStride;
        if (!scale)
            return Outcome::copied;
    }
    if (scale)
        libyuv::ARGBScale(pixels, stride, format.width, format.height, out, outStride, outWidth,
                          outHeight, libyuv::kFilterBox);
    else
        libyuv::ARGBCopy(pixels, stride, out, outStride, outWidth, outHeight);
    return Outcome::copied;
}
