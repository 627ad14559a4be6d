#pragma once
/// Symmetric matrices as lower triangles, and their eigenvectors.

#include <model/ModelExport.hpp>
#include <model/orvix/FixedArray.hpp>

#include <cmath>
#include <limits>
#include <type_traits>
#include <utility>

namespace Orvix {

/// A symmetric N x N matrix stored as its lower triangle row by row: (0,0), (1,0), (1,1), (2,0), (2,1), (2,2), ...
/// so that N = 3 is xx, xy, yy, xz, yz, zz. Zero by default; `+`, `-` and scaling are component-wise.
template<int N, class T>
class LowerTriangular : public LinearArray<LowerTriangular<N, T>, T, N*(N + 1) / 2> {
public:
    using LinearArray<LowerTriangular<N, T>, T, N*(N + 1) / 2>::LinearArray;
    constexpr LowerTriangular() noexcept = default;

    /// The component of row and column; both orders are the same component.
    [[nodiscard]] constexpr T& operator()(int row, int column) noexcept { return (*this)[index(row, column)]; }
    [[nodiscard]] constexpr const T& operator()(int row, int column) const noexcept {
        return (*this)[index(row, column)];
    }

private:
    static constexpr int index(int row, int column) noexcept {
        return row >= column ? row * (row + 1) / 2 + column : column * (column + 1) / 2 + row;
    }
};

namespace Detail {

/// Cyclic Jacobi rotations on a matrix whose largest component is near 1.
template<int N, class T>
bool jacobiEigenVectors(LowerTriangular<N, T>& a, FixedArray<Vector<T, N>, N>& vectors, FixedArray<T, N>& values,
                        T precision) noexcept {
    constexpr int MaximalSweeps = 60;
    for (int i = 0; i < N; ++i) {
        vectors[i] = Vector<T, N>();
        vectors[i][i] = T(1);
    }
    bool converged = false;
    for (int sweep = 0; sweep <= MaximalSweeps; ++sweep) {
        T offDiagonal = 0;
        for (int p = 1; p < N; ++p)
            for (int q = 0; q < p; ++q) offDiagonal += a(p, q) * a(p, q);
        converged = std::sqrt(offDiagonal) <= precision;
        if (converged || sweep == MaximalSweeps) break;
        for (int p = 1; p < N; ++p)
            for (int q = 0; q < p; ++q) {
                const T apq = a(p, q);
                if (apq == T(0)) continue;
                // The smaller of the two rotations; hypot, since the difference may dwarf the component.
                const T half = (a(p, p) - a(q, q)) / 2;
                const T t = apq / (half + std::copysign(std::hypot(half, apq), half));
                const T c = 1 / std::sqrt(t * t + 1), s = t * c;
                a(p, p) += t * apq;
                a(q, q) -= t * apq;
                a(p, q) = 0;
                for (int i = 0; i < N; ++i) {
                    if (i != p && i != q) {
                        const T aip = a(i, p), aiq = a(i, q);
                        a(i, p) = c * aip + s * aiq;
                        a(i, q) = c * aiq - s * aip;
                    }
                    const T vp = vectors[p][i], vq = vectors[q][i];
                    vectors[p][i] = c * vp + s * vq;
                    vectors[q][i] = c * vq - s * vp;
                }
            }
    }
    for (int i = 0; i < N; ++i) values[i] = a(i, i);
    return converged;
}

/// The same by a direct method: false, with unspecified results, when that is not precise enough.
VANTLE_MODEL_API bool directEigenVectors(const LowerTriangular<3, double>& a, FixedArray<Vector<double, 3>, 3>& vectors,
                                         FixedArray<double, 3>& values, double precision) noexcept;

/// Eigenvalues alone, in ascending order: false, with unspecified results, where two of them are too close to each
/// other for this method, or the numbers of the matrix are not in the middle of their range.
VANTLE_MODEL_API bool separateEigenValues(const LowerTriangular<3, double>& a, FixedArray<double, 3>& values) noexcept;

} // namespace Detail

/// Finds the eigenvectors of a symmetric matrix, orthonormal, and their eigenvalues, in no particular order.
///
/// A matrix that is diagonal but for `precision` gives its diagonal and the unit vectors in their order.
/// `precision` bounds the off-diagonal components that may be left in the frame of the eigenvectors, as the root of
/// the sum of their squares, relative to the largest component of the matrix.
///
/// Degenerate   repeated and nearly equal eigenvalues have some orthonormal vectors of their common space. Scale does
///              not matter, from the smallest to the largest numbers.
/// Failure      false when the precision is not reached, which near 1e-15 may happen; the results are as precise as
///              rounding allows then. False, with NaN eigenvalues and unit vectors, for a component that is not finite.
/// Cost         three by three in double: about as much as three square roots and a dozen divisions, without
///              iteration; other sizes: a few sweeps of Jacobi rotations.
template<int N, class T>
bool UnsortedEigenVectors(const LowerTriangular<N, T>& matrix, FixedArray<Vector<T, N>, N>& eigenvectors,
                          FixedArray<T, N>& eigenvalues, std::type_identity_t<T> precision) noexcept {
    T scale = 0;
    T sum = 0;
    for (const T& component : matrix) {
        const T magnitude = std::fabs(component);
        scale = magnitude > scale ? magnitude : scale;
        sum += component * T(0);
    }
    const bool finite = sum == T(0);
    if (!finite || scale == T(0)) {
        for (int i = 0; i < N; ++i) {
            eigenvalues[i] = finite ? T(0) : std::numeric_limits<T>::quiet_NaN();
            eigenvectors[i] = Vector<T, N>();
            eigenvectors[i][i] = T(1);
        }
        return finite;
    }
    LowerTriangular<N, T> scaled = matrix / scale;
    bool done = false;
    if constexpr (N == 3 && std::is_same_v<T, double>)
        done = Detail::directEigenVectors(scaled, eigenvectors, eigenvalues, precision);
    if (!done) done = Detail::jacobiEigenVectors(scaled, eigenvectors, eigenvalues, T(precision));
    for (T& value : eigenvalues) value *= scale;
    return done;
}

/// The same into vectors of another class, such as `PhysicalSpace::vector`.
template<int N, class T, class V>
requires(!std::is_same_v<V, Vector<T, N>>) bool UnsortedEigenVectors(const LowerTriangular<N, T>& matrix,
                                                                     FixedArray<V, N>& eigenvectors,
                                                                     FixedArray<T, N>& eigenvalues,
                                                                     std::type_identity_t<T> precision) noexcept {
    FixedArray<Vector<T, N>, N> found;
    const bool done = UnsortedEigenVectors(matrix, found, eigenvalues, precision);
    for (int i = 0; i < N; ++i)
        for (int c = 0; c < N; ++c) eigenvectors[i][c] = found[i][c];
    return done;
}

/// Finds the eigenvalues of a symmetric 3 x 3 matrix, in ascending order, as precise as `UnsortedEigenVectors` does.
///
/// Degenerate   as there; NaN in no order.
/// Cost         two square roots and three divisions, where no two of them are closer to each other than a thousandth
/// of
///              their spread; else about as with eigenvectors.
inline bool SortedEigenValues(const LowerTriangular<3, double>& matrix, FixedArray<double, 3>& eigenvalues,
                              double precision) noexcept {
    if (precision >= 1e-11 && Detail::separateEigenValues(matrix, eigenvalues)) return true;
    FixedArray<Vector<double, 3>, 3> vectors;
    const bool done = UnsortedEigenVectors(matrix, vectors, eigenvalues, precision);
    const auto order = [&](int a, int b) {
        if (eigenvalues[b] < eigenvalues[a]) std::swap(eigenvalues[a], eigenvalues[b]);
    };
    order(0, 1);
    order(1, 2);
    order(0, 1);
    return done;
}

} // namespace Orvix
