#include <dataset/detail/InputFile.hpp>
#include <dataset/io/FileError.hpp>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Vantle::detail {

namespace {

std::string systemReason() { return std::generic_category().message(errno); }

} // namespace

InputFile::InputFile(std::filesystem::path path) : myPath(std::move(path)) {
    struct stat status = {};
    if (::stat(myPath.c_str(), &status) != 0)
        fail("", errno == ENOENT ? "no such file" : "cannot be read: " + systemReason());
    if (S_ISDIR(status.st_mode)) fail("", "is a folder, not a file");
    if (!S_ISREG(status.st_mode)) fail("", "is not a regular file");
    mySize = static_cast<std::uint64_t>(status.st_size);
    myModified = status.st_mtim;
    if (mySize == 0) fail("", "is empty");
}

void InputFile::fail(std::string_view place, std::string_view reason) const { throw FileError(myPath, place, reason); }

void InputFile::examine(int descriptor, std::string_view place) const {
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0) fail(place, "cannot be read: " + systemReason());
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size != mySize)
        fail(place, "has changed since it was opened: it had " + std::to_string(mySize) + " bytes, and has " +
                        std::to_string(size) + " now");
    if (status.st_mtim.tv_sec != myModified.tv_sec || status.st_mtim.tv_nsec != myModified.tv_nsec)
        fail(place, "has changed since it was opened: it was modified");
}

FileVisit::FileVisit(const InputFile& file, std::string place)
    : myFile(file), myPlace(std::move(place)),
      // A pipe that has taken the place of the file would have to be waited for.
      myDescriptor(::open(file.path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    if (myDescriptor < 0) file.fail(myPlace, "cannot be opened: " + systemReason());
    try {
        file.examine(myDescriptor, myPlace);
    } catch (...) {
        ::close(myDescriptor);
        throw;
    }
}

FileVisit::~FileVisit() { ::close(myDescriptor); }

void FileVisit::read(std::uint64_t offset, std::span<char> into) const {
    while (!into.empty()) {
        const ::ssize_t got = ::pread(myDescriptor, into.data(), into.size(), static_cast<::off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            const std::string reason = got < 0 ? systemReason() : "it ends here, and should go on";
            finish(); // a change is the likeliest reason
            myFile.fail((myPlace.empty() ? "" : myPlace + ", ") + "byte " + std::to_string(offset),
                        "cannot be read: " + reason);
        }
        offset += static_cast<std::uint64_t>(got);
        into = into.subspan(static_cast<std::size_t>(got));
    }
}

} // namespace Vantle::detail
