#pragma once

/// The one exception of everything in the tour that touches files.

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tour {

/// A file could not be read, understood or written. what() is a single line: file, place, reason.
class FileError : public std::runtime_error {
public:
    /// `place` says where in the file (a byte offset, a block, what was read there); empty when the whole file is
    /// meant.
    FileError(const std::filesystem::path& file, std::string_view place, std::string_view reason);
};

/// `text` with every control character replaced by a blank, so that it stays on one line.
std::string oneLine(std::string_view text);

} // namespace tour
