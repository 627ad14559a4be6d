#include <baseop/detail/joins/FaceMatcher.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <tuple>

namespace Vantle::detail {

namespace {

using Point = Shells::Point;

/// Vertices beyond a join that are not farther from each other, in units of the shortest edge, were meant to be equal.
constexpr double NearlyEqual = 1e-3;
/// How far a quad's middle may be from a face that it lies on, in units of its shortest edge.
constexpr double OnFace = 0.25;
/// Faces that have one place in common and are compared with each other; of more, each is compared with the next one.
constexpr std::size_t ComparedFaces = 24;

/// The distance of a point from a triangle.
double distanceTo(const Point& p, const Point& a, const Point& b, const Point& c) noexcept {
    const auto ab = b - a, ac = c - a, ap = p - a;
    const double aa = dot(ab, ab), bb = dot(ac, ac), cc = dot(ab, ac), s = dot(ab, ap), t = dot(ac, ap);
    const double area = aa * bb - cc * cc, v = bb * s - cc * t, w = aa * t - cc * s;
    if (v >= 0.0 && w >= 0.0 && v + w <= area && area > 0.0) return distance(p, a + ab * (v / area) + ac * (w / area));
    const auto toEdge = [&](const Point& from, const Point& to) {
        const auto edge = to - from;
        const double square = dot(edge, edge), along = square > 0.0 ? dot(edge, p - from) / square : 0.0;
        return distance(p, from + edge * std::clamp(along, 0.0, 1.0));
    };
    return std::min({toEdge(a, b), toEdge(b, c), toEdge(c, a)});
}

/// A rectangle of vertices of a face.
struct Bounds {
    std::int64_t a0 = 0, a1 = -1, b0 = 0, b1 = -1;

    void add(const std::pair<std::int64_t, std::int64_t>& place) noexcept {
        const auto [a, b] = place;
        if (a1 < a0) a0 = a1 = a, b0 = b1 = b;
        a0 = std::min(a0, a);
        a1 = std::max(a1, a);
        b0 = std::min(b0, b);
        b1 = std::max(b1, b);
    }
    [[nodiscard]] bool isArea() const noexcept { return a0 < a1 && b0 < b1; }
};

/// Identity of how two faces lie against each other.
auto keyOf(const FacePair& pair) {
    const FaceMap& map = pair.map;
    return std::tuple(pair.first, pair.second, map.isSwapped, map.signU, map.signV, map.originU, map.originV);
}

} // namespace

bool FaceMatcher::isOnTop(const FacePair& pair, const VertexClasses& classes) const {
    // Vertices on the rims of both faces have their inner neighbours on other faces of the blocks.
    const ShellFace &first = myShells.faces[pair.first], &second = myShells.faces[pair.second];
    const auto classBehind = [&](const ShellFace& face, std::int64_t a, std::int64_t b) {
        MultiIndex<3> vertex = face.vertex(a, b);
        vertex[face.axis] += face.isUpper ? ~index_t{0} : index_t{1};
        return classes[myShells.firstVertex[face.block] +
                       static_cast<std::uint32_t>(myShells.numbering[face.block](vertex))];
    };
    bool isSeen = false;
    for (std::int64_t b = pair.b0; b <= pair.b1; ++b) {
        const std::int64_t step = b == pair.b0 || b == pair.b1 ? 1 : pair.a1 - pair.a0;
        for (std::int64_t a = pair.a0; a <= pair.a1; a += step) {
            const auto [s, t] = pair.map.vertex(a, b);
            if (!first.isRim(a, b) || !second.isRim(s, t)) continue;
            const std::uint32_t behind = classBehind(first, a, b);
            if (behind != classBehind(second, s, t)) return false;
            isSeen = isSeen || behind != myClassOf[first.slot(a, b)];
        }
    }
    return isSeen;
}

double FaceMatcher::nearestMiss(const FacePair& pair) const {
    const ShellFace &first = myShells.faces[pair.first], &second = myShells.faces[pair.second];
    double nearest = HUGE_VAL;
    const auto look = [&](std::int64_t a, std::int64_t b) {
        const auto [s, t] = pair.map.vertex(a, b);
        if (a < 0 || b < 0 || a >= first.nu || b >= first.nv || s < 0 || t < 0 || s >= second.nu || t >= second.nv)
            return;
        const std::uint32_t from = first.slot(a, b), to = second.slot(s, t);
        const double gap = distance(myShells.points[myShells.vertexOf[from]], myShells.points[myShells.vertexOf[to]]);
        const double edge = std::min(myShells.shortestEdge(first, a, b), myShells.shortestEdge(second, s, t));
        if (myClassOf[from] != myClassOf[to] && gap < nearest * edge) nearest = gap / edge;
    };
    for (std::int64_t a = std::int64_t{pair.a0} - 1; a <= std::int64_t{pair.a1} + 1; ++a) {
        look(a, std::int64_t{pair.b0} - 1);
        look(a, std::int64_t{pair.b1} + 1);
    }
    for (std::int64_t b = pair.b0; b <= pair.b1; ++b) {
        look(std::int64_t{pair.a0} - 1, b);
        look(std::int64_t{pair.a1} + 1, b);
    }
    return nearest;
}

template<class IsSuch>
void FaceMatcher::withdraw(const IsSuch& isSuch, Fate reason) {
    std::erase_if(myPairs, [&](const FacePair& pair) {
        if (!isSuch(pair)) return false;
        for (std::int64_t b = pair.b0; b < pair.b1; ++b)
            for (std::int64_t a = pair.a0; a < pair.a1; ++a) setFate(pair, a, b, reason);
        myWithdrawn.emplace_back(pair.first, pair.second, reason);
        myWithdrawn.emplace_back(pair.second, pair.first, reason);
        return true;
    });
}

void FaceMatcher::withdrawDoubtful(const VertexClasses& classes) {
    std::vector<decltype(keyOf(FacePair()))> partial;
    const auto withdrawPartial = [&] {
        std::sort(partial.begin(), partial.end());
        if (!partial.empty())
            withdraw([&](const FacePair& p) { return std::binary_search(partial.begin(), partial.end(), keyOf(p)); },
                     NearMiss);
        partial.clear();
    };
    withdraw([&](const FacePair& pair) { return isOnTop(pair, classes); }, OnTop);
    for (const FacePair& pair : myPairs)
        if (nearestMiss(pair) <= NearlyEqual) partial.push_back(keyOf(pair));
    withdrawPartial();

    // Vertices that coincide beyond a join, with no quad that does: the faces are the same only here and there.
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<const FacePair*>> pairsOf;
    const std::vector<Touch> all = touches();
    if (all.empty()) return;
    for (const FacePair& pair : myPairs) pairsOf[{pair.first, pair.second}].push_back(&pair);
    for (const Touch& touch : all) {
        const auto found = pairsOf.find({touch.face, touch.other});
        if (found == pairsOf.end() || isAt(touch, SeveralFaces) || isAt(touch, OnTop)) continue;
        const auto [a, b] = myShells.faces[touch.face].place(touch.slot);
        const FacePair* last = nullptr;
        for (const FacePair* pair : found->second)
            if ((!last || !(last->map == pair->map)) &&
                pair->map.vertex(a, b) == myShells.faces[touch.other].place(touch.otherSlot)) {
                partial.push_back(keyOf(*pair));
                last = pair;
            }
    }
    withdrawPartial();
}

std::vector<FaceMatcher::Touch> FaceMatcher::touches() const {
    // Slots without a joined or blanked quad, by class.
    struct Entry {
        std::uint32_t id, slot, face;
    };
    std::vector<std::vector<Entry>> entriesOf(myShells.faces.size());
    inParallel(myShells.faces.size(), 1, myShells.slots() * std::size_t{16}, [&](std::size_t begin, std::size_t end) {
        std::vector<unsigned char> isCovered;
        for (std::size_t f = begin; f < end; ++f) {
            const ShellFace& face = myShells.faces[f];
            isCovered.assign(std::size_t{face.nu} * face.nv, 0);
            for (std::uint32_t b = 0; b + 1 < face.nv; ++b)
                for (std::uint32_t a = 0; a + 1 < face.nu; ++a) {
                    const std::uint32_t n = b * face.nu + a;
                    const auto fate = myFate[face.first + n];
                    if (fate == Joined || fate == Blanked)
                        isCovered[n] = isCovered[n + 1] = isCovered[n + face.nu] = isCovered[n + face.nu + 1] = 1;
                }
            for (std::uint32_t n = 0; n < isCovered.size(); ++n)
                if (!isCovered[n] && !(myClassOf[face.first + n] & VertexClasses::Alone))
                    entriesOf[f].push_back({myClassOf[face.first + n], face.first + n, static_cast<std::uint32_t>(f)});
        }
    });
    std::vector<Entry> entries;
    for (const auto& part : entriesOf) entries.insert(entries.end(), part.begin(), part.end());
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return std::tie(a.id, a.slot) < std::tie(b.id, b.slot); });

    std::vector<Touch> found;
    std::vector<Entry> here;
    for (auto at = entries.begin(); at != entries.end();) {
        // One slot of each face, as it may be collapsed there; and those of one face in a row, as it may be folded.
        const auto id = at->id;
        here.clear();
        while (at != entries.end() && at->id == id) {
            here.push_back(*at);
            for (auto last = at++; at != entries.end() && at->id == id && at->face == last->face; last = at++) {
                found.push_back({at->face, at->face, last->slot, at->slot});
                found.push_back({at->face, at->face, at->slot, last->slot});
            }
        }
        for (std::size_t n = 0; n < here.size(); ++n)
            for (std::size_t m = n + 1; m < (here.size() > ComparedFaces ? std::min(n + 2, here.size()) : here.size());
                 ++m) {
                if (myShells.vertexOf[here[n].slot] == myShells.vertexOf[here[m].slot]) continue;
                found.push_back({here[n].face, here[m].face, here[n].slot, here[m].slot});
                found.push_back({here[m].face, here[n].face, here[m].slot, here[n].slot});
            }
    }
    std::sort(found.begin(), found.end(), [](const Touch& a, const Touch& b) {
        return std::tie(a.face, a.other, a.slot) < std::tie(b.face, b.other, b.slot);
    });
    return found;
}

bool FaceMatcher::isAt(const Touch& touch, Fate fate) const {
    const auto isAround = [&](const ShellFace& face, std::uint32_t slot) {
        const auto [a, b] = face.place(slot);
        for (std::int64_t corner = 0; corner < 4; ++corner) {
            const std::int64_t p = a - corner % 2, q = b - corner / 2;
            if (p >= 0 && q >= 0 && p + 1 < face.nu && q + 1 < face.nv && myFate[face.slot(p, q)] == fate) return true;
        }
        return false;
    };
    return isAround(myShells.faces[touch.face], touch.slot) && isAround(myShells.faces[touch.other], touch.otherSlot);
}

bool FaceMatcher::liesOn(std::span<const Touch> touches) const {
    const ShellFace &face = myShells.faces[touches[0].face], &other = myShells.faces[touches[0].other];
    Bounds bounds, otherBounds;
    for (const Touch& touch : touches) {
        bounds.add(face.place(touch.slot));
        otherBounds.add(other.place(touch.otherSlot));
    }
    if (!bounds.isArea() || !otherBounds.isArea()) return false; // along an edge, or at a vertex
    const auto at = [&](const ShellFace& f, std::int64_t a, std::int64_t b) -> const Point& {
        return myShells.points[myShells.vertexOf[f.slot(a, b)]];
    };
    // Along a common rim faces are near each other: most of five have to be.
    int near = 0;
    for (const auto& [u, v] : {std::pair{2, 2}, {1, 1}, {3, 1}, {1, 3}, {3, 3}}) {
        const std::int64_t a = bounds.a0 + (bounds.a1 - bounds.a0 - 1) * u / 4;
        const std::int64_t b = bounds.b0 + (bounds.b1 - bounds.b0 - 1) * v / 4;
        Point middle;
        for (int d = 0; d < 3; ++d)
            middle[d] =
                0.25 * (at(face, a, b)[d] + at(face, a + 1, b)[d] + at(face, a, b + 1)[d] + at(face, a + 1, b + 1)[d]);
        const double reach = OnFace * myShells.shortestEdge(face, a, b);
        bool isNear = false;
        for (std::int64_t q = otherBounds.b0; q < otherBounds.b1 && !isNear; ++q)
            for (std::int64_t p = otherBounds.a0; p < otherBounds.a1 && !isNear; ++p)
                isNear = distanceTo(middle, at(other, p, q), at(other, p + 1, q), at(other, p, q + 1)) <= reach ||
                         distanceTo(middle, at(other, p + 1, q + 1), at(other, p + 1, q), at(other, p, q + 1)) <= reach;
        near += isNear;
    }
    return near > 2;
}

std::vector<FaceDoubt> FaceMatcher::doubts() const {
    const auto textOf = [](Fate reason) {
        return reason == SeveralFaces ? "more than two faces are the same there"
               : reason == OnTop
                   ? "the blocks lie on top of one another"
                   : "some vertices coincide, and others miss each other by very little: a tolerance may join them";
    };
    std::vector<FaceDoubt> found;
    const std::vector<Touch> all = touches();
    for (auto at = all.begin(); at != all.end();) {
        const auto begin = at;
        while (at != all.end() && at->face == begin->face && at->other == begin->other) ++at;
        const std::span<const Touch> pair(begin, at);
        const auto isAny = [&](Fate fate) {
            return std::any_of(pair.begin(), pair.end(), [&](const Touch& touch) { return isAt(touch, fate); });
        };
        // Those along the rims of the two only do not make a doubt.
        Bounds bounds, otherBounds;
        for (const Touch& touch : pair) {
            bounds.add(myShells.faces[touch.face].place(touch.slot));
            otherBounds.add(myShells.faces[touch.other].place(touch.otherSlot));
        }
        if (!bounds.isArea() || !otherBounds.isArea()) continue;
        const char* reason = nullptr;
        if (isAny(SeveralFaces))
            reason = textOf(SeveralFaces);
        else if (isAny(OnTop))
            reason = textOf(OnTop);
        else if (isAny(NearMiss))
            reason = textOf(NearMiss);
        else if (begin->face != begin->other && liesOn(pair))
            reason = "vertices coincide, and the cells between them do not";
        if (!reason) continue;
        found.push_back({begin->face, begin->other, 1, reason});
        for (std::size_t n = 1; n < pair.size(); ++n) found.back().coincident += pair[n].slot != pair[n - 1].slot;
    }
    // Joins that were taken back, and all of whose vertices are in others.
    const auto isBefore = [](const FaceDoubt& a, const FaceDoubt& b) {
        return std::tie(a.face, a.other) < std::tie(b.face, b.other);
    };
    for (const auto& [face, other, reason] : myWithdrawn) {
        FaceDoubt doubt{face, other, 0, textOf(reason)};
        const auto at = std::lower_bound(found.begin(), found.end(), doubt, isBefore);
        if (at == found.end() || isBefore(doubt, *at)) found.insert(at, std::move(doubt));
    }
    return found;
}

} // namespace Vantle::detail
