#pragma once
/// The storage of the search structures of curvilinear fragments: fields beside the coordinates, one entry a fragment,
/// so that a structure outlives the locator that built it and serves every later one.
///
/// For a coordinate field `F` of a grid, the slice holds a helper grid `F.UniMappers`. The helper's cell skeleton is
/// the base space of a representation ("FragmentsAsUniCell") of the grid's own fragment skeleton. The positions of that
/// representation are the unigrid mappers; fields beside them hold the structures of other kinds. The fragment skeleton
/// belongs to the grid and the helper is named after the field, so no two grids or fields ever share a structure.

#include <baseop/BaseOpExport.hpp>
#include <baseop/detail/Given.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/orvix/KDTree.hpp>
#include <model/vantle/Bundle.hpp>
#include <model/vantle/MemArray.hpp>

#include <exception>
#include <string>

namespace Vantle {

class ExactCellLocator;
/// The form in which the tree of the fragments' boxes is attached to a coordinate field.
using FragmentTreeInterface = Orvix::KDInterface<3, int>;

/// Finds or creates the storage for one coordinate field of one grid.
///
/// Age          what is stored knows the coordinates that it was made from, and how old they were. Locators let go of
///              what is older than they are (`discardOutdated`) before they look for something.
/// Slice and grid may be objects or handles.
///
/// Concurrency  any number of threads may make storages for the grids of a slice, as long as nobody changes them
///              otherwise; a finished one may be read by any number. What is stored in the fields is guarded by whoever
///              stores it (`LocalFromWorldPoint`: the unnamed critical section).
class VANTLE_BASEOP_API PointSearch {
public:
    /// Base of what is thrown here.
    class VANTLE_BASEOP_API exception : public std::exception {
    public:
        ~exception() override;
        [[nodiscard]] const char* what() const noexcept override { return "PointSearch Exception"; }
    };
    /// The grid has no vertices.
    class VANTLE_BASEOP_API NoVertices : public exception {
    public:
        ~NoVertices() override;
        [[nodiscard]] const char* what() const noexcept override { return "PointSearch: No Vertices in Grid object"; }
    };

    /// Appended to the name of the coordinate field: the fields of the unigrid mappers, of the tree mappers and of the
    /// exact locators. The first names the helper grid, too.
    static constexpr const char* UniMappersSuffix = ".UniMappers";
    static constexpr const char* TreeMappersSuffix = ".TreeMappers";
    static constexpr const char* ExactLocatorsSuffix = ".ExactLocators";

    /// Finds the storage or makes it, silently. Without slice or grid there is none.
    ///
    /// Failure  throws `NoVertices` for a grid without vertices.
    PointSearch(const detail::Given<Slice>& slice, const detail::Given<Grid>& grid,
                const std::string& coordinateField = PositionsName);

    [[nodiscard]] const Hestra::StrongPtr<Slice>& slice() const noexcept { return mySlice; }
    [[nodiscard]] const Hestra::StrongPtr<Grid>& grid() const noexcept { return myGrid; }
    [[nodiscard]] const std::string& coordinateFieldName() const noexcept { return myName; }
    /// The fields of this storage, over the fragments of the coordinate field: `StoredMapper<Mapper>` arrays of one
    /// entry each. Null without slice or grid.
    template<class Mapper>
    [[nodiscard]] const Hestra::StrongPtr<Field>& mapperField() const noexcept;
    [[nodiscard]] const Hestra::StrongPtr<Field>& helperField() const noexcept { return myUniMappers; }

    /// Lets go of what was made from older coordinates, or from another field in their place: structures of all kinds,
    /// and the fragment tree at the coordinate field. What a caller has put there stays. False if there is nothing.
    ///
    /// Concurrency  inside the unnamed critical section, where queries store structures.
    bool discardOutdated() const;
    /// What is stored for a fragment in one of the fields, if it was made from coordinates as `origin` knows them, or
    /// by a caller; else null. Called in the critical section, as `store`.
    [[nodiscard]] static Hestra::StrongPtr<MemBase>
    find(const Field& storage, const Hestra::StrongPtr<FragmentID>& fragment, const Hestra::Freshness& origin);
    /// Stores for a fragment what was made from coordinates as `origin` knows them, unless these are not the present
    /// ones: then it is of use for nobody else.
    static void store(Field& storage, const Hestra::StrongPtr<FragmentID>& fragment,
                      const Hestra::StrongPtr<MemBase>& what, const Hestra::Freshness& origin);
    /// Notes which coordinates a fragment tree that was attached to their field was made from.
    static void noteTree(const Field& coordinates, const Hestra::StrongPtr<FragmentTreeInterface>& tree,
                         const Hestra::Freshness& origin);

    /// The field of the unigrid mappers of coordinate field `name`, or null. Looks only, and says on standard output
    /// that it was entered and which link is missing.
    [[nodiscard]] static Hestra::StrongPtr<Field>
    getHelperField(const detail::Given<Slice>& slice, const detail::Given<Grid>& grid, const std::string& name);
    /// Whether a field has an entry for this fragment; false for the null field.
    [[nodiscard]] static bool hasLookupFragment(const Hestra::StrongPtr<Field>& field,
                                                const Hestra::StrongPtr<FragmentID>& fragment);
    /// The key of the grid's cells. Throws `NoVertices` when there is no grid, or no vertices in it.
    [[nodiscard]] static SkeletonID CellID(const detail::Given<Grid>& grid);

private:
    Hestra::StrongPtr<Slice> mySlice;
    Hestra::StrongPtr<Grid> myGrid;
    std::string myName;
    Hestra::StrongPtr<Field> myUniMappers, myTreeMappers, myExactLocators;
};

template<>
inline const Hestra::StrongPtr<Field>& PointSearch::mapperField<UniGridMapper>() const noexcept {
    return myUniMappers;
}
template<>
inline const Hestra::StrongPtr<Field>& PointSearch::mapperField<TreeCellMapper>() const noexcept {
    return myTreeMappers;
}
template<>
inline const Hestra::StrongPtr<Field>& PointSearch::mapperField<ExactCellLocator>() const noexcept {
    return myExactLocators;
}

/// The array that the storage has for one fragment: a single handle.
template<class Mapper>
using StoredMapper = MemArray<1, Hestra::StrongPtr<Mapper>>;

} // namespace Vantle
