#include "io/Gnuplot.hpp"

#include <dataset/Files.hpp>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tour {

namespace fs = std::filesystem;

namespace {

std::string contents(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// The line that says what is wrong: gnuplot shows the command and a caret first, then `"script", line 3: reason`.
std::string complaint(const fs::path& file) {
    std::istringstream lines(contents(file));
    std::string line, last;
    while (std::getline(lines, line)) {
        if (line.find(", line ") != std::string::npos) return line;
        if (line.find_first_not_of(" \t\r^") != std::string::npos) last = line;
    }
    return last;
}

// The exit status. Other than by system(), what interrupts this program ends it.
int run(const char* command) {
    std::FILE* const pipe = ::popen(command, "w");
    const int status = pipe ? ::pclose(pipe) : -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

bool gnuplotAvailable() { return run("command -v gnuplot >/dev/null 2>&1") == 0; }

void runGnuplot(const fs::path& png, std::string_view script, std::string_view data) {
    const auto fail = [&](const std::string& why) { throw Vantle::FileError(png, "", "no picture: " + why); };
    Vantle::AtomicFile target(png); // before the work, so that a folder that cannot be written is known at once
    std::error_code error;
    static int pictures = 0;
    const fs::path own = "tour-picture-" + std::to_string(::getpid()) + "-" + std::to_string(++pictures);
    const Vantle::Leftover folder(fs::temp_directory_path(error) / own); // known before it is there
    if (error || ::mkdir(folder.path().c_str(), 0700) != 0)
        fail("cannot create the temporary folder " + folder.path().string());
    for (const auto& [name, bytes] : {std::pair("data", data), std::pair("script", script)})
        if (!(std::ofstream(folder.path() / name, std::ios::binary) << bytes << std::flush))
            fail("cannot write to the temporary folder " + folder.path().string());
    // Without the settings of the user, which could change anything.
    ::setenv("TOUR_PICTURE_FOLDER", folder.path().c_str(), 1);
    const int status = run("cd \"$TOUR_PICTURE_FOLDER\" && exec gnuplot --default-settings script >messages 2>&1");
    const std::string picture = contents(folder.path() / "picture.png");
    if (status != 0 || !picture.starts_with("\x89PNG"))
        fail("gnuplot failed (status " + std::to_string(status) + "): " + complaint(folder.path() / "messages"));
    target.write(picture.data(), picture.size());
    target.commit();
}

std::string scriptString(std::string_view text) {
    // Between single quotes nothing is special but the quote itself.
    std::string result = "'";
    for (const char c : Vantle::oneLine(text)) result.append(c == '\'' ? 2 : 1, c);
    return result + "'";
}

} // namespace tour
