#include "io/Picture.hpp"

#include "io/Gnuplot.hpp"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <unordered_map>

namespace tour {

namespace {

constexpr std::size_t kMostTriangles = 250'000; // what gnuplot fills in some three seconds
constexpr double kLongestEdge = 10.0;           // pixels; longer ones are halved, for sorting and shading
constexpr double kOverlap = 0.35;               // pixels; neighbours cover each other's antialiased rims
constexpr double kCrease = 0.5;                 // cosine; sharper edges stay sharp

// From dark to light, also for eyes that do not tell red from green; never so dark that shading is lost.
constexpr std::array<Colour, 7> kPalette = {0x4a4a9c, 0x3d6db5, 0x2f93b8, 0x38b5a3, 0x6fcf85, 0xb5e06c, 0xf6e65f};

Point3 operator+(const Point3& a, const Point3& b) { return {a[0] + b[0], a[1] + b[1], a[2] + b[2]}; }
Point3 operator-(const Point3& a, const Point3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
Point3 operator*(double s, const Point3& a) { return {s * a[0], s * a[1], s * a[2]}; }
double dot(const Point3& a, const Point3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
Point3 cross(const Point3& a, const Point3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
Point3 unit(const Point3& a) {
    const double length = std::sqrt(dot(a, a));
    return length > 0.0 ? (1.0 / length) * a : Point3{};
}
bool isFinite(const Point3& a) { return std::isfinite(a[0]) && std::isfinite(a[1]) && std::isfinite(a[2]); }

void append(std::string& text, double value, int digits) {
    std::array<char, 400> buffer;
    const auto end =
        std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, std::chars_format::fixed, digits);
    text.append(buffer.data(), end.ptr);
}

std::string number(double value) {
    std::array<char, 32> buffer;
    return {buffer.data(), std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr};
}

std::string interval(double low, double high) { return "[" + number(low) + ":" + number(high) + "]"; }

int channel(Colour colour, int shift) { return static_cast<int>((colour >> shift) & 0xff); }

Colour paletteColour(double share) {
    const double place = std::clamp(share, 0.0, 1.0) * (kPalette.size() - 1);
    const auto lower = std::min(static_cast<std::size_t>(place), kPalette.size() - 2);
    const double rest = place - static_cast<double>(lower);
    Colour colour = 0;
    for (const int shift : {16, 8, 0}) {
        const int a = channel(kPalette[lower], shift), b = channel(kPalette[lower + 1], shift);
        colour |= static_cast<Colour>(std::lround(a + rest * (b - a))) << shift;
    }
    return colour;
}

std::string paletteCommand() {
    std::string text = "set palette defined (";
    for (std::size_t i = 0; i < kPalette.size(); ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(i) + " '#";
        constexpr std::string_view kDigits = "0123456789abcdef";
        for (int shift = 20; shift >= 0; shift -= 4) text += kDigits[(kPalette[i] >> shift) & 0xf];
        text += "'";
    }
    return text + ")\n";
}

// The stated range or that of the finite values; never empty.
ValueRange colourRange(const std::optional<ValueRange>& stated, std::span<const double> values, ValueRange range) {
    if (stated)
        range = *stated;
    else
        for (const double value : values)
            if (std::isfinite(value)) range = {std::min(range.first, value), std::max(range.second, value)};
    return range;
}

constexpr const char* kNothing = "set label 'nothing to show' at screen 0.5,0.5 center textcolor rgb '#808080'\n";

constexpr ValueRange kNoRange = {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};

ValueRange widened(const ValueRange& range) {
    if (!(range.first <= range.second)) return {0.0, 1.0};
    if (range.first < range.second) return range;
    const double half = range.first == 0.0 ? 0.5 : 0.01 * std::abs(range.first);
    return {range.first - half, range.first + half};
}

std::string beginScript(const PictureSize& size, const PictureText& text) {
    if (size.width < 50 || size.height < 50 || size.width > 20000 || size.height > 20000)
        throw std::invalid_argument("a picture must have between 50 and 20000 pixels on each side");
    return "set terminal pngcairo noenhanced background '#ffffff' font 'sans,12' size " + std::to_string(size.width) +
           "," + std::to_string(size.height) + "\nset output 'picture.png'\nset encoding utf8\nunset key\n" +
           (text.title.empty() ? "" : "set title " + Gnuplot::quoted(text.title) + " font 'sans,15'\n");
}

std::string colourBar(const ValueRange& range, const std::string& label) {
    return paletteCommand() + "set cbrange " + interval(range.first, range.second) + "\nset cblabel " +
           Gnuplot::quoted(label) + "\nset cbtics scale 0.5\n";
}

// A surface as the camera sees it: x to the right and y up in pixels, z towards the eye.
struct Mesh {
    std::vector<Point3> points;
    std::vector<double> values;
    std::vector<std::array<std::size_t, 3>> triangles;
    Colour colour = 0;
};

struct Corner {
    Point3 position;
    Point3 normal;
    double value;
};

struct Facet {
    std::array<Point2, 3> corners;
    double depth;
    Colour colour;
};

class Camera {
public:
    explicit Camera(const SurfaceView& view) : towardsEye_(unit(-1.0 * view.direction)) {
        Point3 up = view.up;
        // A direction along `up` leaves the turn open: any other axis will do.
        for (std::size_t axis = 0; std::sqrt(dot(cross(up, towardsEye_), cross(up, towardsEye_))) < 1e-9; ++axis) {
            if (axis == 3) throw std::invalid_argument("a view needs a direction");
            up = {};
            up[axis] = 1.0;
        }
        right_ = unit(cross(up, towardsEye_));
        up_ = cross(towardsEye_, right_);
    }

    Point3 turned(const Point3& p) const { return {dot(p, right_), dot(p, up_), dot(p, towardsEye_)}; }

private:
    Point3 towardsEye_, right_, up_;
};

Mesh turnedMesh(const SurfacePart& part, const Camera& camera) {
    if (!part.values.empty() && part.values.size() != part.points.size())
        throw std::invalid_argument("a surface needs one value per point or none");
    Mesh mesh;
    mesh.colour = part.colour;
    mesh.values.assign(part.values.begin(), part.values.end());
    mesh.points.reserve(part.points.size());
    for (const Point3& point : part.points) mesh.points.push_back(camera.turned(point));
    for (const Triangle& triangle : part.triangles) {
        for (const auto corner : triangle)
            if (corner >= part.points.size()) throw std::invalid_argument("a triangle names a point that is not there");
        if (std::all_of(triangle.begin(), triangle.end(), [&](auto corner) { return isFinite(mesh.points[corner]); }))
            mesh.triangles.push_back({triangle[0], triangle[1], triangle[2]});
    }
    return mesh;
}

// Scales and moves the meshes together into the area between two corners of the picture.
void fitInto(std::vector<Mesh>& meshes, const Point2& low, const Point2& high) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    Point3 least = {kInfinity, kInfinity, kInfinity}, most = -1.0 * least;
    for (const Mesh& mesh : meshes)
        for (const auto& triangle : mesh.triangles)
            for (const std::size_t corner : triangle)
                for (std::size_t axis = 0; axis < 3; ++axis) {
                    least[axis] = std::min(least[axis], mesh.points[corner][axis]);
                    most[axis] = std::max(most[axis], mesh.points[corner][axis]);
                }
    const double width = most[0] - least[0], height = most[1] - least[1];
    double scale = std::min(width > 0.0 ? (high[0] - low[0]) / width : kInfinity,
                            height > 0.0 ? (high[1] - low[1]) / height : kInfinity);
    if (!std::isfinite(scale)) scale = 1.0;
    const Point3 centre = 0.5 * least + 0.5 * most;
    const Point3 middle = {0.5 * (low[0] + high[0]), 0.5 * (low[1] + high[1]), 0.0};
    for (Mesh& mesh : meshes)
        for (Point3& point : mesh.points) point = scale * (point - centre) + middle;
}

using Cell = std::array<std::int64_t, 3>;

struct CellHash {
    std::size_t operator()(const Cell& cell) const {
        std::uint64_t hash = 0;
        for (const std::int64_t place : cell)
            hash = std::rotl((hash ^ static_cast<std::uint64_t>(place)) * 0x9e3779b97f4a7c15u, 29);
        return static_cast<std::size_t>(hash);
    }
};

// One point, the mean, for all points in the same cell of a lattice; triangles that collapse vanish.
Mesh clustered(const Mesh& mesh, double size) {
    Mesh result;
    result.colour = mesh.colour;
    std::unordered_map<Cell, std::size_t, CellHash> clusters;
    clusters.reserve(mesh.points.size() / 2);
    std::vector<std::size_t> members, clusterOf(mesh.points.size());
    for (std::size_t i = 0; i < mesh.points.size(); ++i) {
        if (!isFinite(mesh.points[i])) continue;
        Cell key;
        // The shift keeps points on a plane of symmetry, give or take a rounding, in one cell.
        for (std::size_t axis = 0; axis < 3; ++axis)
            key[axis] =
                static_cast<std::int64_t>(std::clamp(std::floor(mesh.points[i][axis] / size + 0.37), -1e15, 1e15));
        const auto [entry, isNew] = clusters.try_emplace(key, result.points.size());
        clusterOf[i] = entry->second;
        if (isNew) {
            result.points.emplace_back();
            members.push_back(0);
            if (!mesh.values.empty()) result.values.push_back(0.0);
        }
        result.points[entry->second] = result.points[entry->second] + mesh.points[i];
        if (!mesh.values.empty()) result.values[entry->second] += mesh.values[i];
        ++members[entry->second];
    }
    for (std::size_t i = 0; i < members.size(); ++i) {
        result.points[i] = (1.0 / static_cast<double>(members[i])) * result.points[i];
        if (!mesh.values.empty()) result.values[i] /= static_cast<double>(members[i]);
    }
    for (const auto& [a, b, c] : mesh.triangles) {
        const std::array<std::size_t, 3> triangle = {clusterOf[a], clusterOf[b], clusterOf[c]};
        if (triangle[0] != triangle[1] && triangle[1] != triangle[2] && triangle[2] != triangle[0])
            result.triangles.push_back(triangle);
    }
    return result;
}

// Points of neighbouring blocks that coincide become one, so that the shading shows no seam; of what is too fine to be
// seen, as much goes as must.
void simplify(std::vector<Mesh>& meshes) {
    const std::vector<Mesh> whole = std::move(meshes);
    std::size_t triangles = 0;
    double size = 0.02;
    do {
        meshes.clear();
        triangles = 0;
        for (const Mesh& mesh : whole) {
            meshes.push_back(clustered(mesh, size));
            triangles += meshes.back().triangles.size();
        }
        size = std::max(0.75, 1.4 * size);
    } while (triangles > kMostTriangles);
}

class Shader {
public:
    Shader(const ValueRange& range, std::vector<Facet>& facets) : range_(range), facets_(facets) {}

    void shade(const Mesh& mesh) {
        std::vector<Point3> normals(mesh.points.size());
        for (const auto& [a, b, c] : mesh.triangles) {
            const Point3 area = cross(mesh.points[b] - mesh.points[a], mesh.points[c] - mesh.points[a]);
            for (const std::size_t corner : {a, b, c}) normals[corner] = normals[corner] + area;
        }
        for (const auto& triangle : mesh.triangles) {
            const auto& [a, b, c] = triangle;
            Point3 face = unit(cross(mesh.points[b] - mesh.points[a], mesh.points[c] - mesh.points[a]));
            if (face[2] < 0.0) face = -1.0 * face;
            std::array<Corner, 3> corners;
            for (std::size_t i = 0; i < 3; ++i) {
                const std::size_t point = triangle[i];
                Point3 normal = unit(normals[point]);
                const double agreement = dot(normal, face);
                if (std::abs(agreement) < kCrease)
                    normal = face;
                else if (agreement < 0.0)
                    normal = -1.0 * normal;
                corners[i] = {mesh.points[point], normal, mesh.values.empty() ? kNan : mesh.values[point]};
            }
            split(corners, mesh.colour);
        }
    }

private:
    static constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

    // Every edge that is too long is halved at its middle, in both of its triangles, so no gaps open.
    void split(const std::array<Corner, 3>& corners, Colour colour) {
        std::size_t longest = 0;
        double length = 0.0;
        for (std::size_t i = 0; i < 3; ++i) {
            const Point3 edge = corners[(i + 1) % 3].position - corners[i].position;
            if (const double square = dot(edge, edge); square > length) {
                length = square;
                longest = i;
            }
        }
        if (length <= kLongestEdge * kLongestEdge || facets_.size() > 2 * kMostTriangles) return emit(corners, colour);
        const Corner &a = corners[longest], &b = corners[(longest + 1) % 3], &c = corners[(longest + 2) % 3];
        const Corner middle = {0.5 * a.position + 0.5 * b.position, a.normal + b.normal, 0.5 * a.value + 0.5 * b.value};
        split({a, middle, c}, colour);
        split({middle, b, c}, colour);
    }

    void emit(const std::array<Corner, 3>& corners, Colour colour) {
        const auto& [a, b, c] = corners;
        const double value = (a.value + b.value + c.value) / 3.0;
        if (std::isfinite(value)) colour = paletteColour((value - range_.first) / (range_.second - range_.first));
        const Point3 normal = unit(unit(a.normal) + unit(b.normal) + unit(c.normal));
        // Light that never leaves a side in the dark, and a soft gleam.
        static const Point3 light = unit({-0.3, 0.45, 1.0}), halfway = unit(light + Point3{0.0, 0.0, 1.0});
        const double diffuse = 0.5 + 0.5 * dot(normal, light);
        const double brightness = 0.42 + 0.64 * diffuse * diffuse;
        const double gleam = 60.0 * std::pow(std::max(0.0, dot(normal, halfway)), 40.0);
        Colour lit = 0;
        for (const int shift : {16, 8, 0}) {
            const double shaded = channel(colour, shift) * brightness + gleam;
            lit |= static_cast<Colour>(std::lround(std::clamp(shaded, 0.0, 255.0))) << shift;
        }
        Facet facet{{}, a.position[2] + b.position[2] + c.position[2], lit};
        const Point3 centre = (1.0 / 3.0) * (a.position + b.position + c.position);
        for (std::size_t i = 0; i < 3; ++i) {
            Point3 outwards = corners[i].position - centre;
            outwards[2] = 0.0;
            const Point3 corner = corners[i].position + kOverlap * unit(outwards);
            facet.corners[i] = {corner[0], corner[1]};
        }
        facets_.push_back(facet);
    }

    ValueRange range_;
    std::vector<Facet>& facets_;
};

std::string facetData(std::vector<Facet>& facets) {
    std::stable_sort(facets.begin(), facets.end(), [](const Facet& a, const Facet& b) { return a.depth < b.depth; });
    std::string data;
    data.reserve(facets.size() * 72);
    for (const Facet& facet : facets) {
        const std::string colour = " " + std::to_string(facet.colour) + "\n";
        for (const Point2& corner : facet.corners) {
            append(data, corner[0], 2);
            data += ' ';
            append(data, corner[1], 2);
            data += colour;
        }
        data += '\n';
    }
    return data;
}

} // namespace

void drawSurface(const std::filesystem::path& png, std::span<const SurfacePart> parts, const SurfaceView& view,
                 const SurfaceStyle& style) {
    const Camera camera(view);
    std::vector<Mesh> meshes;
    ValueRange range = kNoRange;
    bool hasValues = false;
    for (const SurfacePart& part : parts) {
        meshes.push_back(turnedMesh(part, camera));
        hasValues |= !part.values.empty();
        range = colourRange(style.range, part.values, range);
    }
    range = widened(range);

    // The plot fills the picture, in pixels, and leaves the margins free itself.
    const double width = style.size.width, height = style.size.height;
    fitInto(meshes, {30.0, 30.0},
            {width - (hasValues ? 150.0 : 30.0), height - (style.text.title.empty() ? 30.0 : 60.0)});
    simplify(meshes);
    std::vector<Facet> facets;
    Shader shader(range, facets);
    for (const Mesh& mesh : meshes) shader.shade(mesh);

    std::string script = beginScript(style.size, style.text) +
                         "unset border\nunset tics\n"
                         "set lmargin at screen 0\nset rmargin at screen 1\n"
                         "set bmargin at screen 0\nset tmargin at screen 1\n"
                         "set title offset 0,-3\nset style fill solid 1.0 noborder\n"
                         "set xrange " +
                         interval(0.0, width) + "\nset yrange " + interval(0.0, height) + "\n";
    if (hasValues)
        script += colourBar(range, style.text.valueLabel) +
                  "set colorbox user origin screen 0.875,0.2 size screen 0.02,0.6\n";
    if (facets.empty()) script += kNothing;
    script += facets.empty() ? "plot NaN" : "plot 'facets' using 1:2:3 with filledcurves closed linecolor rgb variable";
    if (hasValues) script += ", NaN with points palette";
    const Gnuplot gnuplot(png);
    gnuplot.store("facets", facetData(facets));
    gnuplot.run(script + "\n");
}

void drawSlice(const std::filesystem::path& png, const Slice& slice, const SliceStyle& style) {
    if (slice.columns == 0 || slice.rows == 0 || slice.values.size() / slice.columns != slice.rows ||
        slice.values.size() % slice.columns != 0)
        throw std::invalid_argument("a slice needs one value per column and row");
    if (!(slice.spacing[0] > 0.0) || !(slice.spacing[1] > 0.0) || !std::isfinite(slice.origin[0]) ||
        !std::isfinite(slice.origin[1]))
        throw std::invalid_argument("a slice needs a finite origin and a positive spacing");
    const ValueRange range = widened(colourRange(style.range, slice.values, kNoRange));
    const bool isEmpty =
        std::none_of(slice.values.begin(), slice.values.end(), [](double v) { return std::isfinite(v); });
    const auto extent = [&](std::size_t axis, std::size_t cells) {
        const double low = slice.origin[axis] - 0.5 * slice.spacing[axis];
        return interval(low, low + static_cast<double>(cells) * slice.spacing[axis]);
    };
    // gnuplot wants two points along each axis of an image: a single one is drawn twice, half as wide.
    const std::array<std::size_t, 2> times = {slice.columns == 1 ? 2u : 1u, slice.rows == 1 ? 2u : 1u};
    const auto width = [&](std::size_t axis) { return number(slice.spacing[axis] / static_cast<double>(times[axis])); };
    const auto first = [&](std::size_t axis) {
        return number(slice.origin[axis] - (times[axis] == 2 ? 0.25 * slice.spacing[axis] : 0.0));
    };
    std::string script = beginScript(style.size, style.text) + colourBar(range, style.text.valueLabel) + "set xlabel " +
                         Gnuplot::quoted(style.xLabel) + "\nset ylabel " + Gnuplot::quoted(style.yLabel) +
                         "\nset size ratio -1\nset tics out nomirror scale 0.5\n"
                         "set border lw 0.8 lc rgb '#404040'\n"
                         "set xrange " +
                         extent(0, slice.columns) + "\nset yrange " + extent(1, slice.rows) + "\n" +
                         (isEmpty ? kNothing : "") + "plot 'values' binary array=(" +
                         std::to_string(times[0] * slice.columns) + "," + std::to_string(times[1] * slice.rows) +
                         ") format='%double' origin=(" + first(0) + "," + first(1) + ") dx=" + width(0) +
                         " dy=" + width(1) + " with image";

    std::string bytes;
    for (std::size_t i = 0; i < times[1] * slice.rows; ++i)
        for (std::size_t j = 0; j < times[0] * slice.columns; ++j) {
            double value = slice.values[i / times[1] * slice.columns + j / times[0]];
            if (!std::isfinite(value)) value = std::numeric_limits<double>::quiet_NaN();
            bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
        }
    std::string lines;
    for (const auto& outline : style.outlines) {
        for (const Point2& point : outline) lines += number(point[0]) + " " + number(point[1]) + "\n";
        lines += "\n";
    }
    const Gnuplot gnuplot(png);
    gnuplot.store("values", bytes);
    if (!style.outlines.empty()) {
        gnuplot.store("lines", lines);
        script += ", 'lines' using 1:2 with lines linecolor rgb '#202020' linewidth 1.2";
    }
    gnuplot.run(script + "\n");
}

} // namespace tour
