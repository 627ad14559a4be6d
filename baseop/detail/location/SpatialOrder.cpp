#include <baseop/detail/location/SpatialOrder.hpp>

#include <array>
#include <cmath>
#include <limits>
#include <utility>

namespace Vantle::detail {

namespace {

constexpr unsigned Bits = 10; // of a place on the curve, by axis; also of the digits that it is sorted by
constexpr std::size_t Digits = std::size_t{1} << Bits;

/// The bits of a number below 2^10, two zeros after each.
std::uint32_t spread(std::uint32_t x) noexcept {
    x = (x | x << 16) & 0x030000FF;
    x = (x | x << 8) & 0x0300F00F;
    x = (x | x << 4) & 0x030C30C3;
    return (x | x << 2) & 0x09249249;
}

} // namespace

bool SpatialOrder::pays(std::span<const point> points) noexcept {
    constexpr std::size_t Few = 1024, Samples = 64;
    if (points.size() < Few) return false;
    const auto distance = [&](std::size_t a, std::size_t b) {
        double sum = 0.0;
        for (int d = 0; d < 3; ++d) sum += std::fabs(points[a][d] - points[b][d]);
        return sum;
    };
    double toNext = 0.0, toAny = 0.0;
    for (std::size_t n = 0; n < Samples; ++n) {
        const std::size_t k = n * (points.size() / Samples);
        const double next = distance(k, k + 1), any = distance(k, (k + points.size() / 2) % points.size());
        if (!(next + any < std::numeric_limits<double>::infinity())) continue;
        toNext += next;
        toAny += any;
    }
    return toNext > 0.25 * toAny;
}

std::size_t SpatialOrder::beforeJump(std::span<const point> points) noexcept {
    constexpr std::size_t Least = 4;
    if (points.size() <= Least) return points.size();
    point low = points[0], high = points[0];
    for (std::size_t n = 1; n < points.size(); ++n) {
        double extent = 0.0, step = 0.0;
        for (int d = 0; d < 3; ++d) {
            extent += high[d] - low[d];
            step += std::fabs(points[n][d] - points[n - 1][d]);
            low[d] = points[n][d] < low[d] ? points[n][d] : low[d];
            high[d] = points[n][d] > high[d] ? points[n][d] : high[d];
        }
        if (n >= Least && step > 2.0 * extent) return n;
    }
    return points.size();
}

std::span<const std::uint32_t> SpatialOrder::of(std::span<const point> points) {
    constexpr double infinite = std::numeric_limits<double>::infinity();
    double low[3] = {infinite, infinite, infinite}, high[3] = {-infinite, -infinite, -infinite};
    for (const point& p : points)
        for (int d = 0; d < 3; ++d) {
            low[d] = p[d] < low[d] ? p[d] : low[d];
            high[d] = p[d] > high[d] ? p[d] : high[d];
        }
    double scale[3];
    for (int d = 0; d < 3; ++d) scale[d] = high[d] > low[d] ? static_cast<double>(Digits) / (high[d] - low[d]) : 0.0;

    std::array<std::uint32_t, Digits> counts[3] = {};
    myKeys.resize(points.size());
    mySpare.resize(points.size());
    for (std::size_t n = 0; n < points.size(); ++n) {
        std::uint32_t key = 0;
        for (int d = 0; d < 3; ++d) {
            constexpr double last = static_cast<double>(Digits - 1);
            const double at = (points[n][d] - low[d]) * scale[d];
            // NaN is as good as anything.
            key |= spread(at > 0.0 ? static_cast<std::uint32_t>(at < last ? at : last) : 0U) << d;
        }
        myKeys[n] = std::uint64_t{key} << 32 | n;
        for (unsigned pass = 0; pass < 3; ++pass) ++counts[pass][key >> (pass * Bits) & (Digits - 1)];
    }
    for (unsigned pass = 0; pass < 3; ++pass) {
        std::uint32_t sum = 0;
        for (std::uint32_t& count : counts[pass]) sum += std::exchange(count, sum);
        for (const std::uint64_t key : myKeys) mySpare[counts[pass][key >> (32 + pass * Bits) & (Digits - 1)]++] = key;
        myKeys.swap(mySpare);
    }
    myNumbers.resize(points.size());
    for (std::size_t n = 0; n < points.size(); ++n) myNumbers[n] = static_cast<std::uint32_t>(myKeys[n]);
    return myNumbers;
}

} // namespace Vantle::detail
