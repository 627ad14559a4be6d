#pragma once
/// Single vertices of several blocks, chosen one by one, then numbered.

#include <model/vantle/Index.hpp>

#include <bit>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace Vantle::detail {

/// Vertices of blocks: those of a block, its part, have numbers that follow each other, ascending by index.
///
/// Cost  a bit and a half for each vertex of a block of which one is chosen, and constant time for each question.
class VertexSelection {
public:
    struct Part {
        unsigned int block;
        std::size_t first = 0; ///< number of its first vertex

        /// Calls `function(index)` for its vertices, in order.
        template<class F>
        void forEach(const F& function) const {
            for (std::size_t word = 0; word < bits.size(); ++word)
                for (std::uint64_t left = bits[word]; left != 0; left &= left - 1)
                    function(index_t{64} * word + static_cast<index_t>(std::countr_zero(left)));
        }

    private:
        friend class VertexSelection;
        std::vector<std::uint64_t> bits;
        std::vector<std::uint32_t> before; // how many are chosen before each word
    };

    /// The part of a block of so many vertices, which may stay empty. Parts are in the order in which they are made.
    [[nodiscard]] std::uint32_t part(unsigned int block, index_t vertices) {
        if (!myParts.empty() && myParts[myLast].block == block) return myLast;
        const auto [known, isNew] = myPartOf.try_emplace(block, static_cast<std::uint32_t>(myParts.size()));
        if (isNew) myParts.emplace_back().block = block, myParts.back().bits.resize((vertices + 63) / 64);
        return myLast = known->second;
    }
    void add(std::uint32_t part, index_t vertex) noexcept {
        myParts[part].bits[vertex / 64] |= std::uint64_t{1} << (vertex % 64);
    }
    /// Numbers those that were chosen so far.
    void number() {
        myCount = 0;
        for (Part& part : myParts) {
            part.first = myCount;
            part.before.clear();
            std::uint32_t count = 0;
            for (const std::uint64_t word : part.bits) {
                part.before.push_back(count);
                count += static_cast<std::uint32_t>(std::popcount(word));
            }
            myCount += count;
        }
    }

    [[nodiscard]] const std::vector<Part>& parts() const noexcept { return myParts; }
    [[nodiscard]] std::size_t count() const noexcept { return myCount; }
    /// The number of a vertex that was chosen.
    [[nodiscard]] std::size_t operator()(std::uint32_t part, index_t vertex) const noexcept {
        const Part& in = myParts[part];
        const std::uint64_t below = in.bits[vertex / 64] & ((std::uint64_t{1} << (vertex % 64)) - 1);
        return in.first + in.before[vertex / 64] + static_cast<std::size_t>(std::popcount(below));
    }

private:
    std::vector<Part> myParts;
    std::unordered_map<unsigned int, std::uint32_t> myPartOf;
    std::uint32_t myLast = 0;
    std::size_t myCount = 0;
};

} // namespace Vantle::detail
