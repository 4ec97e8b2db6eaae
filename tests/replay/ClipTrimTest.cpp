// Frame-accurate cuts of real clips (written by the clip export from real H.264 and AAC), looked
// at with ffprobe and ffmpeg, and played through Qt Multimedia's FFmpeg backend.

#include "replay/ClipTrim.h"

#include "media/RecorderError.h"

#include "support/MediaProbe.h"
#include "support/TestClip.h"
#include "support/TestEnvironment.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QMediaPlayer>
#include <QProcess>
#include <QTimer>
#include <QVideoFrame>
#include <QVideoSink>

#include <cmath>

// ffmpeg and ffprobe are started through QProcess, which clones with a shared address space until
// exec. ThreadSanitizer takes that for a fork of a threaded process and would kill the test at the
// next thread it starts (an encoder's, a decoder's). Nothing runs in the child before exec, so the
// warning does not apply.
extern "C" const char *__tsan_default_options()
{
    return "die_after_fork=0";
}

namespace {

// Frame `index` of the 60 fps test clips, as a time.
MediaTime frameTime(int64_t index)
{
    return MediaTime::make(index, 60);
}

// The decoded pictures' hashes, one a frame, in order.
QStringList pictureHashes(const QString &path)
{
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path,
                  QStringLiteral("-map"), QStringLiteral("0:v"), QStringLiteral("-f"),
                  QStringLiteral("framemd5"), QStringLiteral("-")});
    ffmpeg.waitForFinished(60000);
    QStringList hashes;
    for (const QByteArray &line : ffmpeg.readAllStandardOutput().split('\n')) {
        if (!line.isEmpty() && !line.startsWith('#'))
            hashes << QString::fromLatin1(line.split(',').last().trimmed());
    }
    return hashes;
}

QByteArray fileHash(const QString &path)
{
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    return QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha1);
}

double streamNumber(const QString &path, const char *type, const char *field)
{
    const QJsonArray streams = probe::streams(probe::ffprobe(path), QLatin1String(type));
    return streams.isEmpty() ? -1
                             : probe::number(streams[0].toObject().value(QLatin1String(field)));
}

// The picture at `seconds` into `path` (the middle of a frame, so no rounding picks its
// neighbour), as 160x90 gray.
QByteArray pictureAt(const QString &path, int64_t frame)
{
    return probe::grayFrame(path, (double(frame) + 0.5) / 60);
}

class ClipTrimTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        m_clip = makeTestClip(10, 640, 360, true);
        m_hash = fileHash(m_clip);
    }
    void expectOriginalUntouched() const { EXPECT_EQ(fileHash(m_clip), m_hash); }
    QStringList folder() const
    {
        return QFileInfo(m_clip).dir().entryList(QDir::Files | QDir::Hidden, QDir::Name);
    }

    QString m_clip;
    QByteArray m_hash;
};

// Plays `path` through Qt Multimedia's FFmpeg backend to its end: the frames it showed, or -1
// when it failed.
int framesQtShows(const QString &path)
{
    QMediaPlayer player;
    QVideoSink sink;
    player.setVideoSink(&sink);
    int frames = 0;
    bool failed = false;
    QEventLoop loop;
    QObject::connect(&sink, &QVideoSink::videoFrameChanged,
                     [&](const QVideoFrame &frame) { frames += frame.isValid(); });
    QObject::connect(&player, &QMediaPlayer::errorOccurred, [&] {
        failed = true;
        loop.quit();
    });
    QObject::connect(&player, &QMediaPlayer::mediaStatusChanged,
                     [&](QMediaPlayer::MediaStatus status) {
                         failed = failed || status == QMediaPlayer::InvalidMedia;
                         if (status == QMediaPlayer::EndOfMedia || failed)
                             loop.quit();
                     });
    QTimer::singleShot(30000, &loop, [&] {
        failed = true;
        loop.quit();
    });
    player.setSource(QUrl::fromLocalFile(path));
    player.play();
    loop.exec();
    return failed ? -1 : frames;
}

} // namespace

// A cut that starts inside a group of pictures: it starts on exactly the frame asked for, lasts
// exactly as long as asked to the frame, copies what follows the next key frame bit for bit, keeps
// the sound in step to the sample, decodes cleanly in ffmpeg and in Qt Multimedia, and leaves the
// original as it was.
TEST_F(ClipTrimTest, StartsOnTheChosenFrameAndCopiesTheRest)
{
    // Key frames every 120 frames: frame 150 is 30 past one, 90 before the next.
    const ClipTrim::Request request {m_clip, frameTime(150) + MediaTime::make(1, 600),
                                     frameTime(330)};
    const ClipTrim::Trimmed trimmed = ClipTrim::trim(request).result();
    EXPECT_EQ(trimmed.path, ClipTrim::copyPath(m_clip));
    EXPECT_EQ(trimmed.frames, 180);
    EXPECT_EQ(trimmed.reencoded, 90);
    EXPECT_EQ(trimmed.duration, MediaTime::make(3, 1));
    expectOriginalUntouched();
    EXPECT_EQ(QDir(QDir::tempPath()).entryList({QStringLiteral("vantrel-*")}, QDir::Files),
              QStringList());

    // One clean stream: ffmpeg decodes it without a word, every frame there and timed.
    EXPECT_EQ(probe::decodeErrors(trimmed.path), QString());
    EXPECT_EQ(streamNumber(trimmed.path, "video", "nb_frames"), 180);
    EXPECT_NEAR(streamNumber(trimmed.path, "video", "duration"), 3.0, 1e-6);
    EXPECT_EQ(streamNumber(trimmed.path, "video", "start_time"), 0);
    EXPECT_EQ(streamNumber(trimmed.path, "audio", "start_time"), 0);

    // From the key frame on, the copy's pictures are the clip's, bit for bit.
    const QStringList original = pictureHashes(m_clip);
    const QStringList copy = pictureHashes(trimmed.path);
    ASSERT_EQ(original.size(), 600);
    ASSERT_EQ(copy.size(), 180);
    EXPECT_EQ(copy.mid(90), original.mid(240, 90));
    // Before it, encoded anew: each picture is the clip's at the same time, and not its
    // neighbours (the test picture moves every frame).
    for (const int64_t i : {0, 1, 45, 89}) {
        const QByteArray made = pictureAt(trimmed.path, i);
        const double same = probe::meanDifference(made, pictureAt(m_clip, 150 + i));
        const double before = probe::meanDifference(made, pictureAt(m_clip, 149 + i));
        const double after = probe::meanDifference(made, pictureAt(m_clip, 151 + i));
        EXPECT_GE(same, 0) << i;
        EXPECT_LT(same * 2, std::min(before, after))
            << "frame " << i << ": " << same << " against " << before << " and " << after;
    }

    // The sound is the clip's from the first frame's moment, to the sample.
    const std::vector<float> clipSound = probe::decodeAudio(m_clip, 0);
    const std::vector<float> cutSound = probe::decodeAudio(trimmed.path, 0);
    ASSERT_GE(cutSound.size(), size_t(3 * 48000));
    const auto largestDifference = [&](long shift) {
        float largest = 0;
        for (size_t n = 0; n < 3 * 48000; ++n)
            largest = std::max(
                largest, std::fabs(cutSound[n] - clipSound[size_t(long(n) + 120000 + shift)]));
        return largest;
    };
    EXPECT_LT(largestDifference(0), 1e-3);
    EXPECT_GT(largestDifference(1), 1e-2) << "the comparison sees a sample's shift";

    // Qt Multimedia's FFmpeg backend plays it to the end without an error.
    qputenv("QT_MEDIA_BACKEND", "ffmpeg");
    const int shown = framesQtShows(trimmed.path);
    EXPECT_GT(shown, 90) << "of 180";

    // The same cut again, its start made in advance (as when the user set the start): the same
    // pictures, under a name of its own; nothing else lands in the folder.
    EXPECT_FALSE(trimmed.madeInAdvance);
    ClipTrim::prepare(m_clip, request.in).waitForFinished();
    const ClipTrim::Trimmed again = ClipTrim::write(request);
    EXPECT_TRUE(again.madeInAdvance);
    EXPECT_EQ(pictureHashes(again.path), copy);
    EXPECT_EQ(again.path, ClipTrim::copyPath(m_clip, 2));
    QStringList expected {QFileInfo(m_clip).fileName(), QFileInfo(trimmed.path).fileName(),
                          QFileInfo(again.path).fileName()};
    expected.sort();
    EXPECT_EQ(folder(), expected);
}

// A cut on a key frame copies everything; one inside a group of pictures encodes all of it; a cut
// of a cut (whose decoder configuration already holds two sets of parameters) is still exact.
TEST_F(ClipTrimTest, KeyFrameCutsWholeGroupCutsAndCutsOfCuts)
{
    const QStringList original = pictureHashes(m_clip);
    ASSERT_EQ(original.size(), 600);

    const ClipTrim::Trimmed onKey = ClipTrim::write({m_clip, frameTime(240), frameTime(360)});
    EXPECT_EQ(onKey.reencoded, 0);
    EXPECT_EQ(pictureHashes(onKey.path), original.mid(240, 120));

    const ClipTrim::Trimmed inside = ClipTrim::write({m_clip, frameTime(306), frameTime(336)});
    EXPECT_EQ(inside.frames, 30);
    EXPECT_EQ(inside.reencoded, 30);
    EXPECT_EQ(inside.duration, MediaTime::make(1, 2));
    EXPECT_EQ(probe::decodeErrors(inside.path), QString());
    EXPECT_EQ(pictureHashes(inside.path).size(), 30);
    // Made in advance up to the next key frame, the start serves a cut that ends before it; one
    // made for another start does not serve.
    ClipTrim::prepare(m_clip, frameTime(306)).waitForFinished();
    const ClipTrim::Trimmed insideAgain = ClipTrim::write({m_clip, frameTime(306), frameTime(336)});
    EXPECT_TRUE(insideAgain.madeInAdvance);
    EXPECT_EQ(pictureHashes(insideAgain.path), pictureHashes(inside.path));
    EXPECT_FALSE(ClipTrim::write({m_clip, frameTime(305), frameTime(336)}).madeInAdvance);

    // The first cut: frames 100 to 400 (20 encoded anew, then copied from frame 120). The second
    // starts 10 frames into it, inside the part encoded anew, and ends in the copied part.
    const ClipTrim::Trimmed first = ClipTrim::write({m_clip, frameTime(100), frameTime(400)});
    EXPECT_EQ(first.reencoded, 20);
    const ClipTrim::Trimmed second = ClipTrim::write({first.path, frameTime(10), frameTime(250)});
    EXPECT_EQ(second.frames, 240);
    EXPECT_EQ(second.reencoded, 10);
    EXPECT_EQ(probe::decodeErrors(second.path), QString());
    EXPECT_EQ(pictureHashes(second.path).mid(10), original.mid(120, 230));
    EXPECT_EQ(ClipTrim::frames(second.path).starts.size(), 240u);
    expectOriginalUntouched();
}

// What cannot be cut is refused with a sentence, and nothing is written.
TEST_F(ClipTrimTest, BadCutsAreRefusedWithASentence)
{
    const auto refusal = [&](const ClipTrim::Request &request) -> QString {
        try {
            ClipTrim::trim(request).waitForFinished();
        } catch (const RecorderError &error) {
            return error.text();
        }
        return QStringLiteral("(trimmed)");
    };
    const QString lasts = QStringLiteral("the clip, which lasts 10.00 seconds.");
    EXPECT_EQ(refusal({m_clip, frameTime(300), frameTime(300)}),
              QStringLiteral("The cut must start before it ends."));
    EXPECT_EQ(refusal({m_clip, frameTime(300), frameTime(200)}),
              QStringLiteral("The cut must start before it ends."));
    EXPECT_EQ(refusal({m_clip, MediaTime::make(-1, 10), frameTime(200)}),
              QStringLiteral("The cut must start within ") + lasts);
    EXPECT_EQ(refusal({m_clip, MediaTime::make(10, 1), MediaTime::make(11, 1)}),
              QStringLiteral("The cut must start within ") + lasts);
    EXPECT_EQ(refusal({m_clip, frameTime(300), MediaTime::make(101, 10)}),
              QStringLiteral("The cut must end within ") + lasts);
    EXPECT_EQ(refusal({m_clip, MediaTime::zero(), MediaTime::make(10, 1)}),
              QStringLiteral("The cut keeps the whole clip: move its start or its end."));
    EXPECT_EQ(refusal({m_clip, MediaTime::invalid(), frameTime(10)}),
              QStringLiteral("The cut needs a start and an end."));

    const QDir data(QStringLiteral(VANTREL_TEST_DATA));
    EXPECT_EQ(refusal({data.filePath(QStringLiteral("posters/truncated.mp4")), frameTime(1),
                       frameTime(5)}),
              QStringLiteral("Could not read truncated.mp4: Invalid data found when processing "
                             "input."));
    EXPECT_EQ(
        refusal({data.filePath(QStringLiteral("trim/b-frames.mp4")), frameTime(1), frameTime(5)}),
        QStringLiteral("b-frames.mp4 is not a clip Vantrel can trim: its video has "
                       "B-frames."));
    EXPECT_EQ(refusal({data.filePath(QStringLiteral("posters/audio-only.mp4")), frameTime(1),
                       frameTime(5)}),
              QStringLiteral("audio-only.mp4 is not a clip Vantrel can trim: it has no video."));
    EXPECT_EQ(refusal({tempFolder() + QStringLiteral("/gone.mp4"), frameTime(1), frameTime(5)}),
              QStringLiteral("Could not read gone.mp4: No such file or directory."));

    expectOriginalUntouched();
    EXPECT_EQ(folder(), QStringList {QFileInfo(m_clip).fileName()});
    EXPECT_EQ(QDir(QDir::tempPath()).entryList({QStringLiteral("vantrel-*")}, QDir::Files),
              QStringList());
}
