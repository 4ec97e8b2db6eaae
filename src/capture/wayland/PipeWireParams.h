#pragma once

#include <cstdint>
#include <optional>
#include <vector>

struct spa_pod;
struct spa_pod_builder;

// The parameters a screen-recording PipeWire stream offers and accepts, built as SPA pods. Kept
// apart from the stream so that what we ask of the compositor is in one place.
namespace PipeWireParams {

// The pixel layouts we take: the four 32-bit ones compositors hand out.
enum class PixelLayout { bgrx, bgra, rgbx, rgba };

// A negotiated format.
struct Format
{
    PixelLayout layout = PixelLayout::bgrx;
    int width = 0;
    int height = 0;
    // Set when the buffers come as DMA-BUF with this modifier (only the linear one: we map the
    // buffers and read them, which a tiled layout would not allow).
    std::optional<uint64_t> modifier;
};

// Every layout we take, at any size, at most `fps` frames per second: first as linear DMA-BUF
// (when `withDmaBuf`), then in shared memory. Pods are written into `builder`.
std::vector<const spa_pod *> enumFormats(spa_pod_builder &builder, int fps, bool withDmaBuf);

// Reads a format the stream settled on; none for one we did not offer.
std::optional<Format> parseFormat(const spa_pod *param);

// What the stream needs to know of its buffers once the format is set: the memory types that
// may carry them, and the metadata we read (the header's flags and the damaged region).
std::vector<const spa_pod *> bufferParams(spa_pod_builder &builder, const Format &format);

} // namespace PipeWireParams
