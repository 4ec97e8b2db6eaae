#include "capture/CaptureRecorders.h"

#include <libyuv/convert_argb.h>

#include <algorithm>
#include <cmath>

namespace capture_test {

uint64_t sampleHash(const VideoFrame &frame)
{
    const bool bgra = frame.layout == VideoFrame::Layout::bgra;
    const size_t bytes = bgra ? 4 : 1;
    uint64_t hash = 1469598103934665603ull;
    for (int y = 0; y < frame.height; y += 7)
        for (int x = 0; x < frame.width; x += 13) {
            uint32_t pixel = 0;
            std::memcpy(&pixel, frame.pixels + size_t(y) * size_t(frame.stride) + size_t(x) * bytes,
                        bytes);
            hash = (hash ^ pixel) * 1099511628211ull;
        }
    return hash;
}

std::vector<uint8_t> packedBgra(const VideoFrame &frame)
{
    const size_t row = size_t(frame.width) * 4;
    std::vector<uint8_t> pixels(row * size_t(frame.height));
    if (frame.layout == VideoFrame::Layout::i420) {
        libyuv::I420ToARGB(frame.pixels, frame.stride, frame.u, frame.chromaStride, frame.v,
                           frame.chromaStride, pixels.data(), int(row), frame.width, frame.height);
        return pixels;
    }
    for (int y = 0; y < frame.height; ++y)
        std::memcpy(pixels.data() + size_t(y) * row,
                    frame.pixels + size_t(y) * size_t(frame.stride), row);
    return pixels;
}

std::vector<float> firstChannel(const std::vector<AudioRecord> &packets)
{
    std::vector<float> samples;
    for (const AudioRecord &packet : packets)
        for (size_t i = 0; packet.channels > 0 && i < packet.samples.size();
             i += size_t(packet.channels))
            samples.push_back(packet.samples[i]);
    return samples;
}

double toneFrequency(const std::vector<AudioRecord> &packets, int sampleRate)
{
    // The median spacing of upward zero crossings, placed between samples by interpolation:
    // the silence around the tone (whole blocks of it when a block is only partly loud) and a
    // glitch where a busy machine dropped audio move single spacings, not the median.
    std::vector<double> spacings;
    size_t loudSamples = 0;
    for (const AudioRecord &packet : packets) {
        double energy = 0;
        for (float s : packet.samples)
            energy += double(s) * s;
        const double rms = packet.samples.empty() ? 0 : std::sqrt(energy / packet.samples.size());
        if (rms < 0.05 || packet.channels <= 0)
            continue;
        const size_t step = size_t(packet.channels);
        loudSamples += packet.samples.size() / step;
        double last = -1;
        for (size_t i = step, n = 1; i < packet.samples.size(); i += step, ++n) {
            const float a = packet.samples[i - step], b = packet.samples[i];
            if (!(a < 0 && b >= 0))
                continue;
            const double at = double(n) - 1 + double(-a) / double(b - a);
            if (last >= 0)
                spacings.push_back(at - last);
            last = at;
        }
    }
    if (loudSamples < size_t(sampleRate) / 10 || spacings.empty())
        return 0;
    std::nth_element(spacings.begin(), spacings.begin() + spacings.size() / 2, spacings.end());
    return double(sampleRate) / spacings[spacings.size() / 2];
}

} // namespace capture_test
