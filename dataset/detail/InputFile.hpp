#pragma once
/// A regular file that is read at given places, now and later, and that must not change in between.

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace Vantle::detail {

/// What a file was like when it was opened: its size and the time of its last modification. No descriptor is held.
///
/// Failure      FileError: what is no regular file, is empty or cannot be read.
/// Concurrency  immutable: any number of threads.
class InputFile {
public:
    explicit InputFile(std::filesystem::path path);

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return myPath; }
    [[nodiscard]] std::uint64_t size() const noexcept { return mySize; }
    [[noreturn]] void fail(std::string_view place, std::string_view reason) const;

private:
    friend class FileVisit;
    void examine(int descriptor, std::string_view place) const;

    std::filesystem::path myPath;
    std::uint64_t mySize = 0;
    std::timespec myModified{};
};

/// One reading of a file, which must still be what it was. `place` says in messages what is being read.
///
/// Concurrency  any number of visits at once; each may be used by any number of threads.
class FileVisit {
public:
    FileVisit(const InputFile& file, std::string place);
    ~FileVisit();
    FileVisit(const FileVisit&) = delete;
    FileVisit& operator=(const FileVisit&) = delete;

    void read(std::uint64_t offset, std::span<char> into) const;
    /// Throws if the file has changed since: what was read then is not to be used.
    void finish() const { myFile.examine(myDescriptor, myPlace); }
    [[nodiscard]] const InputFile& file() const noexcept { return myFile; }
    [[nodiscard]] const std::string& place() const noexcept { return myPlace; }

private:
    const InputFile& myFile;
    std::string myPlace;
    int myDescriptor;
};

} // namespace Vantle::detail
