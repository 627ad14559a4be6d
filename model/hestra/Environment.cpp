#include <model/hestra/Environment.hpp>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>

namespace Hestra {

namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::string> descriptions;
};

Registry& registry() {
    static Registry settings;
    return settings;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

} // namespace

int getEnvInteger(const char* name, const char* description, int fallback) {
    {
        const std::lock_guard lock(registry().mutex);
        registry().descriptions[name] = description;
    }
    const char* const text = std::getenv(name);
    if (!text) return fallback;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (end == text || errno == ERANGE || value < INT_MIN || value > INT_MAX) return fallback;
    while (isBlank(*end)) ++end;
    return *end ? fallback : static_cast<int>(value);
}

std::map<std::string, std::string> environmentHelp() {
    const std::lock_guard lock(registry().mutex);
    return registry().descriptions;
}

} // namespace Hestra
