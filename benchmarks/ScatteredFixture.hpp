#pragma once
/// Random values on a cube of nodes, and random positions among them, for everything that interpolates.

#include <model/vantle/MemArray.hpp>

#include <memory>
#include <random>
#include <vector>

namespace Fixtures {

struct Scattered {
    Vantle::index_t n; ///< nodes on each axis
    Hestra::StrongPtr<Vantle::MemArray<3, double>> array;
    std::vector<Orvix::PhysicalSpace::point> positions; ///< in index units, strictly inside
    std::vector<double> values;                         ///< room for one a position

    Scattered(Vantle::index_t nodes, std::size_t count, unsigned seed)
        : n(nodes), array(Vantle::MemArray<3, double>::create({nodes, nodes, nodes})), positions(count), values(count) {
        std::mt19937_64 random(seed);
        std::uniform_real_distribution<double> value(-1.0, 1.0), coordinate(0.0, static_cast<double>(nodes - 1));
        for (Vantle::index_t k = 0; k < array->nElements(); ++k) array->element(k) = value(random);
        for (auto& p : positions) p = {coordinate(random), coordinate(random), coordinate(random)};
    }

    /// The same data for a whole program, made when first asked for; only the last size asked for is kept.
    static Scattered& get(Vantle::index_t nodes, std::size_t count) {
        static std::unique_ptr<Scattered> kept;
        if (!kept || kept->n != nodes || kept->positions.size() != count) {
            kept.reset();
            kept = std::make_unique<Scattered>(nodes, count, 7);
        }
        return *kept;
    }
};

} // namespace Fixtures
