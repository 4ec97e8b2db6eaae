#include "core/VersionOrder.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <vector>

namespace {

std::vector<int64_t> numbers(std::string_view version)
{
    std::vector<int64_t> pieces;
    size_t start = 0;
    while (start <= version.size()) {
        size_t end = version.find('.', start);
        if (end == std::string_view::npos)
            end = version.size();
        const std::string_view piece = version.substr(start, end - start);
        const bool digits = !piece.empty() &&
            std::all_of(piece.begin(), piece.end(), [](char c) { return c >= '0' && c <= '9'; });
        int64_t value = 0;
        if (digits) {
            const auto [stop, error] =
                std::from_chars(piece.data(), piece.data() + piece.size(), value);
            if (error == std::errc() && stop == piece.data() + piece.size())
                pieces.push_back(value);
        }
        start = end + 1;
    }
    return pieces;
}

} // namespace

namespace VersionOrder {

bool isNewer(std::string_view version, std::string_view than)
{
    const std::vector<int64_t> left = numbers(version);
    const std::vector<int64_t> right = numbers(than);
    for (size_t i = 0; i < std::max(left.size(), right.size()); ++i) {
        const int64_t x = i < left.size() ? left[i] : 0;
        const int64_t y = i < right.size() ? right[i] : 0;
        if (x != y)
            return x > y;
    }
    return false;
}

} // namespace VersionOrder
