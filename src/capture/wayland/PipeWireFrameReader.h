#pragma once

#include "capture/wayland/PipeWireParams.h"

#include <cstdint>
#include <vector>

struct spa_buffer;

// Reads the picture out of one PipeWire video buffer into a BGRA frame of the capture size:
// shared memory as it is, DMA-BUF by mapping it (linear buffers only; no GPU import), the RGB
// layouts swapped to BGR, and scaled when the sizes differ. Used on the stream's thread only.
class PipeWireFrameReader
{
public:
    enum class Outcome {
        copied,
        // The compositor says nothing changed (an empty chunk, or damage without a region): an
        // idle frame.
        unchanged,
        // Marked corrupted, too small for its format, or a DMA-BUF that cannot be mapped.
        unreadable,
    };

    Outcome read(const spa_buffer &buffer, const PipeWireParams::Format &format, uint8_t *out,
                 int outStride, int outWidth, int outHeight);

    // DMA-BUF buffers that could not be mapped since the stream began.
    int unmappable() const { return m_unmappable; }

private:
    Outcome copy(const uint8_t *pixels, int stride, const PipeWireParams::Format &format,
                 uint8_t *out, int outStride, int outWidth, int outHeight);

    std::vector<uint8_t> m_staging; // RGB layouts are swapped here before they are scaled
    int m_unmappable = 0;
};
