#include <baseop/BaseOp.hpp>
#include <dataset/Files.hpp>
#include <model/Model.hpp>

#include <cstdio>
#include <string>

#if VANTLE_VERSION < 100 || VANTLE_VERSION >= 10000
#    error "this is for version 0.1 and later ones before 1.0"
#endif

// An exception of the library, caught out here as what it is.
template<class Action>
bool refuses(const Action& action) {
    try {
        action();
    } catch (const Vantle::FileError& error) {
        return error.file() == "cube.vtp";
    }
    return false;
}

int main() {
    // The macros and the package agree; pkg-config's is told to this program by the one who compiles it.
    const std::string version = std::to_string(VANTLE_VERSION_MAJOR) + "." + std::to_string(VANTLE_VERSION_MINOR) +
                                "." + std::to_string(VANTLE_VERSION_PATCH);
    const auto bundle = Vantle::BundlePtr::create();
    const auto grid = (*bundle[0.0])["grid"];
    const auto cube = Vantle::UniformGrid3D::create(*grid, Orvix::BoundingBox({0, 0, 0}, {1, 2, 3}), {2, 2, 2});
    const auto box = Vantle::getBoundingBox(cube.positions());
    const auto array = Vantle::MemArray<3, double>::create({2, 2, 2});
    // Across the border of the libraries: allocation by run-time type, a template kernel, a box.
    const bool works = version == PACKAGE_VERSION && version == VANTLE_VERSION_STRING && box &&
                       box->maxCoord()[2] == 3.0 && array->MemBase::create({4}, typeid(float)) &&
                       Vantle::interpolateAt<3, double>(*array, {0.5, 0.5, 0.5}) == 0.0 &&
                       refuses([&] { Vantle::writeVtk("cube.vtp", *grid, {}); });
    std::puts(works ? "linked" : "wrong");
    return works ? 0 : 1;
}
