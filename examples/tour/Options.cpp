#include "Options.hpp"

#include <charconv>
#include <cmath>
#include <map>
#include <set>

namespace tour {

namespace {

constexpr int kQuickResolution = 24;

template<class Number>
Number number(const std::string& text, Number least, Number greatest) {
    Number value{};
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, value);
    if (error == std::errc() && end == last && value >= least && value <= greatest && std::isfinite(double(value)))
        return value;
    throw UsageError(
        "'" + text + "' is not a number" +
        (std::isinf(double(greatest)) ? "" : " from " + std::to_string(least) + " to " + std::to_string(greatest)));
}

double level(const std::string& text) { return number<double>(text, -HUGE_VAL, HUGE_VAL); }

bool isFirst(const std::string& text, const std::string& first, const std::string& second) {
    if (text != first && text != second) throw UsageError("'" + text + "' is neither " + first + " nor " + second);
    return text == first;
}

using Store = void (*)(Options&, const std::string& value);
using Vantle::Plot3DScalar;

const std::map<std::string, Store> kOptionsWithValue = {
    {"--field", [](Options& o, const std::string& v) { o.field = v; }},
    {"--level", [](Options& o, const std::string& v) { o.level = level(v); }},
    {"--heat-ratio",
     [](Options& o, const std::string& v) {
         if (!((o.heatRatio = level(v)) > 1.0)) throw UsageError("'" + v + "' is not above 1");
     }},
    {"--resolution", [](Options& o, const std::string& v) { o.resolution = number(v, 3, 512); }},
    {"--cut", [](Options& o, const std::string& v) { o.cut = number(v, 1, 1000); }},
    {"--memory", [](Options& o, const std::string& v) { o.memory = number<std::size_t>(v, 1, 1 << 24) << 20; }},
    {"--threads", [](Options& o, const std::string& v) { o.threads = number(v, 1, 256); }},
    {"--output",
     [](Options& o, const std::string& v) {
         if ((o.output = v).empty()) throw UsageError("the name of a folder is missing");
     }},
    {"--endian",
     [](Options& o, const std::string& v) {
         o.form.byteOrder = isFirst(v, "big", "little") ? std::endian::big : std::endian::little;
     }},
    {"--precision",
     [](Options& o, const std::string& v) {
         o.form.scalar = isFirst(v, "single", "double") ? Plot3DScalar::float32 : Plot3DScalar::float64;
     }},
    {"--records", [](Options& o, const std::string& v) { o.form.recordMarks = isFirst(v, "yes", "no"); }},
    {"--multiblock", [](Options& o, const std::string& v) { o.form.multiBlock = isFirst(v, "yes", "no"); }},
    {"--blanking", [](Options& o, const std::string& v) { o.form.blanking = isFirst(v, "yes", "no"); }},
};

} // namespace

Options parseOptions(std::span<const char* const> arguments) {
    Options options;
    std::set<std::string> given;
    bool optionsEnded = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string argument = arguments[i];
        if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
            if (argument.empty()) throw UsageError("the name of a file is empty");
            options.files.emplace_back(argument);
        } else if (argument == "--") {
            optionsEnded = true;
        } else if (argument == "-h" || argument == "--help") {
            options.help = true;
        } else if (argument == "--quick") {
            options.quick = true;
        } else {
            const std::size_t equals = argument.find('=');
            const std::string name = argument.substr(0, equals);
            const auto known = kOptionsWithValue.find(name);
            if (known == kOptionsWithValue.end()) throw UsageError("unknown option '" + name + "'");
            if (equals == std::string::npos && i + 1 == arguments.size())
                throw UsageError(name + ": its value is missing");
            try {
                known->second(options, equals == std::string::npos ? arguments[++i] : argument.substr(equals + 1));
            } catch (const UsageError& error) {
                throw UsageError(name + ": " + error.what());
            }
            given.insert(name);
        }
    }
    if (options.help) return options;
    if (options.files.size() > 2)
        throw UsageError("a grid and a solution at most, but here is also '" + options.files[2].string() + "'");
    for (const char* const name : {"--endian", "--precision", "--records", "--multiblock", "--blanking", "--cut"})
        if (given.count(name) && options.files.empty()) throw UsageError(std::string(name) + ": no grid is given");
    if (given.count("--heat-ratio") && options.files.size() < 2) throw UsageError("--heat-ratio: no solution is given");
    if (options.quick && !given.count("--resolution")) options.resolution = kQuickResolution;
    return options;
}

std::string usage() {
    return R"(usage: tour [option]... [GRID [SOLUTION]]

Walks over a flow on curvilinear blocks: boxes and ranges, an isosurface, evaluation on a uniform grid, derivatives.
Without files, the potential flow past a cylinder, whose exact values are known; else a three-dimensional PLOT3D grid
and its solution, or functions on it. The form of the files is found out from their sizes and contents.

  --field NAME       the scalar field to look at
  --level VALUE      the value on the isosurface
  --heat-ratio R     ratio of the heat capacities of the gas, for its pressure (default 1.4, that of air)
  --cut N            cut the grid into N blocks, turned and mirrored by chance
  --resolution N     positions of the uniform grid along its longest axis (default 80)
  --quick            coarse blocks and a coarse uniform grid
  --memory N         MiB that are kept of files and of what is derived; more is read again (default: all is kept)
  --threads N        threads (default: as many as OpenMP takes)
  --output DIR       folder for files and pictures (default tour-output)
  -h, --help         this text

The form of PLOT3D files, where it is known better:
  --endian big|little        byte order
  --precision single|double  float32 or float64 numbers
  --records yes|no           with or without the record marks of Fortran
  --multiblock yes|no        with or without the number of blocks in front
  --blanking yes|no          with or without the integers that mark vertices as invalid

Exit status: 0 success, 1 data that cannot be read or written, 2 a command line that makes no sense.
)";
}

} // namespace tour
