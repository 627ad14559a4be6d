#pragma once
/// Blocks cut in pieces whose index spaces are turned and flipped at random, as blocks of files are, with the way back
/// to the uncut block; and blocks that meet themselves: rings, C-shapes, spheres, periodic slabs and sectors.

#include "LocationGrids.hpp"

#include <baseop/BlockJoins.hpp>

#include <algorithm>
#include <array>
#include <map>
#include <numbers>
#include <random>
#include <string>
#include <vector>

namespace support {

using Place = Vantle::MultiIndex<3>;

/// A box of vertices of an uncut block with an index space of its own.
struct Piece {
    Place low, size;                  ///< in the uncut block, counts of vertices
    std::array<int, 3> axis{0, 1, 2}; ///< the uncut axis that the piece's own axis d runs along,
    std::array<bool, 3> isFlipped{};  ///< and whether it does so backward

    [[nodiscard]] Place ownSize() const { return {size[axis[0]], size[axis[1]], size[axis[2]]}; }
    /// Where a vertex of the piece is in the uncut block.
    [[nodiscard]] Place uncut(const Place& own) const {
        Place place = low;
        for (int d = 0; d < 3; ++d) {
            const int to = axis[static_cast<std::size_t>(d)];
            place[to] += isFlipped[static_cast<std::size_t>(d)] ? size[to] - 1 - own[d] : own[d];
        }
        return place;
    }
    /// Where a vertex of the uncut block is in the piece; must be one of its.
    [[nodiscard]] Place own(const Place& uncut) const {
        Place place;
        for (int d = 0; d < 3; ++d) {
            const int from = axis[static_cast<std::size_t>(d)];
            const Vantle::index_t along = uncut[from] - low[from];
            place[d] = isFlipped[static_cast<std::size_t>(d)] ? size[from] - 1 - along : along;
        }
        return place;
    }
    [[nodiscard]] bool holds(const Place& uncut) const { return (uncut - low).inside(size); }
    /// Whether its index space is of the other handedness than that of the uncut block.
    [[nodiscard]] bool isMirrored() const {
        const bool isOdd = (axis[0] + 1) % 3 != axis[1];
        return isOdd != (isFlipped[0] != (isFlipped[1] != isFlipped[2]));
    }
};

/// Cuts at vertex planes, which both sides keep: `cuts[d]` are indices inside axis d, ascending.
inline std::vector<Piece> cutAtPlanes(const Place& size, const std::array<std::vector<Vantle::index_t>, 3>& cuts) {
    std::array<std::vector<Vantle::index_t>, 3> at = cuts;
    Place count;
    for (int d = 0; d < 3; ++d) {
        auto& planes = at[static_cast<std::size_t>(d)];
        planes.insert(planes.begin(), 0);
        planes.push_back(size[d] - 1);
        count[d] = planes.size() - 1;
    }
    std::vector<Piece> pieces;
    Place n;
    do {
        Piece piece;
        for (int d = 0; d < 3; ++d) {
            const auto& planes = at[static_cast<std::size_t>(d)];
            piece.low[d] = planes[n[d]];
            piece.size[d] = planes[n[d] + 1] - planes[n[d]] + 1;
        }
        pieces.push_back(piece);
    } while (n.advance(count));
    return pieces;
}

/// Cuts in `count` pieces, or as many as there are cells: each cut goes through one of the pieces so far, so that the
/// faces of some pieces lie against parts of others'.
inline std::vector<Piece> bisect(const Place& size, std::size_t count, std::mt19937_64& random) {
    std::vector<Piece> pieces{{{}, size}};
    for (std::size_t attempt = 0; pieces.size() < count && attempt < 100 * count; ++attempt) {
        const std::size_t n = random() % pieces.size();
        const auto d = random() % 3;
        if (pieces[n].size[d] < 3) continue;
        const Vantle::index_t cut = 1 + random() % (pieces[n].size[d] - 2);
        Piece upper = pieces[n];
        upper.low[d] += cut;
        upper.size[d] -= cut;
        pieces[n].size[d] = cut + 1;
        pieces.push_back(upper);
    }
    return pieces;
}

/// Gives each piece one of the 48 orientations, and brings them in another order.
inline std::vector<Piece> turned(std::vector<Piece> pieces, std::mt19937_64& random) {
    std::shuffle(pieces.begin(), pieces.end(), random);
    for (Piece& piece : pieces) {
        std::shuffle(piece.axis.begin(), piece.axis.end(), random);
        for (bool& flip : piece.isFlipped) flip = random() % 2;
    }
    return pieces;
}

/// The elements of a piece, from an array of the uncut block.
template<class T>
Hestra::StrongPtr<Vantle::MemArray<3, T>> takePiece(const Vantle::MemArray<3, T>& uncut, const Piece& piece) {
    return filled<T>(piece.ownSize(), [&](const Place& own) { return uncut[piece.uncut(own)]; });
}

/// A grid of pieces, fragments "0", "1", ... in their order, without offsets.
struct CutGrid : Scene {
    std::vector<Piece> pieces;
    std::vector<Hestra::StrongPtr<Vantle::FragmentID>> ids;

    CutGrid(const Block& uncut, std::vector<Piece> how) : pieces(std::move(how)) {
        for (const Piece& piece : pieces)
            ids.push_back(blocks.addBlock(std::to_string(ids.size()), takePiece(uncut, piece)));
    }
    /// A field from its values on the uncut block.
    template<class T>
    void setField(const std::string& name, const Vantle::MemArray<3, T>& uncut) {
        for (std::size_t n = 0; n < pieces.size(); ++n) blocks.setField(name, takePiece(uncut, pieces[n]), ids[n]);
    }
    /// The copies of a vertex of the uncut block, ascending.
    [[nodiscard]] std::vector<Vantle::BlockVertex> copies(const Place& uncut) const {
        std::vector<Vantle::BlockVertex> all;
        for (unsigned int n = 0; n < pieces.size(); ++n)
            if (pieces[n].holds(uncut)) all.push_back({n, pieces[n].own(uncut).linear(pieces[n].ownSize())});
        return all;
    }
    /// Where a vertex of a piece is in the uncut block.
    [[nodiscard]] Place uncut(const Vantle::BlockVertex& vertex) const {
        const Piece& piece = pieces[vertex.block];
        return piece.uncut(Place::fromLinear(vertex.index, piece.ownSize()));
    }
};

/// Smooth, with values of both signs around the origin.
inline double wave(const Point& p) {
    return std::sin(2.1 * p[0] + 0.3) * std::cos(1.7 * p[1]) + 0.4 * std::sin(1.3 * p[2]);
}

/// White noise that is the same at vertices with the same position.
inline Hestra::StrongPtr<Vantle::MemArray<3, double>> noiseOn(const Block& block, unsigned seed) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    std::map<std::array<double, 3>, double> known;
    return fieldOn(block, [&](const Point& p) {
        const auto [at, isNew] = known.try_emplace({p[0] + 0.0, p[1] + 0.0, p[2] + 0.0}, 0.0);
        if (isNew) at->second = value(random);
        return at->second;
    });
}

template<class F>
BlockPtr makeBlockOf(const Place& n, const F& at) {
    return filled<Point>(n, at);
}
inline double part(Vantle::index_t i, Vantle::index_t n) { return static_cast<double>(i) / static_cast<double>(n - 1); }

/// A ring that is closed: axis 0 goes around once, its last vertices are its first; axis 1 outward, axis 2 along z.
inline BlockPtr oGrid(const Place& n = {25, 6, 5}) {
    return makeBlockOf(n, [&](const Place& i) {
        const double angle = 2 * std::numbers::pi * part(i[0] % (n[0] - 1), n[0]), r = 1 + part(i[1], n[1]);
        return Point(r * std::cos(angle), r * std::sin(angle), 1.5 * part(i[2], n[2]));
    });
}

/// A C around a body: the first face of axis 1 is the wake from far behind to the trailing edge (`wake` cells), the
/// body (`body` cells, even), and the same wake back.
inline BlockPtr cGrid(Vantle::index_t wake = 6, Vantle::index_t body = 14, Vantle::index_t outward = 6,
                      Vantle::index_t layers = 4) {
    const Place n(2 * wake + body + 1, outward, layers);
    return makeBlockOf(n, [&](const Place& i) {
        const Vantle::index_t mirrored = std::min(i[0], n[0] - 1 - i[0]);
        const double side = i[0] < mirrored + 1 ? -1.0 : 1.0, t = part(i[1], n[1]);
        double x, y, outerX, outerY;
        if (mirrored <= wake) {
            x = outerX = 3.0 * part(wake - mirrored, wake + 1);
            y = 0.0;
            outerY = 2.0;
        } else {
            const bool isNose = 2 * (mirrored - wake) == body;
            const double angle =
                std::numbers::pi * 2 * static_cast<double>(mirrored - wake) / static_cast<double>(body);
            x = -0.5 + 0.5 * std::cos(angle);
            y = isNose ? 0.0 : 0.12 * std::sin(angle);
            outerX = -2.0 * std::sin(angle / 2);
            outerY = isNose ? 0.0 : 2.0 * std::cos(angle / 2);
        }
        return Point((1 - t) * x + t * outerX, side * ((1 - t) * y + t * outerY), part(i[2], n[2]));
    });
}

/// A ball, or a shell for an inner radius: axis 0 outward, axis 1 from pole to pole, axis 2 around once and closed.
inline BlockPtr sphere(double inner = 0.5, const Place& n = {5, 9, 17}) {
    return makeBlockOf(n, [&](const Place& i) {
        const double r = inner + (1 - inner) * part(i[0], n[0]), theta = std::numbers::pi * part(i[1], n[1]);
        const double phi = 2 * std::numbers::pi * part(i[2] % (n[2] - 1), n[2]);
        const bool isPole = i[1] == 0 || i[1] + 1 == n[1];
        const double fromAxis = isPole ? 0.0 : r * std::sin(theta);
        return Point(fromAxis * std::cos(phi), fromAxis * std::sin(phi), r * std::cos(theta));
    });
}

/// A block and the motion from its first to its last face along axis 0.
struct PeriodicBlock {
    BlockPtr block;
    Vantle::RigidMotion motion;
};
inline PeriodicBlock periodicSlab(const Place& n = {9, 6, 5}) {
    return {makeBlockOf(n,
                        [&](const Place& i) {
                            const double y = 2 * part(i[1], n[1]), z = part(i[2], n[2]);
                            return Point(0.1 * std::sin(3 * y) + 3 * part(i[0], n[0]), y, z + 0.1 * y * y);
                        }),
            Vantle::RigidMotion::translation({3, 0, 0})};
}
/// The n-th of a ring around z, axis 1 outward.
inline PeriodicBlock periodicSector(int ofRing = 5, const Place& n = {9, 6, 5}) {
    const double angle = 2 * std::numbers::pi / ofRing;
    return {makeBlockOf(n,
                        [&](const Place& i) {
                            const double r = 1 + part(i[1], n[1]), a = angle * part(i[0], n[0]) + 0.2 * r;
                            return Point(r * std::cos(a), r * std::sin(a), part(i[2], n[2]));
                        }),
            Vantle::RigidMotion::rotation({0, 0, 0}, {0, 0, 1}, angle)};
}

} // namespace support
