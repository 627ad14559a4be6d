#include <dataset/io/FileError.hpp>

namespace Vantle {

namespace {

std::string compose(const std::filesystem::path& file, std::string_view place, std::string_view reason) {
    std::string text = file.string() + ": ";
    if (!place.empty()) text.append(place).append(": ");
    return oneLine(text.append(reason));
}

} // namespace

std::string oneLine(std::string_view text) {
    std::string line(text);
    for (char& c : line)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
    return line;
}

FileError::FileError(const std::filesystem::path& file, std::string_view place, std::string_view reason)
    : DataSetError(compose(file, place, reason)), myFile(file), myPlace(place), myReason(reason) {}
FileError::~FileError() = default;

} // namespace Vantle
