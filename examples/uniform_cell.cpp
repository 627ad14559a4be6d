// Sorts positions into the cells of a lattice and counts those in the margin that neighbouring cells share.
//
// Prints: 1000 positions, 1000 in the lattice, 512 of them inside an inner region

#include <baseop/UniformCell.hpp>

#include <iostream>

int main() {
    const Orvix::PhysicalSpace::point origin(0, 0, 0);
    const Orvix::PhysicalSpace::vector spacing(0.5, 0.5, 0.5);
    int positions = 0, located = 0, inner = 0;
    for (int k = 0; k < 10; ++k)
        for (int j = 0; j < 10; ++j)
            for (int i = 0; i < 10; ++i, ++positions) {
                const Orvix::PhysicalSpace::point p(0.05 + 0.1 * i, 0.05 + 0.1 * j, 0.05 + 0.1 * k);
                Vantle::MultiIndex<3> cell;
                if (!Vantle::uniformCellFromPosition(p, origin, spacing, {2, 2, 2}, cell)) continue;
                ++located;
                if (Vantle::isPositionInInnerRegion(p, origin, spacing, cell, 0.1)) ++inner;
            }
    std::cout << positions << " positions, " << located << " in the lattice, " << inner
              << " of them inside an inner region\n";
    return located == 1000 && inner == 8 * 8 * 8 ? 0 : 1;
}
