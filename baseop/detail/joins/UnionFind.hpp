#pragma once
/// Disjoint sets of numbers, each with its lowest.

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <vector>

namespace Vantle::detail {

class UnionFind {
public:
    /// Sets of one.
    explicit UnionFind(std::size_t count) : myUpper(count) { std::iota(myUpper.begin(), myUpper.end(), 0U); }
    /// The lowest of its set.
    [[nodiscard]] std::uint32_t find(std::uint32_t n) noexcept {
        while (myUpper[n] != n) n = myUpper[n] = myUpper[myUpper[n]];
        return n;
    }
    void unite(std::uint32_t a, std::uint32_t b) noexcept {
        a = find(a);
        b = find(b);
        if (a != b) myUpper[std::max(a, b)] = std::min(a, b);
    }

private:
    std::vector<std::uint32_t> myUpper;
};

} // namespace Vantle::detail
