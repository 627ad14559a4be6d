#include <baseop/LocatedPositions.hpp>
#include <dataset/detail/DataSetState.hpp>

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
        const auto take = [&]<class T>(T fill) {
            for (int c = 0; c < ElementTraits<T>::components; ++c) elementComponent(fill, c) = outside;
            const auto values = makeMemArray1D(std::vector<T>(size(), fill));
            const std::span<double> numbers(reinterpret_cast<double*>(values->getPtr()),
                                            size() * static_cast<std::size_t>(ElementTraits<T>::components));
            step.sample(*myPositions, field, *of, components, numbers, *mask);
            return Samples(StrongPtr<MemBase>(values), mask);
        };
        switch (components) {
        case 1:
            return take(0.0);
        case 3:
            return take(Vector());
        case 9:
            return take(Orvix::Quadratic<3, double>());
        default:
            throw DataSetError("field " + quoted(field) + " is of elements that cannot be interpolated");
        }
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
