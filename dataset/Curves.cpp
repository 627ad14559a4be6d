#include <baseop/TangentialVectors.hpp>
#include <dataset/Curves.hpp>
#include <dataset/detail/PointValues.hpp>

#include <algorithm>
#include <stdexcept>

namespace Vantle {

using detail::quoted;
using Hestra::StrongPtr;
using Along = TangentialVectorsAndCurveParameter;

struct Curves::Data : detail::PointValues {
    using PointValues::PointValues;
    // One of the two.
    StrongPtr<Along::Curves> curves;
    StrongPtr<Along::ShortCurves> shortCurves;

    /// What `f` makes of the array of curves.
    template<class F>
    auto visit(const F& f) const {
        return shortCurves ? f(*shortCurves) : f(*curves);
    }
};

namespace {

StrongPtr<Grid> gridOf(const StrongPtr<MemBase>& points, const StrongPtr<MemBase>& curves) {
    const auto list = Hestra::dynamicCast<LineSet::Points>(points);
    const StrongPtr<Grid> grid = Hestra::makeRef<Grid>();
    if (const auto wide = Hestra::dynamicCast<Along::Curves>(curves); wide && list)
        (void)LineSet(grid, list, wide);
    else if (const auto narrow = Hestra::dynamicCast<Along::ShortCurves>(curves); narrow && list)
        (void)LineSet(grid, list, narrow);
    return grid;
}

std::vector<Curves::Numbers> through(index_t points, std::span<const index_t> starts) {
    std::vector<Curves::Numbers> curves(starts.size());
    for (std::size_t n = 0; n < starts.size(); ++n) {
        const index_t end = n + 1 < starts.size() ? starts[n + 1] : points;
        if (starts[n] > end || end > points)
            throw DataSetError("curve " + std::to_string(n) + " begins with point " + std::to_string(starts[n]) +
                               " and ends before point " + std::to_string(end) + "; there are " +
                               std::to_string(points));
        for (index_t point = starts[n]; point < end; ++point) curves[n].push_back(point);
    }
    return curves;
}

constexpr index_t FromTheFirst[] = {0};

} // namespace

Curves::Curves() : Curves(std::vector<Point>(), std::vector<Numbers>()) {}
Curves::Curves(std::vector<Point> points) : Curves(consecutive(std::move(points), FromTheFirst)) {}
Curves::Curves(std::vector<Point> points, std::vector<Numbers> curves)
    : Curves(StrongPtr<MemBase>(makeMemArray1D(std::move(points))),
             StrongPtr<MemBase>(makeMemArray1D(std::move(curves)))) {}
Curves Curves::consecutive(std::vector<Point> points, std::span<const index_t> starts) {
    return consecutive(StrongPtr<MemBase>(makeMemArray1D(std::move(points))), starts);
}
Curves Curves::consecutive(const StrongPtr<MemBase>& points, std::span<const index_t> starts) {
    std::vector<Numbers> curves = through(points ? points->nElements() : 0, starts);
    return {points, StrongPtr<MemBase>(makeMemArray1D(std::move(curves)))};
}
Curves::Curves(const StrongPtr<MemBase>& points, const StrongPtr<MemBase>& curves) : Curves(gridOf(points, curves)) {}

Curves::Curves(const StrongPtr<Grid>& grid) {
    const StrongPtr<Representation> fields = grid ? grid->getCartesianRepresentation() : nullptr;
    auto data = std::make_shared<Data>(grid, fields);
    const StrongPtr<Field> curves = grid ? LineSet(grid).curves() : nullptr;
    data->curves = detail::listOf<Numbers>(curves);
    data->shortCurves = detail::listOf<std::vector<unsigned int>>(curves);
    if (!data->list || (!data->curves && !data->shortCurves))
        throw DataSetError("no curves: there is no list of points, or none of the numbers of these");
    const index_t count = data->list->nElements();
    data->visit([&](const auto& all) {
        for (index_t n = 0; n < all.nElements(); ++n)
            for (const auto point : all.element(n))
                if (point >= count)
                    throw DataSetError("curve " + std::to_string(n) + " passes through point " + std::to_string(point) +
                                       "; there are " + std::to_string(count));
    });
    myData = std::move(data);
}

std::span<const Point> Curves::points() const noexcept { return myData->points(); }
std::size_t Curves::size() const noexcept {
    return myData->visit([](const auto& all) { return static_cast<std::size_t>(all.nElements()); });
}
Curves::Numbers Curves::operator[](std::size_t curve) const {
    if (curve >= size()) throw std::out_of_range("no curve " + std::to_string(curve));
    return myData->visit(
        [&](const auto& all) { return Numbers(all.element(curve).begin(), all.element(curve).end()); });
}

Curves Curves::with(const std::string& name, const Values& values) const {
    if (!values.array() || values.size() != points().size() || name.empty() || name == PositionsName)
        throw DataSetError("values " + quoted(name) + ": " + std::to_string(values.size()) + " for " +
                           std::to_string(points().size()) + " points");
    const StrongPtr<MemBase> curves =
        myData->shortCurves ? StrongPtr<MemBase>(myData->shortCurves) : StrongPtr<MemBase>(myData->curves);
    const StrongPtr<Grid> grid = gridOf(myData->list, curves);
    const StrongPtr<Representation> fields = grid->getCartesianRepresentation();
    const auto set = [&](const std::string& as, const Values& some) {
        fields->setField(as, Hestra::makeRef<Field>(some.array(), StrongPtr<FragmentIDCollection>()));
    };
    for (const auto& [other, some] : myData->values) set(other, some);
    set(name, values);
    return Curves(grid);
}

std::vector<std::string> Curves::names() const { return myData->names(); }
const Values& Curves::values(const std::string& name) const { return myData->at(name); }

Values Curves::arcLengths() const {
    return Values(myData->visit([&](const auto& all) { return ComputeArcLengths(*myData->list, all); }).parameters);
}
Values Curves::tangents() const {
    return Values(myData->visit([&](const auto& all) { return ComputeTangentialVectors(*myData->list, all); }));
}
double Curves::greatestLength() const {
    return myData->visit([&](const auto& all) { return ComputeArcLengths(*myData->list, all); }).maximalLength;
}

void Curves::write(const std::filesystem::path& file, const VtkOptions& options) const {
    const Hestra::ScopedListener heard(detail::messages());
    writeVtk(file, *myData->grid, names(), options);
}
const StrongPtr<Grid>& Curves::grid() const noexcept { return myData->grid; }

} // namespace Vantle
