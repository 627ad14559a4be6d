#pragma once
/// Small services for reports: names of types, addresses, failures of memory.

#include <model/ModelExport.hpp>

#include <cstddef>
#include <new>
#include <string>
#include <typeinfo>

namespace Hestra {

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
