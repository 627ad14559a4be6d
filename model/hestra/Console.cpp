#include <model/hestra/Console.hpp>
#include <model/hestra/Environment.hpp>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Hestra {

namespace {

thread_local constinit const ScopedListener* innermost = nullptr;
thread_local constinit bool isListening = false; // a listener of this thread is at work: what it says is dropped

/// Who hears the threads that have no listener of their own.
struct ProcessListener {
    enum class Kind { StandardOutput, Nobody, Function };

    std::atomic<Kind> kind{getEnvInteger("VANTLE_MESSAGES",
                                         "Whether messages are written to standard output.\n"
                                         "On the command line (sh/bash/ksh), do\n export VANTLE_MESSAGES=0\n"
                                         "to have none.\n",
                                         1) != 0
                               ? Kind::StandardOutput
                               : Kind::Nobody};
    std::recursive_mutex mutex; // held while the function is called or replaced
    std::shared_ptr<const Console::Listener> function;
};

// Never destroyed: what ends with the process may still say something.
ProcessListener& process() {
    static ProcessListener& listener = *new ProcessListener;
    return listener;
}

void call(const Console::Listener& listener, std::string_view text) noexcept {
    isListening = true;
    try {
        listener(text);
    } catch (...) { // a message is no reason to fail
    }
    isListening = false;
}

void replace(ProcessListener::Kind kind, Console::Listener function) {
    ProcessListener& listener = process();
    auto made = std::make_shared<const Console::Listener>(std::move(function)); // released after the lock
    const std::lock_guard lock(listener.mutex);
    listener.kind.store(kind, std::memory_order_release);
    listener.function.swap(made);
}

} // namespace

bool Console::isHeard() noexcept {
    if (isListening) return false;
    if (innermost) return bool(innermost->myListener);
    return process().kind.load(std::memory_order_acquire) != ProcessListener::Kind::Nobody;
}

void Console::write(std::string_view text) {
    if (!isHeard()) return;
    if (innermost) {
        call(innermost->myListener, text);
        return;
    }
    ProcessListener& listener = process();
    if (listener.kind.load(std::memory_order_acquire) == ProcessListener::Kind::StandardOutput) {
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
        return;
    }
    const std::lock_guard lock(listener.mutex);
    const auto function = listener.function; // it may replace itself
    if (function && *function) call(*function, text);
}

const Console& Console::operator<<(const char* text) const {
    write(text);
    return *this;
}

void Console::print(const char* format, ...) {
    if (!isHeard()) return;
    char brief[512];
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(brief, sizeof brief, format, arguments);
    va_end(arguments);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof brief) {
        write({brief, static_cast<std::size_t>(length)});
    } else if (length >= 0) {
        std::vector<char> text(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        write({text.data(), static_cast<std::size_t>(length)});
    }
    va_end(again);
}

void Console::puts(std::string_view text) {
    if (!isHeard()) return;
    char brief[512];
    if (text.size() < sizeof brief) {
        text.copy(brief, text.size());
        brief[text.size()] = '\n';
        write({brief, text.size() + 1});
    } else {
        write(std::string(text) + '\n');
    }
}

void Console::setListener(Listener listener) {
    const auto kind = listener ? ProcessListener::Kind::Function : ProcessListener::Kind::Nobody;
    replace(kind, std::move(listener));
}

void Console::useStandardOutput() { replace(ProcessListener::Kind::StandardOutput, {}); }

ScopedListener::ScopedListener(Console::Listener listener) noexcept
    : myListener(std::move(listener)), myOuter(std::exchange(innermost, this)) {}
ScopedListener::~ScopedListener() { innermost = myOuter; }

} // namespace Hestra
