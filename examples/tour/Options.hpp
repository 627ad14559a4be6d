#pragma once

/// The command line of the tour.

#include <dataset/io/Plot3D.hpp>

#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

namespace tour {

/// The command line asks for something that cannot be. what() is a single line.
class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& text) : std::runtime_error(text) {}
};

struct Options {
    std::optional<std::filesystem::path> gridFile;     ///< None: the flow past a cylinder.
    std::optional<std::filesystem::path> solutionFile; ///< Only with a grid file.
    Vantle::Plot3DOptions form;
    std::string field;           ///< Empty: what suits the data.
    std::optional<double> level; ///< None: what suits the field.
    double heatRatio = 1.4;      ///< Of the heat capacities of the gas, at constant pressure and constant volume.
    int resolution = 80;         ///< Positions of the uniform grid along its longest axis.
    bool quick = false;          ///< A coarse ring of blocks.
    int cut = 0;                 ///< Blocks to cut the grid of a file into; 0: as it is.
    int threads = 0;             ///< 0: as many as OpenMP takes.
    std::filesystem::path output = "tour-output";
    bool help = false;
};

inline constexpr int kMinResolution = 3;
inline constexpr int kMaxResolution = 512;
inline constexpr int kQuickResolution = 24;
inline constexpr int kMaxThreads = 256;
inline constexpr int kMaxCut = 1000;

/// Values follow their option as the next argument or behind "="; "--" ends the options.
///
/// Failure      UsageError.
Options parseOptions(std::span<const char* const> arguments);

/// What --help prints.
std::string usage();

} // namespace tour
