#include "app/ClipFile.h"

#include <cmath>

namespace {

// The number with at most `decimals` fraction digits, trailing zeros dropped ("12", "12.4").
QString trimmed(double value, int decimals)
{
    QString text = QString::number(value, 'f', decimals);
    if (text.contains(QLatin1Char('.'))) {
        while (text.endsWith(QLatin1Char('0')))
            text.chop(1);
        if (text.endsWith(QLatin1Char('.')))
            text.chop(1);
    }
    return text;
}

} // namespace

QString formatFileSize(qint64 bytes)
{
    if (bytes == 0)
        return QStringLiteral("Zero KB");
    if (bytes < 1000)
        return bytes == 1 ? QStringLiteral("1 byte") : QStringLiteral("%1 bytes").arg(bytes);
    struct Unit
    {
        double scale;
        const char *name;
        int decimals;
    };
    static constexpr Unit units[] = {
        {1e3, "KB", 0}, {1e6, "MB", 1}, {1e9, "GB", 2}, {1e12, "TB", 2}};
    for (size_t i = 0; i < std::size(units); ++i) {
        const Unit &unit = units[i];
        const double value = double(bytes) / unit.scale;
        const double rounded =
            std::round(value * std::pow(10, unit.decimals)) / std::pow(10, unit.decimals);
        // 999.96 MB reads as "1 GB", not "1000 MB".
        if (rounded < 1000 || i + 1 == std::size(units))
            return trimmed(rounded, unit.decimals) + QLatin1Char(' ') + QLatin1String(unit.name);
    }
    return {};
}
