#pragma once
/// Why data could not be made, for whoever asked for them.

#include <model/ModelExport.hpp>

#include <string>

namespace Hestra {

/// Keeps, as long as it lives, what standard error would be told of creations that its thread asks for: why the
/// creation function of a creator threw, once a creator. The innermost one of the thread hears it.
class VANTLE_MODEL_API ScopedCreationFailure {
public:
    ScopedCreationFailure() noexcept;
    ~ScopedCreationFailure();
    ScopedCreationFailure(const ScopedCreationFailure&) = delete;
    ScopedCreationFailure& operator=(const ScopedCreationFailure&) = delete;

    /// The first reason so far; empty when there was none.
    [[nodiscard]] const std::string& reason() const noexcept { return myReason; }

private:
    friend void reportCreationFailure(const char* reason) noexcept;
    std::string myReason;
    ScopedCreationFailure* myOuter;
};

} // namespace Hestra
