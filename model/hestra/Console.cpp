#include <model/hestra/Console.hpp>
#include <model/hestra/Creator.hpp>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Hestra {

namespace {

thread_local constinit std::string* capturedText = nullptr;

void writeOut(const char* text, std::size_t length) {
    if (capturedText) {
        capturedText->append(text, length);
        return;
    }
    std::fwrite(text, 1, length, stdout);
    std::fflush(stdout);
}

struct EnvironmentRegistry {
    std::mutex mutex;
    std::map<std::string, std::string> descriptions;
};

EnvironmentRegistry& environmentRegistry() {
    static EnvironmentRegistry registry;
    return registry;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

} // namespace

const Console& Console::operator<<(const char* text) const {
    writeOut(text, std::char_traits<char>::length(text));
    return *this;
}

void Console::print(const char* format, ...) {
    char brief[512];
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(brief, sizeof brief, format, arguments);
    va_end(arguments);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof brief) {
        writeOut(brief, static_cast<std::size_t>(length));
    } else if (length >= 0) {
        std::vector<char> text(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        writeOut(text.data(), static_cast<std::size_t>(length));
    }
    va_end(again);
}

void Console::puts(std::string_view text) {
    char brief[512];
    if (text.size() < sizeof brief) {
        text.copy(brief, text.size());
        brief[text.size()] = '\n';
        writeOut(brief, text.size() + 1);
    } else {
        std::string line(text);
        line += '\n';
        writeOut(line.data(), line.size());
    }
}

void Console::write(std::string_view text) { writeOut(text.data(), text.size()); }

MessageCapture::MessageCapture(std::string& target) noexcept : myOuter(std::exchange(capturedText, &target)) {}
MessageCapture::~MessageCapture() { capturedText = myOuter; }
std::string* MessageCapture::current() noexcept { return capturedText; }

int getEnvInteger(const char* name, const char* description, int fallback) {
    {
        auto& registry = environmentRegistry();
        const std::lock_guard lock(registry.mutex);
        registry.descriptions[name] = description;
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
    auto& registry = environmentRegistry();
    const std::lock_guard lock(registry.mutex);
    return registry.descriptions;
}

std::string Typename(const std::type_info& type) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> readable(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status),
                                                          std::free);
    return status == 0 && readable ? std::string(readable.get()) : std::string(type.name());
}

std::string to_address_string(const void* address) {
    char text[2 + 2 * sizeof(void*) + 1];
    std::snprintf(text, sizeof text, "0x%llx",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(address)));
    return text;
}

void breakpoint() noexcept {}

MemoryException::MemoryException(std::size_t bytes)
    : myText("cannot have " + std::to_string(bytes) + " bytes of memory") {}
MemoryException::~MemoryException() = default;

SaveRegistryBase::~SaveRegistryBase() = default;

void reportCreationFailure(const char* reason) noexcept {
    std::fprintf(stderr, "creation of data failed: %s\n", reason);
}

} // namespace Hestra
