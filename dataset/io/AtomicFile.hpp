#pragma once
/// A file that appears under its name complete, or not at all.

#include <dataset/io/Leftover.hpp>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>

namespace Vantle {

/// Writes into a hidden neighbour of `target`; `commit` gives it the name of `target`, replacing what was there.
///
/// Failure      a folder that cannot be written, a full disc, a target that is a folder: `FileError` naming `target`.
///              Without `commit`, on every path, the neighbour is removed (see `Leftover`) and `target` keeps what it
///              had.
class VANTLE_DATASET_API AtomicFile {
public:
    explicit AtomicFile(std::filesystem::path target);
    /// Appends.
    void write(const void* data, std::size_t bytes);
    /// Replaces bytes that were written, from the one at `offset` on.
    void rewrite(std::uint64_t offset, const void* data, std::size_t bytes);
    /// Bytes written so far.
    [[nodiscard]] std::uint64_t size() const noexcept { return mySize; }
    void commit();

private:
    void check();

    std::filesystem::path myTarget;
    Leftover myTemporary;
    std::ofstream myStream;
    std::uint64_t mySize = 0;
};

/// A hidden name beside `target`, of no other use in this process or another one.
[[nodiscard]] VANTLE_DATASET_API std::filesystem::path hiddenNeighbour(const std::filesystem::path& target);

} // namespace Vantle
