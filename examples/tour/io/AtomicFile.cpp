#include "io/AtomicFile.hpp"

#include "io/FileError.hpp"

#include <atomic>
#include <cerrno>
#include <string>
#include <system_error>
#include <unistd.h>

namespace tour {

namespace {

std::string systemReason(const char* what) { return std::string(what) + ": " + std::generic_category().message(errno); }

// Distinct for each process and each file of the process, so that two writers never share a neighbour.
std::filesystem::path neighbourOf(const std::filesystem::path& target) {
    static std::atomic<unsigned> counter{0};
    std::string name = "." + target.filename().string() + "." + std::to_string(::getpid()) + "-" +
                       std::to_string(counter.fetch_add(1)) + ".part";
    return target.parent_path() / name;
}

} // namespace

AtomicFile::AtomicFile(std::filesystem::path target) : target_(std::move(target)), temporary_(neighbourOf(target_)) {
    errno = 0;
    stream_.open(temporary_.path(), std::ios::binary | std::ios::trunc);
    if (!stream_) throw FileError(target_, "", systemReason("cannot create it"));
}

void AtomicFile::write(const void* data, std::size_t bytes) {
    errno = 0;
    if (!stream_.write(static_cast<const char*>(data), static_cast<std::streamsize>(bytes)))
        throw FileError(target_, "", systemReason("cannot write"));
}

void AtomicFile::commit() {
    errno = 0;
    stream_.close();
    if (!stream_) throw FileError(target_, "", systemReason("cannot write"));
    std::error_code error;
    std::filesystem::rename(temporary_.path(), target_, error);
    if (error) throw FileError(target_, "", "cannot put it in place: " + error.message());
    temporary_.keep();
}

} // namespace tour
