#include "media/FFmpegHandles.h"

#include <new>

namespace FFmpeg {

QString errorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    if (av_strerror(code, text, sizeof text) < 0)
        return QStringLiteral("FFmpeg error %1").arg(code);
    return QString::fromUtf8(text);
}

PacketPtr makePacket()
{
    PacketPtr packet(av_packet_alloc());
    if (!packet)
        throw std::bad_alloc();
    return packet;
}

} // namespace FFmpeg
