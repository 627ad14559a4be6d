#include <baseop/Interpolate.hpp>
#include <baseop/LocatedPositions.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/hestra/Pulse.hpp>
#include <model/orvix/Quadratic.hpp>
#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#define VANTLE_SCOPE(name) const Hestra::Profiler scope("baseop/LocatedPositions", __LINE__, name, __PRETTY_FUNCTION__)

namespace Vantle {

using Hestra::StrongPtr;
using Orvix::PhysicalSpace;
using point = LocatedPositions::point;

namespace {

using Tensor = Orvix::Quadratic<3, double>;
using Numbers = TypeList<double, float, int, unsigned char, short, unsigned short, unsigned int, unsigned long long>;
using Elements = TypeList<double, float, int, unsigned char, short, unsigned short, unsigned int, unsigned long long,
                          PhysicalSpace::vector, PhysicalSpace::point, Tensor>;

/// Positions that are located in one block at a time.
constexpr std::size_t LocatedAtOnce = std::size_t{1} << 16;
/// Bytes of arrays made for an evaluation that are held together.
constexpr std::size_t HeldBytes = std::size_t{32} << 20;

/// The element at a place between vertices. Numbers are interpolated in double precision, whatever they are stored in.
template<class T>
auto valueAt(const MultiArrayBase<3, T>& block, const point& at) {
    if constexpr (std::is_same_v<T, double> || !std::is_arithmetic_v<T>) {
        return Interpolate<3, T>(block, at).evaluate();
    } else {
        double corners[8];
        Orvix::FixedArray<double, 3> within;
        const T* lowest = block.storage();
        index_t step[3], stride = block.stride();
        for (int d = 0; d < 3; ++d) {
            const index_t n = block.Size()[d];
            const InterpolationStep place = InterpolationStep::interpolating(at[d], n);
            lowest += place.node * stride;
            step[d] = place.node + 1 < n ? stride : 0;
            within[d] = place.fraction;
            stride *= n;
        }
        for (std::size_t c = 0; c < 8; ++c)
            corners[c] = static_cast<double>(lowest[(c & 1) * step[0] + (c >> 1 & 1) * step[1] + (c >> 2) * step[2]]);
        return Interpolate<3, double>(MultiArrayBase<3, double>(corners, {2, 2, 2}), within).evaluate();
    }
}

double share(std::size_t part, std::size_t whole) { return static_cast<double>(part) / static_cast<double>(whole); }

/// Views of the arrays of some fragments, all of one element type.
template<class T>
class Views {
public:
    explicit Views(std::span<const StrongPtr<MemBase>> arrays) : myViews(arrays.size()) {
        for (std::size_t n = 0; n < arrays.size(); ++n) {
            if (!arrays[n]) continue;
            if (!withMemArray<3>(TypeList<T>(), arrays[n], [&](const MemArray<3, T>& block) { myViews[n] = block; }))
                throw std::invalid_argument("a fragment whose elements differ from those of the others, or have not "
                                            "three indices");
        }
    }
    /// Writes the value at a place in array `n`; false when there is none.
    bool write(std::size_t n, const point& at, double* target) const {
        const MultiArrayBase<3, T>& block = myViews[n];
        if (block.nElements() == 0) return false;
        const auto value = valueAt(block, at);
        if constexpr (std::is_arithmetic_v<T>)
            *target = value;
        else
            for (int c = 0; c < ElementTraits<T>::components; ++c) target[c] = value[c];
        return true;
    }

private:
    std::vector<MultiArrayBase<3, T>> myViews;
};

/// Calls `f` with the first listed type that an element type is; false when it is none.
template<class... T, class F>
bool withType(TypeList<T...>, const VantleTypeIndex& type, const F& f) {
    return ((type == VantleTypeIndex(typeid(T)) && (f(TypeList<T>()), true)) || ...);
}

/// The numbers of positions, those of each fragment together, and where those begin.
struct Order {
    Order(std::span<const std::uint32_t> fragmentOf, std::size_t fragments) : first(fragments + 1) {
        for (const std::uint32_t n : fragmentOf)
            if (n != LocatedPositions::Nowhere) ++first[n + 1];
        for (std::size_t n = 0; n < fragments; ++n) first[n + 1] += first[n];
    }
    void sort(std::span<const std::uint32_t> fragmentOf) {
        std::vector<std::size_t> next(first.begin(), first.end() - 1);
        numbers.resize(first.back());
        for (std::size_t k = 0; k < fragmentOf.size(); ++k)
            if (fragmentOf[k] != LocatedPositions::Nowhere)
                numbers[next[fragmentOf[k]]++] = static_cast<std::uint32_t>(k);
    }
    [[nodiscard]] bool has(std::size_t fragment) const noexcept { return first[fragment] != first[fragment + 1]; }

    std::vector<std::size_t> first;
    std::vector<std::uint32_t> numbers;
};

/// Room for so many elements. Throws what is to be thrown for more than there are addresses, which compilers see to
/// differently.
template<class T>
std::unique_ptr<T[]> makeRoom(std::size_t count) {
    if (count > static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max()) / sizeof(T))
        throw std::bad_array_new_length();
    return std::make_unique_for_overwrite<T[]>(count);
}

} // namespace

LocatedPositions::LocatedPositions(const LocalFromWorldPoint& locator, std::span<const point> positions)
    : mySize(positions.size()), myPlaces(makeRoom<point>(mySize)), myFragments(makeRoom<std::uint32_t>(mySize)) {
    VANTLE_SCOPE("LocatedPositions::LocatedPositions(locator, positions)");
    constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
    locator.prepare(positions);
    // Pieces are located and taken by the same thread; a position takes about as long as reading some kilobytes.
    constexpr std::size_t Piece = 4096, BytesEach = 2048;
    std::atomic<std::size_t> all{0};
    detail::inParallel(mySize, Piece, BytesEach * mySize, [&](std::size_t begin, std::size_t end) {
        std::vector<LocalFromWorldPoint::Location> found(end - begin);
        locator.locate(positions.subspan(begin, end - begin), found);
        std::size_t count = 0;
        for (std::size_t k = begin; k < end; ++k) {
            const LocalFromWorldPoint::Location& location = found[k - begin];
            const bool isFound = static_cast<bool>(location);
            myPlaces[k] = isFound ? location.localCoordinates : point(NaN, NaN, NaN);
            myFragments[k] = isFound ? location.fragment : Nowhere;
            count += isFound ? 1 : 0;
        }
        all += count;
    });
    myFound = all;
}

LocatedPositions::LocatedPositions(std::span<const std::optional<BlockBox>> boxes, const LocatorOf& locatorOf,
                                   std::span<const point> positions)
    : mySize(positions.size()), myPlaces(makeRoom<point>(mySize)), myFragments(makeRoom<std::uint32_t>(mySize)) {
    VANTLE_SCOPE("LocatedPositions::LocatedPositions(boxes, locatorOf, positions)");
    constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
    constexpr std::size_t Together = 4096; // positions with a box of their own
    std::fill_n(myPlaces.get(), mySize, point(NaN, NaN, NaN));
    std::fill_n(myFragments.get(), mySize, Nowhere);
    struct Bounds {
        point low, high;
    };
    std::vector<Bounds> parts;
    for (std::size_t begin = 0; begin < mySize; begin += Together) {
        constexpr double Infinity = std::numeric_limits<double>::infinity();
        Bounds part{point(Infinity, Infinity, Infinity), point(-Infinity, -Infinity, -Infinity)};
        for (const point& p : positions.subspan(begin, std::min(Together, mySize - begin)))
            for (int d = 0; d < 3; ++d) {
                part.low[d] = std::min(part.low[d], p[d]); // a NaN changes nothing
                part.high[d] = std::max(part.high[d], p[d]);
            }
        parts.push_back(part);
    }
    std::vector<std::size_t> numbers;
    std::vector<point> points;
    std::vector<LocalFromWorldPoint::Location> found;
    for (std::size_t n = 0; n < boxes.size(); ++n) {
        const Hestra::Pulse::Part progress(share(n, boxes.size()), share(n + 1, boxes.size()));
        Hestra::Pulse::beat(0.0);
        if (!boxes[n]) continue;
        Bounds box{boxes[n]->least, boxes[n]->greatest};
        for (int d = 0; d < 3; ++d) {
            constexpr double Rim = 1e-6;
            const double rim = Rim * (box.high[d] - box.low[d] + std::abs(box.low[d]) + std::abs(box.high[d]));
            box.low[d] -= rim;
            box.high[d] += rim;
        }
        std::shared_ptr<const LocalFromWorldPoint> locator;
        const auto flush = [&](std::size_t done) {
            if (numbers.empty()) return;
            if (!locator) locator = locatorOf(static_cast<std::uint32_t>(n));
            const Hestra::Pulse::Part chunk(share(done, mySize), share(done, mySize));
            found.resize(points.size());
            locator->prepare(points);
            locator->locate(points, found);
            for (std::size_t k = 0; k < points.size(); ++k) {
                if (!found[k]) continue;
                myPlaces[numbers[k]] = found[k].localCoordinates;
                myFragments[numbers[k]] = static_cast<std::uint32_t>(n);
                ++myFound;
            }
            numbers.clear();
            points.clear();
        };
        for (std::size_t part = 0; part < parts.size(); ++part) {
            bool isApart = false;
            for (int d = 0; d < 3; ++d) isApart |= parts[part].high[d] < box.low[d] || parts[part].low[d] > box.high[d];
            if (isApart) continue;
            const std::size_t end = std::min(mySize, (part + 1) * Together);
            for (std::size_t k = part * Together; k < end; ++k) {
                bool isInside = myFragments[k] == Nowhere;
                for (int d = 0; d < 3; ++d) isInside &= positions[k][d] >= box.low[d] && positions[k][d] <= box.high[d];
                if (!isInside) continue;
                numbers.push_back(k);
                points.push_back(positions[k]);
            }
            if (numbers.size() >= LocatedAtOnce) flush(end);
        }
        flush(mySize);
    }
}

int LocatedPositions::components(const VantleTypeIndex& elementType) noexcept {
    int result = 0;
    withType(Elements(), inDoublePrecision(elementType),
             [&]<class T>(TypeList<T>) { result = std::is_arithmetic_v<T> ? 1 : ElementTraits<T>::components; });
    return result;
}

void LocatedPositions::sample(const Field& field, std::span<const StrongPtr<FragmentID>> fragments, int components,
                              std::span<double> values, std::span<unsigned char> mask,
                              std::span<const DynamicSize> sizes) const {
    VANTLE_SCOPE("LocatedPositions::sample(field, values)");
    if (values.size() != mySize * static_cast<std::size_t>(components) || (!mask.empty() && mask.size() != mySize))
        throw std::invalid_argument("LocatedPositions: a wrong number of values");
    constexpr std::size_t Chunk = std::numeric_limits<std::uint32_t>::max(); // numbered in 32 bits
    for (std::size_t chunk = 0; chunk < mySize; chunk += Chunk) {
        const std::span<const std::uint32_t> fragmentOf =
            this->fragments().subspan(chunk, std::min(Chunk, mySize - chunk));
        Order order(fragmentOf, fragments.size());
        std::vector<StrongPtr<MemBase>> arrays;
        for (std::size_t first = 0, n = 0; n < fragments.size(); first = n) {
            std::size_t made = 0;
            StrongPtr<MemBase> any;
            arrays.clear();
            // Arrays that have to be made take the first half, for all one knows.
            const double start = share(chunk + order.first[first], mySize);
            const auto half = [&](std::size_t to) { return 0.5 * (start + share(chunk + to, mySize)); };
            for (; n < fragments.size() && made < HeldBytes; ++n) {
                arrays.emplace_back();
                if (!order.has(n)) continue;
                const Hestra::Pulse::Part part(half(order.first[n]), half(order.first[n + 1]));
                Hestra::Pulse::beat(0.0);
                const StrongPtr<CreativeArrayBase> creator = field.getCreator(fragments[n]);
                if (!creator) continue;
                const bool isThere = creator->hasData();
                arrays.back() = getDataInDoublePrecision(*creator);
                if (!arrays.back())
                    throw std::invalid_argument("the data of fragment \"" + FragmentID::Name(fragments[n], {}) +
                                                "\" cannot be made");
                if (!sizes.empty() && arrays.back()->getDynamicSize() != sizes[n])
                    throw std::invalid_argument("fragment \"" + FragmentID::Name(fragments[n], {}) + "\" has " +
                                                to_string(sizes[n]) + " vertices, the data are " +
                                                to_string(arrays.back()->getDynamicSize()));
                any = arrays.back();
                if (!isThere) made += arrays.back()->memsize();
            }
            if (!any) continue;
            const bool isAll = first == 0 && n == fragments.size();
            if (!isAll && order.numbers.empty()) order.sort(fragmentOf);
            const std::size_t begin = isAll ? 0 : order.first[first];
            const std::size_t count = isAll ? fragmentOf.size() : order.first[n] - begin;
            const double middle = made == 0 ? start : half(order.first[n]);
            const Hestra::Pulse::Part part(middle, share(chunk + order.first[n], mySize));
            const bool isKnown = withType(Elements(), any->elementIndex(), [&]<class T>(TypeList<T>) {
                if (LocatedPositions::components(typeid(T)) != components)
                    throw std::invalid_argument("a fragment whose elements have not " + std::to_string(components) +
                                                " components");
                const Views<T> views{std::span<const StrongPtr<MemBase>>(arrays)};
                // A position takes about as long as reading some hundred bytes.
                constexpr std::size_t Piece = 8192, BytesEach = 256;
                detail::inParallel(count, Piece, BytesEach * count, [&](std::size_t from, std::size_t to) {
                    for (std::size_t m = from; m < to; ++m) {
                        const std::size_t k = isAll ? m : order.numbers[begin + m];
                        if (fragmentOf[k] == Nowhere) continue;
                        const bool isWritten =
                            views.write(fragmentOf[k] - first, myPlaces[chunk + k],
                                        values.data() + (chunk + k) * static_cast<std::size_t>(components));
                        if (isWritten && !mask.empty()) mask[chunk + k] = 1;
                    }
                });
            });
            if (!isKnown) throw std::invalid_argument("elements that cannot be interpolated");
        }
    }
}

} // namespace Vantle
