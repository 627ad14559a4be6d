// A rectilinear grid: three lists of coordinates, nothing more is stored.
//
// Prints: vertex [1x2x0] lies at (0.5, 4, 0), the box ends at (2, 9, 1)

#include <baseop/ExpandBBox.hpp>
#include <model/Model.hpp>

#include <iostream>

using namespace Vantle;

int main() {
    const BundlePtr bundle = BundlePtr::create();
    const auto grid = (*bundle[0.0])["layers"];
    const auto layers = RegularGrid3D::createRectilinear(*grid, {0, 0.5, 2}, {0, 1, 4, 9}, {0, 1});

    using Coordinates = DirectProductMemArray<Orvix::PhysicalSpace::point, ExplicitCoordinateAxisArray, 3>;
    const auto coordinates = Hestra::dynamicCast<Coordinates>(layers.positions()->getData());
    const MultiIndex<3> vertex{1, 2, 0};
    Orvix::PhysicalSpace::point at;
    coordinates->retrieve(at, vertex);
    const auto box = getBoundingBox(layers.positions());
    std::cout << "vertex " << std::to_string(vertex) << " lies at " << at << ", the box ends at " << box->maxCoord()
              << "\n";
    return box->maxCoord() == Orvix::PhysicalSpace::point(2, 9, 1) ? 0 : 1;
}
