#pragma once

/// Runs gnuplot, in a process of its own.

#include <filesystem>
#include <string>
#include <string_view>

namespace tour {

/// Whether gnuplot is on the search path: ask first to go on without pictures.
bool gnuplotAvailable();

/// Runs a script that makes "picture.png" of the file "data", and puts the picture where it belongs. All this lives in
/// a private temporary folder: no path and no text of the user's ever stands in a command, and no path in the script.
///
/// Failure      FileError, one line, with what gnuplot complains about; what was there before stays.
void runGnuplot(const std::filesystem::path& png, std::string_view script, std::string_view data);

/// `text` as a string of a script, whatever it holds.
std::string scriptString(std::string_view text);

} // namespace tour
