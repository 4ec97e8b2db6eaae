#include "service/ReleaseVersion.h"

#include <algorithm>
#include <charconv>

namespace {

std::vector<long long> pieces(const std::string &version)
{
    std::vector<long long> numbers;
    size_t start = 0;
    while (start <= version.size()) {
        size_t end = version.find('.', start);
        if (end == std::string::npos)
            end = version.size();
        long long value = 0;
        const char *first = version.data() + start;
        const char *last = version.data() + end;
        // Only a piece that is a whole number counts: "3-beta" is dropped, as the program does.
        if (first != last) {
            const auto [stop, error] = std::from_chars(first, last, value);
            if (error == std::errc() && stop == last)
                numbers.push_back(value);
        }
        start = end + 1;
    }
    return numbers;
}

} // namespace

namespace ReleaseVersion {

bool isNewer(const std::string &a, const std::string &b)
{
    const auto left = pieces(a);
    const auto right = pieces(b);
    for (size_t i = 0; i < std::max(left.size(), right.size()); ++i) {
        const long long x = i < left.size() ? left[i] : 0;
        const long long y = i < right.size() ? right[i] : 0;
        if (x != y)
            return x > y;
    }
    return false;
}

std::optional<ReleaseRecord> newest(const std::vector<ReleaseRecord> &releases)
{
    std::optional<ReleaseRecord> best;
    for (const ReleaseRecord &release : releases)
        if (!best || !isNewer(best->version, release.version))
            best = release;
    return best;
}

bool isValid(const std::string &version)
{
    if (version.empty() || version.size() > 32 || version[0] < '0' || version[0] > '9')
        return false;
    for (const char c : version) {
        const bool allowed = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
            (c >= 'A' && c <= 'Z') || c == '.' || c == '-' || c == '+';
        if (!allowed)
            return false;
    }
    return version.find("..") == std::string::npos;
}

std::string archiveName(const std::string &version)
{
    return "Vantrel-" + version + "-linux-x86_64.tar.gz";
}

} // namespace ReleaseVersion
