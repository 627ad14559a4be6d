#include <dataset/io/AtomicFile.hpp>
#include <dataset/io/FileError.hpp>

#include <atomic>
#include <cerrno>
#include <string>
#include <system_error>
#include <unistd.h>

namespace Vantle {

namespace {

std::string systemReason(const char* what) { return std::string(what) + ": " + std::generic_category().message(errno); }

} // namespace

std::filesystem::path hiddenNeighbour(const std::filesystem::path& target) {
    static std::atomic<unsigned> counter{0};
    const std::string name = "." + target.filename().string() + "." + std::to_string(::getpid()) + "-" +
                             std::to_string(counter.fetch_add(1)) + ".part";
    return target.parent_path() / name;
}

AtomicFile::AtomicFile(std::filesystem::path target)
    : myTarget(std::move(target)), myTemporary(hiddenNeighbour(myTarget)) {
    errno = 0;
    myStream.open(myTemporary.path(), std::ios::binary | std::ios::trunc);
    if (!myStream) throw FileError(myTarget, "", systemReason("cannot create it"));
}

void AtomicFile::check() {
    if (!myStream) throw FileError(myTarget, "", systemReason("cannot write"));
}

void AtomicFile::write(const void* data, std::size_t bytes) {
    errno = 0;
    myStream.write(static_cast<const char*>(data), static_cast<std::streamsize>(bytes));
    check();
    mySize += bytes;
}

void AtomicFile::rewrite(std::uint64_t offset, const void* data, std::size_t bytes) {
    errno = 0;
    myStream.seekp(static_cast<std::streamoff>(offset));
    myStream.write(static_cast<const char*>(data), static_cast<std::streamsize>(bytes));
    myStream.seekp(static_cast<std::streamoff>(mySize));
    check();
}

void AtomicFile::commit() {
    errno = 0;
    myStream.close();
    check();
    std::error_code error;
    std::filesystem::rename(myTemporary.path(), myTarget, error);
    if (error) throw FileError(myTarget, "", "cannot put it in place: " + error.message());
    myTemporary.keep();
}

} // namespace Vantle
