#include <baseop/detail/joins/FaceMatcher.hpp>

#include <algorithm>
#include <array>
#include <limits>

namespace Vantle::detail {

namespace {

using Corners = std::array<std::uint32_t, 4>;

/// The classes of a quad's corners, ascending: the same for the same quad, however it is turned.
Corners sortedCorners(const std::uint32_t* classes, std::uint32_t slot, std::uint32_t nu) noexcept {
    Corners c{classes[slot], classes[slot + 1], classes[slot + nu], classes[slot + nu + 1]};
    const auto order = [&c](std::size_t a, std::size_t b) {
        if (c[b] < c[a]) std::swap(c[a], c[b]);
    };
    order(0, 1);
    order(2, 3);
    order(0, 2);
    order(1, 3);
    order(1, 2);
    return c;
}

/// What the classes of a quad's corners say of it.
struct QuadShape {
    int collapsed; // edges without length
    int alone;     // corners that coincide with nothing
    bool isFlat;   // whether less than a triangle is left, or it is folded
};

QuadShape shapeOf(const std::uint32_t* classes, std::uint32_t slot, std::uint32_t nu) noexcept {
    constexpr std::uint32_t Alone = VertexClasses::Alone;
    const std::uint32_t a = classes[slot], b = classes[slot + 1], c = classes[slot + nu + 1], d = classes[slot + nu];
    const int collapsed = (a == b) + (b == c) + (c == d) + (d == a);
    return {collapsed, ((a & Alone) != 0) + ((b & Alone) != 0) + ((c & Alone) != 0) + ((d & Alone) != 0),
            collapsed > 1 || a == c || b == d};
}

std::uint64_t keyOf(const Corners& c) noexcept {
    const std::uint64_t low = std::uint64_t{c[0]} << 32 | c[1], high = std::uint64_t{c[2]} << 32 | c[3];
    std::uint64_t h = low * 0x9e3779b97f4a7c15;
    h = ((h ^ h >> 32) + high) * 0xc2b2ae3d27d4eb4f;
    return mixBits(h);
}

/// The entries of faces one after the other; the parts are given up.
template<class T>
std::vector<T> together(std::vector<std::vector<T>>& parts) {
    std::size_t count = 0;
    for (const auto& part : parts) count += part.size();
    std::vector<T> all;
    all.reserve(count);
    for (auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
        part = {};
    }
    return all;
}

/// Calls `function(group)` for quads whose corners are the same, more than one, given their entries.
template<class Corner, class F>
void forEachSame(const std::vector<KeyEntry>& quads, const Corner& cornersOf, const F& function) {
    forEachGroup(quads, [&](std::span<KeyEntry> group) {
        if (group.size() == 2) return function(group); // whether their corners correspond is seen when they are joined
        std::sort(group.begin(), group.end(), [&](const KeyEntry& a, const KeyEntry& b) {
            const Corners p = cornersOf(a), q = cornersOf(b);
            return p != q ? p < q : a.id < b.id;
        });
        for (std::size_t begin = 0, end; begin < group.size(); begin = end) {
            for (end = begin + 1; end < group.size() && cornersOf(group[begin]) == cornersOf(group[end]);) ++end;
            if (end - begin > 1) function(group.subspan(begin, end - begin));
        }
    });
}

} // namespace

FaceMatcher::FaceMatcher(const Shells& shells, const VertexClasses& classes, double tolerance)
    : myShells(shells), myTolerance(tolerance), myFirst{&myClassOf, &shells.points}, mySecond(myFirst),
      myClassOf(shells.slots()), myMate(shells.slots(), Nothing), myFate(shells.slots(), Open) {
    classify(classes);
    growAll(-1);
    withdrawDoubtful(classes);
}

void FaceMatcher::classify(const VertexClasses& classes) {
    const std::vector<ShellFace>& faces = myShells.faces;
    std::vector<std::vector<KeyEntry>> quadsOf(faces.size());
    std::vector<std::vector<Pinch>> pinchesOf(faces.size());
    std::vector<index_t> collapsedOf(faces.size());
    inParallel(faces.size(), 1, myShells.slots() * std::size_t{64}, [&](std::size_t begin, std::size_t end) {
        for (std::size_t f = begin; f < end; ++f) {
            const ShellFace& face = faces[f];
            const std::uint32_t last = face.first + face.nu * face.nv;
            for (std::uint32_t slot = face.first; slot < last; ++slot)
                myClassOf[slot] = classes[myShells.vertexOf[slot]];
            // Whether the face is collapsed along an axis as a whole: some cells without thickness make no pole.
            bool isCollapsed[2] = {true, true};
            bool hasQuads = false;
            for (std::uint32_t b = 0; b + 1 < face.nv; ++b)
                for (std::uint32_t a = 0; a + 1 < face.nu; ++a) {
                    const std::uint32_t slot = face.slot(a, b), above = slot + face.nu;
                    if (!myShells.isBlanked.empty() && myShells.isBlanked[slot]) {
                        myFate[slot] = Blanked;
                        continue;
                    }
                    const QuadShape shape = shapeOf(myClassOf.data(), slot, face.nu);
                    const auto isOne = [&](std::uint32_t from, std::uint32_t to) {
                        return myClassOf[from] == myClassOf[to];
                    };
                    isCollapsed[0] = isCollapsed[0] && isOne(slot, slot + 1) && isOne(above, above + 1);
                    isCollapsed[1] = isCollapsed[1] && isOne(slot, above) && isOne(slot + 1, above + 1);
                    hasQuads = true;
                    collapsedOf[f] += shape.collapsed > 1;
                    // Two quads have two vertices in common at most: where a face is folded, or two of a block meet.
                    if (shape.alone > 2) continue;
                    if (shape.isFlat)
                        myMate[slot] = Flat;
                    else
                        quadsOf[f].push_back({keyOf(sortedCorners(myClassOf.data(), slot, face.nu)), slot,
                                              static_cast<std::uint32_t>(f)});
                }
            const auto pinch = [&](std::uint32_t from, std::uint32_t to) {
                if (myClassOf[from] == myClassOf[to])
                    pinchesOf[f].emplace_back(myShells.vertexOf[from], myShells.vertexOf[to]);
            };
            for (std::uint32_t slot = face.first; hasQuads && slot < last; ++slot) {
                if (isCollapsed[0] && (slot - face.first) % face.nu + 1 < face.nu) pinch(slot, slot + 1);
                if (isCollapsed[1] && slot + face.nu < last) pinch(slot, slot + face.nu);
            }
        }
    });
    myPinches = together(pinchesOf);
    for (std::uint32_t f = 0; f < faces.size(); ++f)
        if (collapsedOf[f]) myPoles.emplace_back(f, collapsedOf[f]);
    const auto cornersOf = [&](const KeyEntry& quad) {
        return sortedCorners(myClassOf.data(), quad.id, faces[quad.tag].nu);
    };
    forEachSame(together(quadsOf), cornersOf, [&](std::span<KeyEntry> same) {
        if (same.size() == 2) {
            myMate[same[0].id] = same[1].id;
            myMate[same[1].id] = same[0].id;
        } else {
            for (const KeyEntry& quad : same) {
                myMate[quad.id] = Several;
                myFate[quad.id] = SeveralFaces;
            }
        }
    });
}

void FaceMatcher::findPeriodic(const std::vector<Point>& moved, double tolerance, int motion) {
    // The vertices of open faces as they are, and after them as they are moved.
    const std::vector<ShellFace>& faces = myShells.faces;
    const std::size_t count = myShells.count();
    std::vector<Point> points(2 * count, Point(HUGE_VAL, 0, 0));
    std::vector<double> radii(2 * count);
    for (const ShellFace& face : faces)
        for (std::uint32_t b = 0; b + 1 < face.nv; ++b)
            for (std::uint32_t a = 0; a + 1 < face.nu; ++a) {
                if (myFate[face.slot(a, b)] != Open) continue;
                for (std::uint32_t corner = 0; corner < 4; ++corner) {
                    const std::uint32_t p = a + corner % 2, q = b + corner / 2, n = myShells.vertexOf[face.slot(p, q)];
                    points[n] = myShells.points[n];
                    points[count + n] = moved[n];
                    radii[n] = radii[count + n] = tolerance * myShells.localSizes[n];
                }
            }
    const VertexClasses classes(points, radii);

    std::vector<std::uint32_t> still(myShells.slots()), movedClass(myShells.slots());
    for (std::uint32_t slot = 0; slot < myShells.slots(); ++slot) {
        still[slot] = classes[myShells.vertexOf[slot]];
        movedClass[slot] = classes[static_cast<std::uint32_t>(count) + myShells.vertexOf[slot]];
        myMate[slot] = Nothing;
    }
    std::vector<KeyEntry> quads;
    const auto classesOf = [&](std::uint32_t tag) { return (tag & 1 ? movedClass : still).data(); };
    for (std::uint32_t f = 0; f < faces.size(); ++f)
        for (std::uint32_t b = 0; b + 1 < faces[f].nv; ++b)
            for (std::uint32_t a = 0; a + 1 < faces[f].nu; ++a)
                for (const std::uint32_t isMoved : {0U, 1U}) {
                    const std::uint32_t slot = faces[f].slot(a, b);
                    if (myFate[slot] != Open) continue;
                    const QuadShape shape = shapeOf(classesOf(isMoved), slot, faces[f].nu);
                    if (shape.alone || shape.isFlat) continue;
                    quads.push_back(
                        {keyOf(sortedCorners(classesOf(isMoved), slot, faces[f].nu)), slot, 2 * f + isMoved});
                }
    const auto cornersOf = [&](const KeyEntry& quad) {
        return sortedCorners(classesOf(quad.tag), quad.id, faces[quad.tag / 2].nu);
    };
    forEachSame(quads, cornersOf, [&](std::span<KeyEntry> same) {
        if (same.size() != 2 || same[0].tag % 2 == same[1].tag % 2 || same[0].id == same[1].id) return;
        const std::size_t mover = same[1].tag % 2;
        myMate[same[mover].id] = same[1 - mover].id;
    });
    myFirst = {&movedClass, &moved};
    mySecond = {&still, &myShells.points};
    std::swap(tolerance, myTolerance);
    growAll(motion);
    myTolerance = tolerance;
    myFirst = mySecond = {&myClassOf, &myShells.points};
}

void FaceMatcher::growAll(int motion) {
    for (std::uint32_t f = 0; f < myShells.faces.size(); ++f) {
        const ShellFace& face = myShells.faces[f];
        for (std::uint32_t b = 0; b + 1 < face.nv; ++b)
            for (std::uint32_t a = 0; a + 1 < face.nu; ++a) {
                const std::uint32_t slot = face.slot(a, b);
                if (myMate[slot] >= Flat || myFate[slot] != Open) continue;
                FacePair pair;
                pair.motion = motion;
                if (!grow(f, a, b, pair)) continue;
                measure(pair);
                myPairs.push_back(pair);
            }
    }
}

bool FaceMatcher::grow(std::uint32_t face, std::uint32_t a, std::uint32_t b, FacePair& pair) {
    const ShellFace& first = myShells.faces[face];
    const std::uint32_t mate = myMate[first.slot(a, b)];
    pair.first = face;
    pair.second = myShells.faceOf(mate);
    const auto [c, d] = myShells.faces[pair.second].place(mate);
    bool isFound = false;
    for (int orientation = 0; orientation < 8 && !isFound; ++orientation) {
        FaceMap& map = pair.map;
        map.isSwapped = orientation & 4;
        map.signU = orientation & 1 ? -1 : 1;
        map.signV = orientation & 2 ? -1 : 1;
        const std::int64_t s = map.isSwapped ? b : a, t = map.isSwapped ? a : b;
        map.originU = map.signU > 0 ? c - s : c + 1 + s;
        map.originV = map.signV > 0 ? d - t : d + 1 + t;
        isFound = take(pair, a, b);
    }
    if (!isFound) return false; // the same corners in another order, or too far from each other

    std::int64_t a0 = a, a1 = a, b0 = b, b1 = b;
    const auto takeAll = [&](std::int64_t fromA, std::int64_t toA, std::int64_t fromB, std::int64_t toB) {
        if (fromA < 0 || fromB < 0 || toA + 1 >= first.nu || toB + 1 >= first.nv) return false;
        const std::int64_t width = toA - fromA + 1, count = width * (toB - fromB + 1);
        for (std::int64_t n = 0; n < count; ++n)
            if (!take(pair, fromA + n % width, fromB + n / width)) {
                while (n-- > 0) setFate(pair, fromA + n % width, fromB + n / width, Open);
                return false;
            }
        return true;
    };
    while (takeAll(a1 + 1, a1 + 1, b0, b1)) ++a1;
    while (takeAll(a0 - 1, a0 - 1, b0, b1)) --a0;
    while (takeAll(a0, a1, b1 + 1, b1 + 1)) ++b1;
    while (takeAll(a0, a1, b0 - 1, b0 - 1)) --b0;
    pair.a0 = static_cast<std::uint32_t>(a0);
    pair.a1 = static_cast<std::uint32_t>(a1 + 1);
    pair.b0 = static_cast<std::uint32_t>(b0);
    pair.b1 = static_cast<std::uint32_t>(b1 + 1);
    return true;
}

bool FaceMatcher::take(const FacePair& pair, std::int64_t a, std::int64_t b) {
    const ShellFace &first = myShells.faces[pair.first], &second = myShells.faces[pair.second];
    const auto [s, t] = pair.map.quad(a, b);
    if (s < 0 || t < 0 || s + 1 >= second.nu || t + 1 >= second.nv) return false;
    const std::uint32_t from = first.slot(a, b), to = second.slot(s, t);
    const bool isSame = myMate[from] == to || (myMate[from] == Flat && myMate[to] == Flat && from != to);
    if (!isSame || myFate[from] != Open || myFate[to] != Open || !corresponds(pair, a, b)) return false;
    myFate[from] = myFate[to] = Joined;
    return true;
}

bool FaceMatcher::corresponds(const FacePair& pair, std::int64_t a, std::int64_t b) const {
    const ShellFace &first = myShells.faces[pair.first], &second = myShells.faces[pair.second];
    for (std::int64_t corner = 0; corner < 4; ++corner) {
        const std::int64_t p = a + corner % 2, q = b + corner / 2;
        const auto [s, t] = pair.map.vertex(p, q);
        const std::uint32_t from = first.slot(p, q), to = second.slot(s, t);
        if ((*myFirst.classes)[from] != (*mySecond.classes)[to]) return false;
        if (myTolerance == 0.0) continue;
        const std::uint32_t n = myShells.vertexOf[from], m = myShells.vertexOf[to];
        const Point &here = (*myFirst.points)[n], &there = (*mySecond.points)[m];
        const double reach = myTolerance * std::min(myShells.localSizes[n], myShells.localSizes[m]);
        if (!(here == there) && !(distance(here, there) <= reach)) return false;
    }
    return true;
}

void FaceMatcher::setFate(const FacePair& pair, std::int64_t a, std::int64_t b, Fate fate) {
    const auto [s, t] = pair.map.quad(a, b);
    myFate[myShells.faces[pair.first].slot(a, b)] = fate;
    myFate[myShells.faces[pair.second].slot(s, t)] = fate;
}

void FaceMatcher::measure(FacePair& pair) const {
    if (myTolerance == 0.0) return;
    const ShellFace &first = myShells.faces[pair.first], &second = myShells.faces[pair.second];
    for (std::uint32_t b = pair.b0; b <= pair.b1; ++b)
        for (std::uint32_t a = pair.a0; a <= pair.a1; ++a) {
            const auto [s, t] = pair.map.vertex(a, b);
            pair.largestDistance =
                std::max(pair.largestDistance, distance((*myFirst.points)[myShells.vertexOf[first.slot(a, b)]],
                                                        (*mySecond.points)[myShells.vertexOf[second.slot(s, t)]]));
        }
}

} // namespace Vantle::detail
