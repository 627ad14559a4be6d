#include <baseop/SurfaceBorder.hpp>

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace Vantle {

std::size_t countBorderEdges(const MemArray<1, Triangle>& triangles) {
    const index_t count = triangles.nElements();
    const auto forSides = [&](const auto& f) {
        for (index_t t = 0; t < count; ++t)
            for (int c = 0; c < 3; ++c) {
                const unsigned int from = triangles.element(t)[c], to = triangles.element(t)[(c + 1) % 3];
                if (from != to) f(std::min(from, to), std::max(from, to), from < to);
            }
    };
    // The sides of each lower vertex, together.
    std::vector<std::size_t> first;
    forSides([&](unsigned int low, unsigned int, bool) {
        if (first.size() < std::size_t{low} + 2) first.resize(std::size_t{low} + 2);
        ++first[low + 1];
    });
    for (std::size_t v = 1; v < first.size(); ++v) first[v] += first[v - 1];
    struct Side {
        unsigned int high;
        bool isForward;
    };
    std::vector<Side> sides(first.empty() ? 0 : first.back());
    std::vector<std::size_t> next(first);
    forSides([&](unsigned int low, unsigned int high, bool isForward) { sides[next[low]++] = {high, isForward}; });

    std::size_t borders = 0;
    for (std::size_t v = 0; v + 1 < first.size(); ++v) {
        const auto begin = sides.begin() + static_cast<std::ptrdiff_t>(first[v]);
        const auto end = sides.begin() + static_cast<std::ptrdiff_t>(first[v + 1]);
        std::sort(begin, end, [](const Side& a, const Side& b) { return a.high < b.high; });
        for (auto side = begin; side != end;) {
            long long balance = 0;
            const unsigned int high = side->high;
            for (; side != end && side->high == high; ++side) balance += side->isForward ? 1 : -1;
            borders += static_cast<std::size_t>(std::llabs(balance));
        }
    }
    return borders;
}

} // namespace Vantle
