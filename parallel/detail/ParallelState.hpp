#pragma once
/// What data sets over ranks are handles to. All members that are not about what is known are collective.

#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/LocatedPositions.hpp>
#include <baseop/NumberRange.hpp>
#include <dataset/detail/Request.hpp>
#include <model/hestra/Pulse.hpp>
#include <model/vantle/Blanking.hpp>

#include <map>
#include <memory>
#include <optional>
#include <parallel/ParallelDataSet.hpp>
#include <parallel/detail/Halo.hpp>
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

/// The same, telling the progress function of this rank how far it is: between pieces of its own work, and within
/// these. Ends with an exchange.
template<class F>
auto collective(Exchange& exchange, const std::string& what, const Progress& progress, const F& f) {
    return collective(what, [&] {
        std::optional<Hestra::Pulse> pulse;
        std::optional<Exchange::Heeding> heeding;
        if (progress) {
            pulse.emplace([&](double share) {
                if (!progress(share)) throw Cancelled();
            });
            heeding.emplace(exchange, *pulse);
        }
        exchange.attempt([] { Hestra::Pulse::beat(0.0); });
        auto result = f();
        exchange.attempt([] { Hestra::Pulse::beat(1.0); });
        exchange.agree();
        return result;
    });
}

/// Calls `f(n)` for n < count, of which each is a part of what is done.
template<class F>
void inParts(std::size_t count, const F& f) {
    const auto share = [count](std::size_t n) { return static_cast<double>(n) / static_cast<double>(count); };
    for (std::size_t n = 0; n < count; ++n) {
        const Hestra::Pulse::Part part(share(n), share(n + 1));
        f(n);
    }
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
        std::size_t first = 0;  // of the positions of this rank
        LocatedPositions found; // of this rank, and of all others that have asked it
        /// Of what each rank has asked: which were found nowhere lower, as numbers within `found`.
        std::vector<std::vector<std::uint32_t>> given;
        /// For each rank: the positions of this one, from the first on, that were found there.
        std::vector<std::vector<std::uint32_t>> taken;
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
    void makeBoxes();
    [[nodiscard]] const detail::AllNumbers& numbers(const std::string& name);
    [[nodiscard]] const detail::Halo& halo();
    /// A halo for derivatives.
    [[nodiscard]] const detail::Halo& deepHalo();
    [[nodiscard]] const LocalFromWorldPoint& locator();
    /// The blocks of this rank with fields, also derived ones.
    [[nodiscard]] Hestra::StrongPtr<Grid> view(const Fields& names);
    /// Boxes that hold all positions that are found in a block.
    [[nodiscard]] std::vector<Box> searchBoxes() const;

    [[nodiscard]] ParallelSurface surface(const std::string& name, const Hestra::StrongPtr<Field>& of,
                                          const detail::AllNumbers& numbers, double level, const Fields& values,
                                          bool hasNormals, const Plane* plane = nullptr);
    [[nodiscard]] ParallelSurface hull(const Fields& values);
    [[nodiscard]] ParallelSurface layer(const IndexPlane& plane, const Fields& values);
    /// What an exchange has to end, as below.
    [[nodiscard]] std::shared_ptr<detail::LocatedParts> locate(const std::shared_ptr<Data>& self,
                                                               std::span<const Point> positions);
    /// Values, and their mask unless that is empty, at positions of this rank; elsewhere both stay.
    void sample(const detail::LocatedParts& at, const std::string& name, const detail::Quantity& of,
                std::span<double> values, std::span<unsigned char> mask);

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
