#include <baseop/detail/joins/FaceMatcher.hpp>
#include <baseop/detail/joins/KeyGroups.hpp>

#include <array>
#include <mutex>

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

std::uint64_t keyOf(const Corners& c) noexcept {
    const std::uint64_t low = std::uint64_t{c[0]} << 32 | c[1], high = std::uint64_t{c[2]} << 32 | c[3];
    std::uint64_t h = low * 0x9e3779b97f4a7c15;
    h = ((h ^ h >> 32) + high) * 0xc2b2ae3d27d4eb4f;
    return mixBits(h);
}

} // namespace

FaceMatcher::FaceMatcher(const Shells& shells, const VertexClasses& classes)
    : myShells(shells), myClassOf(shells.slots()), myMate(shells.slots(), Nothing), myTaken(shells.slots()) {
    classify(shells, classes);
    for (std::uint32_t f = 0; f < shells.faces.size(); ++f) {
        const ShellFace& face = shells.faces[f];
        for (std::uint32_t b = 0; b + 1 < face.nv; ++b)
            for (std::uint32_t a = 0; a + 1 < face.nu; ++a)
                if (myMate[face.slot(a, b)] < Flat && !myTaken[face.slot(a, b)]) grow(f, a, b);
    }
}

void FaceMatcher::classify(const Shells& shells, const VertexClasses& classes) {
    std::vector<std::vector<KeyEntry>> found(shells.faces.size());
    std::vector<std::vector<Pinch>> pinches(shells.faces.size());
    inParallel(shells.faces.size(), 1, shells.slots() * std::size_t{64}, [&](std::size_t begin, std::size_t end) {
        for (std::size_t f = begin; f < end; ++f) {
            const ShellFace& face = shells.faces[f];
            const std::uint32_t last = face.first + face.nu * face.nv;
            for (std::uint32_t slot = face.first; slot < last; ++slot) myClassOf[slot] = classes[shells.vertexOf[slot]];
            const auto pinch = [&](std::uint32_t a, std::uint32_t b) {
                pinches[f].emplace_back(shells.vertexOf[a], shells.vertexOf[b]);
            };
            for (std::uint32_t b = 0; b + 1 < face.nv; ++b)
                for (std::uint32_t a = 0; a + 1 < face.nu; ++a) {
                    const std::uint32_t slot = face.slot(a, b), above = slot + face.nu;
                    const std::uint32_t c00 = myClassOf[slot], c10 = myClassOf[slot + 1], c01 = myClassOf[above],
                                        c11 = myClassOf[above + 1];
                    const int collapsed = (c00 == c10) + (c00 == c01) + (c11 == c10) + (c11 == c01);
                    if (collapsed) {
                        if (c00 == c10) pinch(slot, slot + 1);
                        if (c00 == c01) pinch(slot, above);
                        if (c11 == c10) pinch(above + 1, slot + 1);
                        if (c11 == c01) pinch(above + 1, above);
                    }
                    if ((c00 | c10 | c01 | c11) & VertexClasses::Alone) continue;
                    if (collapsed > 1 || c00 == c11 || c10 == c01)
                        myMate[slot] = Flat;
                    else
                        found[f].push_back({keyOf(sortedCorners(myClassOf.data(), slot, face.nu)), slot,
                                            static_cast<std::uint32_t>(f)});
                }
        }
    });
    std::vector<KeyEntry> quads;
    std::size_t count = 0;
    for (const auto& part : found) count += part.size();
    quads.reserve(count);
    for (auto& part : found) {
        quads.insert(quads.end(), part.begin(), part.end());
        part = {};
    }
    for (const auto& part : pinches) myPinches.insert(myPinches.end(), part.begin(), part.end());

    const auto corners = [&](const KeyEntry& quad) {
        return sortedCorners(myClassOf.data(), quad.id, shells.faces[quad.tag].nu);
    };
    const auto pair = [&](std::span<KeyEntry> same) {
        if (same.size() == 2) {
            myMate[same[0].id] = same[1].id;
            myMate[same[1].id] = same[0].id;
        } else if (same.size() > 2) {
            for (const KeyEntry& quad : same) myMate[quad.id] = Several;
        }
    };
    forEachGroup(quads, [&](std::span<KeyEntry> group) {
        if (group.size() == 2) return pair(group); // whether their corners correspond is seen when they are joined
        std::sort(group.begin(), group.end(), [&](const KeyEntry& a, const KeyEntry& b) {
            const Corners p = corners(a), q = corners(b);
            return p != q ? p < q : a.id < b.id;
        });
        for (std::size_t begin = 0, end; begin < group.size(); begin = end) {
            for (end = begin + 1; end < group.size() && corners(group[begin]) == corners(group[end]);) ++end;
            pair(group.subspan(begin, end - begin));
        }
    });
}

bool FaceMatcher::corresponds(const FacePair& pair, std::int64_t a, std::int64_t b) const noexcept {
    const ShellFace &first = myShells.faces[pair.first], &second = myShells.faces[pair.second];
    for (std::int64_t corner = 0; corner < 4; ++corner) {
        const std::int64_t p = a + corner % 2, q = b + corner / 2;
        const auto [s, t] = pair.map.vertex(p, q);
        if (myClassOf[first.slot(static_cast<std::uint32_t>(p), static_cast<std::uint32_t>(q))] !=
            myClassOf[second.slot(static_cast<std::uint32_t>(s), static_cast<std::uint32_t>(t))])
            return false;
    }
    return true;
}

bool FaceMatcher::take(const FacePair& pair, std::int64_t a, std::int64_t b) noexcept {
    const ShellFace &first = myShells.faces[pair.first], &second = myShells.faces[pair.second];
    const auto [s, t] = pair.map.quad(a, b);
    if (s < 0 || t < 0 || s + 1 >= second.nu || t + 1 >= second.nv) return false;
    const std::uint32_t from = first.slot(static_cast<std::uint32_t>(a), static_cast<std::uint32_t>(b));
    const std::uint32_t to = second.slot(static_cast<std::uint32_t>(s), static_cast<std::uint32_t>(t));
    const bool isSame = myMate[from] == to || (myMate[from] == Flat && myMate[to] == Flat && from != to);
    if (!isSame || myTaken[from] || myTaken[to] || !corresponds(pair, a, b)) return false;
    myTaken[from] = myTaken[to] = 1;
    return true;
}

void FaceMatcher::release(const FacePair& pair, std::int64_t a, std::int64_t b) noexcept {
    const auto [s, t] = pair.map.quad(a, b);
    myTaken[myShells.faces[pair.first].slot(static_cast<std::uint32_t>(a), static_cast<std::uint32_t>(b))] = 0;
    myTaken[myShells.faces[pair.second].slot(static_cast<std::uint32_t>(s), static_cast<std::uint32_t>(t))] = 0;
}

void FaceMatcher::grow(std::uint32_t face, std::uint32_t a, std::uint32_t b) {
    const ShellFace& first = myShells.faces[face];
    const std::uint32_t mate = myMate[first.slot(a, b)];
    const auto next = std::upper_bound(myShells.faces.begin(), myShells.faces.end(), mate,
                                       [](std::uint32_t slot, const ShellFace& f) { return slot < f.first; });
    FacePair pair;
    pair.first = face;
    pair.second = static_cast<std::uint32_t>(next - myShells.faces.begin()) - 1;
    const ShellFace& second = myShells.faces[pair.second];
    const std::int64_t c = (mate - second.first) % second.nu, d = (mate - second.first) / second.nu;
    const auto isTaken = [&](int orientation) {
        FaceMap& map = pair.map;
        map.isSwapped = orientation & 4;
        map.signU = orientation & 1 ? -1 : 1;
        map.signV = orientation & 2 ? -1 : 1;
        const std::int64_t s = map.isSwapped ? b : a, t = map.isSwapped ? a : b;
        map.originU = map.signU > 0 ? c - s : c + 1 + s;
        map.originV = map.signV > 0 ? d - t : d + 1 + t;
        return take(pair, a, b);
    };
    int orientation = 0;
    while (orientation < 8 && !isTaken(orientation)) ++orientation;
    if (orientation == 8) return; // the same corners in another order

    std::int64_t a0 = a, a1 = a, b0 = b, b1 = b;
    const auto takeAll = [&](std::int64_t fromA, std::int64_t toA, std::int64_t fromB, std::int64_t toB) {
        if (fromA < 0 || fromB < 0 || toA + 1 >= first.nu || toB + 1 >= first.nv) return false;
        const std::int64_t width = toA - fromA + 1, count = width * (toB - fromB + 1);
        for (std::int64_t n = 0; n < count; ++n)
            if (!take(pair, fromA + n % width, fromB + n / width)) {
                while (n-- > 0) release(pair, fromA + n % width, fromB + n / width);
                return false;
            }
        return true;
    };
    while (takeAll(a1 + 1, a1 + 1, b0, b1)) ++a1;
    while (takeAll(a0 - 1, a0 - 1, b0, b1)) --a0;
    while (takeAll(a0, a1, b1 + 1, b1 + 1)) ++b1;
    while (takeAll(a0, a1, b0 - 1, b0 - 1)) --b0;
    pair.a0 = static_cast<std::uint32_t>(a0);
    pair.a1 = static_cast<std::uint32_t>(a1);
    pair.b0 = static_cast<std::uint32_t>(b0);
    pair.b1 = static_cast<std::uint32_t>(b1);
    myPairs.push_back(pair);
}

} // namespace Vantle::detail
