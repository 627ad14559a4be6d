#pragma once
/// Files and folders that must not stay behind, however the program ends.

#include <dataset/DataSetExport.hpp>

#include <filesystem>

namespace Vantle {

/// A file or folder, made or about to be made, that is removed when this object goes, and when a signal that
/// `removeLeftoversOnSignals` takes ends the program before.
///
/// Concurrency  different objects in any number of threads.
class VANTLE_DATASET_API Leftover {
public:
    explicit Leftover(std::filesystem::path path);
    ~Leftover();
    Leftover(const Leftover&) = delete;
    Leftover& operator=(const Leftover&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return myPath; }
    /// It stays, or has another name now.
    void keep();

private:
    std::filesystem::path myPath;
};

/// From now on an interrupt, a request to end or a closed terminal removes what is left over, and ends the program as
/// it would have ended without this. What is ignored so far stays ignored. For programs: call it before other threads
/// start. Without it, a signal leaves the hidden neighbours of files that are being written.
VANTLE_DATASET_API void removeLeftoversOnSignals();

} // namespace Vantle
