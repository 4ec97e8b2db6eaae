#include "replay/WrittenFile.h"

#include <QStringList>

QString Shortfall::text() const
{
    QStringList parts;
    const auto add = [&](int64_t lost, int64_t of, const char *what) {
        if (lost > 0)
            parts << QStringLiteral("%1 of %2 %3").arg(lost).arg(of).arg(QLatin1String(what));
    };
    add(framesLost, frames, "frames");
    add(audioLost, audioPackets, "system audio packets");
    add(micLost, micPackets, "microphone packets");
    if (parts.size() < 2)
        return parts.join(QString());
    const QString last = parts.takeLast();
    return parts.join(QStringLiteral(", ")) + QStringLiteral(" and ") + last;
}
