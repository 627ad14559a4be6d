#pragma once
/// Evaluation of a field of one grid at the positions of another: first where they are, then what is there.
///
/// `find` locates positions in the fragments of a positions field, and tells for each whether it was found. The `eval`
/// operations then interpolate any field over the same fragments at these places, as often as wanted.

#include <baseop/BaseOpExport.hpp>
#include <baseop/LocalFromWorldPoint.hpp>
#include <model/vantle/Bundle.hpp>
#include <model/vantle/MemArray.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Vantle {

class FragmentSearchBase;
template<class Point>
class FragmentSearch;

/// How an evaluation searches.
struct VANTLE_BASEOP_API EvaluationOptions : LocatorOptions {
    /// Names the evaluation; for the caller's use.
    std::string label;
};

/// Locates positions, and interpolates fields there.
///
/// Which fragment has a position: the first in the order of the positions field that claims it.
/// - A uniform fragment claims every position, also outside of it: values continue those of its border.
/// - A rectilinear fragment claims what lies between the ends of its axes, ends included.
/// - A curvilinear fragment asks the point location of the whole grid (`LocalFromWorldPoint`), and a position found in
///   any fragment of the grid is found. Each position tried is reported, found or not, to whoever listens.
/// - A fragment of unstructured points claims nothing, and says so for each position.
/// - With masks of the grid in the context, no position in a blanked cell is claimed, and by a uniform fragment none
///   outside of it beside a blanked cell.
///
/// Laws         results, recorded fragments, statuses and the order of the messages about positions do not depend on
///              the number of threads, nor results on whether anybody listens.
/// Degenerate   positions with NaN are claimed by no fragment.
/// Concurrency  `find` from one thread at a time, and while nothing is evaluated; it searches on all cores. Evaluation
///              may come from any number of threads. Any number of evaluators may work on one source at the same time,
///              as long as nobody changes it.
/// Lifetime     positions are kept, not copied: they must stay as they are until values have been taken.
/// Cost         `find`: a location each position; 4 bytes each are kept, and another 24 once any position is in a
///              curvilinear fragment. With somebody listening, 25 to 50 bytes of text each position and curvilinear
///              fragment tried. Evaluation: one interpolation each position, on all cores; a field's arrays are looked
///              up once a fragment. `evaluate` keeps nothing, and needs some 10 MB meanwhile.
class VANTLE_BASEOP_API GridEvaluator {
public:
    using point = Orvix::PhysicalSpace::point;
    using FractionalIndex = Orvix::FixedArray<double, 3>;
    using Statuses = MemArray<1, int>;
    using Indices = MemArray<1, FractionalIndex>;
    using Fragments = MemArray<1, FragmentIDContainer>;

    /// Statuses of a position.
    static constexpr int Located = 3;
    static constexpr int NotLocated = 0;

    /// What a search needs besides the positions: where the source grid is, and how it is searched.
    struct VANTLE_BASEOP_API Context : EvaluationOptions {
        /// Without slice or grid nothing is found in curvilinear fragments.
        Hestra::StrongPtr<Slice> slice;
        Hestra::StrongPtr<Grid> grid;
        std::string coordinateField = PositionsName;
        /// The same as `cellLocator = CellLocator::Exact`, which says what is meant.
        bool flag = false;

        [[nodiscard]] LocatorOptions locatorOptions() const {
            LocatorOptions options = *this;
            if (flag) options.cellLocator = CellLocator::Exact;
            return options;
        }
    };

    GridEvaluator();
    ~GridEvaluator();
    GridEvaluator(const GridEvaluator&) = delete;
    GridEvaluator& operator=(const GridEvaluator&) = delete;

    /// Locates positions in the fragments of `sourcePositions`, the positions field of the source grid.
    ///
    /// Positions are points in arrays of rank 1 or 2, the vertices of a uniform grid, or arrays of rank 1 of
    /// `Orvix::Vector` with three components, or with two, for z = 0.
    /// Neighbours in the order of the positions, or of the lattice, should be neighbours in space: they share searches.
    ///
    /// Degenerate   no positions: everything stays as it was.
    /// Failure     std::invalid_argument for masks that do not fit, with everything as it was as far as sizes are known
    ///             without making data.
    /// @return false, and everything as it was, for other kinds of positions. An exception of a creator of coordinates
    ///         or masks passes on, and leaves no results.
    bool find(const Hestra::StrongPtr<MemBase>& destinationPositions, const Field& sourcePositions,
              const Context& context);

    /// The values of `source` in a new array of the shape of the positions, which are those that were located. The
    /// element type is that of the source: `double`, `float` or `vector`, also for vectors in single precision. What
    /// was not located has value zero.
    ///
    /// Failure  null for other element types, for sources whose arrays are not of rank 3, or missing in a fragment that
    ///          has positions, and for positions of another number than were located.
    [[nodiscard]] Hestra::StrongPtr<MemBase> evalKnownDataTypes(const Hestra::StrongPtr<MemBase>& destinationPositions,
                                                                const Field& source) const;
    /// The same for one element type, `double`, `float` or `vector`; null if the source has another one.
    template<class T>
    [[nodiscard]] Hestra::StrongPtr<MemBase>
    evalFromCompatibleData(const Hestra::StrongPtr<MemBase>& destinationPositions, const Field& source) const;
    /// The same as an array of these extents.
    template<int N, class T>
    [[nodiscard]] Hestra::StrongPtr<MemBase> evalDimensionalDestType(const MultiIndex<N>& extents,
                                                                     const Field& source) const;
    /// Writes the values into `out`, one each position; what was not located keeps its value.
    ///
    /// Failure  false, with `out` unchanged, for the reasons above, and before the first `find` of any position. An
    ///          empty `out` fits after each.
    template<class T>
    [[nodiscard]] bool evalType(std::vector<T>& out, const Field& source) const;
    /// The same at other fractional indices in the fragments where the positions were found; for sources of rank `N`,
    /// 2 or 3. Indices with NaN leave their value.
    template<int N, class T>
    [[nodiscard]] bool evalFloatIndices(std::vector<T>& out,
                                        const CreativeIterator<Orvix::FixedArray<double, N>>& indices,
                                        const Field& source) const;

    /// `find` and `evalKnownDataTypes` at once, part after part of the positions: where they are is forgotten as soon
    /// as their values are there, as are the results of the last `find`. Null where one of the two would fail.
    [[nodiscard]] Hestra::StrongPtr<MemBase> evaluate(const Hestra::StrongPtr<MemBase>& destinationPositions,
                                                      const Field& sourcePositions, const Context& context,
                                                      const Field& source);

    // Arrays of results are made when first asked for, and let go by the next `find`.

    /// Whether each position of the last `find` was found: `Located` or `NotLocated`. Null before the first.
    [[nodiscard]] const Hestra::StrongPtr<Statuses>& statuses() const;
    /// Where, in fractional indices of the fragment; 0 where not located. Null before the first `find`.
    [[nodiscard]] const Hestra::StrongPtr<Indices>& fractionalIndices() const;
    /// In which fragment: a new array, of containers of none or one. The one is null for unfragmented data. Null
    /// before the first `find`.
    [[nodiscard]] Hestra::StrongPtr<Fragments> fragments() const;
    /// How position `k` was found.
    [[nodiscard]] LocationResult resultCode(std::size_t k) const;

private:
    struct Found;
    class Finder;
    template<int N, class T>
    struct Blocks;

    [[nodiscard]] Blanking prepare(const Context& context);
    template<int N, class T>
    [[nodiscard]] bool collect(Blocks<N, T>& blocks, const Field& source) const;
    template<class T>
    static void interpolate(T* out, const Found& found, const Blocks<3, T>& blocks);
    template<class T>
    [[nodiscard]] static Hestra::StrongPtr<MemBase>
    evaluateParts(Finder& finder, Found& found, const Hestra::StrongPtr<MemBase>& positions, const Field& source);
    [[nodiscard]] static bool findNextPart(Finder& finder, Found& found);

    std::unique_ptr<FragmentSearch<point>> mySearch;
    std::unique_ptr<Found> myFound;
};

/// What searches have in common: the point location of the source grid, made when first needed.
///
/// Concurrency  any number of threads may ask for the point location, which is made once.
class VANTLE_BASEOP_API FragmentSearchBase {
public:
    explicit FragmentSearchBase(const GridEvaluator::Context& context);
    ~FragmentSearchBase();
    FragmentSearchBase(const FragmentSearchBase&) = delete;
    FragmentSearchBase& operator=(const FragmentSearchBase&) = delete;

    /// Whether a search of this context could go on with what was made for this one: same grid, same coordinates that
    /// are no newer, same parameters.
    [[nodiscard]] bool serves(const GridEvaluator::Context& context) const;
    /// The point location; making it is reported.
    [[nodiscard]] const LocalFromWorldPoint& locator();
    /// As `LocalFromWorldPoint::locate`, without a word. If the positions have numbers in an order, what is to be said
    /// is said by `tell` afterwards, for those in their order that are not silent or that `forEachDue` calls `f` with.
    void locate(std::span<const Orvix::PhysicalSpace::point> positions, std::span<LocalFromWorldPoint::Location> found,
                std::span<const std::size_t> numbers);
    void forEachDue(const std::function<void(std::size_t)>& f);
    void tell(const Orvix::PhysicalSpace::point& p);

protected:
    GridEvaluator::Context myContext;

private:
    struct Shared;
    const LocalFromWorldPoint& make(bool isHeard);
    std::unique_ptr<Shared> myShared;
};

/// The search of one position in one fragment.
///
/// Concurrency  one thread at a time.
template<>
class VANTLE_BASEOP_API FragmentSearch<Orvix::PhysicalSpace::point> : public FragmentSearchBase {
public:
    using FragmentSearchBase::FragmentSearchBase;

    /// Whether the fragment with these coordinates claims `p`: 3, with the fractional index, or 0. See `GridEvaluator`
    /// for what claims and what is printed. A position found in a curvilinear grid may be in another fragment than
    /// was asked about: see `fragment`. A fragment of the grid in the context is looked for by its creator if that grid
    /// has masks.
    int Contains(const Orvix::PhysicalSpace::point& p, const Hestra::StrongPtr<CreativeArrayBase>& fragmentCreator,
                 Orvix::FixedArray<double, 3>& index);
    /// The fragment where the point location found the last position; null if it did not, and for unfragmented data.
    [[nodiscard]] const Hestra::StrongPtr<FragmentID>& fragment() const noexcept { return myFragment; }

private:
    Hestra::StrongPtr<FragmentID> myFragment;
};

#define VANTLE_DECLARE_EVALUATION(T)                                                                                   \
    extern template Hestra::StrongPtr<MemBase> GridEvaluator::evalFromCompatibleData<T>(                               \
        const Hestra::StrongPtr<MemBase>&, const Field&) const;                                                        \
    extern template Hestra::StrongPtr<MemBase> GridEvaluator::evalDimensionalDestType<1, T>(const MultiIndex<1>&,      \
                                                                                            const Field&) const;       \
    extern template Hestra::StrongPtr<MemBase> GridEvaluator::evalDimensionalDestType<2, T>(const MultiIndex<2>&,      \
                                                                                            const Field&) const;       \
    extern template Hestra::StrongPtr<MemBase> GridEvaluator::evalDimensionalDestType<3, T>(const MultiIndex<3>&,      \
                                                                                            const Field&) const;       \
    extern template bool GridEvaluator::evalType<T>(std::vector<T>&, const Field&) const;                              \
    extern template bool GridEvaluator::evalFloatIndices<2, T>(                                                        \
        std::vector<T>&, const CreativeIterator<Orvix::FixedArray<double, 2>>&, const Field&) const;                   \
    extern template bool GridEvaluator::evalFloatIndices<3, T>(                                                        \
        std::vector<T>&, const CreativeIterator<Orvix::FixedArray<double, 3>>&, const Field&) const;
VANTLE_DECLARE_EVALUATION(double)
VANTLE_DECLARE_EVALUATION(float)
VANTLE_DECLARE_EVALUATION(Orvix::PhysicalSpace::vector)
#undef VANTLE_DECLARE_EVALUATION

} // namespace Vantle
