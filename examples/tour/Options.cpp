#include "Options.hpp"

#include <dataset/io/FileError.hpp>

#include <charconv>
#include <cmath>
#include <functional>
#include <map>
#include <string_view>
#include <vector>

namespace tour {

namespace {

template<class Number>
Number number(const std::string& option, const std::string& text, Number least, Number greatest) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !(value >= least && value <= greatest))
        throw UsageError(option + ": '" + text + "' is not a number from " + std::to_string(least) + " to " +
                         std::to_string(greatest));
    return value;
}

double level(const std::string& option, const std::string& text) {
    double value = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        throw UsageError(option + ": '" + text + "' is not a number");
    return value;
}

template<class Value>
Value oneOf(const std::string& option, const std::string& text, const std::map<std::string, Value>& values) {
    if (const auto found = values.find(text); found != values.end()) return found->second;
    std::string known;
    for (const auto& [name, value] : values) known += (known.empty() ? "" : ", ") + name;
    throw UsageError(option + ": '" + text + "' is none of " + known);
}

bool yesOrNo(const std::string& option, const std::string& text) {
    return oneOf<bool>(option, text, {{"yes", true}, {"no", false}});
}

using Store = std::function<void(Options&, const std::string& option, const std::string& value)>;

const std::map<std::string, Store>& optionsWithValue() {
    static const std::map<std::string, Store> table = {
        {"--field", [](Options& o, const std::string&, const std::string& v) { o.field = v; }},
        {"--level", [](Options& o, const std::string& n, const std::string& v) { o.level = level(n, v); }},
        {"--heat-ratio",
         [](Options& o, const std::string& n, const std::string& v) {
             o.heatRatio = level(n, v);
             if (!(o.heatRatio > 1.0)) throw UsageError(n + ": '" + v + "' is not above 1");
         }},
        {"--resolution", [](Options& o, const std::string& n,
                            const std::string& v) { o.resolution = number(n, v, kMinResolution, kMaxResolution); }},
        {"--cut", [](Options& o, const std::string& n, const std::string& v) { o.cut = number(n, v, 1, kMaxCut); }},
        {"--threads",
         [](Options& o, const std::string& n, const std::string& v) { o.threads = number(n, v, 1, kMaxThreads); }},
        {"--output",
         [](Options& o, const std::string& n, const std::string& v) {
             if (v.empty()) throw UsageError(n + ": the name of a folder is missing");
             o.output = v;
         }},
        {"--endian",
         [](Options& o, const std::string& n, const std::string& v) {
             o.form.byteOrder = oneOf<std::endian>(n, v, {{"big", std::endian::big}, {"little", std::endian::little}});
         }},
        {"--precision",
         [](Options& o, const std::string& n, const std::string& v) {
             o.form.scalar = oneOf<Vantle::Plot3DScalar>(
                 n, v, {{"single", Vantle::Plot3DScalar::float32}, {"double", Vantle::Plot3DScalar::float64}});
         }},
        {"--records",
         [](Options& o, const std::string& n, const std::string& v) { o.form.recordMarks = yesOrNo(n, v); }},
        {"--multiblock",
         [](Options& o, const std::string& n, const std::string& v) { o.form.multiBlock = yesOrNo(n, v); }},
        {"--blanking", [](Options& o, const std::string& n, const std::string& v) { o.form.blanking = yesOrNo(n, v); }},
    };
    return table;
}

} // namespace

Options parseOptions(std::span<const char* const> arguments) {
    Options options;
    std::vector<std::string> files;
    bool optionsEnded = false, resolutionGiven = false, formGiven = false, ratioGiven = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string argument = arguments[i];
        if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
            files.push_back(argument);
        } else if (argument == "--") {
            optionsEnded = true;
        } else if (argument == "-h" || argument == "--help") {
            options.help = true;
        } else if (argument == "--quick") {
            options.quick = true;
        } else {
            const std::size_t equals = argument.find('=');
            const std::string name = argument.substr(0, equals);
            const auto known = optionsWithValue().find(name);
            if (known == optionsWithValue().end()) throw UsageError("unknown option '" + name + "'");
            if (equals == std::string::npos && i + 1 == arguments.size())
                throw UsageError(name + ": its value is missing");
            known->second(options, name,
                          equals == std::string::npos ? std::string(arguments[++i]) : argument.substr(equals + 1));
            resolutionGiven = resolutionGiven || name == "--resolution";
            ratioGiven = ratioGiven || name == "--heat-ratio";
            formGiven = formGiven || name == "--endian" || name == "--precision" || name == "--records" ||
                        name == "--multiblock" || name == "--blanking";
        }
    }
    if (options.help) return options;
    if (files.size() > 2) throw UsageError("a grid and a solution at most, but here is also '" + files[2] + "'");
    for (const std::string& file : files)
        if (file.empty()) throw UsageError("the name of a file is empty");
    if (!files.empty()) options.gridFile = files[0];
    if (files.size() == 2) options.solutionFile = files[1];
    if (formGiven && files.empty()) throw UsageError("the form of PLOT3D files is stated, but no file is given");
    if (options.cut > 0 && files.empty()) throw UsageError("--cut: no grid is given");
    if (ratioGiven && files.size() < 2) throw UsageError("--heat-ratio: no solution is given");
    if (options.quick && !resolutionGiven) options.resolution = kQuickResolution;
    return options;
}

std::string usage() {
    return R"(usage: tour [option]... [GRID [SOLUTION]]

Walks over a flow on curvilinear blocks: boxes and ranges, an isosurface, evaluation on a uniform grid, derivatives.
Without files, the potential flow past a cylinder, whose exact values are known; else a PLOT3D grid and its solution
(binary, three-dimensional, whole). The form of the files is found out from their sizes and contents.

  --field NAME       the scalar field to look at
  --level VALUE      the value on the isosurface
  --heat-ratio R     ratio of the heat capacities of the gas, for its pressure (default 1.4, that of air)
  --cut N            cut the grid into N blocks, turned and mirrored by chance
  --resolution N     positions of the uniform grid along its longest axis (default 80)
  --quick            coarse blocks and a coarse uniform grid
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
