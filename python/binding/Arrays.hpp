#pragma once
/// Arrays of NumPy and of the library, both ways without copies.
///
/// NumPy counts axes from the slowest, the library from the fastest one: shape (nk, nj, ni) is size (ni, nj, nk). The
/// components of vectors and tensors are the last axes of an array of NumPy.

#include "Running.hpp"

#include <dataset/io/FileArray.hpp>

#include <optional>
#include <pybind11/numpy.h>
#include <string>

namespace VantlePython {

/// What an array is for, which says what it may be.
enum class Use {
    Points, ///< float64 or float32, three components
    Values, ///< numbers, or three or nine components
    Mask    ///< integers or booleans
};

/// An array of the library over the memory of an array of NumPy, which it keeps alive. With `isCopied`, over a copy,
/// whatever layout and type the array has. `size` is that of the block, unless it is not known yet.
///
/// Failure  ValueError, which says what was expected and what it is; TypeError for what is no array.
[[nodiscard]] StrongPtr<Vantle::MemBase> adopt(const py::object& given, Use use,
                                               const std::optional<Vantle::MultiIndex<3>>& size, bool isCopied,
                                               const std::string& what,
                                               const Hestra::WeakPtr<Vantle::CreativeArrayBase>& creator = {});

/// The same for an array that a function of Python makes when it is asked for, and again after the cache dropped it.
[[nodiscard]] StrongPtr<Vantle::CreativeArrayBase> makeLater(const py::object& function, Use use,
                                                             const Vantle::MultiIndex<3>& size, bool isCopied,
                                                             const std::string& what,
                                                             const StrongPtr<Hestra::Cache>& cache);

/// A view of an array of the library, which it keeps alive. Read-only unless it `isWritable` and the array, too.
/// None for arrays that are computed, and for elements other than numbers, vectors, tensors and triangles.
[[nodiscard]] py::object viewOf(const StrongPtr<Vantle::MemBase>& array, bool isWritable);

/// A NumPy array of the elements of a vector, which it takes.
template<class T>
[[nodiscard]] py::array arrayOf(std::vector<T> elements, std::vector<py::ssize_t> shape) {
    using Number = typename Vantle::ElementTraits<T>::component_type;
    Held<std::vector<T>> held(new std::vector<T>(std::move(elements)));
    const void* const data = held->data();
    const py::capsule owner(held.get(), [](void* gone) { Release()(static_cast<std::vector<T>*>(gone)); });
    held.release();
    return py::array(py::dtype::of<Number>(), std::move(shape), data, owner);
}

/// Numbers where the library can read them as they are.
using Numbers =
    py::array_t<double, py::array::c_style | py::array::forcecast | py::detail::npy_api::NPY_ARRAY_ALIGNED_>;
/// The same of whatever NumPy makes an array of; a copy only of what is not float64 in C order. Null of anything else.
[[nodiscard]] Numbers numbersOf(const py::object& given);

/// Positions as the library takes them, of an array of any shape (..., 3): `shape` is that without the last axis.
struct Positions {
    explicit Positions(const py::object& given);
    [[nodiscard]] std::span<const Vantle::Point> points() const noexcept;

    Numbers array;
    std::vector<py::ssize_t> shape;
};

/// Numbers of vertices (ni, nj, nk). Failure: ValueError for negative ones.
[[nodiscard]] Vantle::MultiIndex<3> sizeOf(const std::array<py::ssize_t, 3>& counts);
[[nodiscard]] py::tuple tupleOf(const Vantle::MultiIndex<3>& size);
[[nodiscard]] py::tuple shapeOf(const Vantle::MultiIndex<3>& size);
/// ((x, y, z), (x, y, z)), as any array of shape (2, 3). Failure: ValueError.
[[nodiscard]] Vantle::Box boxOf(const py::object& bounds);
[[nodiscard]] py::array arrayOf(const Vantle::Box& box);

} // namespace VantlePython
