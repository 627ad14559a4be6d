#include <baseop/detail/joins/KeyGroups.hpp>
#include <baseop/detail/joins/UnionFind.hpp>
#include <baseop/detail/joins/VertexClasses.hpp>

#include <array>
#include <bit>
#include <cmath>
#include <mutex>
#include <unordered_map>

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
    const auto isOne = [&](const KeyEntry& a, const KeyEntry& b) { return points[a.id] == points[b.id]; };
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

VertexClasses::VertexClasses(const std::vector<Point>& points, const std::vector<double>& radii)
    : VertexClasses(points) {
    unite(points, radii);
}

namespace {

/// A place with a radius, in the lattice of a power of two that is larger than twice that.
struct Ball {
    std::uint32_t vertex;
    int level;
    double radius;
    Point center;
};

/// Balls by lattice cell; a lattice for each power of two.
class BallLattices {
public:
    using Cell = std::array<std::int64_t, 3>;

    explicit BallLattices(const std::vector<Ball>& balls) : myBalls(balls), myNext(balls.size(), None) {
        for (const Ball& ball : balls) myLevels.push_back(ball.level);
        std::sort(myLevels.begin(), myLevels.end());
        myLevels.erase(std::unique(myLevels.begin(), myLevels.end()), myLevels.end());
        const auto bits = static_cast<int>(std::bit_width(balls.size())) + 1;
        myShift = 64 - bits;
        myFirst.assign(std::size_t{1} << bits, None);
        for (std::uint32_t n = 0; n < balls.size(); ++n) {
            std::uint32_t& first = myFirst[slotOf(balls[n].level, cellOf(balls[n].center, balls[n].level))];
            myNext[n] = first;
            first = n;
        }
    }
    /// Calls `function(other)` for the balls that are not smaller and whose centres may be within a ball.
    template<class F>
    void forEachNear(const Ball& ball, const F& function) const {
        const Point low(ball.center[0] - ball.radius, ball.center[1] - ball.radius, ball.center[2] - ball.radius);
        const Point high(ball.center[0] + ball.radius, ball.center[1] + ball.radius, ball.center[2] + ball.radius);
        for (auto level = std::lower_bound(myLevels.begin(), myLevels.end(), ball.level); level != myLevels.end();
             ++level) {
            const Cell first = cellOf(low, *level), last = cellOf(high, *level);
            for (std::int64_t z = first[2]; z <= last[2]; ++z)
                for (std::int64_t y = first[1]; y <= last[1]; ++y)
                    for (std::int64_t x = first[0]; x <= last[0]; ++x)
                        for (std::uint32_t n = myFirst[slotOf(*level, {x, y, z})]; n != None; n = myNext[n])
                            if (myBalls[n].radius >= ball.radius) function(myBalls[n]);
        }
    }

private:
    static constexpr std::uint32_t None = 0xffffffff;
    static Cell cellOf(const Point& p, int level) noexcept {
        const auto along = [&](int d) { return static_cast<std::int64_t>(std::floor(std::ldexp(p[d], -level))); };
        return {along(0), along(1), along(2)};
    }
    [[nodiscard]] std::size_t slotOf(int level, const Cell& cell) const noexcept {
        auto h = static_cast<std::uint64_t>(level);
        for (const std::int64_t c : cell) h = mixBits(h * 0x9e3779b97f4a7c15 + static_cast<std::uint64_t>(c));
        return h >> myShift;
    }

    const std::vector<Ball>& myBalls;
    std::vector<int> myLevels;
    std::vector<std::uint32_t> myFirst, myNext; // lists of the balls in a slot
    int myShift = 0;
};

} // namespace

void VertexClasses::unite(const std::vector<Point>& points, const std::vector<double>& radii) {
    // One ball for vertices with equal coordinates, with the largest of their radii.
    std::vector<double> largest(points.size());
    for (std::size_t n = 0; n < points.size(); ++n) {
        double& radius = largest[myClass[n] & ~Alone];
        radius = std::max(radius, radii[n]);
    }
    std::vector<Ball> balls;
    for (std::uint32_t n = 0; n < points.size(); ++n) {
        const Point& p = points[n];
        const double size = std::max({std::fabs(p[0]), std::fabs(p[1]), std::fabs(p[2])});
        // A radius below the spacing of numbers reaches nothing else.
        if ((myClass[n] & ~Alone) != n || !isFinite(p) || !(largest[n] > size * 0x1p-53)) continue;
        balls.push_back({n, std::ilogb(largest[n]) + 2, largest[n], p});
    }
    const BallLattices lattices(balls);
    std::mutex mutex;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> near;
    inParallel(balls.size(), 1024, balls.size() * 2048, [&](std::size_t begin, std::size_t end) {
        std::vector<std::pair<std::uint32_t, std::uint32_t>> found;
        for (std::size_t n = begin; n < end; ++n)
            lattices.forEachNear(balls[n], [&](const Ball& other) {
                if (other.vertex != balls[n].vertex && distance(other.center, balls[n].center) <= balls[n].radius)
                    found.emplace_back(balls[n].vertex, other.vertex);
            });
        const std::lock_guard lock(mutex);
        near.insert(near.end(), found.begin(), found.end());
    });
    UnionFind sets(points.size());
    for (const auto& [a, b] : near) sets.unite(a, b);
    for (const auto& [a, b] : near) // those with another one
        myClass[a] = myClass[b] = sets.find(a);
    for (std::uint32_t n = 0; n < points.size(); ++n) {
        const std::uint32_t first = myClass[n] & ~Alone;
        if (first != n) myClass[n] = myClass[first] & ~Alone;
    }
}

} // namespace Vantle::detail
