#pragma once
/// Small services: messages, environment settings, type names, failures of memory.

#include <model/ModelExport.hpp>

#include <map>
#include <new>
#include <string>
#include <string_view>
#include <typeinfo>

namespace Hestra {

/// The one channel for messages: standard output, each message in one call, flushed.
class VANTLE_MODEL_API Console {
public:
    /// Writes `text` as it is.
    const Console& operator<<(const char* text) const;

    /// Writes a printf-style message as it is, in one call, and flushes.
    [[gnu::format(printf, 1, 2)]] static void print(const char* format, ...);
    /// Writes `text` and a line end in one call, and flushes.
    static void puts(std::string_view text);
    /// Writes `text` as it is in one call, and flushes.
    static void write(std::string_view text);
};

/// Collects the messages of the thread that makes it, as long as it lives: they are appended to a text instead of
/// being written. The innermost one counts.
///
/// For loops that run in parallel and yet report in the order of a serial one, and for messages so many that writing
/// each by itself would cost more than the work they tell about.
class VANTLE_MODEL_API MessageCapture {
public:
    /// Appends to `target`, which outlives this object.
    explicit MessageCapture(std::string& target) noexcept;
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;
    ~MessageCapture();

    /// What the calling thread's messages are appended to; null when they are written at once.
    [[nodiscard]] static std::string* current() noexcept;

private:
    std::string* myOuter;
};

/// The environment variable `name` as a decimal integer.
///
/// Blanks around the number are allowed. Unset, empty or anything else gives `fallback`. The description is kept
/// for `environmentHelp`.
VANTLE_MODEL_API int getEnvInteger(const char* name, const char* description, int fallback);
/// Name and description of every setting that was asked for so far.
[[nodiscard]] VANTLE_MODEL_API std::map<std::string, std::string> environmentHelp();

/// The readable name of a type.
[[nodiscard]] VANTLE_MODEL_API std::string Typename(const std::type_info& type);
/// The address as hexadecimal text.
[[nodiscard]] VANTLE_MODEL_API std::string to_address_string(const void* address);
/// A place to stop at in a debugger; does nothing.
VANTLE_MODEL_API void breakpoint() noexcept;

/// Thrown when memory for data cannot be had; says how much was asked for.
class VANTLE_MODEL_API MemoryException : public std::bad_alloc {
public:
    explicit MemoryException(std::size_t bytes);
    ~MemoryException() override;
    [[nodiscard]] const char* what() const noexcept override { return myText.c_str(); }

private:
    std::string myText;
};

/// Base of objects that live in a registry for the time of the process.
class VANTLE_MODEL_API SaveRegistryBase {
public:
    virtual ~SaveRegistryBase();
};

} // namespace Hestra
