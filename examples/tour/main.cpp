// A walk over the library, from data to files and pictures. See usage() for what it can be told.

#include "Tour.hpp"
#include "io/Gnuplot.hpp"

#include <dataset/Files.hpp>

#include <iostream>
#include <new>
#include <omp.h>

namespace tour {

namespace {

void run(const Options& options) {
    if (options.threads > 0) omp_set_num_threads(options.threads);
    Stopwatch watch;
    const Flow flow = makeFlow(options);
    const double seconds = watch.lap();
    std::error_code error;
    std::filesystem::create_directories(options.output, error);
    if (error) throw Vantle::FileError(options.output, "", "cannot make this folder: " + error.message());

    Report report;
    report.line(flow.title);
    for (const std::string& remark : flow.remarks) report.line("  " + remark);
    report.row("made", "on " + std::to_string(omp_get_max_threads()) + " threads", seconds);

    Tour tour{flow, options, report, gnuplotAvailable()};
    if (!tour.pictures) report.line("  no pictures: there is no gnuplot on the search path");
    Vantle::AtomicFile log(tour.file("tour.log")); // before the work: whether it can be made is known at once
    survey(tour);
    extractSurface(tour);
    evaluateUniformly(tour);
    takeDerivatives(tour);

    log.write(report.text().data(), report.text().size());
    log.commit();
    report.line("");
    report.row("tour.log", "this table");
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
        const Options options = parseOptions({argv + (argc > 0), argv + argc});
        options.help ? void(std::cout << usage() << std::flush) : run(options);
        return 0;
    } catch (const UsageError& error) {
        return complain(std::string(error.what()) + " (see --help)", 2);
    } catch (const std::bad_alloc&) {
        return complain("not enough memory", 1);
    } catch (const std::exception& error) {
        return complain(error.what(), 1);
    }
}
