#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// A clip's poster frame and duration, read in one pass: the container's duration from its index,
// and the first key frame decoded, scaled down with libyuv and written as a JPEG. One decode of
// one frame, whatever the clip's length. A file that is damaged, empty or not a video gives no
// poster and says why, never more than that.
//
// Any thread; nothing is shared between calls.
namespace PosterFrame {

// The poster's width in pixels (at most the clip's own); the height keeps the clip's aspect,
// rounded to an even number.
inline constexpr int width = 320;

struct Read
{
    std::optional<double> seconds; // the clip's duration, when the file says
    QByteArray jpeg; // the poster; empty when none could be made
    int posterWidth = 0;
    int posterHeight = 0;
    QString problem; // why there is no poster (or no duration), in a few words
};

Read read(const QString &path);

} // namespace PosterFrame
