#include <baseop/Interpolate.hpp>
#include <baseop/UniformInterpolation.hpp>
#include <baseop/detail/ParallelLoop.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <limits>

namespace Vantle {

using Orvix::PhysicalSpace;

namespace {

/// World coordinates to index units, axis by axis.
class UniformIndex {
public:
    UniformIndex(const UniformCartesianArray& grid, const Orvix::FixedArray<double, 3>& offset) {
        for (int d = 0; d < 3; ++d) {
            const auto& axis = grid.axis(d);
            myOrigin[d] = axis.origin() + offset[d];
            // A divisor that makes every finite distance 0 stands for an axis that has no index.
            mySpacing[d] = axis.spacing() != 0.0 ? axis.spacing() : Infinity;
        }
    }

    /// Dividing, not multiplying by a reciprocal, is part of the rules.
    [[nodiscard]] Orvix::FixedArray<double, 3> operator()(const PhysicalSpace::point& p) const noexcept {
        Orvix::FixedArray<double, 3> index;
        for (int d = 0; d < 3; ++d) {
            const double t = (p[d] - myOrigin[d]) / mySpacing[d];
            index[d] = t == t ? t : 0.0;
        }
        return index;
    }

private:
    static constexpr double Infinity = std::numeric_limits<double>::infinity();
    PhysicalSpace::point myOrigin;
    PhysicalSpace::vector mySpacing;
};

/// Coordinates that a thread takes at a time.
constexpr std::size_t Piece = 1024;

/// What one coordinate costs, in bytes that are read in that time: 13 ns were measured with data in the cache.
constexpr std::size_t BytesPerCoordinate = 256;

template<class Kernel, class T>
void interpolateAll(Hestra::TypedChunk<T>& output, const std::vector<PhysicalSpace::point>& coordinates,
                    const UniformCartesianArray& grid, const MultiArrayBase<3, T>& data,
                    const Orvix::FixedArray<double, 3>& offset, const CoordinateFilter& filter) {
    if (output.elements() != coordinates.size()) output.resize(coordinates.size());
    if (data.nElements() == 0) return;
    const UniformIndex indexOf(grid, offset);
    T* const values = output.base_vector().data();
    const auto valueAt = [&](const PhysicalSpace::point& p) {
        const Orvix::FixedArray<double, 3> index = indexOf(p);
        return Kernel(data, index).evaluate();
    };
    if (filter) {
        // In order, and by the caller's thread: a filter may be anything.
        for (std::size_t k = 0; k < coordinates.size(); ++k)
            if (filter(k, coordinates[k])) values[k] = valueAt(coordinates[k]);
    } else {
        detail::inParallel(coordinates.size(), Piece, coordinates.size() * BytesPerCoordinate,
                           [&](std::size_t begin, std::size_t end) {
                               for (std::size_t k = begin; k < end; ++k) values[k] = valueAt(coordinates[k]);
                           });
    }
}

} // namespace

template<class T>
void TInterpolateUniformData(Hestra::TypedChunk<T>& output, const std::vector<PhysicalSpace::point>& coordinates,
                             const UniformCartesianArray& grid, const MultiArray<3, T>& data,
                             const Orvix::FixedArray<double, 3>& offset, const CoordinateFilter& filter) {
    interpolateAll<Interpolate<3, T>, T>(output, coordinates, grid, data, offset, filter);
}

void TInterpolateUniformDataRGB(Hestra::TypedChunk<Orvix::ByteRGB>& output,
                                const std::vector<PhysicalSpace::point>& coordinates, const UniformCartesianArray& grid,
                                const MultiArray<3, Orvix::ByteRGB>& data, const Orvix::FixedArray<double, 3>& offset,
                                const CoordinateFilter& filter) {
    using Kernel = Interpolate<3, Orvix::ByteRGB, LinearIpol<Orvix::ByteRGB, false>, double, RGBOperator>;
    interpolateAll<Kernel, Orvix::ByteRGB>(output, coordinates, grid, data, offset, filter);
}

template<class T>
int CheckType::exec<T>::Break(CheckType& request) {
    const auto* const data = dynamic_cast<const MemArray<3, T>*>(request.data);
    if (!data) return 1;
    auto output = Hestra::dynamicCast<Hestra::TypedChunk<T>>(request.output);
    if (!output) {
        output = Hestra::makeRef<Hestra::TypedChunk<T>>(request.coordinates.size());
        request.output = output;
    }
    TInterpolateUniformData<T>(*output, request.coordinates, request.grid, *data, request.offset, request.filter);
    return 0;
}

bool InterpolateUniformData(Hestra::StrongPtr<Hestra::ChunkBase>& output,
                            const std::vector<PhysicalSpace::point>& coordinates, const UniformCartesianArray& grid,
                            const Hestra::StrongPtr<MemBase>& data, const Orvix::FixedArray<double, 3>& offset,
                            const CoordinateFilter& filter) {
    return data && InterpolateUniformData(output, coordinates, grid, *data, offset, filter);
}

bool InterpolateUniformData(Hestra::StrongPtr<Hestra::ChunkBase>& output,
                            const std::vector<PhysicalSpace::point>& coordinates, const UniformCartesianArray& grid,
                            const MemBase& data, const Orvix::FixedArray<double, 3>& offset,
                            const CoordinateFilter& filter) {
    CheckType request(output, coordinates, grid, &data, offset, filter);
    if (dynamic_cast<const MemArray<3, FloatVector>*>(&data)) {
        const Hestra::StrongPtr<MemBase> wide = convertToDoublePrecision(data);
        request.data = wide.rawptr();
        return CheckType::exec<PhysicalSpace::vector>::Break(request) == 0;
    }
#define VANTLE_TRY(...) || CheckType::exec<__VA_ARGS__>::Break(request) == 0
    return false VANTLE_UNIFORM_INTERPOLATION_TYPES(VANTLE_TRY);
#undef VANTLE_TRY
}

#define VANTLE_INSTANTIATE(...)                                                                                        \
    template VANTLE_BASEOP_API void TInterpolateUniformData(                                                           \
        Hestra::TypedChunk<__VA_ARGS__>&, const std::vector<PhysicalSpace::point>&, const UniformCartesianArray&,      \
        const MultiArray<3, __VA_ARGS__>&, const Orvix::FixedArray<double, 3>&, const CoordinateFilter&);              \
    template struct CheckType::exec<__VA_ARGS__>;
VANTLE_UNIFORM_INTERPOLATION_TYPES(VANTLE_INSTANTIATE)
#undef VANTLE_INSTANTIATE

} // namespace Vantle
