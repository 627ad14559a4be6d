#pragma once
/// Messages: what operations say while they work, and who hears it.

#include <model/ModelExport.hpp>

#include <functional>
#include <string_view>

namespace Hestra {

/// The one channel for messages. Each is one text, with the line ends that it has, handed over in one piece.
///
/// Who hears the messages of a thread: the innermost `ScopedListener` that the thread has made and that still lives;
/// else the listener of the process. That is standard output, flushed after each message, unless `setListener` said
/// otherwise or the environment variable `VANTLE_MESSAGES` is 0 when the first message is due: then it is nobody.
/// Nothing is formed, and nothing is done for a message, that nobody hears.
///
/// Concurrency  any number of threads may say something. The listener of the process is called for one message at a
///              time, by the thread that says it; a scope's only by the thread that made the scope.
class VANTLE_MODEL_API Console {
public:
    /// Takes a message, which it must copy to keep. What it throws is dropped, and so is what it says itself.
    using Listener = std::function<void(std::string_view)>;

    /// Says `text` as it is.
    const Console& operator<<(const char* text) const;

    /// Says a printf-style message as it is.
    [[gnu::format(printf, 1, 2)]] static void print(const char* format, ...);
    /// Says `text` and a line end.
    static void puts(std::string_view text);
    /// Says `text` as it is.
    static void write(std::string_view text);

    /// Whether anybody hears this thread: asked before work that only a message needs.
    [[nodiscard]] static bool isHeard() noexcept;

    /// From now on `listener` hears the process; an empty function is nobody. Waits for a call of the former one.
    static void setListener(Listener listener);
    /// From now on standard output hears the process, whatever the environment says.
    static void useStandardOutput();
};

/// Gives the messages of the thread that makes it to `listener`, as long as it lives; an empty function is nobody.
class VANTLE_MODEL_API ScopedListener {
public:
    explicit ScopedListener(Console::Listener listener) noexcept;
    ~ScopedListener();
    ScopedListener(const ScopedListener&) = delete;
    ScopedListener& operator=(const ScopedListener&) = delete;

private:
    friend class Console;
    Console::Listener myListener;
    const ScopedListener* myOuter;
};

} // namespace Hestra
