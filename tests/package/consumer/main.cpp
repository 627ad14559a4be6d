#include <baseop/BaseOp.hpp>
#include <model/Model.hpp>

#include <cstdio>

int main() {
    const auto bundle = Vantle::BundlePtr::create();
    const auto grid = (*bundle[0.0])["grid"];
    const auto cube = Vantle::UniformGrid3D::create(*grid, Orvix::BoundingBox({0, 0, 0}, {1, 2, 3}), {2, 2, 2});
    const auto box = Vantle::getBoundingBox(cube.positions());
    const auto array = Vantle::MemArray<3, double>::create({2, 2, 2});
    // Across the border of the libraries: allocation by run-time type, a template kernel, a box.
    const bool works = box && box->maxCoord()[2] == 3.0 && array->MemBase::create({4}, typeid(float)) &&
                       Vantle::interpolateAt<3, double>(*array, {0.5, 0.5, 0.5}) == 0.0;
    std::puts(works ? "linked" : "wrong");
    return works ? 0 : 1;
}
