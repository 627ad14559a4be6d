#pragma once
/// Surfaces of which each rank has a piece.

#include <dataset/Surface.hpp>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <parallel/ParallelError.hpp>
#include <span>
#include <vector>

namespace Vantle {

namespace detail {
struct SurfaceParts;
}

/// A surface over the blocks of all ranks. Each rank has the triangles of its blocks, and all points that these use.
///
/// All points and triangles have numbers: those that one process with all blocks gives them. A point that triangles of
/// several ranks use is there on each of them, with equal bits; it belongs to the rank of the lowest block that has it.
/// Concurrency  never changed. `gather` and `write` are collective; everything else is this rank's own affair.
class VANTLE_PARALLEL_API ParallelSurface {
public:
    explicit ParallelSurface(std::shared_ptr<const detail::SurfaceParts> parts);

    /// This rank's piece, with values; a surface like any other.
    [[nodiscard]] const Surface& piece() const noexcept;
    /// The number of each point of the piece among those of all ranks.
    [[nodiscard]] std::span<const std::uint64_t> numbers() const noexcept;
    /// 1 for points that belong to this rank, else 0.
    [[nodiscard]] std::span<const unsigned char> isOwn() const noexcept;
    /// On all ranks, each point counted once.
    [[nodiscard]] std::uint64_t points() const noexcept;
    [[nodiscard]] std::uint64_t triangles() const noexcept;

    /// The whole surface on one rank, the bits of one process; an empty one on all others. Collective.
    ///
    /// Failure  ParallelError for a rank that there is not, and for more points than a surface can have (2^32).
    /// Memory   the surface, and on each rank what the budget lets it send at once.
    [[nodiscard]] Surface gather(int rank = 0) const;
    /// Writes the pieces as "<stem>_<rank>.vtp", and on rank 0 the file that names them (.pvtp). Collective. Failure:
    /// ParallelError, also for another extension.
    void write(const std::filesystem::path& file, const VtkOptions& options = {}) const;

private:
    std::shared_ptr<const detail::SurfaceParts> myParts;
};

} // namespace Vantle
