#include <model/hestra/CreationFailure.hpp>
#include <model/hestra/Creator.hpp>
#include <model/hestra/Diagnostics.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <memory>

namespace Hestra {

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

namespace {

thread_local ScopedCreationFailure* listening = nullptr;

} // namespace

ScopedCreationFailure::ScopedCreationFailure() noexcept : myOuter(listening) { listening = this; }
ScopedCreationFailure::~ScopedCreationFailure() { listening = myOuter; }

void reportCreationFailure(const char* reason) noexcept {
    if (listening) try {
            if (listening->myReason.empty()) listening->myReason = reason;
            return;
        } catch (const std::bad_alloc&) { // then as if nobody listened
        }
    std::fprintf(stderr, "creation of data failed: %s\n", reason);
}

} // namespace Hestra
