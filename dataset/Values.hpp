#pragma once
/// Values of a field at places: at the vertices of a surface or a block, or at positions that somebody asked for.

#include <dataset/DataSetExport.hpp>
#include <model/orvix/PhysicalSpace.hpp>
#include <model/vantle/MemBase.hpp>

#include <span>
#include <vector>

namespace Vantle {

/// A place in space, and a displacement.
using Point = Orvix::PhysicalSpace::point;
using Vector = Orvix::PhysicalSpace::vector;

/// An axis-aligned box between two corners.
struct Box {
    Point low, high;
};

/// Values in double precision, of one component or several, which follow each other. A handle: copies share the values.
///
/// Concurrency  never changed: any number of threads.
class VANTLE_DATASET_API Values {
public:
    /// No values.
    Values() = default;
    /// Those of an array of rank 1, or of a block with axis 0 fastest, of numbers, vectors, points or tensors; of
    /// others, as of a null handle, none. Numbers that are not `double` are copied, everything else is shared.
    explicit Values(const Hestra::StrongPtr<MemBase>& array);

    /// How many places there are.
    [[nodiscard]] std::size_t size() const noexcept { return mySize; }
    /// 1 for scalars, 3 for vectors, 9 for tensors (row m is the derivative along axis m).
    [[nodiscard]] int components() const noexcept { return myComponents; }
    /// All components of the first place, then those of the second, ...
    [[nodiscard]] std::span<const double> numbers() const noexcept {
        return {myNumbers, mySize * static_cast<std::size_t>(myComponents)};
    }
    /// The first component at place `k`: the value, if they are scalars. Not checked.
    [[nodiscard]] double operator[](std::size_t k) const noexcept {
        return myNumbers[k * static_cast<std::size_t>(myComponents)];
    }
    /// The vector at place `k`. Not checked, neither place nor components.
    [[nodiscard]] Vector vector(std::size_t k) const noexcept {
        return {myNumbers[3 * k], myNumbers[3 * k + 1], myNumbers[3 * k + 2]};
    }
    /// The array that has them; null when there are none.
    [[nodiscard]] const Hestra::StrongPtr<MemBase>& array() const noexcept { return myArray; }

private:
    Hestra::StrongPtr<MemBase> myArray;
    const double* myNumbers = nullptr;
    std::size_t mySize = 0;
    int myComponents = 1;
};

} // namespace Vantle
