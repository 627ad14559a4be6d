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

namespace support {

/// The value of an attribute in the text of an XML element; empty without.
inline std::string attribute(const std::string& element, const std::string& name) {
    const std::size_t begin = element.find(" " + name + "=\"");
    if (begin == std::string::npos) return "";
    const std::size_t value = begin + name.size() + 3;
    return element.substr(value, element.find('"', value) - value);
}

/// The XML of a file and its appended arrays by name, taken apart after the format's own rules: arrays stand one behind
/// the other, each at its offset behind the underscore, led by its length in bytes.
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
            std::uint64_t bytes = 0;
            for (std::size_t i = 8; i-- > 0;) // little-endian, whatever this machine is
                bytes = bytes << 8 | static_cast<unsigned char>(all.at(start + offset + i));
            arrays[attribute(element, "Name")] = all.substr(start + offset + 8, bytes);
            elements[attribute(element, "Name")] = element;
            next = offset + 8 + bytes;
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
