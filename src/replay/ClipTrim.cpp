#include "replay/ClipTrim.h"

#include "core/Log.h"
#include "core/SerialQueue.h"
#include "core/SharedPool.h"
#include "media/H264Bitstream.h"
#include "media/RecorderError.h"
#include "replay/FileMove.h"
#include "replay/TrimHead.h"
#include "replay/TrimOutput.h"
#include "replay/TrimSource.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QPromise>
#include <QScopeGuard>
#include <QUuid>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <set>
#include <span>

namespace ClipTrim {

namespace {

// Like the clip export's: below the capture and its encoder, which must never wait for a trim.
constexpr int trimNiceness = 10;
// A cut may end this far past the clip's end (a player's position in milliseconds): it ends at
// the end.
constexpr MediaTime endSlack = MediaTime::make(1, 1000);
constexpr int maxNameAttempts = 100;

using Track = TrimSource::Track;
using Sample = TrimSource::Sample;

MediaTime timeOf(int64_t ticks, AVRational base)
{
    return MediaTime::make(ticks * base.num, base.den);
}

int64_t ticksOf(MediaTime time, AVRational base)
{
    return av_rescale_rnd(time.value, base.den, int64_t(time.timescale) * base.num,
                          AVRounding(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
}

[[noreturn]] void refuse(const QString &sentence)
{
    throw RecorderError::writerFailed(sentence);
}

QString secondsText(MediaTime time)
{
    return QString::number(time.seconds(), 'f', 2);
}

// Which frames the cut keeps, where the decoding starts and where the copying does.
struct Plan
{
    size_t first = 0; // the first frame kept
    size_t end = 0; // past the last
    size_t key = 0; // the key frame the re-encoded start is decoded from
    size_t copyFrom = 0; // frames [first, copyFrom) are encoded anew, [copyFrom, end) copied
};

bool isIdr(const TrimSource &source, const Sample &sample)
{
    const FFmpeg::PacketPtr packet = source.read(source.video(), sample);
    for (const H264Bitstream::Unit unit :
         H264Bitstream::sampleUnits({packet->data, size_t(packet->size)})) {
        if (H264Bitstream::nalType(unit) == H264Bitstream::nalIdr)
            return true;
    }
    return false;
}

// The frame showing at `in`: the last one that starts at or before it.
size_t frameAt(const Track &video, MediaTime in)
{
    size_t frame = 0;
    while (frame + 1 < video.samples.size() &&
           !(in < timeOf(video.samples[frame + 1].pts, video.timeBase)))
        ++frame;
    return frame;
}

// Fills in where decoding and copying start for a cut of frames [first, end): decoding on an IDR
// at or before the first frame; copying on the first IDR from the first frame on (a key frame
// that is not an IDR may be followed by frames that look back past it), or at the end.
void findStarts(const TrimSource &source, const QString &path, Plan &plan)
{
    const std::vector<Sample> &samples = source.video().samples;
    const auto idrAt = [&](size_t i) { return samples[i].key && isIdr(source, samples[i]); };
    plan.key = plan.first;
    while (!idrAt(plan.key)) {
        if (plan.key == 0)
            refuse(QStringLiteral("%1 is not a clip Vantrel can trim: it does not open on a key "
                                  "frame.")
                       .arg(QFileInfo(path).fileName()));
        --plan.key;
    }
    plan.copyFrom = plan.first;
    while (plan.copyFrom < plan.end && !idrAt(plan.copyFrom))
        ++plan.copyFrom;
}

Plan planOf(const TrimSource &source, const Request &request)
{
    const Track &video = source.video();
    const std::vector<Sample> &samples = video.samples;
    const MediaTime clipEnd = timeOf(video.end, video.timeBase);
    const MediaTime in = request.in;
    MediaTime out = request.out;
    if (!in.isValid() || !out.isValid())
        refuse(QStringLiteral("The cut needs a start and an end."));
    if (in < MediaTime::zero() || !(in < clipEnd))
        refuse(QStringLiteral("The cut must start within the clip, which lasts %1 seconds.")
                   .arg(secondsText(clipEnd)));
    if (!(in < out))
        refuse(QStringLiteral("The cut must start before it ends."));
    if (clipEnd + endSlack < out)
        refuse(QStringLiteral("The cut must end within the clip, which lasts %1 seconds.")
                   .arg(secondsText(clipEnd)));
    out = std::min(out, clipEnd);

    Plan plan;
    plan.first = frameAt(video, in);
    // The frame showing at `in` starts before `out`: a cut keeps at least that one.
    plan.end = plan.first;
    while (plan.end < samples.size() && timeOf(samples[plan.end].pts, video.timeBase) < out)
        ++plan.end;
    if (plan.first == 0 && plan.end == samples.size())
        refuse(QStringLiteral("The cut keeps the whole clip: move its start or its end."));
    findStarts(source, request.source, plan);
    return plan;
}

// The PPS the first slice of a sample names, from as much of its start as `data` holds; none
// when that is not enough.
std::optional<uint32_t> firstSlicePps(std::span<const uint8_t> data)
{
    size_t at = 0;
    while (at + 4 < data.size()) {
        const size_t size = size_t(data[at]) << 24 | size_t(data[at + 1]) << 16 |
            size_t(data[at + 2]) << 8 | data[at + 3];
        const H264Bitstream::Unit unit = data.subspan(at + 4, std::min(size, data.size() - at - 4));
        if (const auto id = H264Bitstream::slicePpsId(unit))
            return id;
        at += 4 + size;
    }
    return std::nullopt;
}

// The parameter sets of the clip that the copied frames [from, end) refer to: the PPS their
// slices name and the SPS those name. A frame's first slice is enough (an encoder names one PPS
// per picture), and it lies within a frame's first bytes unless the frame opens with a long SEI.
std::vector<H264Bitstream::Unit> setsUsed(const TrimSource &source, size_t from, size_t end)
{
    constexpr int sliceHeaderBytes = 64;
    const Track &video = source.video();
    std::set<uint32_t> pps;
    for (size_t i = from; i < end; ++i) {
        FFmpeg::PacketPtr packet = source.read(video, video.samples[i], sliceHeaderBytes);
        auto id = firstSlicePps({packet->data, size_t(packet->size)});
        if (!id && packet->size < video.samples[i].size) {
            packet = source.read(video, video.samples[i]);
            id = firstSlicePps({packet->data, size_t(packet->size)});
        }
        if (id)
            pps.insert(*id);
    }
    const std::vector<H264Bitstream::Unit> all = H264Bitstream::avcCUnits(source.avcC());
    std::set<uint32_t> sps;
    std::vector<H264Bitstream::Unit> used;
    for (const H264Bitstream::Unit unit : all) {
        const auto id = H264Bitstream::parameterSetId(unit);
        if (H264Bitstream::nalType(unit) == H264Bitstream::nalPps && id && pps.count(*id)) {
            used.push_back(unit);
            if (const auto spsId = H264Bitstream::ppsSpsId(unit))
                sps.insert(*spsId);
        }
    }
    for (const H264Bitstream::Unit unit : all) {
        const auto id = H264Bitstream::parameterSetId(unit);
        if (H264Bitstream::nalType(unit) == H264Bitstream::nalSps && id && sps.count(*id))
            used.insert(used.begin(), unit);
    }
    return used;
}

// The first id no SPS or PPS among `sets` has.
int freeParameterSetId(const std::vector<H264Bitstream::Unit> &sets)
{
    std::set<uint32_t> taken;
    for (const H264Bitstream::Unit unit : sets) {
        if (const auto id = H264Bitstream::parameterSetId(unit))
            taken.insert(*id);
    }
    int id = 0;
    while (taken.count(uint32_t(id)))
        ++id;
    return id;
}

// One packet to write, and when it plays.
struct Pending
{
    MediaTime at;
    int stream = 0;
    const Track *track = nullptr; // copied from the clip; none for a re-encoded frame
    const Sample *sample = nullptr;
    const EncodedFrame *made = nullptr;
    int64_t pts = 0; // in the track's time base, from the cut's start
    int64_t duration = 0;
};

FFmpeg::PacketPtr packetOf(const EncodedFrame &frame)
{
    FFmpeg::PacketPtr packet = FFmpeg::makePacket();
    if (av_new_packet(packet.get(), int(frame.data.size())) < 0)
        throw std::bad_alloc();
    std::copy(frame.data.data(), frame.data.data() + frame.data.size(), packet->data);
    if (frame.isKey)
        packet->flags |= AV_PKT_FLAG_KEY;
    return packet;
}

QString newTemporaryPath()
{
    return QDir(QDir::tempPath())
        .filePath(QStringLiteral("vantrel-%1.mp4")
                      .arg(QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper()));
}

SerialQueue &trimQueue()
{
    // Never torn down, like the export queue: a trim still running at exit must not hold it up.
    static SerialQueue *queue = [] {
        auto *made = new SerialQueue("com.quillfen.vantrel.trim", "vt-trim");
        made->async([] { setpriority(PRIO_PROCESS, pid_t(syscall(SYS_gettid)), trimNiceness); });
        return made;
    }();
    return *queue;
}

// The start of a cut made in advance by prepare(), for the trim that follows: the clip as it was
// (path, size, modification time) and the frames it starts from. A trim from the same frame
// takes its first frames from here (as many as it keeps: an encoded frame never depends on a
// later one). preparedLock guards `prepared`.
struct Prepared
{
    QString source;
    qint64 size = 0;
    QDateTime modified;
    size_t first = 0;
    size_t key = 0;
    size_t copyFrom = 0;
    TrimHead::Made head;
};
std::mutex preparedLock;
std::optional<Prepared> prepared;

bool sameFile(const Prepared &made, const QString &source)
{
    const QFileInfo now(source);
    return made.source == source && made.size == now.size() && made.modified == now.lastModified();
}

TrimHead::Made makeHead(const TrimSource &source, const Plan &plan)
{
    QElapsedTimer making;
    making.start();
    TrimHead::Made head =
        TrimHead::make(source, plan.key, plan.first, plan.copyFrom,
                       freeParameterSetId(H264Bitstream::avcCUnits(source.avcC())));
    Log::system(QStringLiteral("trim: %1 frames decoded and %2 encoded anew in %3 s")
                    .arg(plan.copyFrom - plan.key)
                    .arg(plan.copyFrom - plan.first)
                    .arg(making.elapsed() / 1000.0, 0, 'f', 3));
    return head;
}

// The re-encoded start of `plan`'s cut: made in advance when prepare() made it, otherwise now.
TrimHead::Made headOf(const TrimSource &source, const QString &path, const Plan &plan,
                      bool *inAdvance)
{
    {
        std::scoped_lock lock(preparedLock);
        if (prepared && sameFile(*prepared, path) && prepared->first == plan.first &&
            prepared->key == plan.key && prepared->copyFrom >= plan.copyFrom) {
            TrimHead::Made head;
            head.format = prepared->head.format;
            head.frames.assign(prepared->head.frames.begin(),
                               prepared->head.frames.begin() +
                                   ptrdiff_t(plan.copyFrom - plan.first));
            *inAdvance = true;
            return head;
        }
    }
    return makeHead(source, plan);
}

// Writes the cut into `path`; answers what it holds.
Trimmed writeInto(const TrimSource &source, const Plan &plan, const QString &clip,
                  const QString &path)
{
    const Track &video = source.video();
    const std::vector<Sample> &samples = video.samples;
    std::vector<H264Bitstream::Unit> sets = setsUsed(source, plan.copyFrom, plan.end);
    TrimHead::Made head;
    bool inAdvance = false;
    if (plan.copyFrom > plan.first) {
        head = headOf(source, clip, plan, &inAdvance);
        for (const H264Bitstream::Unit unit : H264Bitstream::avcCUnits(head.format->extradata))
            sets.push_back(unit);
    }
    const std::vector<uint8_t> avcC = H264Bitstream::avcC(sets);
    if (avcC.empty())
        refuse(QStringLiteral("Could not write the trimmed copy: the clip's parameter sets are "
                              "damaged."));

    TrimOutput output(path);
    std::vector<Pending> pending;
    const int videoStream = output.addVideo(video.parameters(source), avcC, video.timeBase);
    const int64_t shift = samples[plan.first].pts;
    for (size_t i = plan.first; i < plan.end; ++i) {
        Pending frame {timeOf(samples[i].pts, video.timeBase), videoStream};
        if (i < plan.copyFrom)
            frame.made = &head.frames[i - plan.first];
        else
            frame = {frame.at, videoStream, &video, &samples[i]};
        frame.pts = samples[i].pts - shift;
        frame.duration = samples[i].duration;
        pending.push_back(frame);
    }
    const int64_t endTicks = samples[plan.end - 1].pts + samples[plan.end - 1].duration;
    for (const Track &audio : source.audio()) {
        const int stream = output.addAudio(audio.parameters(source), audio.timeBase);
        const auto &packets = audio.samples;
        const int64_t from = ticksOf(timeOf(shift, video.timeBase), audio.timeBase);
        const int64_t to = ticksOf(timeOf(endTicks, video.timeBase), audio.timeBase);
        // The packet that plays the cut's first sample, and the one before it, which the decoder
        // needs to play that one right; the edit list hides both up to the first sample.
        size_t first = 0;
        while (first + 1 < packets.size() && packets[first + 1].pts <= from)
            ++first;
        if (first > 0)
            --first;
        for (size_t i = first; i < packets.size() && packets[i].pts < to; ++i)
            pending.push_back({timeOf(packets[i].pts, audio.timeBase), stream, &audio, &packets[i],
                               nullptr, packets[i].pts - from, packets[i].duration});
    }
    std::stable_sort(pending.begin(), pending.end(),
                     [](const Pending &a, const Pending &b) { return a.at < b.at; });

    output.begin();
    for (const Pending &entry : pending) {
        FFmpeg::PacketPtr packet =
            entry.made ? packetOf(*entry.made) : source.read(*entry.track, *entry.sample);
        packet->pts = packet->dts = entry.pts;
        packet->duration = entry.duration;
        output.write(entry.stream, std::move(packet));
    }
    output.finish();
    return {path, timeOf(endTicks - shift, video.timeBase), int64_t(plan.end - plan.first),
            int64_t(plan.copyFrom - plan.first), inAdvance};
}

} // namespace

QString copyPath(const QString &source, int attempt)
{
    const QFileInfo clip(source);
    const QString suffix = attempt > 1 ? QStringLiteral(" trimmed %1.mp4").arg(attempt)
                                       : QStringLiteral(" trimmed.mp4");
    return clip.dir().filePath(clip.completeBaseName() + suffix);
}

Frames frames(const QString &source)
{
    const TrimSource clip(source);
    const Track &video = clip.video();
    Frames out;
    out.starts.reserve(video.samples.size());
    out.keys.reserve(video.samples.size());
    for (const Sample &sample : video.samples) {
        out.starts.push_back(timeOf(sample.pts, video.timeBase));
        out.keys.push_back(sample.key);
    }
    out.end = timeOf(video.end, video.timeBase);
    return out;
}

Trimmed write(const Request &request)
{
    const TrimSource source(request.source);
    const Plan plan = planOf(source, request);
    const QString temporary = newTemporaryPath();
    const auto removeTemporary = qScopeGuard([&] { QFile::remove(temporary); });
    Trimmed trimmed = writeInto(source, plan, request.source, temporary);
    for (int attempt = 1; attempt <= maxNameAttempts; ++attempt) {
        bool taken = false;
        const QString path = copyPath(request.source, attempt);
        const QString error = FileMove::moveWithoutReplacing(temporary, path, &taken);
        if (error.isEmpty()) {
            trimmed.path = path;
            Log::system(QStringLiteral("trimmed %1 frames (%2 encoded anew) into %3")
                            .arg(trimmed.frames)
                            .arg(trimmed.reencoded)
                            .arg(path));
            return trimmed;
        }
        if (!taken)
            refuse(error);
    }
    refuse(QStringLiteral("Could not save the trimmed copy: too many copies of %1 already.")
               .arg(QFileInfo(request.source).fileName()));
}

QFuture<void> prepare(const QString &source, MediaTime in)
{
    auto promise = std::make_shared<QPromise<void>>();
    promise->start();
    QFuture<void> future = promise->future();
    trimQueue().async([promise, source, in] {
        try {
            const TrimSource clip(source);
            Plan plan;
            plan.first = frameAt(clip.video(), in);
            plan.end = clip.video().samples.size();
            findStarts(clip, source, plan);
            if (plan.copyFrom > plan.first) {
                const QFileInfo file(source);
                Prepared made {source,   file.size(),   file.lastModified(), plan.first,
                               plan.key, plan.copyFrom, makeHead(clip, plan)};
                std::scoped_lock lock(preparedLock);
                prepared = std::move(made);
            }
        } catch (const std::exception &error) {
            // The trim itself will say what is wrong.
            Log::system(QStringLiteral("trim: nothing made in advance: %1")
                            .arg(QString::fromUtf8(error.what())));
        }
        SharedPool::finishAndRelease(*promise);
    });
    return future;
}

QFuture<Trimmed> trim(Request request)
{
    auto promise = std::make_shared<QPromise<Trimmed>>();
    promise->start();
    QFuture<Trimmed> future = promise->future();
    trimQueue().async([promise, request = std::move(request)] {
        try {
            promise->addResult(write(request));
        } catch (...) {
            promise->setException(std::current_exception());
        }
        SharedPool::finishAndRelease(*promise);
    });
    return future;
}

} // namespace ClipTrim
