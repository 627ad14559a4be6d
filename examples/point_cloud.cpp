// The shape of neighbourhoods of points: a line, a disc and a ball, askew in space.
//
// Prints: line 1 0 0, disc 0 1 0, ball 0 0 1

#include <baseop/PointCloud.hpp>

#include <cmath>
#include <iostream>

using namespace Vantle;
using Orvix::PhysicalSpace;

int main() {
    // Orthonormal directions, and points spread alike along one, two and three of them.
    const PhysicalSpace::vector axes[] = {{0.6, 0.8, 0}, {-0.8, 0.6, 0}, {0, 0, 1}};
    const PhysicalSpace::point centre(5, -3, 2);
    const char* const names[] = {"line", "disc", "ball"};
    bool right = true;
    for (int dims = 1; dims <= 3; ++dims) {
        std::vector<PhysicalSpace::point> points;
        for (int d = 0; d < dims; ++d)
            for (const double at : {-3.0, -2.0, -1.0, 1.0, 2.0, 3.0}) points.push_back(centre + axes[d] * at);
        const PointCloud::Shape shape = PointCloud::computeShape(points, centre);
        const double measures[] = {shape.linearity, shape.planarity, shape.sphericity};
        std::cout << (dims > 1 ? ", " : "") << names[dims - 1];
        for (int m = 0; m < 3; ++m) {
            std::cout << ' ' << std::fabs(std::round(measures[m] * 1e6) / 1e6);
            right = right && std::fabs(measures[m] - (m + 1 == dims ? 1.0 : 0.0)) < 1e-9;
        }
    }
    std::cout << '\n';
    return right ? 0 : 1;
}
