#include "io/Picture.hpp"

#include "Report.hpp"
#include "io/Gnuplot.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace tour {

using Vantle::Surface, Vantle::Values;

namespace {

// All lengths are in parts of pixels, of which each has nine, against jagged edges.
constexpr int kParts = 3;
constexpr double kBehind = -1.0;    // surfaces of one colour stand back, so that others show on them
constexpr double kLineNearer = 3.0; // lines show on surfaces
constexpr double kCrease = 0.5;     // cosine; sharper edges stay sharp
constexpr double kTickDistance = 200;
constexpr Colour kFrame = 0xb0b0b0, kInk = 0x404040, kNoValue = 0x8fb3d9;

// From dark to light, also for eyes that do not tell red from green; never so dark that shading is lost.
constexpr std::array<Colour, 7> kPalette = {0x4a4a9c, 0x3d6db5, 0x2f93b8, 0x38b5a3, 0x6fcf85, 0xb5e06c, 0xf6e65f};

Vector rgb(Colour colour) { return {double(colour >> 16 & 0xff), double(colour >> 8 & 0xff), double(colour & 0xff)}; }

std::array<unsigned char, 3> bytes(const Vector& colour) {
    const auto byte = [&](int c) { return static_cast<unsigned char>(std::lround(std::clamp(colour[c], 0.0, 255.0))); };
    return {byte(0), byte(1), byte(2)};
}

Vector paletteColour(double share) {
    if (std::isnan(share)) return rgb(kNoValue);
    const double place = std::clamp(share, 0.0, 1.0) * (kPalette.size() - 1);
    const auto lower = std::min(static_cast<std::size_t>(place), kPalette.size() - 2);
    const double rest = place - static_cast<double>(lower);
    return (1.0 - rest) * rgb(kPalette[lower]) + rest * rgb(kPalette[lower + 1]);
}

Point corner(const Vantle::Box& box, unsigned n) {
    return {(n & 1u ? box.high : box.low)[0], (n & 2u ? box.high : box.low)[1], (n & 4u ? box.high : box.low)[2]};
}

Vector unit(const Vector& v) { return normSquared(v) > 0.0 ? v / length(v) : Vector(); }

// Light that never leaves a side in the dark, and a soft gleam.
Vector lit(const Vector& colour, const Vector& normal) {
    static const Vector light = unit({-0.3, 0.45, 1.0}), halfway = unit(light + Vector(0.0, 0.0, 1.0));
    const double diffuse = 0.5 + 0.5 * dot(normal, light);
    const double gleam = 50.0 * std::pow(std::max(0.0, dot(normal, halfway)), 32);
    return (0.42 + 0.64 * diffuse * diffuse) * colour + Vector(gleam, gleam, gleam);
}

// 1, 2 or 5 times a power of ten, at least this wide.
double niceStep(double width) {
    const double power = std::pow(10.0, std::floor(std::log10(width)));
    return power * (width <= power ? 1.0 : width <= 2.0 * power ? 2.0 : width <= 5.0 * power ? 5.0 : 10.0);
}

// The range of the finite values; never empty.
Vantle::NumberRange rangeOf(const Values& values) {
    double least = HUGE_VAL, greatest = -HUGE_VAL;
    for (const double value : values.numbers())
        if (std::isfinite(value)) least = std::min(least, value), greatest = std::max(greatest, value);
    if (least > greatest) return {0.0, 1.0};
    const double half = least < greatest ? 0.0 : least == 0.0 ? 0.5 : 0.01 * std::abs(least);
    return {least - half, greatest + half};
}

} // namespace

Picture::Picture(const Vantle::Box& box, const View& view, int width, int height)
    : box_(box), isLit_(view.isLit), width_(kParts * width), height_(kParts * height),
      towardsEye_(unit(-view.direction)) {
    right_ = unit(cross(view.up, towardsEye_));
    up_ = cross(towardsEye_, right_);
    if (width < 50 || height < 50 || width > 10000 || height > 10000 || !(normSquared(up_) > 0.5))
        throw std::invalid_argument("a picture of no size, or seen from nowhere");
    depth_.assign(part(0, height_), -std::numeric_limits<float>::infinity());
    colours_.assign(depth_.size(), {255, 255, 255});

    Vector least(HUGE_VAL, HUGE_VAL, 0.0), most = -least;
    for (unsigned n = 0; n < 8; ++n) {
        const Vector at = seen(corner(box, n));
        for (const int d : {0, 1}) least[d] = std::min(least[d], at[d]), most[d] = std::max(most[d], at[d]);
    }
    // The rest is for axes, title, key and bar.
    scale_ = std::min(most[0] > least[0] ? 0.76 * width_ / (most[0] - least[0]) : HUGE_VAL,
                      most[1] > least[1] ? 0.8 * height_ / (most[1] - least[1]) : HUGE_VAL);
    if (!std::isfinite(scale_)) scale_ = 1.0;
    middle_ = Vector(0.465 * width_, 0.525 * height_, 0.0) - 0.5 * scale_ * (least + most);
}

// x to the right and y up, z towards the eye.
Vector Picture::seen(const Point& p) const {
    const Vector v = p - Point();
    return scale_ * Vector(dot(v, right_), dot(v, up_), dot(v, towardsEye_)) + middle_;
}

template<class ColourAt>
void Picture::paint(const Surface& surface, double nearer, const ColourAt& colourAt) {
    std::vector<Vector> points, normals(surface.points().size());
    for (const Point& p : surface.points()) points.push_back(seen(p));
    const auto area = [&](const auto& t) { return cross(points[t[1]] - points[t[0]], points[t[2]] - points[t[0]]); };
    for (const auto& t : surface.triangles())
        for (const unsigned int corner : t) normals[corner] += area(t);
    for (const auto& t : surface.triangles()) {
        const Vector &a = points[t[0]], &b = points[t[1]], &c = points[t[2]];
        const double twice = area(t)[2];
        if (!std::isfinite(twice) || twice == 0.0) continue;
        isEmpty_ = false;
        const Vector face = unit(twice < 0.0 ? -area(t) : area(t));
        std::array<Vector, 3> normal;
        for (int n = 0; n < 3; ++n) {
            const Vector at = unit(normals[t[n]]);
            normal[static_cast<std::size_t>(n)] = std::abs(dot(at, face)) < kCrease ? face
                                                  : dot(at, face) < 0.0             ? -at
                                                                                    : at;
        }
        const auto first = [](double at) { return static_cast<int>(std::max(0.0, std::ceil(at - 0.5))); };
        const auto last = [](double at, int end) {
            return static_cast<int>(std::min(std::floor(at - 0.5), end - 1.0));
        };
        for (int y = first(std::min({a[1], b[1], c[1]})); y <= last(std::max({a[1], b[1], c[1]}), height_); ++y)
            for (int x = first(std::min({a[0], b[0], c[0]})); x <= last(std::max({a[0], b[0], c[0]}), width_); ++x) {
                const Vector at = Vector(x + 0.5, y + 0.5, 0.0) - a;
                const double ofB = (at[0] * (c - a)[1] - (c - a)[0] * at[1]) / twice,
                             ofC = ((b - a)[0] * at[1] - at[0] * (b - a)[1]) / twice;
                const Weights w = {1.0 - ofB - ofC, ofB, ofC};
                if (!(std::min({w[0], ofB, ofC}) >= -1e-9)) continue;
                const double depth = w[0] * a[2] + ofB * b[2] + ofC * c[2] + nearer;
                if (!(depth > depth_[part(x, y)])) continue;
                depth_[part(x, y)] = static_cast<float>(depth);
                const Vector colour = colourAt(t, w);
                colours_[part(x, y)] =
                    bytes(isLit_ ? lit(colour, unit(w[0] * normal[0] + ofB * normal[1] + ofC * normal[2])) : colour);
            }
    }
}

void Picture::add(const Surface& surface, const Values& values) {
    range_ = rangeOf(values);
    hasValues_ = true;
    paint(surface, 0.0, [&](const auto& t, const Weights& w) {
        const double value = w[0] * values[t[0]] + w[1] * values[t[1]] + w[2] * values[t[2]];
        return paletteColour((value - range_.least) / (range_.greatest - range_.least));
    });
}

void Picture::add(const Surface& surface, Colour colour) {
    paint(surface, kBehind, [&](const auto&, const Weights&) { return rgb(colour); });
}

void Picture::addLine(std::span<const Point> points, Colour colour) {
    for (std::size_t n = 1; n < points.size(); ++n) draw(seen(points[n - 1]), seen(points[n]), colour);
}

// One pixel wide.
void Picture::draw(const Vector& from, const Vector& to, Colour colour) {
    const double steps = std::ceil(std::max(std::abs((to - from)[0]), std::abs((to - from)[1]))) + 1.0;
    if (!(steps < 1e6)) return;
    for (double step = 0.0; step <= steps; ++step) {
        const Vector p = from + step / steps * (to - from);
        const int i = static_cast<int>(std::floor(p[0])), j = static_cast<int>(std::floor(p[1]));
        for (int y = std::max(0, j - 1); y < std::min(j + 2, height_); ++y)
            for (int x = std::max(0, i - 1); x < std::min(i + 2, width_); ++x)
                if (p[2] + kLineNearer >= depth_[part(x, y)]) colours_[part(x, y)] = bytes(rgb(colour));
    }
}

void Picture::addAxes() {
    std::array<Vector, 8> corners;
    for (unsigned n = 0; n < 8; ++n) corners[n] = seen(corner(box_, n));
    const auto nearest =
        std::max_element(corners.begin(), corners.end(), [](const auto& a, const auto& b) { return a[2] < b[2]; });
    for (int axis = 0; axis < 3; ++axis) {
        // Of four edges the one on the left if they go up, else the lowest.
        Vector from, to;
        double place = HUGE_VAL;
        for (unsigned n = 0; n < 8; ++n) {
            if (n >> axis & 1u) continue;
            const Vector &a = corners[n], &b = corners[n | 1u << axis];
            if (&a != &*nearest && &b != &*nearest) draw(a, b, kFrame);
            const double here = std::abs(b[1] - a[1]) > std::abs(b[0] - a[0]) ? a[0] + b[0] : a[1] + b[1];
            if (here < place - 1e-6) place = here, from = a, to = b;
        }
        addTicks(axis, from, to);
    }
}

void Picture::addTicks(int axis, const Vector& from, const Vector& to) {
    const double low = box_.low[axis], high = box_.high[axis];
    Vector along = to - from, outwards = 0.5 * (from + to) - seen(box_.low + 0.5 * (box_.high - box_.low));
    along[2] = outwards[2] = 0.0;
    if (length(along) < 0.5 * kTickDistance || !(high > low)) return;
    outwards = unit(outwards - dot(outwards, along) / normSquared(along) * along);
    const char* const alignment = outwards[0] < -0.2 ? "right" : outwards[0] > 0.2 ? "left" : "center";
    draw(from, to, kInk);
    const double step = niceStep((high - low) * kTickDistance / length(along));
    for (double n = std::ceil(low / step - 1e-9); n * step <= high + 1e-9 * step; ++n) {
        const Vector at = from + (n * step - low) / (high - low) * (to - from);
        draw(at, at + 18.0 * outwards, kInk);
        labels_.push_back(
            {at + 36.0 * outwards - Vector(0.0, outwards[1] < -0.2 ? 12.0 : 0.0, 0.0), alignment, number(n * step)});
    }
    labels_.push_back({0.5 * (from + to) + 150.0 * outwards, "center", std::string(1, "xyz"[axis])});
}

void Picture::addKey(Colour colour, const std::string& text) {
    constexpr double kSide = 36.0, kPerLetter = 23.0;
    for (double y = 42.0; y <= 42.0 + kSide; ++y) draw({keyEnd_, y, 0.0}, {keyEnd_ + kSide, y, 0.0}, colour);
    labels_.push_back({{keyEnd_ + kSide + 24.0, 60.0, 0.0}, "left", text});
    keyEnd_ += kSide + 90.0 + kPerLetter * static_cast<double>(text.size());
}

void Picture::save(const std::filesystem::path& png, const std::string& title, const std::string& valueName) const {
    std::string image;
    for (int y = 0; y < height_; y += kParts)
        for (int x = 0; x < width_; x += kParts)
            for (std::size_t channel = 0; channel < 3; ++channel) {
                int sum = 0;
                for (int n = 0; n < kParts * kParts; ++n)
                    sum += colours_[part(x + n % kParts, y + n / kParts)][channel];
                image += static_cast<char>((sum + kParts * kParts / 2) / (kParts * kParts));
            }

    const std::string size = std::to_string(width_ / kParts) + "," + std::to_string(height_ / kParts);
    std::string script = "set terminal pngcairo noenhanced background '#ffffff' font 'sans,12' size " + size +
                         "\nset output 'picture.png'\nset encoding utf8\nunset key\nunset border\nunset tics\n"
                         "set lmargin at screen 0\nset rmargin at screen 1\n"
                         "set bmargin at screen 0\nset tmargin at screen 1\nset xrange [0:" +
                         std::to_string(width_) + "]\nset yrange [0:" + std::to_string(height_) + "]\n";
    const auto write = [&](const Label& label, const std::string& look = "") {
        script += "set label " + scriptString(label.text) + " at " + number(label.at[0], 6) + "," +
                  number(label.at[1], 6) + " front " + label.alignment + look + "\n";
    };
    for (const Label& label : labels_) write(label);
    write({{0.5 * width_, height_ - 72.0, 0.0}, "center", title}, " font 'sans,15'");
    if (isEmpty_) write({{0.5 * width_, 0.5 * height_, 0.0}, "center", "nothing to show"}, " textcolor rgb '#808080'");
    std::string plot =
        "plot 'data' binary array=(" + size + ") format='%uchar' origin=(1.5,1.5) dx=3 dy=3 with rgbimage";
    if (hasValues_) {
        for (std::size_t n = 0; n < kPalette.size(); ++n) {
            std::array<char, 40> entry;
            std::snprintf(entry.data(), entry.size(), "%s %zu '#%06x'", n ? "," : "set palette defined (", n,
                          kPalette[n]);
            script += entry.data();
        }
        script += ")\nset cbrange [" + number(range_.least, 17) + ":" + number(range_.greatest, 17) +
                  "]\nset cblabel " + scriptString(valueName) +
                  "\nset cbtics scale 0.5\nset colorbox user origin screen 0.885,0.2 size screen 0.02,0.6\n";
        plot += ", NaN with points palette";
    }
    runGnuplot(png, script + plot + "\n", image);
}

} // namespace tour
