#pragma once
/// Memory that belongs to somebody else: what its owner says of it, and how it is given back.

#include <model/hestra/Reference.hpp>
#include <model/vantle/ElementTraits.hpp>

#include <array>
#include <bit>
#include <cstddef>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace Vantle {

/// What becomes of elements that an array cannot look at where they are.
enum class OtherLayout {
    Refuse, ///< `std::invalid_argument` says why
    Copy    ///< they are copied into an array with memory of its own
};

/// Memory with the elements of an array, as its owner describes it: `{.elements = numbers, .strides = {48}}`.
///
/// Elements are looked at where they are when they follow each other in storage order (axis 0 fastest), each a constant
/// number of bytes after the one before. That number is a multiple of the element's size, and the first one's address
/// of its alignment. Everything else is one of the other layouts.
struct VANTLE_MODEL_API ForeignMemory {
    /// The first element. Null for an array without elements, and beside `components`.
    const void* elements = nullptr;
    /// Instead of it, one array for each component of the elements: x, y and z apart. One of the other layouts.
    std::vector<const void*> components = {};
    /// Bytes from one element to the next (of each of `components`, if these are given): none when they are packed, one
    /// number for all, or one an axis, axis 0 first. Not less than the size of an element.
    std::vector<std::ptrdiff_t> strides = {};
    /// Bytes that there are from `elements`, or each of `components`, on; not checked when nothing is said.
    std::optional<std::size_t> bytes = {};
    /// Order of the bytes of each number. One of the other layouts if it is not the machine's.
    std::endian byteOrder = std::endian::native;
    /// Whether numbers are `float` where those of the element type are `double`. One of the other layouts.
    bool isSinglePrecision = false;
    /// Whether elements may be written through the array. No operation writes into arrays that it is given.
    bool isWritable = false;
    OtherLayout otherLayout = OtherLayout::Refuse;
    /// Bytes that the end of the array gives back, as caches count them: by default the elements' own if the memory has
    /// an owner, else none. Not part of `ChunkBase::TotalMemsize`, which counts memory of this library.
    std::optional<std::size_t> memsize = {};
};

/// Keeps memory of somebody else from being given back, alone or together with its copies: by a function that is
/// called once when nobody needs it any more, or by a share in whatever owns it.
///
/// The function must not throw. It is called by the thread that lets go of the last array, slice or component.
class VANTLE_MODEL_API MemoryOwner {
public:
    /// Nobody: the memory outlives all use of it.
    MemoryOwner(std::nullptr_t) noexcept {}
    template<class Release>
    requires std::is_invocable_v<Release&> MemoryOwner(Release release)
        : myShare(static_cast<void*>(nullptr), [release = std::move(release)](void*) mutable noexcept { release(); }) {}
    /// An empty pointer or handle stands for nobody.
    template<class T>
    MemoryOwner(std::shared_ptr<T> owner) noexcept : myShare(std::move(owner)) {}
    template<class T, class B>
    MemoryOwner(const Hestra::StrongPtr<T, B>& owner) {
        if (owner) myShare = std::make_shared<const Hestra::StrongPtr<T, B>>(owner);
    }
    template<class T>
    MemoryOwner(const Hestra::Ref<T>& owner) : MemoryOwner(owner.strong()) {}

    /// Whether there is somebody to tell.
    [[nodiscard]] explicit operator bool() const noexcept { return myShare.use_count() > 0; }

private:
    std::shared_ptr<const void> myShare;
};

namespace detail {

/// What has to be known of an element type to find elements in memory.
struct ElementForm {
    std::size_t size = 0; // 0 of a type that nothing is known of
    std::size_t alignment = 1;
    int components = 0; // numbers that the element consists of, 0 if it does not
    std::size_t numberSize = 0;
    bool isDouble = false;

    template<class T>
    [[nodiscard]] static constexpr ElementForm of() noexcept {
        using Number = typename ElementTraits<T>::component_type;
        const int components = std::is_arithmetic_v<Number> ? ElementTraits<T>::components : 0;
        return {sizeof(T), alignof(T), components, components ? sizeof(Number) : 0, std::is_same_v<Number, double>};
    }
};

/// How elements are found in memory.
struct VANTLE_MODEL_API ForeignElements {
    /// Throws `std::invalid_argument` or `std::length_error`, which say what is wrong and where.
    ForeignElements(const ForeignMemory& memory, const index_t* extents, int rank, const ElementForm& form);

    /// Writes the numbers of all elements, one element after the other.
    void copyNumbers(const ForeignMemory& memory, void* target) const;
    /// Address of the element at an index; of the first of separate components.
    [[nodiscard]] const std::byte* at(const ForeignMemory& memory, const std::array<index_t, 4>& index) const noexcept;

    ElementForm form;
    std::array<index_t, 4> extents{1, 1, 1, 1};
    std::array<std::ptrdiff_t, 4> strides{}; // bytes
    index_t count = 0;
    bool isInPlace = false;
    index_t step = 1; // if so: from one element to the next, in elements
};

} // namespace detail

} // namespace Vantle
