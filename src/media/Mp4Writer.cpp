#include "media/Mp4Writer.h"

#include "core/SerialQueue.h"
#include "media/AudioTrackEncoder.h"
#include "media/EncodedAudioSink.h"
#include "media/FFmpegHandles.h"
#include "media/RecorderError.h"

#include <QFile>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <typeinfo>
#include <vector>

namespace {

// 90 kHz is the customary MP4 video clock: exact for 60, 50, 30 and 24 frames per second.
constexpr AVRational videoClock {1, 90000};

// How far a non-real-time video stream may run ahead of the audio already encoded: enough to keep
// every thread busy, small enough that the muxer interleaves finely and holds little.
constexpr double maxVideoLeadSeconds = 1.0;

int64_t ticks(MediaTime time, AVRational base)
{
    return av_rescale_rnd(time.value, base.den, int64_t(time.timescale) * base.num,
                          AVRounding(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
}

double seconds(int64_t value, AVRational base)
{
    return double(value) * base.num / base.den;
}

// FFmpeg's informational lines (the AAC encoder's statistics at every close) would fill the
// program's standard error, which is its system log; warnings and errors still come through.
void quietLibraries()
{
    static std::once_flag once;
    std::call_once(once, [] {
        if (av_log_get_level() > AV_LOG_WARNING)
            av_log_set_level(AV_LOG_WARNING);
    });
}

struct BytesHolder
{
    Bytes bytes;
};

void releaseBytes(void *opaque, uint8_t *)
{
    delete static_cast<BytesHolder *>(opaque);
}

} // namespace

struct Mp4Writer::Core : std::enable_shared_from_this<Core>
{
    struct Track
    {
        MediaSample::Kind kind = MediaSample::Kind::video;
        AVStream *stream = nullptr;
        bool realTime = false;
        bool markedFinished = false;
        bool done = false; // all it will ever write has reached the muxer
        std::function<void()> feeder;
        int64_t lastDts = std::numeric_limits<int64_t>::min(); // video, in the stream's clock
        double writtenEnd = 0; // seconds: end of what has reached the muxer
        std::unique_ptr<AudioTrackEncoder> audio; // none for an encoded track
        std::shared_ptr<EncodedAudioSink> sink; // gets a copy of every packet encoded
        AVRational encoderClock {1, AudioDefaults::sampleRate}; // audio

        // Audio that arrives as packets, written as it comes.
        bool isEncoded() const { return kind == MediaSample::Kind::audio && !audio; }
    };

    // Posts one service round to the queue however many workers report progress meanwhile. It
    // holds the core weakly: the round does nothing once the writer is gone. Workers call post()
    // from their threads; the core itself is only ever locked on the queue.
    struct Notifier : std::enable_shared_from_this<Notifier>
    {
        explicit Notifier(SerialQueue &queue)
            : queue(queue)
        {
        }

        void post()
        {
            if (queued.exchange(true))
                return;
            queue.async([self = shared_from_this()] {
                self->queued = false;
                if (auto core = self->core.lock())
                    core->service();
            });
        }

        SerialQueue &queue;
        std::weak_ptr<Core> core;
        std::atomic<bool> queued {false};
    };

    Core(const QString &path, SerialQueue &queue)
        : queue(queue)
        , path(path)
    {
        AVFormatContext *raw = nullptr;
        const QByteArray name = QFile::encodeName(path);
        const int result = avformat_alloc_output_context2(&raw, nullptr, "mp4", name.constData());
        if (result < 0 || !raw)
            throw RecorderError::writerFailed(QStringLiteral("Could not create the MP4 writer: %1")
                                                  .arg(FFmpeg::errorText(result)));
        format.reset(raw);
    }

    ~Core()
    {
        // Encoders first: they may still be working, and they post to the queue.
        for (Track &track : tracks)
            track.audio.reset();
        closeHistories();
        closeFile();
    }

    void closeHistories()
    {
        for (Track &track : tracks) {
            if (track.sink)
                track.sink->close();
        }
    }

    Track &track(Stream handle)
    {
        if (handle.index < 0 || size_t(handle.index) >= tracks.size())
            throw std::out_of_range("Mp4Writer: no such stream");
        return tracks[size_t(handle.index)];
    }

    void fail(const QString &message)
    {
        if (status == Status::notStarted || status == Status::writing) {
            status = Status::failed;
            error = message;
            closeHistories();
            // Feeders waiting for room must now run through and see their samples refused.
            if (notifier)
                notifier->post();
        }
    }

    bool closeFile()
    {
        if (!format || !format->pb)
            return true;
        const int result = avio_closep(&format->pb);
        if (result < 0) {
            fail(QStringLiteral("Could not write the MP4 file: %1").arg(FFmpeg::errorText(result)));
            return false;
        }
        return true;
    }

    bool writePacket(AVPacket *packet)
    {
        if (status != Status::writing)
            return false;
        const int result = av_interleaved_write_frame(format.get(), packet);
        if (result < 0) {
            fail(QStringLiteral("Could not write the MP4 file: %1").arg(FFmpeg::errorText(result)));
            return false;
        }
        return true;
    }

    bool isReady(const Track &track) const
    {
        if (track.markedFinished || finishing)
            return false;
        // A failed writer never makes anyone wait: feeders run through and see refusals.
        if (status == Status::failed)
            return true;
        if (status != Status::writing)
            return false;
        if (track.realTime)
            return true;
        if (track.audio)
            return track.audio->isReady();
        // Video and encoded audio are written as they come, so each waits for the others.
        for (const Track &other : tracks) {
            if (&other != &track && !other.done &&
                track.writtenEnd - other.writtenEnd >= maxVideoLeadSeconds)
                return false;
        }
        return true;
    }

    bool writeVideo(Track &track, const MediaSample &sample, MediaTime relative)
    {
        if (sample.data.empty() || sample.data.size() > size_t(std::numeric_limits<int>::max()))
            return false;
        const AVRational clock = track.stream->time_base;
        const int64_t dts = ticks(relative, clock);
        // The muxer insists on strictly increasing times; a frame that breaks that is refused
        // here rather than failing the whole file there.
        if (dts < 0 || dts <= track.lastDts)
            return false;
        int64_t duration = sample.duration.isValid() ? ticks(sample.duration, clock) : 0;
        if (duration < 1)
            duration = 1;

        FFmpeg::PacketPtr packet = FFmpeg::makePacket();
        auto *holder = new BytesHolder {sample.data};
        packet->buf =
            av_buffer_create(const_cast<uint8_t *>(holder->bytes.data()), holder->bytes.size(),
                             releaseBytes, holder, AV_BUFFER_FLAG_READONLY);
        if (!packet->buf) {
            delete holder;
            throw std::bad_alloc();
        }
        packet->data = packet->buf->data;
        packet->size = int(holder->bytes.size());
        packet->pts = packet->dts = dts;
        packet->duration = duration;
        packet->stream_index = track.stream->index;
        if (sample.isKey)
            packet->flags |= AV_PKT_FLAG_KEY;
        if (!writePacket(packet.get()))
            return false;
        track.lastDts = dts;
        track.writtenEnd = seconds(dts + duration, clock);
        ++directWrites;
        return true;
    }

    bool writeEncoded(Track &track, const AVPacket &source)
    {
        if (source.size < 1 || !source.data || source.pts == AV_NOPTS_VALUE ||
            source.duration < 1 || source.pts <= track.lastDts)
            return false;
        FFmpeg::PacketPtr packet(av_packet_clone(&source));
        if (!packet)
            throw std::bad_alloc();
        packet->dts = packet->pts;
        packet->stream_index = track.stream->index;
        av_packet_rescale_ts(packet.get(), track.encoderClock, track.stream->time_base);
        const int64_t end = packet->pts + packet->duration;
        if (!writePacket(packet.get()))
            return false;
        track.lastDts = source.pts;
        track.writtenEnd = seconds(end, track.stream->time_base);
        ++directWrites;
        return true;
    }

    // One round on the queue: move what the encoders finished into the muxer, close the file
    // once everything is in, and let every stream that is ready take more.
    void service()
    {
        auto keepAlive = shared_from_this();
        for (Track &track : tracks) {
            if (!track.audio || track.done)
                continue;
            AacTrackWorker::Output output = track.audio->take();
            for (FFmpeg::PacketPtr &packet : output.packets) {
                if (track.sink)
                    track.sink->append(*packet);
                av_packet_rescale_ts(packet.get(), track.encoderClock, track.stream->time_base);
                packet->stream_index = track.stream->index;
                const int64_t end = packet->pts + packet->duration;
                if (writePacket(packet.get()))
                    track.writtenEnd = seconds(end, track.stream->time_base);
            }
            if (!output.error.isEmpty())
                fail(output.error);
            if (output.finished)
                track.done = true;
        }

        if (finishing) {
            for (const Track &track : tracks) {
                if (!track.done)
                    return;
            }
            finalize();
            return;
        }

        // Tracks written as they come wait for each other, so one round of feeders may leave the
        // next one ready with nothing else to wake it: go round until nobody writes.
        uint64_t writes;
        do {
            writes = directWrites;
            for (Track &track : tracks) {
                if (track.feeder && isReady(track)) {
                    const auto feeder = track.feeder; // the feeder may end its own stream
                    feeder();
                }
            }
        } while (writes != directWrites && !finishing);
    }

    void finalize()
    {
        if (completed)
            return;
        completed = true;
        if (status == Status::writing) {
            const int result = av_write_trailer(format.get());
            if (result < 0)
                fail(QStringLiteral("Could not finish the MP4 file: %1")
                         .arg(FFmpeg::errorText(result)));
        }
        closeFile();
        closeHistories();
        if (status == Status::writing)
            status = Status::completed;
        if (completion)
            queue.async(std::move(completion));
    }

    SerialQueue &queue;
    const QString path;
    FFmpeg::FormatContextPtr format;
    std::vector<Track> tracks;
    Status status = Status::notStarted;
    QString error;
    MediaTime sessionStart;
    bool finishing = false;
    bool completed = false;
    uint64_t directWrites = 0; // packets written by writeVideo and writeEncoded
    std::function<void()> completion;
    std::shared_ptr<Notifier> notifier;
};

Mp4Writer::Mp4Writer(const QString &path, SerialQueue &queue)
    : d((quietLibraries(), std::make_shared<Core>(path, queue)))
{
    d->notifier = std::make_shared<Core::Notifier>(queue);
    d->notifier->core = d;
}

Mp4Writer::~Mp4Writer() = default;

std::optional<Mp4Writer::Stream> Mp4Writer::addVideoStream(const VideoFormatPtr &sourceFormat,
                                                           bool realTime)
{
    if (d->status != Status::notStarted || !sourceFormat || sourceFormat->extradata.empty() ||
        sourceFormat->width < 1 || sourceFormat->height < 1)
        return std::nullopt;
    AVStream *stream = avformat_new_stream(d->format.get(), nullptr);
    if (!stream)
        return std::nullopt;
    AVCodecParameters *parameters = stream->codecpar;
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = AV_CODEC_ID_H264;
    parameters->width = sourceFormat->width;
    parameters->height = sourceFormat->height;
    const size_t size = sourceFormat->extradata.size();
    parameters->extradata = static_cast<uint8_t *>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!parameters->extradata)
        throw std::bad_alloc();
    std::memcpy(parameters->extradata, sourceFormat->extradata.data(), size);
    parameters->extradata_size = int(size);
    stream->time_base = videoClock;

    Core::Track track;
    track.kind = MediaSample::Kind::video;
    track.stream = stream;
    track.realTime = realTime;
    d->tracks.push_back(std::move(track));
    return Stream {int(d->tracks.size()) - 1};
}

std::optional<Mp4Writer::Stream> Mp4Writer::addAudioStream(const AudioSettings &settings,
                                                           bool realTime)
{
    if (d->status != Status::notStarted)
        return std::nullopt;
    // Fed from memory, a track is cut into segments that encode on several cores at once.
    auto encoder =
        AudioTrackEncoder::create({settings.sampleRate, settings.channels, settings.bitRate},
                                  !realTime, [notifier = d->notifier] { notifier->post(); });
    if (!encoder)
        return std::nullopt;
    AVStream *stream = avformat_new_stream(d->format.get(), nullptr);
    if (!stream)
        return std::nullopt;
    encoder->copyParameters(stream->codecpar);
    stream->time_base = encoder->timeBase();

    Core::Track track;
    track.kind = MediaSample::Kind::audio;
    track.stream = stream;
    track.realTime = realTime;
    track.encoderClock = encoder->timeBase();
    track.audio = std::move(encoder);
    d->tracks.push_back(std::move(track));
    return Stream {int(d->tracks.size()) - 1};
}

std::optional<Mp4Writer::Stream>
Mp4Writer::addEncodedAudioStream(const AVCodecParameters &parameters)
{
    if (d->status != Status::notStarted || parameters.codec_type != AVMEDIA_TYPE_AUDIO ||
        parameters.sample_rate < 1)
        return std::nullopt;
    AVStream *stream = avformat_new_stream(d->format.get(), nullptr);
    if (!stream)
        return std::nullopt;
    if (avcodec_parameters_copy(stream->codecpar, &parameters) < 0)
        throw std::bad_alloc();
    stream->time_base = {1, parameters.sample_rate};

    Core::Track track;
    track.kind = MediaSample::Kind::audio;
    track.stream = stream;
    track.encoderClock = stream->time_base;
    d->tracks.push_back(std::move(track));
    return Stream {int(d->tracks.size()) - 1};
}

void Mp4Writer::keepEncodedAudio(Stream handle, std::shared_ptr<EncodedAudioSink> sink)
{
    Core::Track &track = d->track(handle);
    if (!track.audio)
        throw std::invalid_argument("Mp4Writer: only an encoding audio stream has packets to keep");
    track.sink = std::move(sink);
}

bool Mp4Writer::writeHeader()
{
    if (d->status != Status::notStarted)
        return false;
    if (d->tracks.empty()) {
        d->fail(QStringLiteral("Could not start writing the MP4: it has no tracks."));
        return false;
    }
    const QByteArray url = "file:" + QFile::encodeName(d->path);
    int result = avio_open(&d->format->pb, url.constData(), AVIO_FLAG_WRITE);
    if (result < 0) {
        d->fail(QStringLiteral("Could not create %1: %2").arg(d->path, FFmpeg::errorText(result)));
        return false;
    }
    result = avformat_write_header(d->format.get(), nullptr);
    if (result < 0) {
        d->fail(
            QStringLiteral("Could not start writing the MP4: %1").arg(FFmpeg::errorText(result)));
        d->closeFile();
        return false;
    }
    d->status = Status::writing;
    return true;
}

void Mp4Writer::setTimeOrigin(MediaTime sourceTime)
{
    if (d->status != Status::writing || !sourceTime.isValid())
        throw std::logic_error("Mp4Writer: setTimeOrigin needs a writing writer and a valid time");
    d->sessionStart = sourceTime;
    for (const Core::Track &track : d->tracks) {
        if (track.sink)
            track.sink->begin(*track.stream->codecpar, sourceTime);
    }
}

bool Mp4Writer::canTakeMore(Stream handle) const
{
    return d->isReady(d->track(handle));
}

namespace {

void report(Mp4Writer::WriteError *error, int code, const QString &description)
{
    if (error)
        *error = {QStringLiteral("Vantrel"), code, description};
}

std::string typeName(const std::type_info &type)
{
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    return status == 0 && demangled ? demangled.get() : type.name();
}

// Runs one write, turning a fault into the code-1 error and a refusal into the code-2 one.
template<typename Write> bool guarded(Mp4Writer::WriteError *error, Write write)
{
    try {
        try {
            if (write())
                return true;
            report(error, Mp4Writer::WriteError::refused,
                   QStringLiteral("Could not write a frame into the clip."));
        } catch (const std::exception &e) {
            const char *what = e.what();
            report(error, Mp4Writer::WriteError::fault,
                   QString::fromUtf8(what && *what ? what : typeName(typeid(e)).c_str()));
        } catch (...) {
            const std::type_info *type = abi::__cxa_current_exception_type();
            report(error, Mp4Writer::WriteError::fault,
                   QString::fromStdString(type ? typeName(*type) : "unknown exception"));
        }
    } catch (...) {
        // Naming the fault failed (no memory for the text); the write still failed.
    }
    return false;
}

} // namespace

bool Mp4Writer::writeSample(Stream handle, const MediaSample &sample, WriteError *error)
{
    return guarded(error, [&] { return writeSampleOrThrow(handle, sample); });
}

bool Mp4Writer::writePacket(Stream handle, const AVPacket &packet, WriteError *error)
{
    return guarded(error, [&] { return writePacketOrThrow(handle, packet); });
}

bool Mp4Writer::writeSampleOrThrow(Stream handle, const MediaSample &sample)
{
    Core::Track &track = d->track(handle);
    if (sample.kind != track.kind)
        throw std::invalid_argument(sample.kind == MediaSample::Kind::video
                                        ? "Mp4Writer: a video sample for an audio stream"
                                        : "Mp4Writer: an audio sample for a video stream");
    if (d->status != Status::writing || track.markedFinished || d->finishing)
        return false;
    if (!d->sessionStart.isValid())
        throw std::logic_error("Mp4Writer: a write before setTimeOrigin");
    const MediaTime relative = sample.pts - d->sessionStart;
    if (!relative.isValid())
        return false;
    if (track.kind == MediaSample::Kind::video)
        return d->writeVideo(track, sample, relative);
    if (track.isEncoded())
        throw std::invalid_argument("Mp4Writer: PCM for a stream that takes encoded audio");
    if (!AacEncoder::accepts(sample))
        return false;
    track.audio->submit(sample, relative);
    return true;
}

bool Mp4Writer::writePacketOrThrow(Stream handle, const AVPacket &packet)
{
    Core::Track &track = d->track(handle);
    if (!track.isEncoded())
        throw std::invalid_argument("Mp4Writer: an encoded packet for a stream that encodes");
    if (d->status != Status::writing || track.markedFinished || d->finishing)
        return false;
    return d->writeEncoded(track, packet);
}

void Mp4Writer::setFeeder(Stream handle, std::function<void()> feeder)
{
    d->track(handle).feeder = std::move(feeder);
    d->notifier->post();
}

void Mp4Writer::endStream(Stream handle)
{
    Core::Track &track = d->track(handle);
    if (track.markedFinished)
        return;
    track.markedFinished = true;
    if (track.audio)
        track.audio->finish();
    else
        track.done = true;
    d->notifier->post();
}

void Mp4Writer::flush(std::function<void()> completion)
{
    if (d->status == Status::notStarted || d->finishing)
        throw std::logic_error("Mp4Writer: flush needs a started, unfinished writer");
    d->finishing = true;
    d->completion = std::move(completion);
    for (size_t i = 0; i < d->tracks.size(); ++i)
        endStream(Stream {int(i)});
    d->notifier->post();
}

Mp4Writer::Status Mp4Writer::status() const
{
    return d->status;
}

QString Mp4Writer::error() const
{
    return d->error;
}

QString Mp4Writer::path() const
{
    return d->path;
}
