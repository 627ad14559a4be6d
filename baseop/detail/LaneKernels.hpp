#pragma once
/// Loops over plain numbers in vector lanes of the widest kind that the processor has; the bits are the same in each.

#include <model/vantle/MultiArray.hpp>

#include <cstddef>

namespace Vantle::detail {

/// What these kernels may read and write beyond the end of rows: rows have room for a multiple of so many numbers.
inline constexpr std::size_t MostLanes = 8;

/// Lengths of the vectors (x[i], y[i], z[i]), to the bit as by `length`.
void lengthsOf(const double* x, const double* y, const double* z, std::size_t count, double* lengths);
/// The same, and their reciprocals.
void lengthsOf(const double* x, const double* y, const double* z, std::size_t count, double* lengths,
               double* reciprocals);

/// Two rows whose difference, times the factor, is wanted.
struct RowDifference {
    const double* low;
    const double* high;
    double factor;
};
/// Fills `target` with (high[i] - low[i]) * factor of all three for i = 0, then for i = 1, and so on. Reads and writes
/// nothing beyond. Best for rows in order, when only the last one is new.
void interleaveDifferences(const RowDifference (&rows)[3], std::size_t count, double* target);

/// Fills `target[n]` with (x[n] - origin[n % 3]) / spacing[n % 3].
void divideByThrees(const double* x, std::size_t count, const double (&origin)[3], const double (&spacing)[3],
                    double* target);
/// `values[m]` is `Interpolate<3, double>(view, at[m]).evaluate()`, to the bit.
void interpolateAll(const MultiArrayBase<3, double>& view, const Orvix::FixedArray<double, 3>* at, std::size_t count,
                    double* values);

} // namespace Vantle::detail
