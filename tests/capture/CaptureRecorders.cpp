#include "capture/CaptureRecorders.h"

#include <cmath>

namespace capture_test {

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
    std::vector<float> loud;
    for (const AudioRecord &packet : packets) {
        double energy = 0;
        for (float s : packet.samples)
            energy += double(s) * s;
        const double rms = packet.samples.empty() ? 0 : std::sqrt(energy / packet.samples.size());
        if (rms < 0.05)
            continue;
        for (size_t i = 0; packet.channels > 0 && i < packet.samples.size();
             i += size_t(packet.channels))
            loud.push_back(packet.samples[i]);
    }
    if (loud.size() < size_t(sampleRate) / 10)
        return 0;
    int crossings = 0;
    for (size_t i = 1; i < loud.size(); ++i)
        crossings += loud[i - 1] < 0 && loud[i] >= 0;
    return crossings * double(sampleRate) / double(loud.size());
}

} // namespace capture_test
