#pragma once

/// A reader of VTK XML files with appended raw data, enough to see what a writer left.

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <string>
#include <vector>
#ifdef VANTLE_TEST_ZLIB
#    include <zlib.h>
#endif

namespace support {

/// What became of so many bytes when zlib compressed them.
inline std::string uncompressed(const std::string& data, std::uint64_t bytes) {
    std::string result(bytes, '\0');
#ifdef VANTLE_TEST_ZLIB
    ::uLongf length = bytes;
    const int status = ::uncompress(reinterpret_cast<::Bytef*>(result.data()), &length,
                                    reinterpret_cast<const ::Bytef*>(data.data()), data.size());
    EXPECT_TRUE(status == Z_OK && length == bytes);
#else
    ADD_FAILURE() << "no zlib, but " << data.size() << " compressed bytes";
#endif
    return result;
}

/// The value of an attribute in the text of an XML element; empty without.
inline std::string attribute(const std::string& element, const std::string& name) {
    const std::size_t begin = element.find(" " + name + "=\"");
    if (begin == std::string::npos) return "";
    const std::size_t value = begin + name.size() + 3;
    return element.substr(value, element.find('"', value) - value);
}

/// The XML of a file and its appended arrays by name, taken apart after the format's own rules: arrays stand one behind
/// the other, each at its offset behind the underscore, led by its length in bytes; or, compressed, by the number of
/// blocks, their length, that of a shorter last one, and how long each is when it is compressed.
struct VtkFile {
    explicit VtkFile(const std::filesystem::path& file) {
        std::ifstream stream(file, std::ios::binary);
        const std::string all{std::istreambuf_iterator<char>(stream), {}};
        const std::string marker = "<AppendedData encoding=\"raw\">\n_";
        const std::size_t data = all.find(marker);
        if (data == std::string::npos) return;
        xml = all.substr(0, data);
        const std::size_t start = data + marker.size();
        std::size_t next = 0;
        for (std::size_t at = xml.find("<DataArray"); at != std::string::npos; at = xml.find("<DataArray", at + 1)) {
            const std::string element = xml.substr(at, xml.find("/>", at) - at);
            const std::size_t offset = std::stoull(attribute(element, "offset"));
            EXPECT_EQ(offset, next) << element;
            next = offset;
            const auto word = [&] {
                std::uint64_t value = 0;
                for (std::size_t i = 8; i-- > 0;) // little-endian, whatever this machine is
                    value = value << 8 | static_cast<unsigned char>(all.at(start + next + i));
                next += 8;
                return value;
            };
            std::string& array = arrays[attribute(element, "Name")];
            elements[attribute(element, "Name")] = element;
            array.clear();
            if (xml.find("compressor=\"vtkZLibDataCompressor\"") == std::string::npos) {
                const std::uint64_t bytes = word();
                array = all.substr(start + next, bytes);
                next += bytes;
                continue;
            }
            std::vector<std::uint64_t> lengths(word());
            const std::uint64_t whole = word(), last = word();
            for (std::uint64_t& length : lengths) length = word();
            for (std::size_t block = 0; block < lengths.size(); ++block) {
                const bool isShort = last > 0 && block + 1 == lengths.size();
                array += uncompressed(all.substr(start + next, lengths[block]), isShort ? last : whole);
                next += lengths[block];
            }
        }
        tail = all.substr(start + next);
    }

    template<typename Value>
    std::vector<Value> values(const std::string& name) const {
        const std::string& bytes = arrays.at(name);
        std::vector<Value> result(bytes.size() / sizeof(Value));
        if (!bytes.empty()) std::memcpy(result.data(), bytes.data(), bytes.size());
        return result;
    }

    std::string xml, tail;
    std::map<std::string, std::string> arrays, elements;
};

} // namespace support
