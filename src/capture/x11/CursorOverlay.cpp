#include "capture/x11/CursorOverlay.h"

#include <algorithm>
#include <cstring>

namespace CursorOverlay {

void blend(uint8_t *frame, int stride, int width, int height, const uint32_t *cursor,
           int cursorWidth, int cursorHeight, int left, int top)
{
    const int x0 = std::max(0, left);
    const int y0 = std::max(0, top);
    const int x1 = std::min(width, left + cursorWidth);
    const int y1 = std::min(height, top + cursorHeight);
    for (int y = y0; y < y1; ++y) {
        const uint32_t *source = cursor + size_t(y - top) * size_t(cursorWidth) + (x0 - left);
        uint8_t *row = frame + size_t(y) * size_t(stride) + size_t(x0) * 4;
        for (int x = x0; x < x1; ++x, ++source, row += 4) {
            const uint32_t s = *source;
            const uint32_t alpha = s >> 24;
            if (alpha == 0)
                continue;
            uint32_t d;
            std::memcpy(&d, row, 4);
            if (alpha == 255) {
                d = s;
            } else {
                // Premultiplied "over": out = src + dst × (1 − αsrc), per channel.
                const uint32_t keep = 255 - alpha;
                uint32_t out = 0;
                for (int shift = 0; shift < 32; shift += 8) {
                    const uint32_t channel =
                        ((s >> shift) & 0xff) + (((d >> shift) & 0xff) * keep + 127) / 255;
                    out |= std::min<uint32_t>(channel, 255) << shift;
                }
                d = out;
            }
            std::memcpy(row, &d, 4);
        }
    }
}

} // namespace CursorOverlay
