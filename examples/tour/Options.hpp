#pragma once

/// The command line of the tour.

#include <dataset/io/Plot3D.hpp>

#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tour {

/// The command line asks for something that cannot be. what() is a single line.
class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& text) : std::runtime_error(text) {}
};

struct Options {
    /// A PLOT3D grid, and what belongs to it; none: the flow past a cylinder.
    std::vector<std::filesystem::path> files;
    Vantle::Plot3DOptions form;
    std::string field;                 ///< Empty: what suits the data.
    std::optional<double> level;       ///< None: what suits the field.
    double heatRatio = 1.4;            ///< Of the heat capacities of the gas, at constant pressure and constant volume.
    std::optional<std::size_t> memory; ///< Bytes that are kept of files and of what is derived; none: all.
    int resolution = 80;               ///< Positions of the uniform grid along its longest axis.
    bool quick = false;                ///< A coarse ring of blocks.
    int cut = 0;                       ///< Blocks to cut the grid of a file into; 0: as it is.
    int threads = 0;                   ///< 0: as many as OpenMP takes.
    std::filesystem::path output = "tour-output";
    bool help = false;
};

/// Values follow their option as the next argument or behind "="; "--" ends the options.
///
/// Failure      UsageError.
Options parseOptions(std::span<const char* const> arguments);

/// What --help prints.
std::string usage();

} // namespace tour
