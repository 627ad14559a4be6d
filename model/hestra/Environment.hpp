#pragma once
/// Settings from the environment.

#include <model/ModelExport.hpp>

#include <map>
#include <string>

namespace Hestra {

/// The environment variable `name` as a decimal integer.
///
/// Blanks around the number are allowed. Unset, empty or anything else gives `fallback`. The description is kept
/// for `environmentHelp`.
VANTLE_MODEL_API int getEnvInteger(const char* name, const char* description, int fallback);
/// Name and description of every setting that was asked for so far.
[[nodiscard]] VANTLE_MODEL_API std::map<std::string, std::string> environmentHelp();

} // namespace Hestra
