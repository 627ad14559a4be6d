#pragma once

/// Runs gnuplot on one script and puts the picture where it belongs.

#include <dataset/io/Leftover.hpp>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tour {

/// Whether gnuplot is on the search path: ask first to go on without pictures.
bool gnuplotAvailable();

/// One picture in the making. Script, data and result live in a private temporary folder, in which gnuplot runs: the
/// script names them by fixed names, and no path of the user's ever stands in it.
class Gnuplot {
public:
    /// Failure      FileError when there is no gnuplot or no temporary folder.
    explicit Gnuplot(std::filesystem::path png);

    /// A data file that the script may name.
    void store(const std::string& name, std::string_view bytes) const;

    /// `script` must leave "picture.png".
    ///
    /// Failure      FileError with the first line of what gnuplot complains about.
    void run(std::string_view script) const;

    /// `text` as a string of the script, whatever it holds.
    static std::string quoted(std::string_view text);

private:
    std::filesystem::path png_;
    std::optional<Vantle::Leftover> folder_; // there once it is constructed
};

} // namespace tour
