#include "io/Gnuplot.hpp"

#include <dataset/io/AtomicFile.hpp>
#include <dataset/io/FileError.hpp>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

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

fs::path search(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::istringstream folders(path ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const fs::path file = fs::path(folder.empty() ? "." : folder) / program;
        std::error_code ignored;
        if (fs::is_regular_file(file, ignored) && ::access(file.c_str(), X_OK) == 0) return fs::absolute(file);
    }
    return {};
}

// The exit status of `program`, run in `folder` with nothing to read and its messages in the file "messages" there.
int spawn(const fs::path& program, std::vector<std::string> arguments, const fs::path& folder) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const fs::path messages = folder / "messages";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, messages.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    // What ends this program ends that one, whichever signals a thread of this one waits for.
    posix_spawnattr_t attributes;
    sigset_t none;
    ::sigemptyset(&none);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t child = 0;
    const int error = ::posix_spawn(&child, program.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::system_error(error, std::generic_category());
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR) throw std::system_error(errno, std::generic_category());
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

bool gnuplotAvailable() { return !search("gnuplot").empty(); }

Gnuplot::Gnuplot(fs::path png) : png_(std::move(png)) {
    if (!gnuplotAvailable()) throw Vantle::FileError(png_, "", "no picture: gnuplot is not installed");
    std::error_code error;
    std::string pattern = (fs::temp_directory_path(error) / "tour-picture-XXXXXX").string();
    if (error || ::mkdtemp(pattern.data()) == nullptr)
        throw Vantle::FileError(png_, "", "no picture: cannot create the temporary folder " + pattern);
    folder_.emplace(pattern);
}

void Gnuplot::store(const std::string& name, std::string_view bytes) const {
    std::ofstream file(folder_->path() / name, std::ios::binary);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file)
        throw Vantle::FileError(png_, "",
                                "no picture: cannot write to the temporary folder " + folder_->path().string());
}

void Gnuplot::run(std::string_view script) const {
    store("script", script);
    Vantle::AtomicFile target(png_); // before the work, so that a folder that cannot be written is known at once
    int status = 0;
    try {
        // Without the settings of the user, which could change anything.
        status = spawn(search("gnuplot"), {"gnuplot", "--default-settings", "script"}, folder_->path());
    } catch (const std::system_error& error) {
        throw Vantle::FileError(png_, "", std::string("no picture: gnuplot cannot be started: ") + error.what());
    }
    const std::string picture = contents(folder_->path() / "picture.png");
    if (status != 0 || !picture.starts_with("\x89PNG"))
        throw Vantle::FileError(png_, "",
                                "no picture: gnuplot failed (status " + std::to_string(status) +
                                    "): " + complaint(folder_->path() / "messages"));
    target.write(picture.data(), picture.size());
    target.commit();
}

std::string Gnuplot::quoted(std::string_view text) {
    // Between single quotes nothing is special but the quote itself.
    std::string result = "'";
    for (const char c : Vantle::oneLine(text)) result.append(c == '\'' ? 2 : 1, c);
    return result + "'";
}

} // namespace tour
