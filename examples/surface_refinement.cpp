// Which edges of a surface to split, and which to flip.
//
// Prints, after the lines of the search itself: 1 edge of 5 is long, 1 is to be flipped; it belongs to faces 0 and 1

#include <baseop/SurfaceRefinement.hpp>
#include <model/Model.hpp>

#include <iostream>

using namespace Vantle;

int main() {
    // A rhombus, cut along its long diagonal into two thin triangles.
    const BundlePtr bundle = BundlePtr::create();
    const auto grid = (*bundle[0.0])["rhombus"];
    const auto surface = TriangularSurfaceWithEdges::create(*grid, {{-4, 0, 0}, {4, 0, 0}, {0, 1, 0}, {0, -1, 0}},
                                                            {{0, 1, 2}, {1, 0, 3}});
    EdgeLengthCriterion tooLong(5.0);
    EdgeFlipCriterion toBeFlipped(1e-6);
    const std::vector<bool> split = tooLong.DetectEdges(grid);
    const std::vector<bool> flip = toBeFlipped.DetectEdges(grid);

    const auto& edges = *surface.edges();
    const auto faces = MemArray<1, Edge>::create(edges.Size());
    GenerateEdge2FacesTable(*faces, *surface.triangles(), edges, 2, int(edges.nElements()));
    std::cout << tooLong.IllegalEdgesCount() << " edge of " << split.size() << " is long, "
              << toBeFlipped.IllegalEdgesCount() << " is to be flipped; it belongs to faces " << (*faces)(0)[0]
              << " and " << (*faces)(0)[1] << '\n';
    return split[0] && flip[0] && tooLong.IllegalEdgesCount() == 1 && toBeFlipped.IllegalEdgesCount() == 1 ? 0 : 1;
}
