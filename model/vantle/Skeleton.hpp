#pragma once
/// Skeletons: the sets of vertices, edges, triangles, cells and fragments of a grid.

#include <model/vantle/Representation.hpp>

#include <compare>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Vantle {

/// Key of a skeleton: its dimension, and its index depth: vertices 0, edges, triangles and cells 1, fragments of the
/// vertices 2.
class VANTLE_MODEL_API SkeletonID {
public:
    SkeletonID(int dimension, int indexDepth) noexcept : myDimension(dimension), myIndexDepth(indexDepth) {}
    [[nodiscard]] int dimension() const noexcept { return myDimension; }
    [[nodiscard]] int indexDepth() const noexcept { return myIndexDepth; }
    auto operator<=>(const SkeletonID&) const = default;

private:
    int myDimension;
    int myIndexDepth;
};

/// One topological skeleton. Its representations are made when they are asked for by `operator[]`; the call operators
/// of `RepresentationMap` serve for look-ups.
///
/// Concurrency  look-ups from any number of threads; making a representation from one thread while nobody looks.
class VANTLE_MODEL_API Skeleton : public BaseSpace,
                                  public RepresentationMap,
                                  public Ownable<BaseSpaceDependency>::Container {
public:
    using Owner = Ownable<BaseSpace>::Container;

    Skeleton(const SkeletonID& id, const Hestra::WeakPtr<Owner>& owner);
    ~Skeleton() override;

    [[nodiscard]] const SkeletonID& id() const noexcept { return myID; }
    /// Dimension of the skeleton's elements in their index space.
    [[nodiscard]] virtual int Dims() const { return myID.dimension(); }

    /// The representation relative to `base`, made when missing; null when `base` is null.
    Hestra::StrongPtr<Representation> operator[](const Hestra::WeakPtr<BaseSpace>& base);
    Hestra::StrongPtr<Representation> operator[](const BaseSpace& base) { return (*this)(base); }

    /// The field of this name: in the representation relative to `base` if that is valid, else in those of the
    /// atlas' charts, else in any other, in order of making. Charts whose names are in `excludedCharts` are left out.
    [[nodiscard]] Hestra::StrongPtr<Field> getField(const Hestra::WeakPtr<BaseSpace>& base, const std::string& name,
                                                    const Atlas& atlas,
                                                    const std::set<std::string>& excludedCharts = {}) const;

    Hestra::ReferenceRecord& referenceRecord() const override { return Referable::referenceRecord(); }
    bool iterateOwned(const std::function<bool(BaseSpaceDependency&)>& function) const override;
    [[nodiscard]] const Hestra::Referable* ownerObject() const override;

protected:
    [[nodiscard]] Hestra::WeakPtr<Representation::Owner> representationOwner() override;

private:
    SkeletonID myID;
    Hestra::WeakPtr<Owner> myOwner;
};

/// The names of the fields of a skeleton in a chart that the selector accepts, sorted, without those in `excluded`.
/// Empty when there is no such representation.
[[nodiscard]] VANTLE_MODEL_API std::vector<std::string>
getSkeletonFields(const Hestra::StrongPtr<Skeleton>& skeleton, const Hestra::StrongPtr<Chart>& chart,
                  const FieldSelector& selector = FieldSelector(), const std::set<std::string>& excluded = {});

/// Called once a skeleton; false ends the iteration.
class VANTLE_MODEL_API ConstSkeletonIterator {
public:
    virtual ~ConstSkeletonIterator();
    virtual bool apply(const SkeletonID& id, const Skeleton& skeleton) = 0;
};

/// The skeletons of one grid.
///
/// Concurrency  look-ups from any number of threads; making a skeleton from one thread while nobody looks.
class VANTLE_MODEL_API SkeletonMap {
public:
    virtual ~SkeletonMap();

    /// The vertex skeleton (depth 0) of this dimension; for `~0` that of the highest dimension. Null if none.
    [[nodiscard]] Hestra::StrongPtr<Skeleton> findVertices(int dims = ~0) const;
    [[nodiscard]] static Hestra::StrongPtr<Skeleton> findVertices(const SkeletonMap& skeletons, int dims) {
        return skeletons.findVertices(dims);
    }
    /// The vertex skeleton of this dimension, made when missing.
    Hestra::StrongPtr<Skeleton> makeVertices(int dims) { return (*this)[SkeletonID(dims, 0)]; }
    /// A description of the vertex skeleton for messages; empty if there is none.
    [[nodiscard]] std::string getVerticesInfo(int dims) const;
    [[nodiscard]] Hestra::StrongPtr<Skeleton> getSkeleton(const SkeletonID& id) const;
    /// The skeleton of this key, made when missing.
    Hestra::StrongPtr<Skeleton> operator[](const SkeletonID& id);
    /// Calls the iterator for every skeleton, ascending by key; false if it ended the iteration.
    bool iterate(ConstSkeletonIterator& iterator) const;

    /// Smallest and largest refinement level of the charts in which the vertices of this dimension are represented;
    /// 0 when there is none.
    [[nodiscard]] int MinLevel(int dims) const;
    [[nodiscard]] int MaxLevel(int dims) const;
    /// How much finer level `to` is than level `from` along each axis: 1 when equal, else 2^(to - from).
    [[nodiscard]] double findIsotropicRefinementFactor(int from, int to) const;

protected:
    SkeletonMap() = default;
    [[nodiscard]] virtual Hestra::WeakPtr<Skeleton::Owner> skeletonOwner() = 0;
    [[nodiscard]] const std::map<SkeletonID, Hestra::StrongPtr<Skeleton>>& skeletons() const noexcept {
        return mySkeletons;
    }

private:
    std::map<SkeletonID, Hestra::StrongPtr<Skeleton>> mySkeletons;
};

} // namespace Vantle
