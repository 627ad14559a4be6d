#pragma once
/// Grids: named sets of skeletons with the charts they are represented in.

#include <model/vantle/Skeleton.hpp>

namespace Vantle {

/// What holds grids.
using GridContainer = Ownable<Grid>::Container;

/// One grid: its skeletons and its charts. A new grid belongs to nothing until a slice takes it.
///
/// Concurrency  look-ups from any number of threads; making charts and skeletons from one thread while nobody looks.
///              Fields may be set and looked up at once, see `Representation`.
class VANTLE_MODEL_API Grid : public BaseSpace, public SkeletonMap, public Ownable<BaseSpace>::Container {
public:
    /// A grid of its own, with charts of its own.
    Grid();
    Grid(const Hestra::WeakPtr<GridContainer>& container, const Hestra::StrongPtr<GlobalCharts>& charts);
    ~Grid() override;

    /// Name under which a slice took the grid; empty before.
    [[nodiscard]] const std::string& name() const noexcept { return myName; }
    /// The kind of grid as named by whoever made it.
    [[nodiscard]] const std::string& type() const noexcept { return myType; }

    /// The chart of this type and name, made (and made part of this grid's atlas) when missing; null for a type that
    /// is not a known chart type. `level` is a refinement level, stored with a new chart.
    Hestra::StrongPtr<Chart> makeChart(const std::type_info& type, const std::string& name = {},
                                       unsigned short level = 0);
    /// The chart of this type and name in this grid's atlas, or null.
    [[nodiscard]] Hestra::StrongPtr<Chart> findChart(const std::type_info& type, const std::string& name = {}) const;
    [[nodiscard]] Hestra::StrongPtr<CartesianChart> findCartesianChart(const std::string& name = {}) const;
    [[nodiscard]] const Atlas& atlas() const noexcept { return myAtlas; }
    [[nodiscard]] const Hestra::StrongPtr<GlobalCharts>& globalCharts() const noexcept { return myGlobalCharts; }

    /// The vertices of this dimension in the Cartesian chart of this name; skeleton and chart are made when missing.
    Hestra::StrongPtr<Representation> makeCartesianRepresentation(int dims, const std::string& chart = {},
                                                                  unsigned short level = 0);
    /// The vertices (of the highest dimension) in the Cartesian chart of this name, or null.
    [[nodiscard]] Hestra::StrongPtr<Representation> getCartesianRepresentation(const std::string& chart = {}) const;
    /// The given skeleton in the Cartesian chart of this name, or null.
    [[nodiscard]] Hestra::StrongPtr<Representation> getCartesianRepresentation(const Skeleton& skeleton,
                                                                               const std::string& chart = {}) const;
    [[nodiscard]] Hestra::StrongPtr<Representation>
    getCartesianRepresentation(const Hestra::StrongPtr<Skeleton>& skeleton, const std::string& chart = {}) const {
        return skeleton ? getCartesianRepresentation(*skeleton, chart) : nullptr;
    }
    /// The "Positions" of the vertices in the default Cartesian chart, or null.
    [[nodiscard]] Hestra::StrongPtr<Field> CartesianPositions() const;
    /// A field of the vertices in the Cartesian chart of this name, or null.
    [[nodiscard]] Hestra::StrongPtr<Field> operator()(const std::string& field, const std::string& chart = {}) const;

    /// A description for messages.
    [[nodiscard]] std::string xml() const;

    Hestra::ReferenceRecord& referenceRecord() const override { return Referable::referenceRecord(); }
    bool iterateOwned(const std::function<bool(BaseSpace&)>& function) const override;
    [[nodiscard]] const Hestra::Referable* ownerObject() const override;

protected:
    [[nodiscard]] Hestra::WeakPtr<Skeleton::Owner> skeletonOwner() override;

private:
    friend class Slice;
    Hestra::WeakPtr<GridContainer> myContainer;
    Hestra::StrongPtr<GlobalCharts> myGlobalCharts;
    Atlas myAtlas;
    std::string myName;
    std::string myType;
};

} // namespace Vantle
