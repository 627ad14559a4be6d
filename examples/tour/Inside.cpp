#include "Inside.hpp"

#include <algorithm>
#include <cmath>

namespace tour {

using namespace Vantle;

namespace {

struct Plane {
    double x, y;
    friend Plane operator-(const Plane& a, const Plane& b) { return {a.x - b.x, a.y - b.y}; }
    friend Plane operator+(const Plane& a, const Plane& b) { return {a.x + b.x, a.y + b.y}; }
    friend Plane operator*(double f, const Plane& a) { return {f * a.x, f * a.y}; }
};

double cross(const Plane& a, const Plane& b) { return a.x * b.y - a.y * b.x; }
double dot(const Plane& a, const Plane& b) { return a.x * b.x + a.y * b.y; }

// A bilinear face: p00 + u a + v b + u v c, seen along z.
class Face {
public:
    Face(const Space::point& p00, const Space::point& p10, const Space::point& p01, const Space::point& p11)
        : heights_{p00[2], p10[2], p01[2], p11[2]} {
        const Plane corners[] = {{p00[0], p00[1]}, {p10[0], p10[1]}, {p01[0], p01[1]}, {p11[0], p11[1]}};
        low = high = origin_ = corners[0];
        for (const Plane& p : corners) {
            low = {std::min(low.x, p.x), std::min(low.y, p.y)};
            high = {std::max(high.x, p.x), std::max(high.y, p.y)};
        }
        a_ = corners[1] - corners[0];
        b_ = corners[2] - corners[0];
        c_ = corners[3] - corners[1] - b_;
    }

    // Calls take(z) for every crossing with the line through `at`.
    template<class Take>
    void cross(const Plane& at, const Take& take) const {
        // With q = at - p00: the cross product of q - v b and a + v c vanishes, a quadratic equation for v.
        const Plane q = at - origin_;
        const double square = -tour::cross(b_, c_), linear = tour::cross(q, c_) - tour::cross(b_, a_),
                     constant = tour::cross(q, a_);
        const double discriminant = linear * linear - 4.0 * square * constant;
        if (!(discriminant >= 0.0)) return;
        const double sum = -0.5 * (linear + std::copysign(std::sqrt(discriminant), linear));
        if (sum != 0.0) meet(q, constant / sum, take);
        if (square != 0.0 && std::abs(sum) <= 2.0 * std::abs(square)) meet(q, sum / square, take);
    }

    Plane low, high; // corners of the box around it

private:
    template<class Take>
    void meet(const Plane& q, double v, const Take& take) const {
        if (!(v >= 0.0 && v < 1.0)) return;
        const Plane along = a_ + v * c_;
        const double u = tour::dot(q - v * b_, along) / tour::dot(along, along);
        if (!(u >= 0.0 && u < 1.0)) return;
        take((1.0 - v) * ((1.0 - u) * heights_[0] + u * heights_[1]) + v * ((1.0 - u) * heights_[2] + u * heights_[3]));
    }

    double heights_[4];
    Plane origin_, a_, b_, c_;
};

std::vector<Face> borderOf(const MemArray<3, Space::point>& positions, const BlockMask* mask) {
    const MultiIndex<3> size = positions.Size(), cells = size - 1;
    std::vector<Face> faces;
    if (size[0] < 2 || size[1] < 2 || size[2] < 2) return faces;
    for (index_t n = 0; n < positions.nElements(); ++n)
        for (const double coordinate : positions.element(n))
            if (!std::isfinite(coordinate)) return faces;
    const auto isValid = [&](const MultiIndex<3>& cell) {
        return cell.inside(cells) && (!mask || mask->isCellValid(cell));
    };
    for (int axis = 0; axis < 3; ++axis) {
        const int u = (axis + 1) % 3, v = (axis + 2) % 3;
        for (index_t layer = 0; layer < size[axis]; ++layer) {
            MultiIndex<3> at;
            at[axis] = layer;
            for (at[v] = 0; at[v] + 1 < size[v]; ++at[v])
                for (at[u] = 0; at[u] + 1 < size[u]; ++at[u]) {
                    MultiIndex<3> below = at;
                    --below[axis]; // no cell where it wraps
                    if (isValid(at) == isValid(below)) continue;
                    MultiIndex<3> p10 = at, p01 = at, p11 = at;
                    ++p10[u], ++p01[v], ++p11[u], ++p11[v];
                    faces.emplace_back(positions[at], positions[p10], positions[p01], positions[p11]);
                }
        }
    }
    return faces;
}

// The lattice seen along z: its columns, and where they cross the border of the block at hand.
class Columns {
public:
    explicit Columns(const Lattice& lattice)
        : lattice_(lattice), crossings_(lattice.size[0] * lattice.size[1]), open_(crossings_.size()) {}

    void enter(const std::vector<Face>& faces, std::vector<bool>& inside) {
        constexpr double kNudge = 1e-6;
        constexpr int kAttempts = 4;
        std::fill(open_.begin(), open_.end(), true);
        for (int attempt = 0; attempt < kAttempts; ++attempt) {
            const Plane nudge = {attempt * kNudge * lattice_.spacing[0], -0.7 * attempt * kNudge * lattice_.spacing[1]};
            for (const Face& face : faces) collect(face, nudge);
            for (index_t n = 0; n < crossings_.size(); ++n) {
                std::vector<double>& heights = crossings_[n];
                if (open_[n] && heights.size() % 2 == 0) {
                    open_[n] = false;
                    fill(n, heights, inside);
                }
                heights.clear();
            }
        }
    }

private:
    // Indices along one axis whose coordinates lie between low and high.
    std::pair<index_t, index_t> covered(int axis, double nudge, double low, double high) const {
        const double origin = lattice_.origin[axis] + nudge, spacing = lattice_.spacing[axis];
        const index_t size = lattice_.size[axis];
        if (!(spacing > 0.0))
            return low <= origin && origin <= high ? std::pair<index_t, index_t>{0, size}
                                                   : std::pair<index_t, index_t>{0, 0};
        const auto clamped = [&](double n) { return static_cast<index_t>(std::clamp(n, 0.0, double(size))); };
        return {clamped(std::ceil((low - origin) / spacing)), clamped(std::floor((high - origin) / spacing) + 1.0)};
    }

    void collect(const Face& face, const Plane& nudge) {
        const auto [firstI, endI] = covered(0, nudge.x, face.low.x, face.high.x);
        const auto [firstJ, endJ] = covered(1, nudge.y, face.low.y, face.high.y);
        for (index_t j = firstJ; j < endJ; ++j)
            for (index_t i = firstI; i < endI; ++i) {
                const index_t column = j * lattice_.size[0] + i;
                if (!open_[column]) continue;
                const Space::point p = lattice_.position(column);
                face.cross(Plane{p[0], p[1]} + nudge, [&](double z) { crossings_[column].push_back(z); });
            }
    }

    void fill(index_t column, std::vector<double>& heights, std::vector<bool>& inside) const {
        if (heights.empty()) return;
        std::sort(heights.begin(), heights.end());
        const index_t layer = lattice_.size[0] * lattice_.size[1];
        for (index_t k = 0; k < lattice_.size[2]; ++k) {
            const double z = lattice_.origin[2] + double(k) * lattice_.spacing[2];
            const auto below = std::upper_bound(heights.begin(), heights.end(), z) - heights.begin();
            if (below % 2 == 1) inside[k * layer + column] = true;
        }
    }

    const Lattice& lattice_;
    std::vector<std::vector<double>> crossings_;
    std::vector<bool> open_;
};

} // namespace

std::vector<bool> positionsInside(const Grid& grid, const Lattice& lattice) {
    std::vector<bool> inside(lattice.positions(), false);
    Columns columns(lattice);
    const auto positions = grid.CartesianPositions();
    const Blanking masks(grid);
    positions->iterate([&](const Hestra::StrongPtr<FragmentID>& fragment, const auto&) {
        const auto points = Hestra::dynamicCast<MemArray<3, Space::point>>(positions->getData(fragment));
        if (points) columns.enter(borderOf(*points, masks.of(fragment, points->Size()).rawptr()), inside);
        return true;
    });
    return inside;
}

} // namespace tour
