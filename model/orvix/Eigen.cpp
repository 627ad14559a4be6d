#include <model/orvix/Eigen.hpp>

namespace Orvix::Detail {

namespace {

using Vector3 = Vector<double, 3>;

Vector3 cross(const Vector3& a, const Vector3& b) noexcept {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

/// The root in [sqrt(3), 2] of beta^3 - 3 beta = 2 h, for h in [0, 1]: a cubic through Chebyshev's nodes, off by at
/// most 1e-4, and two Newton steps, each of which about squares its error.
double largestRoot(double h) noexcept {
    double beta = 1.73213266 + h * (0.33066070 + h * (h * 0.01863937 - 0.08138239));
    for (int step = 0; step < 2; ++step) {
        const double square = beta * beta;
        beta -= (beta * (square - 3.0) - 2.0 * h) / (3.0 * square - 3.0);
    }
    return beta;
}

} // namespace

// The textbook's way, Jacobi rotations, costs several times as much for this size. The eigenvalue farthest from the
// other two is well conditioned however close those are to each other, and so is its vector, a cross product of rows;
// in the plane across it one rotation gives the rest exactly. Only the second half matters for repeated eigenvalues,
// where the closed formula for all three would lose half of the digits.
bool directEigenVectors(const LowerTriangular<3, double>& a, FixedArray<Vector3, 3>& vectors,
                        FixedArray<double, 3>& values, double precision) noexcept {
    const double offDiagonal = a[1] * a[1] + a[3] * a[3] + a[4] * a[4];
    if (offDiagonal <= precision * precision) {
        values = FixedArray<double, 3>(a[0], a[2], a[5]);
        vectors = FixedArray<Vector3, 3>(Vector3(1, 0, 0), Vector3(0, 1, 0), Vector3(0, 0, 1));
        return true;
    }

    // B = (A - mean) / spread has eigenvalues of sum 0 and sum of squares 6: they lie in [-2, 2].
    const double mean = (a[0] + a[2] + a[5]) / 3.0;
    const double dx = a[0] - mean, dy = a[2] - mean, dz = a[5] - mean;
    const double spread = std::sqrt((dx * dx + dy * dy + dz * dz + 2.0 * offDiagonal) / 6.0);
    if (!(spread > 1e-100)) return false;
    const double inverse = 1.0 / spread;
    const double xx = dx * inverse, yy = dy * inverse, zz = dz * inverse;
    const double xy = a[1] * inverse, xz = a[3] * inverse, yz = a[4] * inverse;

    const double h = 0.5 * (xx * (yy * zz - yz * yz) - xy * (xy * zz - yz * xz) + xz * (xy * yz - yy * xz));
    const double magnitude = std::fabs(h) < 1.0 ? std::fabs(h) : 1.0;
    const double beta = std::copysign(largestRoot(magnitude), h);

    // The rows of B - beta span the plane across the eigenvector; the largest cross product of two is it.
    const Vector3 row0(xx - beta, xy, xz), row1(xy, yy - beta, yz), row2(xz, yz, zz - beta);
    const Vector3 c01 = cross(row0, row1), c12 = cross(row1, row2), c20 = cross(row2, row0);
    const double n01 = dot(c01, c01), n12 = dot(c12, c12), n20 = dot(c20, c20);
    Vector3 v = c01;
    double norm = n01;
    if (n12 > norm) v = c12, norm = n12;
    if (n20 > norm) v = c20, norm = n20;
    v *= 1.0 / std::sqrt(norm);

    // Two vectors that complete v to an orthonormal frame, without a case that loses precision; T. Duff et al.,
    // Building an orthonormal basis, revisited (2017).
    const double sign = std::copysign(1.0, v[2]);
    const double f = -1.0 / (sign + v[2]);
    const double g = v[0] * v[1] * f;
    const Vector3 u(1.0 + sign * v[0] * v[0] * f, sign * g, -sign * v[0]);
    const Vector3 w(g, sign + v[1] * v[1] * f, -v[1]);

    const Vector3 bu(xx * u[0] + xy * u[1] + xz * u[2], xy * u[0] + yy * u[1] + yz * u[2],
                     xz * u[0] + yz * u[1] + zz * u[2]);
    const Vector3 bw(xx * w[0] + xy * w[1] + xz * w[2], xy * w[0] + yy * w[1] + yz * w[2],
                     xz * w[0] + yz * w[1] + zz * w[2]);
    const double uv = dot(bu, v), wv = dot(bw, v);
    const double left = spread * spread * (uv * uv + wv * wv);
    if (!(left <= precision * precision)) return false;

    const double uu = dot(bu, u), uw = dot(bu, w), ww = dot(bw, w);
    const double half = 0.5 * (ww - uu);
    const double divisor = half + std::copysign(std::sqrt(half * half + uw * uw), half);
    const double t = divisor != 0.0 ? uw / divisor : 0.0;
    const double c = 1.0 / std::sqrt(1.0 + t * t), s = t * c;
    vectors[0] = v;
    vectors[1] = u * c - w * s;
    vectors[2] = w * c + u * s;
    values = FixedArray<double, 3>(mean + spread * beta, mean + spread * (uu - t * uw), mean + spread * (ww + t * uw));
    return true;
}

// The first half of the above alone, and then what sum and squares of the eigenvalues say of the other two.
bool separateEigenValues(const LowerTriangular<3, double>& a, FixedArray<double, 3>& values) noexcept {
    const double mean = (a[0] + a[2] + a[5]) * (1.0 / 3.0);
    const double xx = a[0] - mean, yy = a[2] - mean, zz = a[5] - mean, xy = a[1], xz = a[3], yz = a[4];
    const double square = (xx * xx + yy * yy + zz * zz + 2.0 * (xy * xy + xz * xz + yz * yz)) * (1.0 / 6.0);
    // Here no cube overflows or vanishes. NaN fails this, too.
    if (!(square > 1e-180 && square < 1e180)) return false;
    const double spread = std::sqrt(square);
    const double determinant = xx * (yy * zz - yz * yz) - xy * (xy * zz - yz * xz) + xz * (xy * yz - yy * xz);
    const double h = determinant / (2.0 * square * spread);
    const double magnitude = std::fabs(h) < 1.0 ? std::fabs(h) : 1.0;
    const double beta = std::copysign(largestRoot(magnitude), h);

    // The other two have the sum -beta and the sum of squares 6 - beta^2. The square of their distance is off by some
    // 1e-14, and so the distance by as much over twice itself.
    const double distanceSquared = 12.0 - 3.0 * beta * beta;
    if (!(distanceSquared > 1e-5)) return false;
    const double middle = -0.5 * beta, half = 0.5 * std::sqrt(distanceSquared);
    const double low = mean + spread * (middle - half), high = mean + spread * (middle + half);
    const double far = mean + spread * beta;
    values = beta < 0.0 ? FixedArray<double, 3>(far, low, high) : FixedArray<double, 3>(low, high, far);
    return true;
}

} // namespace Orvix::Detail
