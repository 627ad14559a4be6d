#include <baseop/detail/location/TrilinearCell.hpp>

#include <algorithm>
#include <cmath>

namespace Vantle::detail {

namespace {

using vector = TrilinearCell::vector;

/// Three vectors whose determinant is a smaller part of the product of their lengths span no space for Newton's method.
constexpr double SingularPart = 1e-14;
/// Three vectors whose determinant is a larger part give coordinates that are good to `FrameError`.
constexpr double FramePart = 1e-6;
constexpr double FrameError = 1e-8;
/// A step this short is the last one: the next would be its square.
constexpr double LastStep = 1e-8;
constexpr int MaximalSteps = 24;
/// Bisection ends after so many parts, or bisections of one part.
constexpr int MaximalParts = 100;
constexpr int MaximalDepth = 126;

double largest(const vector& v) noexcept {
    return std::max(std::max(std::fabs(v[0]), std::fabs(v[1])), std::fabs(v[2]));
}

vector absolute(const vector& v) noexcept { return {std::fabs(v[0]), std::fabs(v[1]), std::fabs(v[2])}; }

/// The inverse of the matrix of three columns, by rows, unless the columns are dependent.
struct Inverse {
    vector row[3];

    bool assign(const vector (&column)[3], double smallestPart) noexcept {
        row[0] = cross(column[1], column[2]);
        row[1] = cross(column[2], column[0]);
        row[2] = cross(column[0], column[1]);
        const double det = dot(column[0], row[0]);
        const double squared = normSquared(column[0]) * normSquared(column[1]) * normSquared(column[2]);
        if (!(det * det > smallestPart * smallestPart * squared)) return false;
        const double factor = 1.0 / det;
        for (vector& r : row) r *= factor;
        return true;
    }
    [[nodiscard]] vector operator()(const vector& v) const noexcept {
        return {dot(row[0], v), dot(row[1], v), dot(row[2], v)};
    }
};

} // namespace

TrilinearCell::TrilinearCell(const BlockVertices& vertices, const double* lowest) noexcept
    : myOrigin(vertices.point(lowest)) {
    // Differences to one corner: of nearby numbers they are exact, however far the cell is from the origin.
    vector D[8];
    for (int q = 1; q < 8; ++q) D[q] = vertices.point(vertices.corner(lowest, q)) - myOrigin;

    double diagonal = 0.0;
    for (int q = 0; q < 4; ++q) diagonal = std::max(diagonal, largest(D[7 - q] - D[q]));
    if (!(diagonal > 1e-60 && diagonal < 1e60) && diagonal > 0.0 && diagonal < HUGE_VAL) [[unlikely]] {
        // Products of three lengths must be numbers.
        myFactor = std::ldexp(1.0, -std::clamp(std::ilogb(diagonal), -1000, 1000));
        for (vector& v : D) v *= myFactor;
    }
    double squaredDiagonal = 0.0;
    for (int q = 0; q < 4; ++q) squaredDiagonal = std::max(squaredDiagonal, normSquared(D[7 - q] - D[q]));
    mySquaredTolerance = Tolerance * Tolerance * squaredDiagonal;

    const vector e0 = D[1], e1 = D[3] - D[2], e2 = D[5] - D[4], e3 = D[7] - D[6]; // along axis 0
    const vector s0 = D[1], s1 = D[3] + D[2], s2 = D[5] + D[4], s3 = D[7] + D[6];
    myMiddle = ((s0 + s1) + (s2 + s3)) * 0.125;
    myA[0] = ((e0 + e1) + (e2 + e3)) * 0.25;
    myA[1] = ((s1 - s0) + (s3 - s2)) * 0.25;
    myA[2] = ((s2 + s3) - (s0 + s1)) * 0.25;
    myB[0] = ((s3 - s2) - (s1 - s0)) * 0.5;
    myB[1] = ((e2 + e3) - (e0 + e1)) * 0.5;
    myB[2] = ((e1 - e0) + (e3 - e2)) * 0.5;
    myT = (e3 - e2) - (e1 - e0);
}

bool TrilinearCell::solve(vector& d) const noexcept {
    switch (judge(d)) {
    case Verdict::Found:
        return true;
    case Verdict::None:
        return false;
    case Verdict::Unknown:
        break;
    }
    return bisect(d);
}

bool TrilinearCell::accept(vector& d) const noexcept {
    vector clamped;
    for (int i = 0; i < 3; ++i) clamped[i] = std::clamp(d[i], -0.5, 0.5);
    if (!(normSquared(at(clamped)) <= mySquaredTolerance)) return false;
    d = clamped;
    return true;
}

TrilinearCell::Verdict TrilinearCell::judge(vector& d) const noexcept {
    Inverse linear;
    const bool hasFrame = linear.assign(myA, FramePart);
    vector start, bilinear, trilinear;
    if (hasFrame) {
        // In the frame of the linear part, x(d) = d - start + N(d), and N is bounded on the cube.
        start = linear(-myC);
        bilinear = absolute(linear(myB[0])) + absolute(linear(myB[1])) + absolute(linear(myB[2]));
        trilinear = absolute(linear(myT));
        for (int i = 0; i < 3; ++i)
            if (std::fabs(start[i]) > 0.5 + FrameError + 0.25 * bilinear[i] + 0.125 * trilinear[i])
                return Verdict::None;
    } else {
        const vector reach = (absolute(myA[0]) + absolute(myA[1]) + absolute(myA[2])) * 0.5 +
                             (absolute(myB[0]) + absolute(myB[1]) + absolute(myB[2])) * 0.25 + absolute(myT) * 0.125;
        for (int i = 0; i < 3; ++i)
            if (std::fabs(myC[i]) > reach[i] * (1.0 + FrameError)) return Verdict::None;
    }

    vector now;
    for (int i = 0; i < 3; ++i) now[i] = std::clamp(start[i], -0.5, 0.5);
    bool hasConverged = false;
    for (int step = 0; step < MaximalSteps && !hasConverged; ++step) {
        vector column[3];
        derivatives(now, column);
        Inverse inverse;
        if (!inverse.assign(column, SingularPart)) break;
        const vector move = inverse(at(now));
        now = now - move;
        const double length = largest(move);
        hasConverged = length < LastStep;
        if (!(largest(now) < 8.0)) break;
    }
    if (accept(now)) {
        d = now;
        return Verdict::Found;
    }
    if (!hasConverged || !hasFrame) return Verdict::Unknown;
    // The solution is outside. On a cube where N contracts there is no second one.
    const double radius = std::max(0.5, largest(now));
    for (int i = 0; i < 3; ++i)
        if (!(2.0 * radius * bilinear[i] + 3.0 * radius * radius * trilinear[i] < 0.999)) return Verdict::Unknown;
    return Verdict::None;
}

TrilinearCell TrilinearCell::restrictedTo(const Part& part) const noexcept {
    TrilinearCell result;
    const vector& h = part.half;
    vector column[3];
    derivatives(part.centre, column);
    result.myC = at(part.centre);
    for (int i = 0; i < 3; ++i) {
        result.myA[i] = column[i] * (2.0 * h[i]);
        const int j = (i + 1) % 3, k = (i + 2) % 3;
        result.myB[i] = (myB[i] + myT * part.centre[i]) * (4.0 * h[j] * h[k]);
    }
    result.myT = myT * (8.0 * h[0] * h[1] * h[2]);
    result.mySquaredTolerance = mySquaredTolerance;
    return result;
}

bool TrilinearCell::bisect(vector& d) const noexcept {
    Part pending[MaximalDepth + 2];
    int count = 0;
    pending[count++] = {vector(), vector(0.5, 0.5, 0.5)};
    for (int parts = 0; count != 0 && parts < MaximalParts; ++parts) {
        const Part part = pending[--count];
        const TrilinearCell cell = restrictedTo(part);
        vector inPart;
        switch (cell.judge(inPart)) {
        case Verdict::Found: {
            for (int i = 0; i < 3; ++i) d[i] = part.centre[i] + 2.0 * part.half[i] * inPart[i];
            return accept(d);
        }
        case Verdict::None:
            continue;
        case Verdict::Unknown:
            break;
        }
        // Across the longest side in space; a side of length zero is as good as solved.
        int axis = 0;
        double longest = 0.0;
        for (int i = 0; i < 3; ++i) {
            const double side = normSquared(absolute(cell.myA[i]) +
                                            0.5 * (absolute(cell.myB[(i + 1) % 3]) + absolute(cell.myB[(i + 2) % 3])));
            if (side > longest) {
                longest = side;
                axis = i;
            }
        }
        if (!(longest > 0.01 * mySquaredTolerance) || count + 2 > MaximalDepth) continue;
        Part half = part;
        half.half[axis] *= 0.5;
        half.centre[axis] = part.centre[axis] + half.half[axis];
        pending[count++] = half;
        half.centre[axis] = part.centre[axis] - half.half[axis];
        pending[count++] = half;
    }
    return false;
}

} // namespace Vantle::detail
