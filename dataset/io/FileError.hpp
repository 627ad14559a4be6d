#pragma once
/// The one exception of everything that touches files.

#include <dataset/DataSetError.hpp>

#include <filesystem>
#include <string>
#include <string_view>

namespace Vantle {

/// A file could not be read, understood or written. `what()` is a single line: file, place, reason.
class VANTLE_DATASET_API FileError : public DataSetError {
public:
    FileError(const std::filesystem::path& file, std::string_view place, std::string_view reason);
    ~FileError() override;

    [[nodiscard]] const std::filesystem::path& file() const noexcept { return myFile; }
    /// Where in the file: a byte or line, a block, what was read or written there; empty when the whole file is meant.
    [[nodiscard]] const std::string& place() const noexcept { return myPlace; }
    [[nodiscard]] const std::string& reason() const noexcept { return myReason; }

private:
    std::filesystem::path myFile;
    std::string myPlace;
    std::string myReason;
};

/// `text` with every control character replaced by a blank, so that it stays on one line.
[[nodiscard]] VANTLE_DATASET_API std::string oneLine(std::string_view text);

} // namespace Vantle
