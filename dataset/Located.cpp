#include <baseop/LocatedPositions.hpp>
#include <dataset/detail/DataSetState.hpp>
#include <dataset/detail/NumberArray.hpp>

namespace Vantle {

using detail::quoted;
using Hestra::StrongPtr;

static_assert(Located::Nowhere == LocatedPositions::Nowhere);

Samples::Samples(const StrongPtr<MemBase>& values, std::shared_ptr<const std::vector<unsigned char>> mask)
    : Values(values), myMask(std::move(mask)) {}

std::span<const unsigned char> Samples::mask() const noexcept {
    return myMask ? std::span<const unsigned char>(*myMask) : std::span<const unsigned char>();
}

Located::Located(std::shared_ptr<const LocatedPositions> positions, const DataSet& of)
    : myPositions(std::move(positions)), myDataSet(std::make_shared<const DataSet>(of)),
      myOrigin(detail::originOf(*of.step().positions(), of.step().masks())) {}

std::size_t Located::size() const noexcept { return myPositions->size(); }
std::size_t Located::found() const noexcept { return myPositions->found(); }
std::span<const std::uint32_t> Located::blocks() const noexcept { return myPositions->fragments(); }
std::span<const Point> Located::places() const noexcept { return myPositions->places(); }

Samples Located::sample(const std::string& field, double outside, const Progress& progress) const {
    return detail::request("sampling of field " + quoted(field), progress, [&] {
        const DataSet::Step& step = myDataSet->step();
        if (!myOrigin.isCurrent()) throw DataSetError("blocks have changed since the positions were located");
        const StrongPtr<Field> of = step.field(field);
        const int components = step.knownComponents(field, *of);
        auto mask = std::make_shared<std::vector<unsigned char>>(size());
        const detail::NumberArray values(field, components, MultiIndex<1>(size()), outside);
        step.sample(*myPositions, field, *of, components, values.numbers, *mask);
        return Samples(values.array, mask);
    });
}

Located Located::atTime(double time) const {
    const DataSet other = myDataSet->atTime(time);
    const DataSet::Step &from = myDataSet->step(), &to = other.step();
    if (from.positions() != to.positions() || !(from.masks() == to.masks()))
        throw DataSetError("at time " + std::to_string(time) +
                           " the blocks have other positions or masks: locate there again");
    return Located(myPositions, other);
}

} // namespace Vantle
