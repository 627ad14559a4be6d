// Four curved blocks that make a ring, as one data set: a contour, values at positions, an image, a derived field.

#include <dataset/DataSet.hpp>

#include <cmath>
#include <iostream>
#include <numbers>

namespace {

std::vector<Vantle::Point> quarter(int b) {
    std::vector<Vantle::Point> points;
    for (int k = 0; k < 5; ++k)
        for (int j = 0; j < 9; ++j)
            for (int i = 0; i < 17; ++i) {
                const double angle = std::numbers::pi / 32 * ((16 * b + i) % 64), radius = 1 + j / 8.0;
                points.push_back({radius * std::cos(angle), radius * std::sin(angle), k / 4.0});
            }
    return points;
}

} // namespace

int main() {
    Vantle::DataSet flow;
    for (int b = 0; b < 4; ++b) flow.addBlock("quarter" + std::to_string(b), {17, 9, 5}, quarter(b));
    flow.setField("pressure", [](const Vantle::Point& p) { return p[0] * p[1] + p[2]; });

    const Vantle::Surface surface = flow.contour("pressure", 0.5, {.values = {"pressure"}, .normals = true});
    const Vantle::Samples values =
        flow.locate(std::vector<Vantle::Point>{{1.5, 0, 0.5}, {0, 0, 0.5}}).sample("pressure");
    const Vantle::DataSet image = flow.resample({64, 64, 16}, flow.bounds(), {"pressure"});
    const Vantle::NumberRange steepness = flow.range(flow.magnitude(flow.gradient("pressure")));

    std::cout << surface.triangles().size() << " triangles; " << values[0] << " at the first position, "
              << (values.isFound(1) ? "" : "nothing ") << "at the second; " << image.blocks()[0].size.product()
              << " pixels; gradients from " << steepness.least << " to " << steepness.greatest << "\n";
    return values.isFound(0) && !values.isFound(1) && !surface.isEmpty() ? 0 : 1;
}
