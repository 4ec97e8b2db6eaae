#pragma once

#include <QString>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libswresample/swresample.h>
}

#include <memory>

// Owners for the FFmpeg handles the pipeline holds (the encoder's, the writer's, the audio
// history's), so that no error path can leak one, and the one place where FFmpeg's error codes
// become readable text.
namespace FFmpeg {

struct CodecContextFree
{
    void operator()(AVCodecContext *context) const { avcodec_free_context(&context); }
};
struct PacketFree
{
    void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};
struct CodecParametersFree
{
    void operator()(AVCodecParameters *parameters) const { avcodec_parameters_free(&parameters); }
};
struct FrameFree
{
    void operator()(AVFrame *frame) const { av_frame_free(&frame); }
};
struct BufferUnref
{
    void operator()(AVBufferRef *buffer) const { av_buffer_unref(&buffer); }
};
struct SwrFree
{
    void operator()(SwrContext *context) const { swr_free(&context); }
};
struct AudioFifoFree
{
    void operator()(AVAudioFifo *fifo) const { av_audio_fifo_free(fifo); }
};
// The output context only; its file is closed by whoever opened it.
struct FormatContextFree
{
    void operator()(AVFormatContext *context) const { avformat_free_context(context); }
};
// An input context with its file, as avformat_open_input made them.
struct InputClose
{
    void operator()(AVFormatContext *context) const { avformat_close_input(&context); }
};

using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextFree>;
using CodecParametersPtr = std::unique_ptr<AVCodecParameters, CodecParametersFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using BufferPtr = std::unique_ptr<AVBufferRef, BufferUnref>;
using SwrPtr = std::unique_ptr<SwrContext, SwrFree>;
using AudioFifoPtr = std::unique_ptr<AVAudioFifo, AudioFifoFree>;
using FormatContextPtr = std::unique_ptr<AVFormatContext, FormatContextFree>;
using InputPtr = std::unique_ptr<AVFormatContext, InputClose>;

// av_strerror's text for an FFmpeg error code ("No space left on device").
QString errorText(int code);

// A new empty packet; throws std::bad_alloc when none can be had.
PacketPtr makePacket();

} // namespace FFmpeg
