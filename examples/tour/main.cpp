// A walk over the library, from data to files and pictures. See usage() for what it can be told.

#include "Messages.hpp"
#include "Options.hpp"
#include "Report.hpp"
#include "Steps.hpp"
#include "io/Gnuplot.hpp"
#include "io/Progress.hpp"

#include <dataset/io/AtomicFile.hpp>
#include <dataset/io/FileError.hpp>
#include <dataset/io/Leftover.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <new>
#include <omp.h>
#include <system_error>
#include <unistd.h>

namespace tour {

namespace {

constexpr int kSuccess = 0, kBadData = 1, kBadUsage = 2;

// Found out before the work, not after it.
void prepareFolder(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) throw Vantle::FileError(folder, "", "cannot make this folder: " + error.message());
    if (!std::filesystem::is_directory(folder)) throw Vantle::FileError(folder, "", "is not a folder");
    const Vantle::AtomicFile attempt(folder / "tour.log");
}

void run(const Options& options) {
    if (options.threads > 0) omp_set_num_threads(options.threads);
    Messages messages;
    Stopwatch watch;
    const DataSet data = [&] {
        const Progress progress("data");
        return makeDataSet(options);
    }();
    const double seconds = watch.lap();
    prepareFolder(options.output);

    Report report(STDOUT_FILENO);
    report.line(data.title);
    for (const std::string& remark : data.remarks) report.line("  " + remark);
    report.row("made", "on " + std::to_string(omp_get_max_threads()) + " threads", seconds);

    Tour tour{data, options, report, gnuplotAvailable()};
    if (!tour.pictures) report.line("  no pictures: there is no gnuplot on the search path");
    survey(tour);
    extractSurface(tour);
    evaluateUniformly(tour);
    takeDerivatives(tour);

    messages.finish();
    const std::string summary = messages.summary();
    Vantle::AtomicFile log(tour.file("tour.log"));
    log.write(summary.data(), summary.size());
    log.commit();
    report.line("");
    report.row("tour.log", "the " + std::string(messages.isCut() ? "first " : "") + count(messages.lines()) +
                               " lines that the library said meanwhile, different ones once");
}

int complain(const std::string& reason, int status) {
    std::cerr << "tour: " + Vantle::oneLine(reason) + "\n";
    return status;
}

} // namespace

} // namespace tour

int main(int argc, char** argv) {
    using namespace tour;
    try {
        Vantle::removeLeftoversOnSignals();
        const Options options = parseOptions({argv + std::min(argc, 1), argv + argc});
        if (options.help)
            std::cout << usage() << std::flush;
        else
            run(options);
        return kSuccess;
    } catch (const UsageError& error) {
        return complain(std::string(error.what()) + " (see --help)", kBadUsage);
    } catch (const std::bad_alloc&) {
        return complain("not enough memory", kBadData);
    } catch (const std::exception& error) {
        return complain(error.what(), kBadData);
    }
}
