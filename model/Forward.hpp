#pragma once
/// Declares the types of the data model, and names for each the root under which handles count it.
///
/// Operation headers include this file and value types; definitions are included where they are used.

#include <model/Version.hpp>

namespace Hestra {

/// Root class under which `StrongPtr<T>` and `WeakPtr<T>` reach the control record of a `T` when no
/// second argument is given. Set beside the forward declarations, so that the short and the long
/// spelling of a handle are one type everywhere.
template<class T>
struct ReferenceDomain {
    using type = T;
};

template<class T, class Base = typename ReferenceDomain<T>::type>
class DynPtr;
template<class T, class Base = typename ReferenceDomain<T>::type>
class StrongPtr;
template<class T, class Base = typename ReferenceDomain<T>::type>
class WeakPtr;
template<class T>
class Ref;
template<class T>
class RefPtr;

class Ageable;
class Attributes;
class Cache;
class CacheBase;
class Cacheable;
class ChunkBase;
class Creature;
class Intercube;
class InterfaceBase;
template<class T>
class CreatorBase;
template<class T>
class Interface;
template<class T>
class TypedChunkBase;
template<class T>
class TypedChunk;
template<class T>
class Chunk;

} // namespace Hestra

namespace Orvix {

class BoundingBall;
class BoundingBox;
template<int N, class T>
class KDTree;
template<int N, class T>
class KDInterface;

} // namespace Orvix

namespace Vantle {

/// The one 64-bit index type: components of `MultiIndex`, counts, edge identifiers.
using index_t = unsigned long long;

class Atlas;
class BaseSpace;
class Bundle;
class BundlePtr;
class CartesianChart;
class Chart;
class CreativeArray;
class CreativeArrayBase;
class DataRangeBase;
class DynamicSize;
class Field;
class FieldID;
class FieldProxy;
class FieldSelection;
class FieldSelector;
class FragmentID;
class FragmentIDCollection;
class FragmentIDCollectionProvider;
class FragmentIDContainer;
class FragmentIndexIterator;
class FragmentIterator;
class FragmentSelector;
class GlobalCharts;
class Grid;
class GridSelector;
class LineSet;
class MemArrayProperties;
class MemBase;
class RGBAChart;
class Representation;
class RepresentationMap;
class SizeInterface;
class Skeleton;
class SkeletonID;
class SkeletonMap;
class Slice;
class TriangularSurface;
class TriangularSurfaceWithEdges;
class UniformCartesianArray;
class VantleTypeBase;
class VantleTypeIndex;

struct IJ_CellNamingConvention;

template<int N>
class MultiIndex;
template<int Dims, class IndexType, class Convention>
class SimplexCell;
template<class T>
class DataRange;
template<class T>
class DataCreator;
template<class T>
struct Iterator;
template<class T>
struct CreativeIterator;
template<int N>
class MemArrayBase;
template<class T>
class TypedArray;
template<int N, class T>
class MultiArrayBase;
template<int N, class T>
class MemArray;
template<int N, class T>
class ReferencingMemArray;
template<class T>
class LinearCoordinateAxisArray;
template<class T>
class ExplicitCoordinateAxisArray;
template<class T, template<class> class Axis, int N>
class DirectProductMemArrayBase;
template<class T, template<class> class Axis, int N>
class DirectProductMemArray;

} // namespace Vantle

class UniGridMapper;
class TreeCellMapper;

namespace Hestra {

template<>
struct ReferenceDomain<Vantle::MemBase> {
    using type = Cacheable;
};
template<int N>
struct ReferenceDomain<Vantle::MemArrayBase<N>> {
    using type = Cacheable;
};
template<class T>
struct ReferenceDomain<Vantle::TypedArray<T>> {
    using type = Cacheable;
};
template<int N, class T>
struct ReferenceDomain<Vantle::MemArray<N, T>> {
    using type = Cacheable;
};
template<int N, class T>
struct ReferenceDomain<Vantle::ReferencingMemArray<N, T>> {
    using type = Cacheable;
};
template<class T, template<class> class Axis, int N>
struct ReferenceDomain<Vantle::DirectProductMemArrayBase<T, Axis, N>> {
    using type = Cacheable;
};
template<class T, template<class> class Axis, int N>
struct ReferenceDomain<Vantle::DirectProductMemArray<T, Axis, N>> {
    using type = Cacheable;
};
template<>
struct ReferenceDomain<Vantle::UniformCartesianArray> {
    using type = Cacheable;
};

template<>
struct ReferenceDomain<Vantle::CreativeArrayBase> {
    using type = Creature;
};
template<>
struct ReferenceDomain<Vantle::CreativeArray> {
    using type = Creature;
};
template<class T>
struct ReferenceDomain<CreatorBase<T>> {
    using type = Creature;
};

template<>
struct ReferenceDomain<Orvix::BoundingBall> {
    using type = InterfaceBase;
};
template<>
struct ReferenceDomain<Orvix::BoundingBox> {
    using type = InterfaceBase;
};
template<int N, class T>
struct ReferenceDomain<Orvix::KDInterface<N, T>> {
    using type = InterfaceBase;
};
template<>
struct ReferenceDomain<Vantle::DataRangeBase> {
    using type = InterfaceBase;
};
template<class T>
struct ReferenceDomain<Vantle::DataRange<T>> {
    using type = InterfaceBase;
};
template<>
struct ReferenceDomain<Vantle::SizeInterface> {
    using type = InterfaceBase;
};
template<>
struct ReferenceDomain<Vantle::MemArrayProperties> {
    using type = InterfaceBase;
};

template<class T>
struct ReferenceDomain<TypedChunkBase<T>> {
    using type = ChunkBase;
};
template<class T>
struct ReferenceDomain<TypedChunk<T>> {
    using type = ChunkBase;
};
template<class T>
struct ReferenceDomain<Chunk<T>> {
    using type = ChunkBase;
};

} // namespace Hestra
