#include <dataset/detail/Request.hpp>

#include <utility>

namespace Vantle {

namespace {
thread_local const ScopedMessages* innermost = nullptr;
} // namespace

ScopedMessages::ScopedMessages(Hestra::Console::Listener listener) noexcept
    : myListener(std::move(listener)), myOuter(std::exchange(innermost, this)) {}
ScopedMessages::~ScopedMessages() { innermost = myOuter; }

const Hestra::Console::Listener& detail::messages() noexcept {
    static const Hestra::Console::Listener nobody;
    return innermost ? innermost->listener() : nobody;
}

} // namespace Vantle
