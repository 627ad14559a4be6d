#include <baseop/CellSearch.hpp>
#include <model/hestra/Console.hpp>
#include <model/orvix/CellMap.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace Vantle {

using Hestra::Console;
using Hestra::StrongPtr;
using Orvix::BoundingBox;
using Orvix::PhysicalSpace;
using point = PhysicalSpace::point;
using vector = PhysicalSpace::vector;
using Block = MemArray<3, point>;

namespace {

constexpr index_t greatestShort = std::numeric_limits<unsigned short>::max();

/// Hands the fragments' numbers and curvilinear coordinates to a function.
template<class F>
class BlockIterator : public FragmentIndexIterator {
public:
    explicit BlockIterator(F function) : myFunction(std::move(function)) {}
    bool apply(unsigned int index, const StrongPtr<CreativeArrayBase>& creator) override {
        if (!creator) return true;
        const StrongPtr<MemBase> data = getDataInDoublePrecision(*creator);
        if (const auto* const block = dynamic_cast<const Block*>(data.rawptr())) myFunction(index, *block, data);
        return true;
    }

private:
    F myFunction;
};

MultiIndex<4> component(const MultiIndex<3>& unicell, index_t n) { return {unicell[0], unicell[1], unicell[2], n}; }

int asInt(index_t n) { return static_cast<int>(n); }

} // namespace

CellSearch::CellSearch(const detail::GivenView<Field>& coordinates, const detail::GivenView<BoundingBox>& givenBox,
                       const MultiIndex<3>& resolution, index_t maximum,
                       const Hestra::WeakPtr<FragmentSelector>& selector)
    : myBox(givenBox.object() ? *givenBox.object() : BoundingBox()) {
    const BoundingBox& box = myBox;
    LookupCoordinates::Axes axes;
    for (int d = 0; d < 3; ++d)
        axes[static_cast<std::size_t>(d)] =
            LinearCoordinateAxisArray<double>::spanning(box.minCoord()[d], box.maxCoord()[d], resolution[d]);
    myLookup = Hestra::makeRef<LookupCoordinates>(axes);
    // A count cannot tell of more; longer lists would stay empty.
    const index_t room = std::min(maximum, greatestShort);
    myCounts = MemArray<4, unsigned short>::create(component(resolution, 1 + room));
    myIndices = MemArray<4, Orvix::FixedArray<unsigned short, 3>>::create(component(resolution, room));

    BlockIterator recorder(
        [this](unsigned int number, const Block& block, const StrongPtr<MemBase>&) { record(block, number); });
    if (coordinates.object()) coordinates.object()->iterate(recorder, selector);
}

CellSearch::~CellSearch() = default;

bool CellSearch::unicell(const point& p, MultiIndex<3>& index) const noexcept {
    if (myLookup->nElements() == 0 || !myBox.inside(p)) return false;
    for (int d = 0; d < 3; ++d) {
        // Division falls short of the last unicell on the upper face, and there is none on a flat axis.
        const index_t last = myLookup->Size()[d] - 1;
        const double quotient =
            p[d] >= myBox.maxCoord()[d] ? static_cast<double>(last) : myLookup->axis(d).getIndex(p[d]);
        index[d] = quotient >= static_cast<double>(last) ? last : quotient > 0.0 ? static_cast<index_t>(quotient) : 0;
    }
    return true;
}

void CellSearch::record(const Block& block, unsigned int fragmentNumber) {
    const MultiIndex<3> n = block.Size();
    if (n[0] < 2 || n[1] < 2 || n[2] < 2 || myLookup->nElements() == 0 || myBox.isEmpty()) return;
    const MultiIndex<3> cells = n - 1;
    MultiIndex<3> cell;
    do {
        point low = block(cell[0], cell[1], cell[2]), high = low;
        bool isNumber = true;
        for (index_t corner = 0; corner < 8; ++corner) {
            const point p = block(cell[0] + (corner & 1), cell[1] + (corner >> 1 & 1), cell[2] + (corner >> 2));
            for (int d = 0; d < 3; ++d) {
                isNumber = isNumber && p[d] == p[d];
                low[d] = std::min(low[d], p[d]);
                high[d] = std::max(high[d], p[d]);
            }
        }
        for (int d = 0; d < 3; ++d) {
            low[d] = std::max(low[d], myBox.minCoord()[d]);
            high[d] = std::min(high[d], myBox.maxCoord()[d]);
        }
        MultiIndex<3> first, last, at;
        // Outside on some axis, low and high have changed places, and one of them is outside the box.
        if (!isNumber || !unicell(low, first) || !unicell(high, last)) continue;
        for (at[2] = first[2]; at[2] <= last[2]; ++at[2])
            for (at[1] = first[1]; at[1] <= last[1]; ++at[1])
                for (at[0] = first[0]; at[0] <= last[0]; ++at[0])
                    (void)addToUniCell(*myCounts, *myIndices, at, fragmentNumber, cell);
    } while (cell.advance(cells));
}

bool CellSearch::addToUniCell(Counts& counts, Indices& indices, const MultiIndex<3>& unicell, index_t fragmentNumber,
                              const MultiIndex<3>& cell) {
    const index_t room = std::min(indices.Size()[3], greatestShort);
    const bool tooLarge =
        fragmentNumber > greatestShort || cell[0] > greatestShort || cell[1] > greatestShort || cell[2] > greatestShort;
    if (room == 0 || counts.Size()[3] == 0 || tooLarge) return false;
    unsigned short& count = counts[component(unicell, 0)];
    if (count >= room) return false;
    indices[component(unicell, count)] = {static_cast<unsigned short>(cell[0]), static_cast<unsigned short>(cell[1]),
                                          static_cast<unsigned short>(cell[2])};
    ++count;
    if (count < counts.Size()[3]) counts[component(unicell, count)] = static_cast<unsigned short>(fragmentNumber);
    return true;
}

CellSearch::Location CellSearch::findLocation(const point& p, const detail::GivenView<Field>& field) const {
    MultiIndex<3> at;
    if (!unicell(p, at)) return {};
    const Counts& counts = *myCounts;
    const Indices& indices = *myIndices;
    const index_t n = counts[component(at, 0)];
    Console::print("CellSearch::findLocation(%lg,%lg,%lg): Point resides in unicell %dx%dx%d, which covers to %d "
                   "cells.\n",
                   p[0], p[1], p[2], asInt(at[0]), asInt(at[1]), asInt(at[2]), asInt(n));
    if (n == 0) return {};

    std::vector<StrongPtr<MemBase>> keptAlive;
    std::vector<const Block*> blocks;
    BlockIterator collector([&](unsigned int number, const Block& block, const StrongPtr<MemBase>& data) {
        blocks.resize(std::max<std::size_t>(blocks.size(), number + 1));
        blocks[number] = &block;
        keptAlive.push_back(data);
    });
    if (field.object()) field.object()->iterate(collector);

    for (index_t k = 0; k < n; ++k) {
        const unsigned int fragment = counts[component(at, 1 + k)];
        const auto packed = indices[component(at, k)];
        const MultiIndex<3> cell(packed[0], packed[1], packed[2]);
        if (fragment >= blocks.size() || !blocks[fragment]) continue;
        const Block& block = *blocks[fragment];
        if (!(cell + 1).inside(block.Size())) continue; // recorded of other coordinates
        const auto corner = [&](index_t i, index_t j, index_t l) -> const point& {
            return block(cell[0] + i, cell[1] + j, cell[2] + l);
        };
        const point low = corner(0, 0, 0), high = corner(1, 1, 1);
        Console::print("   Inspect Cell Nr. %d: (%lg,%lg,%lg) - (%lg,%lg,%lg), which is cell %dx%dx%d in fragment "
                       "#%d\n",
                       asInt(k), low[0], low[1], low[2], high[0], high[1], high[2], asInt(cell[0]), asInt(cell[1]),
                       asInt(cell[2]), asInt(fragment));

        constexpr double nan = std::numeric_limits<double>::quiet_NaN();
        vector q(nan, nan, nan), a(nan, nan, nan), x(nan, nan, nan);
        point local(nan, nan, nan);
        double denominator = nan;
        Orvix::CuboidMap map;
        if (map.setCorners(low, corner(0, 0, 1), corner(0, 1, 0), corner(1, 0, 0), high)) {
            q = map.vertexFactors();
            x = map.relative(p);
            if (map.setProjection()) {
                a = map.factors();
                denominator = map.denominator(x);
                if (denominator > 0.0) local = map.coordinates(x, denominator);
            }
        }
        Console::print("   --> Cell Vertex Factors are (%lg,%lg,%lg)\n", q[0], q[1], q[2]);
        Console::print("   --> Linear Fractional Transformation Factors are (%lg,%lg,%lg, %lg)\n", a[0], a[1], a[2],
                       1.0);
        Console::print("   --> Point relative to Cell is (%lg,%lg,%lg)\n", x[0], x[1], x[2]);
        Console::print("   --> Cell Coordinates of this point are (%lg,%lg,%lg) (denom %lg)\n", local[0], local[1],
                       local[2], denominator);
        bool inside = true;
        for (int d = 0; d < 3; ++d) inside = inside && local[d] >= 0.0 && local[d] <= 1.0;
        if (inside) return {true, fragment, cell, local};
    }
    return {};
}

} // namespace Vantle
