#pragma once
/// What data sets over ranks are handles to. All members that are not about what is known are collective.

#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/LocatedPositions.hpp>
#include <baseop/NumberRange.hpp>
#include <dataset/detail/Request.hpp>
#include <model/vantle/Blanking.hpp>

#include <map>
#include <memory>
#include <optional>
#include <parallel/ParallelDataSet.hpp>
#include <parallel/detail/Halo.hpp>
#include <parallel/detail/Meter.hpp>
#include <parallel/detail/SurfaceParts.hpp>

namespace Vantle {

namespace detail {

/// Does what is requested of all ranks, and says what was requested when one of them fails.
template<class F>
auto collective(const std::string& what, const F& f) {
    return request(what, [&] {
        try {
            return f();
        } catch (const ParallelError& problem) {
            if (problem.reason().compare(0, what.size(), what) == 0) throw;
            throw ParallelError(problem.rank(), what + ": " + problem.reason(), problem.kind(), problem.cause());
        }
    });
}

/// A field over the blocks of this rank, some of which may lack it.
struct Quantity {
    Hestra::StrongPtr<Field> field;
    int components = 0;
};

/// The numbers of a field in all blocks.
using AllNumbers = std::vector<BlockNumbers>;

/// Positions, block by block, and the ranks that have those blocks.
struct LocatedParts {
    struct Batch {
        LocatedPositions found; // of all ranks that have asked this one, in their order
        /// Of what was asked by each rank: which were found nowhere lower, as numbers within `found`.
        std::vector<std::vector<std::uint32_t>> given;
        /// For each rank: the positions of this one that were found there.
        std::vector<std::vector<std::size_t>> taken;
    };
    std::shared_ptr<ParallelDataSet::Data> data;
    std::vector<Batch> batches; // as many on all ranks
    std::vector<std::uint32_t> blocks;
    std::vector<Point> places;
    std::size_t found = 0;
};

} // namespace detail

struct ParallelDataSet::Data {
    Data(MPI_Comm comm, const DataSet& local, const ParallelOptions& options);
    Data(std::shared_ptr<detail::Exchange> exchange, const DataSet& local, const ParallelOptions& options);

    [[nodiscard]] Hestra::StrongPtr<Field> emptyField() const { return Hestra::makeRef<Field>(ids); }
    [[nodiscard]] const std::string& nameOf(std::uint32_t block) const { return all.blocks[block].info.name; }
    [[nodiscard]] Hestra::StrongPtr<FragmentID> idOf(std::uint32_t block) const {
        return ids->findFragmentID(std::string_view(nameOf(block)));
    }
    /// The data of an own block; null where the field has none. Throws what kept them from being made.
    [[nodiscard]] Hestra::StrongPtr<MemBase> data(const std::string& name, const Field& field,
                                                  std::uint32_t block) const;

    /// The field of a name; 0 components: any. Derived ones are made.
    [[nodiscard]] detail::Quantity quantity(const std::string& name, int components = 0);
    /// The data of a field that was set, or has been derived, in an own block. Not collective.
    [[nodiscard]] Hestra::StrongPtr<MemBase> knownArray(const std::string& name, const std::string& block) const;
    void makeBoxes(const detail::Meter& meter);
    [[nodiscard]] const detail::AllNumbers& numbers(const std::string& name, const detail::Meter& meter);
    [[nodiscard]] const detail::Halo& halo();
    /// A halo for derivatives.
    [[nodiscard]] const detail::Halo& deepHalo();
    [[nodiscard]] const LocalFromWorldPoint& locator();
    /// Boxes that hold all positions that are found in a block.
    [[nodiscard]] std::vector<Box> searchBoxes() const;

    [[nodiscard]] ParallelSurface surface(const std::string& name, const Hestra::StrongPtr<Field>& of,
                                          const detail::AllNumbers& numbers, double level, const Fields& values,
                                          bool hasNormals, const detail::Meter& meter, const Plane* plane = nullptr);
    [[nodiscard]] ParallelSurface hull(const Fields& values);
    [[nodiscard]] std::shared_ptr<detail::LocatedParts>
    locate(const std::shared_ptr<Data>& self, std::span<const Point> positions, const detail::Meter& meter);
    /// Values, and their mask unless that is empty, at positions of this rank; elsewhere both stay.
    void sample(const detail::LocatedParts& at, const std::string& name, const detail::Quantity& of,
                std::span<double> values, std::span<unsigned char> mask, const detail::Meter& meter);

    std::shared_ptr<detail::Exchange> exchange;
    DataSet local;
    ParallelOptions options;
    double time = 0.0;
    std::vector<double> times;
    std::vector<FieldInfo> fields;
    detail::AllBlocks all;
    std::vector<std::optional<BlockBox>> validBoxes; // of all blocks, with regard to masks; empty until they are known

    // The blocks of this rank in the order of all blocks.
    Hestra::StrongPtr<Slice> slice;
    Hestra::StrongPtr<Grid> grid;
    Hestra::StrongPtr<Representation> representation;
    Hestra::StrongPtr<FragmentIDCollection> ids;

private:
    void gatherBlocks();
    [[nodiscard]] detail::Quantity derive(const std::string& operation, const std::string& operand,
                                          const std::string& name);
    [[nodiscard]] detail::HaloRequest request() const;

    std::unique_ptr<detail::Halo> myHalo, myDeepHalo;
    std::map<std::string, detail::AllNumbers> myNumbers;
    std::map<std::string, detail::Quantity> myDerived;
    std::unique_ptr<const LocalFromWorldPoint> myLocator;
};

} // namespace Vantle
