#pragma once
/// What data sets are handles to: a bundle with a slice for each time, and what is kept of what was asked.

#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/LocatedPositions.hpp>
#include <baseop/NumberRange.hpp>
#include <dataset/DataSet.hpp>
#include <dataset/detail/Request.hpp>
#include <dataset/io/FileArray.hpp>
#include <dataset/io/FileError.hpp>
#include <model/vantle/Blanking.hpp>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace Vantle {

namespace detail {

/// The numbers of a scalar, block by block.
struct FieldNumbers {
    Hestra::Freshness origin; // field and masks
    std::vector<BlockNumbers> blocks;

    [[nodiscard]] std::optional<NumberRange> all() const;
    [[nodiscard]] bool hasNaN() const;
    [[nodiscard]] bool isInfinite() const;
};

/// The boxes of the valid vertices of blocks.
struct BlockBoxes {
    Hestra::Freshness origin; // positions and masks
    std::vector<std::optional<BlockBox>> blocks;

    [[nodiscard]] std::optional<BlockBox> all() const;
};

/// A field that was derived from another one.
struct DerivedEntry {
    Hestra::Freshness origin; // operand and masks
    Hestra::Freshness place;  // positions
    Hestra::StrongPtr<Field> field;
    Hestra::StrongPtr<Field> from; // what the field follows, directly
    Hestra::StrongPtr<Grid> home;  // what a derivative's blocks are joined in
};

/// An array that is there, and stays; what is converted from it is left to a cache.
class GivenArray final : public CreativeArray {
public:
    GivenArray(const Hestra::StrongPtr<MemBase>& array, const Hestra::StrongPtr<Hestra::Cache>& cache)
        : CreativeArray(array) {
        setCache(cache);
    }
};

/// A block of a data set.
struct DataSetBlock {
    Hestra::StrongPtr<FragmentID> id;
    Hestra::StrongPtr<CreativeArrayBase> positions;
    [[nodiscard]] std::string name() const { return FragmentID::Name(id, {}); }
    [[nodiscard]] MultiIndex<3> size() const;
};

/// Whether this is the only handle to something: then, what others did with it, has happened.
template<class T>
[[nodiscard]] bool isAlone(const std::shared_ptr<T>& handle) noexcept {
    if (handle.use_count() != 1) return false;
    const std::shared_ptr<T> another(handle); // whose end waits for what they did before theirs
    return true;
}

/// The same creators for the fragments of a collection.
[[nodiscard]] Hestra::StrongPtr<Field> copyOf(const Hestra::StrongPtr<Field>& field,
                                              const Hestra::StrongPtr<FragmentIDCollection>& collection);

/// Which fields make the masks of a grid, as an origin together with what they mask.
[[nodiscard]] Hestra::Freshness originOf(const Field& what, const Blanking& masks);

} // namespace detail

/// One time. Fields and positions are those of the grid. Fields that others may have are not changed, but replaced.
struct DataSet::Step {
    Step(double time, const Hestra::StrongPtr<Slice>& slice, const Hestra::StrongPtr<Hestra::Cache>& cache);
    /// The same fields in another slice, and what is known of them.
    Step(const Step& other, double time, const Hestra::StrongPtr<Slice>& slice);

    /// Names that are no fields of a data set.
    [[nodiscard]] static bool isReserved(const std::string& name);
    /// Number of components of a field's elements: as they are announced, else those of the first data.
    [[nodiscard]] static int components(const Field& field);
    /// The same; throws what kept the data from being read if that is why it is not known.
    [[nodiscard]] int knownComponents(const std::string& name, const Field& field) const;
    [[nodiscard]] Hestra::StrongPtr<Field> positions() const { return representation->Positions(); }
    [[nodiscard]] Blanking masks() const { return Blanking(*representation); }
    [[nodiscard]] std::vector<detail::DataSetBlock> blocks() const;
    /// Failure of these: DataSetError for unknown names.
    [[nodiscard]] detail::DataSetBlock block(const std::string& name) const;
    [[nodiscard]] Hestra::StrongPtr<Field> field(const std::string& name) const;

    /// The field of a name, which has to be of so many components.
    [[nodiscard]] Hestra::StrongPtr<Field> field(const std::string& name, int components) const;
    [[nodiscard]] std::vector<std::string> fieldNames() const;
    /// The data of a block; null where the field has none. Throws what kept them from being read.
    [[nodiscard]] Hestra::StrongPtr<MemBase> data(const std::string& name, const Field& field,
                                                  const detail::DataSetBlock& block) const;

    /// Does what needs positions, masks and these fields, and throws what kept one of them, or what they are derived
    /// from, from being read from a file, if that happened meanwhile: what was made without it does not count.
    template<class F>
    auto reading(const Fields& names, const F& f) const {
        const std::uint64_t before = FileArray::failures();
        try {
            auto result = f();
            if (FileArray::failures() != before) throwReadingFailures(names);
            return result;
        } catch (const DataSetError&) {
            throw;
        } catch (const std::exception&) {
            if (FileArray::failures() != before) throwReadingFailures(names);
            throw;
        }
    }

    /// Null when they are still to be computed.
    [[nodiscard]] std::shared_ptr<const detail::FieldNumbers> knownNumbers(const std::string& name,
                                                                           const Field& of) const;
    [[nodiscard]] std::shared_ptr<const detail::FieldNumbers> numbers(const std::string& name) const;
    [[nodiscard]] std::shared_ptr<const detail::BlockBoxes> boxes() const;
    /// Where positions are: with structures that are kept, or, where they would not fit into the budget, with those of
    /// one block at a time.
    [[nodiscard]] LocatedPositions locate(std::span<const Point> places) const;
    [[nodiscard]] bool isLocatedByBlocks() const;
    /// A grid of the same positions and masks.
    [[nodiscard]] Hestra::StrongPtr<Grid> view() const;

    /// A surface of a field over the fragments of the positions, of which the numbers are known; with a plane, that of
    /// the distances from it: the numbers are those of distances, and the field is that of the positions.
    [[nodiscard]] Surface surface(const std::string& name, const Hestra::StrongPtr<Field>& field,
                                  const detail::FieldNumbers& numbers, double level, const Fields& values,
                                  bool hasNormals, const Plane* plane = nullptr) const;
    [[nodiscard]] Surface layer(const IndexPlane& plane, const Fields& values) const;
    [[nodiscard]] Surface hull(const Fields& values) const;
    /// The values of a field at positions, as by `LocatedPositions`.
    void sample(const LocatedPositions& positions, const std::string& name, const Field& field, int components,
                std::span<double> values, std::span<unsigned char> mask) const;

    // For one thread: what is put there instead, and forgotten. Without memory nothing has changed.
    /// The creator of a block's data in a field, the positions or a mask; null for none.
    void setCreator(const std::string& name, const Hestra::StrongPtr<FragmentID>& id,
                    const Hestra::StrongPtr<CreativeArrayBase>& creator);
    void setField(const std::string& name, const Hestra::StrongPtr<Field>& field);
    void setJoins(const JoinOptions& options);

    /// Valid where a scalar is in a range, and what was valid. Goes by this time as it is now, whatever becomes of it.
    [[nodiscard]] Hestra::StrongPtr<Field> maskOfRange(const std::string& name, double low, double high) const;
    /// Whether others have the structures that are kept with this grid.
    [[nodiscard]] bool sharesLocator() const noexcept { return !detail::isAlone(myLocator); }
    /// Whether nobody else has the field of positions, nor its fragments: a block would be added in place.
    [[nodiscard]] bool ownsPositions() const {
        const Field* const mine = changeable(PositionsName).rawptr(); // while there is no other handle to it
        return mine == positions().rawptr();
    }

    double time;
    Hestra::StrongPtr<Slice> slice;
    Hestra::StrongPtr<Grid> grid;
    Hestra::StrongPtr<Representation> representation;
    Hestra::StrongPtr<Hestra::Cache> cache;
    JoinOptions joins;

private:
    /// Beside what makes a mask: the time that it goes by, which lives as long, and the field.
    struct MaskOrigin;
    void throwReadingFailures(const Fields& names) const;
    /// The fields that were set which a name stands for.
    [[nodiscard]] std::vector<Hestra::StrongPtr<Field>> sourcesOf(const std::string& name) const;
    [[nodiscard]] std::shared_ptr<const LocalFromWorldPoint> locator() const;
    [[nodiscard]] std::shared_ptr<const LocalFromWorldPoint> locatorOf(const detail::DataSetBlock& block) const;
    [[nodiscard]] Hestra::StrongPtr<Field> derived(const std::string& name) const;
    [[nodiscard]] detail::DerivedEntry derive(const std::string& operation, const std::string& operand,
                                              const std::string& name) const;

    /// A field, to be changed and set again: the one that there is if nothing else has it, else a copy of it over the
    /// fragments of the positions.
    [[nodiscard]] Hestra::StrongPtr<Field> changeable(const std::string& name) const;
    struct LocatorSlot;
    void forget(std::shared_ptr<LocatorSlot> locator, const std::string& name) noexcept;

    mutable std::mutex myMutex; // held for look-ups only
    mutable std::map<std::string, std::shared_ptr<const detail::FieldNumbers>> myNumbers;
    mutable std::shared_ptr<const detail::BlockBoxes> myBoxes;
    mutable std::map<std::string, detail::DerivedEntry> myDerived;
    /// Shared by times and copies that have the same positions and masks.
    struct LocatorSlot {
        std::mutex mutex;
        std::shared_ptr<const LocalFromWorldPoint> locator;
    };
    std::shared_ptr<LocatorSlot> myLocator = std::make_shared<LocatorSlot>();
};

struct DataSet::State {
    explicit State(const Hestra::StrongPtr<Hestra::Cache>& kept) : cache(kept) {}

    /// The last one that is not after a time; null before the first one.
    [[nodiscard]] Step* find(double time) const noexcept;

    std::atomic<bool> isGiven = false; // the grids, to somebody who may look at them at any time
    BundlePtr bundle = BundlePtr::create();
    Hestra::StrongPtr<Hestra::Cache> cache;
    std::vector<std::unique_ptr<Step>> steps; // ascending by time
};

} // namespace Vantle
