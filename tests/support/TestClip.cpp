#include "support/TestClip.h"

#include "core/ClipSettings.h"
#include "replay/ClipExport.h"
#include "replay/ReplayBuffer.h"
#include "support/H264TestSource.h"

#include <cmath>

double testClipPitch(double seconds)
{
    return 300 + 50 * (int64_t(std::floor(seconds * 10)) % 10);
}

QString makeTestClip(int seconds, int width, int height, bool withSound, int64_t bitRate)
{
    ClipSettings::setMaxDuration(120);
    const H264TestSource video(width, height, bitRate);
    const MediaTime origin = MediaTime::make(40, 1);
    ReplayBuffer buffer;
    int64_t packet = 0;
    for (int64_t i = 0; i < int64_t(seconds) * H264TestSource::fps; ++i) {
        EncodedFrame frame = video.frame(i, origin);
        const bool key = frame.isKey;
        buffer.appendVideo(std::move(frame), key ? video.format() : nullptr);
        // 10 ms packets up to the end of this frame.
        for (; withSound && packet * 60 < (i + 1) * 100; ++packet) {
            const PcmTestSource tone {testClipPitch(double(packet) / 100), 0.3f};
            buffer.appendAudio(tone.sampleBuffer(packet, origin));
        }
    }
    return ClipExport::exportClip(buffer.snapshot()).result().path;
}
