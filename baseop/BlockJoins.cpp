#include <baseop/BlockJoins.hpp>
#include <baseop/detail/FragmentCoordinates.hpp>
#include <baseop/detail/joins/FaceMatcher.hpp>
#include <baseop/detail/joins/UnionFind.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/vantle/Blanking.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <unordered_map>

namespace Vantle {

using detail::FacePair;
using detail::ShellFace;
using Hestra::StrongPtr;
using Orvix::PhysicalSpace;

// Motions and maps ----------------------------------------------------------------------------------------------------

RigidMotion RigidMotion::translation(const vector& by) {
    RigidMotion motion;
    motion.myTranslation = by;
    return motion;
}

RigidMotion RigidMotion::rotation(const point& center, const vector& axis, double angle) {
    const double size = length(axis);
    if (!(size > 0.0) || !std::isfinite(size)) throw std::invalid_argument("RigidMotion: an axis without length");
    const double n[3] = {axis[0] / size, axis[1] / size, axis[2] / size};
    const double c = std::cos(angle), s = std::sin(angle);
    RigidMotion motion;
    for (std::size_t row = 0; row < 3; ++row)
        for (std::size_t column = 0; column < 3; ++column)
            motion.myRotation[row][column] = (row == column ? c : 0.0) + (1.0 - c) * n[row] * n[column];
    for (std::size_t d = 0; d < 3; ++d) {
        motion.myRotation[(d + 2) % 3][(d + 1) % 3] += s * n[d];
        motion.myRotation[(d + 1) % 3][(d + 2) % 3] -= s * n[d];
    }
    motion.myTranslation = center - motion(center);
    return motion;
}

PhysicalSpace::vector RigidMotion::operator()(const vector& v) const noexcept {
    vector result;
    for (std::size_t row = 0; row < 3; ++row)
        result[static_cast<int>(row)] =
            myRotation[row][0] * v[0] + myRotation[row][1] * v[1] + myRotation[row][2] * v[2];
    return result;
}

PhysicalSpace::point RigidMotion::operator()(const point& p) const noexcept {
    const vector turned = (*this)(p - point());
    return point() + turned + myTranslation;
}

RigidMotion RigidMotion::inverse() const noexcept {
    RigidMotion result;
    for (std::size_t row = 0; row < 3; ++row)
        for (std::size_t column = 0; column < 3; ++column) result.myRotation[row][column] = myRotation[column][row];
    const vector back = result(myTranslation);
    for (int d = 0; d < 3; ++d) result.myTranslation[d] = -back[d];
    return result;
}

IndexMap::Place IndexMap::operator()(const Place& first) const noexcept {
    Place second = origin;
    for (std::size_t d = 0; d < 3; ++d) second[static_cast<std::size_t>(axis[d])] += sign[d] * first[d];
    return second;
}

IndexMap IndexMap::inverse() const noexcept {
    IndexMap result;
    for (std::size_t d = 0; d < 3; ++d) {
        const auto to = static_cast<std::size_t>(axis[d]);
        result.axis[to] = static_cast<int>(d);
        result.sign[to] = sign[d];
        result.origin[d] = -sign[d] * origin[to];
    }
    return result;
}

bool IndexMap::isMirrored() const noexcept {
    const bool isCyclic = (axis[0] + 1) % 3 == axis[1];
    return (sign[0] * sign[1] * sign[2] < 0) == isCyclic;
}

void JoinOptions::check() const {
    // Beyond half an edge a vertex could be one with its neighbour.
    const auto check = [](const char* name, double x) {
        if (!(x >= 0.0 && x < 0.5))
            throw std::invalid_argument(std::string("JoinOptions: ") + name + " is not from 0 to less than 0.5");
    };
    check("tolerance", tolerance);
    check("periodicTolerance", periodicTolerance);
}

// What is known -------------------------------------------------------------------------------------------------------

namespace {

constexpr std::uint32_t NoNumber = 0xffffffff;

BlockFace faceOf(const ShellFace& face) { return {face.block, face.axis, face.isUpper}; }

MultiIndex<3> placeOf(const IndexMap::Place& place) { return {place[0], place[1], place[2]}; }
IndexMap::Place placeOf(const MultiIndex<3>& vertex) {
    IndexMap::Place place;
    for (std::size_t d = 0; d < 3; ++d) place[d] = static_cast<std::int64_t>(vertex[d]);
    return place;
}

/// What a join is from the other side.
BlockJoin reversed(const BlockJoin& join) {
    BlockJoin other = join;
    std::swap(other.first, other.second);
    other.map = join.map.inverse();
    const auto a = placeOf(join.map(placeOf(join.low))), b = placeOf(join.map(placeOf(join.high)));
    for (int d = 0; d < 3; ++d) {
        other.low[d] = std::min(a[d], b[d]);
        other.high[d] = std::max(a[d], b[d]);
    }
    other.inverse = join.motion >= 0 && !join.inverse;
    return other;
}

BlockJoin makeJoin(const ShellFace& first, const ShellFace& second, const FacePair& pair) {
    BlockJoin join;
    join.first = faceOf(first);
    join.second = faceOf(second);
    join.low = first.vertex(pair.a0, pair.b0);
    join.high = first.vertex(pair.a1, pair.b1);
    join.motion = pair.motion;
    join.largestDistance = pair.largestDistance;
    const auto set = [&](int from, int to, int sign, std::int64_t origin) {
        join.map.axis[static_cast<std::size_t>(from)] = to;
        join.map.sign[static_cast<std::size_t>(from)] = sign;
        join.map.origin[static_cast<std::size_t>(to)] = origin;
    };
    const detail::FaceMap& map = pair.map;
    set(map.isSwapped ? first.v : first.u, second.u, map.signU, map.originU);
    set(map.isSwapped ? first.u : first.v, second.v, map.signV, map.originV);
    const int through = first.isUpper == second.isUpper ? -1 : 1; // out of the one is into the other
    set(first.axis, second.axis, through,
        static_cast<std::int64_t>(second.level) - through * static_cast<std::int64_t>(first.level));
    return join;
}

auto sortKey(const BlockJoin& join) { return std::tie(join.first, join.low, join.second); }

} // namespace

struct BlockJoins::Data {
    JoinOptions options;
    std::vector<RigidMotion> inverses; // of the motions
    Hestra::Freshness origin, masks;

    std::vector<StrongPtr<FragmentID>> ids;
    std::unordered_map<const FragmentID*, unsigned int> blockOf;
    std::map<std::string, unsigned int> blockByName;
    std::vector<MultiIndex<3>> sizes;
    std::vector<detail::ShellNumbering> numbering;

    std::vector<BlockJoin> joins;
    std::vector<BlockJoin> seen;        // from each face, in order
    std::vector<std::size_t> firstSeen; // of each face, six a block, and the number of all
    std::vector<DoubtfulFace> doubtful;
    std::vector<Shared> shared;                       // of each block, ascending
    std::vector<std::size_t> firstShared;             // of each block, and the number of all
    std::vector<std::vector<std::uint32_t>> sharedOf; // of each block with any: of its vertices on faces, by number

    std::vector<bool> isMoved; // of each block: whether some of its vertices are elsewhere than their owners
    std::vector<bool> isMirrored;
    bool isOrientable = true;
    std::vector<std::pair<BlockFace, index_t>> poles;

    Data(detail::Shells&& shells, const JoinOptions& how);
    void find(const detail::Shells& shells);
    void setOwners(const detail::Shells& shells, detail::UnionFind& owners);
    void setHandedness();

    /// The join of a quad; null without any.
    [[nodiscard]] const BlockJoin* joinOf(const BlockFace& face, const MultiIndex<3>& quad) const;
    /// The first join of a face that has this vertex, or the first periodic one; null without any.
    [[nodiscard]] const BlockJoin* joinAt(const BlockFace& face, const MultiIndex<3>& vertex) const;

private:
    using QuadTable = std::vector<std::uint32_t>;
    /// Of faces with more joins than are looked through one by one: the join of each quad, by number on that face.
    std::unordered_map<std::size_t, QuadTable> myQuadTables;
    static constexpr std::size_t FewJoins = 8;

    [[nodiscard]] static std::size_t numberOf(const BlockFace& face) noexcept {
        return 6 * std::size_t{face.block} + 2 * static_cast<std::size_t>(face.axis) + face.upper;
    }
    [[nodiscard]] std::span<const BlockJoin> seenFrom(std::size_t face) const {
        return {seen.data() + firstSeen[face], firstSeen[face + 1] - firstSeen[face]};
    }
    /// The number of a quad on a face.
    [[nodiscard]] std::size_t quadNumber(const BlockFace& face, const MultiIndex<3>& quad) const noexcept {
        const int u = face.axis == 0 ? 1 : 0, v = face.axis == 2 ? 1 : 2;
        return quad[v] * sizes[face.block][u] + quad[u];
    }
    void makeQuadTables();
};

BlockJoins::Data::Data(detail::Shells&& shells, const JoinOptions& how) : options(how) {
    for (const RigidMotion& motion : options.motions) inverses.push_back(motion.inverse());
    find(shells);
    ids = std::move(shells.ids);
    sizes = std::move(shells.sizes);
    numbering = std::move(shells.numbering);
    for (unsigned int block = 0; block < ids.size(); ++block) {
        blockOf.emplace(ids[block].rawptr(), block);
        blockByName.emplace(FragmentID::Name(ids[block], {}), block);
    }
    setHandedness();
    makeQuadTables();
}

namespace {

detail::VertexClasses classesOf(const detail::Shells& shells, double tolerance) {
    if (tolerance == 0.0) return detail::VertexClasses(shells.points);
    std::vector<double> radii = shells.localSizes;
    for (double& radius : radii) radius *= tolerance;
    return {shells.points, radii};
}

} // namespace

void BlockJoins::Data::find(const detail::Shells& shells) {
    detail::FaceMatcher matcher(shells, classesOf(shells, options.tolerance), options.tolerance);
    for (std::size_t motion = 0; motion < options.motions.size(); ++motion) {
        std::vector<PhysicalSpace::point> moved = shells.points;
        for (auto& point : moved) point = options.motions[motion](point);
        matcher.findPeriodic(moved, options.periodicTolerance, static_cast<int>(motion));
    }
    for (const detail::FaceDoubt& doubt : matcher.doubts())
        doubtful.push_back(
            {faceOf(shells.faces[doubt.face]), faceOf(shells.faces[doubt.other]), doubt.coincident, doubt.reason});

    for (const auto& [face, quads] : matcher.poles()) poles.emplace_back(faceOf(shells.faces[face]), quads);

    detail::UnionFind owners(shells.count());
    for (const auto& [a, b] : matcher.pinches()) owners.unite(a, b);
    for (const FacePair& pair : matcher.pairs()) {
        const ShellFace &first = shells.faces[pair.first], &second = shells.faces[pair.second];
        for (std::uint32_t b = pair.b0; pair.motion < 0 && b <= pair.b1; ++b)
            for (std::uint32_t a = pair.a0; a <= pair.a1; ++a) {
                const auto [s, t] = pair.map.vertex(a, b);
                owners.unite(shells.vertexOf[first.slot(a, b)], shells.vertexOf[second.slot(s, t)]);
            }
        const BlockJoin join = makeJoin(first, second, pair);
        const BlockJoin other = reversed(join);
        joins.push_back(sortKey(other) < sortKey(join) ? other : join);
    }
    std::sort(joins.begin(), joins.end(),
              [](const BlockJoin& a, const BlockJoin& b) { return sortKey(a) < sortKey(b); });
    for (const BlockJoin& join : joins) {
        seen.push_back(join);
        seen.push_back(reversed(join));
    }
    std::sort(seen.begin(), seen.end(), [](const BlockJoin& a, const BlockJoin& b) { return sortKey(a) < sortKey(b); });
    firstSeen.assign(6 * shells.ids.size() + 1, 0);
    for (const BlockJoin& join : seen) ++firstSeen[numberOf(join.first) + 1];
    std::partial_sum(firstSeen.begin(), firstSeen.end(), firstSeen.begin());
    setOwners(shells, owners);
}

void BlockJoins::Data::setOwners(const detail::Shells& shells, detail::UnionFind& owners) {
    sharedOf.resize(shells.ids.size());
    isMoved.resize(shells.ids.size());
    firstShared.push_back(0);
    for (std::uint32_t block = 0; block < shells.ids.size(); ++block) {
        const std::uint32_t first = shells.firstVertex[block];
        std::uint32_t number = first;
        const detail::ShellNumbering& shell = shells.numbering[block];
        for (index_t k = 0; k < shells.sizes[block][2]; ++k)
            shell.forEach(k, [&](const MultiIndex<3>& vertex) {
                const std::uint32_t owner = owners.find(number);
                if (owner != number) {
                    const std::uint32_t home = owner >= first ? block : shells.blockOf(owner);
                    const index_t index =
                        shells.numbering[home].vertex(owner - shells.firstVertex[home]).linear(shells.sizes[home]);
                    if (sharedOf[block].empty()) sharedOf[block].assign(shell.count(), NoNumber);
                    sharedOf[block][number - first] = static_cast<std::uint32_t>(shared.size() - firstShared.back());
                    shared.push_back({vertex.linear(shells.sizes[block]), {home, index}});
                    const auto &here = shells.points[number], &there = shells.points[owner];
                    if (std::memcmp(&here, &there, sizeof(here)) != 0) isMoved[block] = true;
                }
                ++number;
            });
        firstShared.push_back(shared.size());
    }
}

void BlockJoins::Data::setHandedness() {
    isMirrored.assign(ids.size(), false);
    std::vector<bool> isReached(ids.size(), false);
    std::vector<unsigned int> open;
    for (unsigned int start = 0; start < ids.size(); ++start) {
        if (isReached[start]) continue;
        isReached[start] = true;
        open.push_back(start);
        while (!open.empty()) {
            const unsigned int block = open.back();
            open.pop_back();
            for (std::size_t n = firstSeen[6 * std::size_t{block}]; n < firstSeen[6 * std::size_t{block} + 6]; ++n) {
                const unsigned int other = seen[n].second.block;
                const bool hand = isMirrored[block] != seen[n].map.isMirrored();
                if (!isReached[other]) {
                    isReached[other] = true;
                    isMirrored[other] = hand;
                    open.push_back(other);
                } else if (isMirrored[other] != hand) {
                    isOrientable = false;
                }
            }
        }
    }
}

void BlockJoins::Data::makeQuadTables() {
    for (std::size_t face = 0; face + 1 < firstSeen.size(); ++face) {
        const auto all = seenFrom(face);
        if (all.size() <= FewJoins) continue;
        const BlockFace& at = all[0].first;
        MultiIndex<3> last = sizes[at.block] - 1;
        last[at.axis] = 0;
        QuadTable& table = myQuadTables[face];
        table.assign(quadNumber(at, last) + 1, NoNumber);
        for (std::uint32_t n = 0; n < all.size(); ++n) {
            MultiIndex<3> extent = all[n].high - all[n].low, quad;
            extent[at.axis] = 1;
            do table[quadNumber(at, all[n].low + quad)] = n;
            while (quad.advance(extent));
        }
    }
}

const BlockJoin* BlockJoins::Data::joinOf(const BlockFace& face, const MultiIndex<3>& quad) const {
    const std::size_t number = numberOf(face);
    const auto all = seenFrom(number);
    if (all.size() > FewJoins) {
        const std::uint32_t n = myQuadTables.at(number)[quadNumber(face, quad)];
        return n == NoNumber ? nullptr : &all[n];
    }
    for (const BlockJoin& join : all) {
        bool isInside = true;
        for (int d = 0; d < 3; ++d)
            if (d != face.axis) isInside = isInside && quad[d] >= join.low[d] && quad[d] < join.high[d];
        if (isInside) return &join;
    }
    return nullptr;
}

const BlockJoin* BlockJoins::Data::joinAt(const BlockFace& face, const MultiIndex<3>& vertex) const {
    const BlockJoin* found = nullptr;
    const auto look = [&](const BlockJoin& join) {
        const auto rank = [](const BlockJoin& one) { return std::pair(one.motion >= 0, &one); };
        if (!found || rank(join) < rank(*found)) found = &join;
    };
    const auto all = seenFrom(numberOf(face));
    if (all.size() > FewJoins) {
        const int u = face.axis == 0 ? 1 : 0, v = face.axis == 2 ? 1 : 2;
        for (unsigned corner = 0; corner < 4; ++corner) {
            MultiIndex<3> quad = vertex;
            quad[u] -= corner & 1;
            quad[v] -= corner >> 1;
            if (quad[u] >= sizes[face.block][u] - 1 || quad[v] >= sizes[face.block][v] - 1) continue; // -1 as well
            if (const BlockJoin* const join = joinOf(face, quad)) look(*join);
        }
        return found;
    }
    for (const BlockJoin& join : all) {
        bool isInside = true;
        for (int d = 0; d < 3; ++d) isInside = isInside && vertex[d] >= join.low[d] && vertex[d] <= join.high[d];
        if (isInside) look(join);
    }
    return found;
}

// Questions -----------------------------------------------------------------------------------------------------------

BlockJoins::BlockJoins(std::unique_ptr<const Data> data) : myData(std::move(data)) {}
BlockJoins::~BlockJoins() = default;

StrongPtr<BlockJoins> BlockJoins::known(const Grid& grid, const JoinOptions& options) {
    const StrongPtr<Field> positions = grid.CartesianPositions();
    const auto kept = positions ? positions->findInterface<BlockJoins>() : StrongPtr<BlockJoins>();
    const Blanking blanking(grid);
    const bool isFresh = kept && kept->options() == options && kept->myData->origin.isFor(positions.rawptr()) &&
                         kept->myData->masks.isFor(blanking.vertexMask().rawptr(), blanking.cellMask().rawptr());
    return isFresh ? kept : StrongPtr<BlockJoins>();
}

StrongPtr<BlockJoins> BlockJoins::of(const Grid& grid, const JoinOptions& options) {
    options.check();
    const StrongPtr<Field> positions = grid.CartesianPositions();
    if (!positions) return nullptr;
    const Hestra::Freshness origin(positions.rawptr());
    const Blanking blanking(grid);
    const Hestra::Freshness masks = blanking.freshness();
    if (const StrongPtr<BlockJoins> fresh = known(grid, options)) return fresh;
    const bool needsSizes = options.tolerance > 0.0 || !options.motions.empty();
    detail::Shells shells(*positions, blanking, needsSizes);
    const bool isComplete = shells.isComplete; // else a block is missing that there may be next time
    auto data = std::make_unique<Data>(std::move(shells), options);
    data->origin = origin;
    data->masks = masks;
    const StrongPtr<BlockJoins> made(new BlockJoins(std::move(data)));
    if (isComplete && origin.isCurrent() && masks.isCurrent()) positions->addInterface(made);
    return made;
}

unsigned int BlockJoins::blocks() const noexcept { return static_cast<unsigned int>(myData->ids.size()); }
const MultiIndex<3>& BlockJoins::size(unsigned int block) const { return myData->sizes[block]; }
const StrongPtr<FragmentID>& BlockJoins::fragment(unsigned int block) const { return myData->ids[block]; }

unsigned int BlockJoins::find(const StrongPtr<FragmentID>& id) const {
    const auto known = myData->blockOf.find(id.rawptr());
    if (known != myData->blockOf.end()) return known->second;
    const auto named = myData->blockByName.find(FragmentID::Name(id, {}));
    return named != myData->blockByName.end() ? named->second : blocks();
}

const JoinOptions& BlockJoins::options() const noexcept { return myData->options; }
const std::vector<BlockJoin>& BlockJoins::joins() const noexcept { return myData->joins; }
std::span<const BlockJoin> BlockJoins::joins(unsigned int block) const {
    const std::size_t first = myData->firstSeen[6 * std::size_t{block}];
    return {myData->seen.data() + first, myData->firstSeen[6 * std::size_t{block} + 6] - first};
}
const std::vector<DoubtfulFace>& BlockJoins::doubtful() const noexcept { return myData->doubtful; }

BlockVertex BlockJoins::owner(const BlockVertex& vertex) const {
    const auto& sharedOf = myData->sharedOf[vertex.block];
    if (sharedOf.empty()) return vertex;
    const MultiIndex<3> place = MultiIndex<3>::fromLinear(vertex.index, myData->sizes[vertex.block]);
    const detail::ShellNumbering& numbering = myData->numbering[vertex.block];
    if (!numbering.contains(place)) return vertex;
    const std::uint32_t number = sharedOf[numbering(place)];
    return number == NoNumber ? vertex : myData->shared[myData->firstShared[vertex.block] + number].owner;
}

std::span<const BlockJoins::Shared> BlockJoins::shared(unsigned int block) const {
    const std::size_t first = myData->firstShared[block];
    return {myData->shared.data() + first, myData->firstShared[block + 1] - first};
}

bool BlockJoins::isShared(unsigned int block) const noexcept { return !myData->sharedOf[block].empty(); }
bool BlockJoins::hasOwnersCopies(const Field& field, unsigned int block) const {
    return !myData->isMoved[block] && myData->origin.isFor(&field);
}

std::optional<BlockJoins::Step> BlockJoins::step(const BlockVertex& from, int axis, int direction) const {
    const MultiIndex<3>& size = myData->sizes[from.block];
    if (size.product() == 0) return std::nullopt;
    MultiIndex<3> place = MultiIndex<3>::fromLinear(from.index, size);
    const bool isUpper = direction > 0;
    if (isUpper ? place[axis] + 1 < size[axis] : place[axis] > 0) {
        place[axis] += isUpper ? index_t{1} : ~index_t{0};
        return Step{{from.block, place.linear(size)}, nullptr};
    }
    const BlockJoin* const join = myData->joinAt({from.block, axis, isUpper}, place);
    if (!join) return std::nullopt;
    IndexMap::Place beyond = placeOf(place);
    beyond[static_cast<std::size_t>(axis)] += isUpper ? 1 : -1;
    Step result{{join->second.block, placeOf(join->map(beyond)).linear(myData->sizes[join->second.block])}, nullptr};
    if (join->motion >= 0) {
        const auto number = static_cast<std::size_t>(join->motion);
        result.motion = join->inverse ? &myData->options.motions[number] : &myData->inverses[number];
    }
    return result;
}

bool BlockJoins::isOpen(const BlockFace& face, const MultiIndex<3>& quad) const {
    const BlockJoin* const join = myData->joinOf(face, quad);
    return !join || join->motion >= 0;
}

bool BlockJoins::isMirrored(unsigned int block) const { return myData->isMirrored[block]; }
bool BlockJoins::isOrientable() const noexcept { return myData->isOrientable; }

std::string BlockJoins::describe() const {
    static constexpr std::size_t MostLines = 50; // of each kind
    const auto faceText = [this](const BlockFace& face) {
        return '"' + FragmentID::Name(fragment(face.block), "") + "\" " + "-+"[face.upper] + "ijk"[face.axis];
    };
    std::ostringstream text;
    const auto list = [&text](const auto& all, const auto& line) {
        for (std::size_t n = 0; n < std::min(all.size(), MostLines); ++n) {
            text << "  ";
            line(all[n]);
            text << '\n';
        }
        if (all.size() > MostLines) text << "  and " << all.size() - MostLines << " more\n";
    };
    const auto periodic =
        std::count_if(joins().begin(), joins().end(), [](const auto& join) { return join.motion >= 0; });
    text << blocks() << " blocks, " << joins().size() << " joins";
    if (periodic) text << " (" << periodic << " periodic)";
    text << ", " << myData->shared.size() << " vertices that are others' copies, " << doubtful().size()
         << " doubtful faces" << (isOrientable() ? "" : ", not orientable") << '\n';
    list(joins(), [&](const BlockJoin& join) {
        text << faceText(join.first) << ' ' << to_string(join.low) << " to " << to_string(join.high) << " is "
             << faceText(join.second) << ", ijk ->";
        for (std::size_t d = 0; d < 3; ++d)
            text << ' ' << "+-"[join.map.sign[d] < 0] << "ijk"[static_cast<std::size_t>(join.map.axis[d])];
        if (join.motion >= 0) text << ", after motion " << join.motion << (join.inverse ? " backward" : "");
        if (join.largestDistance > 0.0) text << ", up to " << join.largestDistance << " apart";
    });
    list(myData->poles, [&](const auto& pole) {
        MultiIndex<3> quads = size(pole.first.block) - 1;
        quads[pole.first.axis] = 1;
        text << faceText(pole.first) << " is collapsed" << (pole.second < quads.product() ? " in part" : "");
    });
    list(doubtful(), [&](const DoubtfulFace& doubt) {
        text << faceText(doubt.face) << " and " << faceText(doubt.other) << " are doubtful: " << doubt.reason << " ("
             << doubt.coincident << " vertices)";
    });
    return text.str();
}

} // namespace Vantle
