#pragma once

/// A file that appears under its name complete, or not at all.

#include "io/Leftover.hpp"

#include <filesystem>
#include <fstream>

namespace tour {

/// Writes into a hidden neighbour of `target`; commit() gives it the name of `target`, replacing what was there.
///
/// Failure      a folder that cannot be written, a full disc, a target that is a folder: FileError naming `target`.
///              Without commit(), on every path, the neighbour is removed (see Leftover) and `target` keeps what it
///              had.
class AtomicFile {
public:
    explicit AtomicFile(std::filesystem::path target);
    void write(const void* data, std::size_t bytes);
    void commit();

private:
    std::filesystem::path target_;
    Leftover temporary_;
    std::ofstream stream_;
};

} // namespace tour
