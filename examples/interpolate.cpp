// Values and slopes between the nodes of an array. The array holds a function that is linear along each axis, so the
// answers are known exactly.
#include <baseop/Interpolate.hpp>
#include <model/Model.hpp>

#include <cstdio>

using namespace Vantle;

int main() {
    const auto f = [](double x, double y, double z) { return x + 2 * y * z; };
    const auto array = MemArray<3, double>::create({4, 5, 6});
    for (index_t k = 0; k < 6; ++k)
        for (index_t j = 0; j < 5; ++j)
            for (index_t i = 0; i < 4; ++i) (*array)(i, j, k) = f(double(i), double(j), double(k));

    const MultiArrayBase<3, double> view = *array;
    const Orvix::FixedArray<double, 3> position{1.5, 2.25, 3.5};
    const double value = interpolateAt(view, position), slope = differentiateAt<1>(view, position);
    std::printf("at (1.5, 2.25, 3.5): value %g, slope along y %g\n", value, slope);
    std::printf("outside: %g, the border's value\n", interpolateAt(view, {9.0, 4.0, 5.0}));
    return value == f(1.5, 2.25, 3.5) && slope == 7.0 && interpolateAt(view, {9.0, 4.0, 5.0}) == f(3, 4, 5) ? 0 : 1;
}
