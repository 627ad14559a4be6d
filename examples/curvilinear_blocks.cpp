// A ring of curvilinear blocks whose arrays are made when somebody asks for them.
//
// Prints the box of every block; the blocks share the vertices of their common faces.

#include <baseop/FragmentSkeleton.hpp>
#include <model/Model.hpp>

#include <cmath>
#include <iostream>
#include <numbers>

using namespace Vantle;
using Orvix::PhysicalSpace;

int main() {
    constexpr index_t blocks = 6, n = 9; // each block has n x n x 2 vertices
    const BundlePtr bundle = BundlePtr::create();
    const auto grid = (*bundle[0.0])["ring"];
    RegularGrid3D ring(grid);
    for (index_t b = 0; b < blocks; ++b) {
        const auto block = ring.positions()->makeFragmentID("block" + std::to_string(b));
        ring.positions()->createCreator(
            [b](const Hestra::WeakPtr<CreativeArrayBase>& creator) -> Hestra::StrongPtr<MemBase> {
                const auto positions = MemArray<3, PhysicalSpace::point>::create({n, n, 2}, creator);
                for (index_t k = 0; k < 2; ++k)
                    for (index_t j = 0; j < n; ++j)
                        for (index_t i = 0; i < n; ++i) {
                            const double angle = 2 * std::numbers::pi * double(b * (n - 1) + i) / (blocks * (n - 1));
                            const double radius = 1 + double(j) / (n - 1);
                            (*positions)(i, j, k) = {radius * std::cos(angle), radius * std::sin(angle), double(k)};
                        }
                return positions;
            },
            typeid(PhysicalSpace::point), MultiIndex<3>{n, n, 2}, block);
    }

    CartesianFragments fragments(grid);
    fragments.buildFragmentCoordinates();
    for (index_t b = 0; b < blocks; ++b) {
        const auto box = fragments.getBBox(b);
        std::cout << fragments.getFragmentName(b) << ": " << box->minCoord() << " - " << box->maxCoord() << "\n";
    }
    return fragments.getFragmentName(5) == "block5" ? 0 : 1;
}
