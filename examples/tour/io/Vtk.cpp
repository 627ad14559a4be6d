#include "io/Vtk.hpp"

#include "io/AtomicFile.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace tour {

namespace {

// The shortest text that reads back as the same number, whatever the locale.
std::string text(double value) {
    std::array<char, 32> buffer;
    return {buffer.data(), std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr};
}

std::string text(const Point3& values) { return text(values[0]) + " " + text(values[1]) + " " + text(values[2]); }

std::string escaped(std::string_view name) {
    std::string result;
    for (const char c : name) switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
        }
    return result;
}

// The XML in front, built while arrays are announced, and the raw data behind it, written in the same order.
class Document {
public:
    explicit Document(std::string_view type) : type_(type) {
        xml_ = "<?xml version=\"1.0\"?>\n<VTKFile type=\"" + type_ +
               "\" version=\"1.0\" byte_order=\"LittleEndian\" header_type=\"UInt64\">\n";
    }

    void line(const std::string& markup) { xml_ += markup + "\n"; }

    void array(const std::string& name, std::span<const double> values) { announce("Float64", name, 1, values); }
    void array(const std::string& name, std::span<const Point3> values) {
        announce("Float64", name, 3, std::span(values.empty() ? nullptr : values[0].data(), 3 * values.size()));
    }
    void array(const std::string& name, std::span<const std::int64_t> values) { announce("Int64", name, 1, values); }

    void pointData(std::span<const VtkArray> arrays) {
        line("<PointData>");
        for (const VtkArray& values : arrays)
            std::visit([&](const auto& view) { array(values.name, view); }, values.values);
        line("</PointData>");
    }

    void save(const std::filesystem::path& path) {
        AtomicFile file(path);
        const auto put = [&](std::string_view part) { file.write(part.data(), part.size()); };
        put(xml_);
        put("<AppendedData encoding=\"raw\">\n_");
        for (const Block& block : blocks_) {
            writeLittle(file, std::span(&block.bytes, 1));
            writeLittle(file, std::span(static_cast<const std::uint64_t*>(block.data), block.bytes / 8));
        }
        put("\n</AppendedData>\n</VTKFile>\n");
        file.commit();
    }

private:
    struct Block {
        const void* data;
        std::uint64_t bytes;
    };

    template<typename Value>
    void announce(const char* type, const std::string& name, int components, std::span<const Value> values) {
        static_assert(sizeof(Value) == 8);
        line("<DataArray type=\"" + std::string(type) + "\" Name=\"" + escaped(name) + "\" NumberOfComponents=\"" +
             std::to_string(components) + "\" format=\"appended\" offset=\"" + std::to_string(offset_) + "\"/>");
        blocks_.push_back({values.data(), values.size_bytes()});
        offset_ += 8 + values.size_bytes();
    }

    static void writeLittle(AtomicFile& file, std::span<const std::uint64_t> words) {
        if constexpr (std::endian::native == std::endian::little) {
            file.write(words.data(), words.size_bytes());
        } else {
            for (const std::uint64_t word : words) {
                std::array<char, 8> bytes;
                for (std::size_t i = 0; i < 8; ++i) bytes[i] = static_cast<char>((word >> (8 * i)) & 0xff);
                file.write(bytes.data(), bytes.size());
            }
        }
    }

    std::string type_;
    std::string xml_;
    std::vector<Block> blocks_;
    std::uint64_t offset_ = 0;
};

void checkSizes(std::span<const VtkArray> arrays, std::size_t points) {
    for (const VtkArray& array : arrays)
        if (std::visit([](const auto& view) { return view.size(); }, array.values) != points)
            throw std::invalid_argument("VTK array " + array.name + " has not one value per point");
}

std::size_t pointCount(const Extents& extents) {
    std::size_t count = 1;
    for (const int extent : extents) {
        if (extent < 1) throw std::invalid_argument("VTK extents must be positive");
        count *= static_cast<std::size_t>(extent);
    }
    return count;
}

std::string extentText(const Extents& extents) {
    return "0 " + std::to_string(extents[0] - 1) + " 0 " + std::to_string(extents[1] - 1) + " 0 " +
           std::to_string(extents[2] - 1);
}

} // namespace

void writeVtp(const std::filesystem::path& file, std::span<const Point3> points, std::span<const Triangle> triangles,
              std::span<const VtkArray> arrays) {
    checkSizes(arrays, points.size());
    std::vector<std::int64_t> connectivity, offsets;
    connectivity.reserve(3 * triangles.size());
    offsets.reserve(triangles.size());
    for (const Triangle& triangle : triangles) {
        for (const auto point : triangle) {
            if (point >= points.size()) throw std::invalid_argument("a triangle names a point that is not there");
            connectivity.push_back(static_cast<std::int64_t>(point));
        }
        offsets.push_back(static_cast<std::int64_t>(connectivity.size()));
    }
    Document document("PolyData");
    document.line("<PolyData>\n<Piece NumberOfPoints=\"" + std::to_string(points.size()) +
                  "\" NumberOfVerts=\"0\" NumberOfLines=\"0\" NumberOfStrips=\"0\" NumberOfPolys=\"" +
                  std::to_string(triangles.size()) + "\">");
    document.pointData(arrays);
    document.line("<Points>");
    document.array("Points", points);
    document.line("</Points>\n<Polys>");
    document.array("connectivity", std::span<const std::int64_t>(connectivity));
    document.array("offsets", std::span<const std::int64_t>(offsets));
    document.line("</Polys>\n</Piece>\n</PolyData>");
    document.save(file);
}

void writeVti(const std::filesystem::path& file, const VtkImage& image, std::span<const VtkArray> arrays) {
    checkSizes(arrays, pointCount(image.extents));
    const std::string extent = extentText(image.extents);
    Document document("ImageData");
    document.line("<ImageData WholeExtent=\"" + extent + "\" Origin=\"" + text(image.origin) + "\" Spacing=\"" +
                  text(image.spacing) + "\">\n<Piece Extent=\"" + extent + "\">");
    document.pointData(arrays);
    document.line("</Piece>\n</ImageData>");
    document.save(file);
}

void writeVts(const std::filesystem::path& file, const Extents& extents, std::span<const Point3> points,
              std::span<const VtkArray> arrays) {
    if (points.size() != pointCount(extents)) throw std::invalid_argument("VTK points do not fill the extents");
    checkSizes(arrays, points.size());
    const std::string extent = extentText(extents);
    Document document("StructuredGrid");
    document.line("<StructuredGrid WholeExtent=\"" + extent + "\">\n<Piece Extent=\"" + extent + "\">");
    document.pointData(arrays);
    document.line("<Points>");
    document.array("Points", points);
    document.line("</Points>\n</Piece>\n</StructuredGrid>");
    document.save(file);
}

} // namespace tour
