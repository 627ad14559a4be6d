#pragma once
/// Data on a uniform grid, interpolated at a list of world coordinates.

#include <baseop/BaseOpExport.hpp>
#include <model/orvix/DomainVector.hpp>
#include <model/vantle/DirectProduct.hpp>
#include <model/vantle/MemArray.hpp>

#include <functional>
#include <vector>

namespace Vantle {

/// Says which coordinates are wanted, from their number and the point. An empty one wants all.
using CoordinateFilter = std::function<bool(std::size_t, const Orvix::PhysicalSpace::point&)>;

/// Writes the value of `data` at every coordinate to the element of `output` with the same number.
///
/// The index on each axis is (p - (origin + offset)) / spacing of `grid`; extents are those of `data`. Values between
/// nodes are those of `Interpolate`, on a node exactly the node's. `output` is given one element a coordinate; those
/// of coordinates that the filter leaves out keep their value, or are value-initialised when new.
/// Degenerate   a coordinate outside takes the value of the nearest border node. The index is 0 on an axis of `grid`
///              without spacing, and for NaN. Data without elements write nothing.
/// Concurrency  one call an output. Without a filter it uses the OpenMP team of the caller's settings; a filter is
/// asked
///              by the calling thread, in order.
/// Cost         three divisions and one kernel a coordinate; nothing is allocated but `output`.
template<class T>
void TInterpolateUniformData(Hestra::TypedChunk<T>& output, const std::vector<Orvix::PhysicalSpace::point>& coordinates,
                             const UniformCartesianArray& grid, const MultiArray<3, T>& data,
                             const Orvix::FixedArray<double, 3>& offset = {}, const CoordinateFilter& filter = {});

/// The same for byte colours, interpolated in doubles and truncated to bytes as by `RGBOperator`.
VANTLE_BASEOP_API void TInterpolateUniformDataRGB(Hestra::TypedChunk<Orvix::ByteRGB>& output,
                                                  const std::vector<Orvix::PhysicalSpace::point>& coordinates,
                                                  const UniformCartesianArray& grid,
                                                  const MultiArray<3, Orvix::ByteRGB>& data,
                                                  const Orvix::FixedArray<double, 3>& offset = {},
                                                  const CoordinateFilter& filter = {});

/// One request, tried with one element type after the other.
struct VANTLE_BASEOP_API CheckType {
    using Coordinates = std::vector<Orvix::PhysicalSpace::point>;

    /// Refers to its arguments, which outlive it.
    CheckType(Hestra::StrongPtr<Hestra::ChunkBase>& out, const Coordinates& at, const UniformCartesianArray& of,
              const MemBase* values, const Orvix::FixedArray<double, 3>& by, const CoordinateFilter& wanted)
        : output(out), coordinates(at), grid(of), data(values), offset(by), filter(wanted) {}
    CheckType(Hestra::StrongPtr<Hestra::ChunkBase>& out, const Coordinates& at, const UniformCartesianArray& of,
              const Hestra::StrongPtr<MemBase>& values, const Orvix::FixedArray<double, 3>& by,
              const CoordinateFilter& wanted)
        : CheckType(out, at, of, values.rawptr(), by, wanted) {}

    Hestra::StrongPtr<Hestra::ChunkBase>& output;
    const Coordinates& coordinates;
    const UniformCartesianArray& grid;
    const MemBase* data; ///< may be null
    Orvix::FixedArray<double, 3> offset;
    const CoordinateFilter& filter;

    /// The attempt with element type `T`.
    template<class T>
    struct exec {
        /// 0 when the data are of type `T`: interpolated into the output, which is made when it is absent or a chunk
        /// of another type. 1, and nothing done, when they are not.
        static int Break(CheckType& request);
    };
};

/// Interpolates data of element type `float`, `double`, `long double`, vector or byte colour; see
/// `TInterpolateUniformData`. Vectors in single precision are converted, all of them with each call, and give vectors
/// in double precision.
///
/// @param output  a chunk of the data's element type is used again; otherwise a new one takes its place.
/// @return whether the data are a rank-3 array of one of these types; if not, `output` is untouched.
VANTLE_BASEOP_API bool InterpolateUniformData(Hestra::StrongPtr<Hestra::ChunkBase>& output,
                                              const std::vector<Orvix::PhysicalSpace::point>& coordinates,
                                              const UniformCartesianArray& grid, const Hestra::StrongPtr<MemBase>& data,
                                              const Orvix::FixedArray<double, 3>& offset = {},
                                              const CoordinateFilter& filter = {});
VANTLE_BASEOP_API bool InterpolateUniformData(Hestra::StrongPtr<Hestra::ChunkBase>& output,
                                              const std::vector<Orvix::PhysicalSpace::point>& coordinates,
                                              const UniformCartesianArray& grid, const MemBase& data,
                                              const Orvix::FixedArray<double, 3>& offset = {},
                                              const CoordinateFilter& filter = {});

/// The element types of `InterpolateUniformData`.
#define VANTLE_UNIFORM_INTERPOLATION_TYPES(X)                                                                          \
    X(float)                                                                                                           \
    X(double)                                                                                                          \
    X(long double)                                                                                                     \
    X(Orvix::PhysicalSpace::vector)                                                                                    \
    X(Orvix::ByteRGB)
#define VANTLE_DECLARE_UNIFORM_INTERPOLATION(...)                                                                      \
    extern template VANTLE_BASEOP_API void TInterpolateUniformData(                                                    \
        Hestra::TypedChunk<__VA_ARGS__>&, const std::vector<Orvix::PhysicalSpace::point>&,                             \
        const UniformCartesianArray&, const MultiArray<3, __VA_ARGS__>&, const Orvix::FixedArray<double, 3>&,          \
        const CoordinateFilter&);                                                                                      \
    extern template struct VANTLE_BASEOP_API CheckType::exec<__VA_ARGS__>;
VANTLE_UNIFORM_INTERPOLATION_TYPES(VANTLE_DECLARE_UNIFORM_INTERPOLATION)
#undef VANTLE_DECLARE_UNIFORM_INTERPOLATION

} // namespace Vantle
