#include "service/ReleaseVersion.h"

#include "core/VersionOrder.h"

namespace ReleaseVersion {

bool isNewer(const std::string &a, const std::string &b)
{
    return VersionOrder::isNewer(a, b);
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
