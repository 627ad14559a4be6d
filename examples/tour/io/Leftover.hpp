#pragma once

/// Files and folders that must not stay behind, however the program ends.

#include <filesystem>

namespace tour {

/// A file or folder, made or about to be made, that is removed when this object goes, and when a signal that
/// removeLeftoversOnSignals() takes ends the program before.
class Leftover {
public:
    explicit Leftover(std::filesystem::path path);
    ~Leftover();
    Leftover(const Leftover&) = delete;
    Leftover& operator=(const Leftover&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
    /// It stays, or has another name now.
    void keep();

private:
    std::filesystem::path path_;
};

/// From now on an interrupt, a request to end or a closed terminal removes what is left over, and ends the program as
/// it would have ended without this. What is ignored so far stays ignored. Call it before other threads start.
void removeLeftoversOnSignals();

} // namespace tour
