#include <baseop/detail/joins/KeyGroups.hpp>
#include <baseop/detail/joins/VertexClasses.hpp>

#include <bit>
#include <cmath>

namespace Vantle::detail {

namespace {

using Point = Shells::Point;

bool isFinite(const Point& p) noexcept { return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]); }

/// The same for -0 and 0.
std::uint64_t keyOf(const Point& p) noexcept {
    const auto bits = [](double x) { return std::bit_cast<std::uint64_t>(x + 0.0); };
    std::uint64_t h = bits(p[0]) * 0x9e3779b97f4a7c15;
    h = ((h ^ h >> 32) + bits(p[1])) * 0xc2b2ae3d27d4eb4f;
    h = ((h ^ h >> 29) + bits(p[2])) * 0x165667b19e3779f9;
    return mixBits(h);
}

bool isBefore(const Point& a, const Point& b) noexcept {
    for (int d = 0; d < 3; ++d)
        if (a[d] != b[d]) return a[d] < b[d];
    return false;
}

} // namespace

VertexClasses::VertexClasses(const std::vector<Point>& points) : myClass(points.size()) {
    std::vector<KeyEntry> entries(points.size());
    inParallel(points.size(), 8192, points.size() * 64, [&](std::size_t begin, std::size_t end) {
        for (std::size_t n = begin; n < end; ++n) {
            const auto id = static_cast<std::uint32_t>(n);
            myClass[n] = id | Alone;
            // What is not finite equals nothing: a key of its own, most likely, else it is seen below.
            entries[n] = {isFinite(points[n]) ? keyOf(points[n]) : mixBits(n), id, 0};
        }
    });
    const auto join = [this](const KeyEntry* first, const KeyEntry* last) {
        if (last - first > 1)
            for (const KeyEntry* at = first; at != last; ++at) myClass[at->id] = first->id;
    };
    const auto isOne = [&](const KeyEntry& a, const KeyEntry& b) {
        return points[a.id] == points[b.id] && isFinite(points[a.id]);
    };
    forEachGroup(entries, [&](std::span<KeyEntry> group) {
        if (std::all_of(group.begin() + 1, group.end(), [&](const KeyEntry& e) { return isOne(group[0], e); }))
            return join(group.data(), group.data() + group.size());
        // Different coordinates with the same key.
        const auto numbers = std::partition(group.begin(), group.end(),
                                            [&](const KeyEntry& entry) { return isFinite(points[entry.id]); });
        std::sort(group.begin(), numbers, [&](const KeyEntry& a, const KeyEntry& b) {
            const Point &p = points[a.id], &q = points[b.id];
            return isBefore(p, q) || (!isBefore(q, p) && a.id < b.id);
        });
        for (auto at = group.begin(); at != numbers;) {
            const auto next = std::find_if(at, numbers, [&](const KeyEntry& entry) { return !isOne(*at, entry); });
            join(&*at, &*at + (next - at));
            at = next;
        }
    });
}

} // namespace Vantle::detail
