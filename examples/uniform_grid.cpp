// A scalar field on a uniform grid: building it, its box, its range.
//
// Prints: box (0, 0, 0) - (1, 1, 1), values from 0 to 3

#include <baseop/DataRange.hpp>
#include <baseop/ExpandBBox.hpp>
#include <model/Model.hpp>

#include <iostream>

using namespace Vantle;

int main() {
    // The data set: one time, one grid of 11 x 11 x 11 vertices in the unit cube, one field.
    const BundlePtr bundle = BundlePtr::create();
    const auto grid = (*bundle[0.0])["cube"];
    UniformGrid3D cube = UniformGrid3D::create(*grid, Orvix::BoundingBox({0, 0, 0}, {1, 1, 1}), {11, 11, 11});
    const auto squares = MemArray<3, double>::create({11, 11, 11});
    for (index_t k = 0; k < 11; ++k)
        for (index_t j = 0; j < 11; ++j)
            for (index_t i = 0; i < 11; ++i)
                (*squares)(i, j, k) = (double(i * i) + double(j * j) + double(k * k)) / 100.0;
    const auto field = cube.setField("squares", squares);

    // What can be asked of it.
    const auto box = getBoundingBox(cube.positions());
    const auto range = DataRange<double>::compute(*field->getCreator(nullptr), false, false).lock();
    std::cout << "box " << box->minCoord() << " - " << box->maxCoord() << ", values from " << range->getMinf() << " to "
              << range->getMaxf() << "\n";
    return range->getMaxf() == 3.0 ? 0 : 1;
}
