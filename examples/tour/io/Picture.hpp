#pragma once

/// Pictures of surfaces in space, with lines, axes and a key. The tour paints them; gnuplot adds what is text.

#include <dataset/DataSet.hpp>

#include <array>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace tour {

using Vantle::Point;
using Vantle::Vector;
using Colour = std::uint32_t; ///< 0xRRGGBB
inline constexpr Colour kEdgeColour = 0x404040;
inline constexpr std::size_t kBlocksDrawn = 200; ///< More of them would hide what they surround.

/// From where a scene is looked at, by parallel projection.
struct View {
    Vector direction{-1.0, 1.0, -0.6}; ///< From the eye to the scene.
    Vector up{0.0, 0.0, 1.0};          ///< Shown upwards; need not be normal to the direction.
    bool isLit = true;                 ///< Else colours are exactly those of the bar.
};

/// One picture in the making. Of surfaces, whatever is nearer to the eye is seen; of two at the same place, the one
/// with values.
///
/// Degenerate   triangles with a coordinate that is not finite are left out; colours of values that are no numbers are
///              grey; an empty picture says so.
/// Cost         proportional to the area that is painted, and to the number of triangles.
class Picture {
public:
    /// Shows a box as large as can be. It may be flat.
    ///
    /// Failure      std::invalid_argument for a view without direction and for sizes that are no picture's.
    Picture(const Vantle::Box& box, const View& view, int width = 1000, int height = 750);

    /// A surface in colours from dark to light for the values at its points, from the least to the greatest.
    void add(const Vantle::Surface& surface, const Vantle::Values& values);
    /// A surface in one colour.
    void add(const Vantle::Surface& surface, Colour colour);
    /// A line through points; surfaces that were added before may hide it.
    void addLine(std::span<const Point> points, Colour colour);
    /// The edges of the box behind the scene, and three of them with names and numbers.
    void addAxes();
    /// Says below the picture what is of this colour.
    void addKey(Colour colour, const std::string& text);

    /// Leaves the picture as a PNG file, with a bar of the colours if there are values.
    ///
    /// Failure      FileError, see `Gnuplot`; what was there before stays.
    void save(const std::filesystem::path& png, const std::string& title, const std::string& valueName = "") const;

private:
    struct Label {
        Vector at;
        std::string alignment, text;
    };
    using Weights = std::array<double, 3>;

    [[nodiscard]] Vector seen(const Point& p) const;
    [[nodiscard]] std::size_t part(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) + static_cast<std::size_t>(x);
    }
    template<class ColourAt>
    void paint(const Vantle::Surface& surface, double nearer, const ColourAt& colourAt);
    void draw(const Vector& from, const Vector& to, Colour colour);
    void addTicks(int axis, const Vector& from, const Vector& to);

    Vantle::Box box_;
    bool isLit_, hasValues_ = false, isEmpty_ = true;
    int width_, height_; // in parts of pixels
    Vector right_, up_, towardsEye_, middle_;
    double scale_ = 1.0, keyEnd_ = 60.0;
    std::vector<float> depth_; // of parts of pixels, larger towards the eye
    std::vector<std::array<unsigned char, 3>> colours_;
    Vantle::NumberRange range_;
    std::vector<Label> labels_;
};

} // namespace tour
