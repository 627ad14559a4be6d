#include <model/vantle/ForeignMemory.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Vantle::detail {

namespace {

constexpr auto most = static_cast<index_t>(PTRDIFF_MAX);

std::string textOf(const index_t* extents, int rank) {
    std::string text;
    for (int axis = 0; axis < rank; ++axis) text += (axis ? "x" : "") + std::to_string(extents[axis]);
    return text;
}

/// A number of bytes that stays `Overflow` once it does not fit.
class Bytes {
public:
    explicit Bytes(index_t value) noexcept : myValue(value) {}
    Bytes operator+(Bytes other) const noexcept {
        return Bytes(fits() && other.fits() && other.myValue <= most - myValue ? myValue + other.myValue : Overflow);
    }
    Bytes operator*(index_t factor) const noexcept {
        return Bytes(fits() && (factor == 0 || myValue <= most / factor) ? myValue * factor : Overflow);
    }
    [[nodiscard]] bool fits() const noexcept { return myValue <= most; }
    [[nodiscard]] index_t value() const noexcept { return myValue; }

private:
    static constexpr index_t Overflow = ~index_t{0};
    index_t myValue;
};

template<class Bits>
Bits swapped(Bits value) noexcept {
    std::byte bytes[sizeof(Bits)];
    std::memcpy(bytes, &value, sizeof(Bits));
    std::reverse(std::begin(bytes), std::end(bytes));
    std::memcpy(&value, bytes, sizeof(Bits));
    return value;
}

/// Copies every `step` bytes a number to every `targetStep` bytes.
template<class Bits, class Target, bool IsSwapped>
void copyRow(std::byte* target, std::ptrdiff_t targetStep, const std::byte* source, std::ptrdiff_t step,
             index_t count) {
    for (; count > 0; --count, source += step, target += targetStep) {
        Bits bits;
        std::memcpy(&bits, source, sizeof(Bits));
        if constexpr (IsSwapped) bits = swapped(bits);
        if constexpr (sizeof(Bits) == sizeof(Target)) {
            std::memcpy(target, &bits, sizeof(Bits));
        } else {
            const auto number = static_cast<Target>(std::bit_cast<float>(bits));
            std::memcpy(target, &number, sizeof(Target));
        }
    }
}

template<class Bits, class Target = Bits>
auto rowCopier(bool isSwapped) {
    return isSwapped ? copyRow<Bits, Target, true> : copyRow<Bits, Target, false>;
}

auto rowCopier(std::size_t size, bool isSinglePrecision, bool isSwapped) {
    using LongDouble = std::array<std::byte, sizeof(long double)>;
    if (isSinglePrecision) return rowCopier<std::uint32_t, double>(isSwapped);
    switch (size) {
    case 1:
        return rowCopier<std::uint8_t>(false);
    case 2:
        return rowCopier<std::uint16_t>(isSwapped);
    case 4:
        return rowCopier<std::uint32_t>(isSwapped);
    case 8:
        return rowCopier<std::uint64_t>(isSwapped);
    default:
        return rowCopier<LongDouble>(false);
    }
}

} // namespace

ForeignElements::ForeignElements(const ForeignMemory& memory, const index_t* sizes, int rank, const ElementForm& of)
    : form(of) {
    const std::string subject = "adopt: array of " + textOf(sizes, rank) + " elements: ";
    const auto refuse = [&](const std::string& reason) { throw std::invalid_argument(subject + reason); };
    const bool isSeparate = !memory.components.empty();
    const bool isSwapped = memory.byteOrder != std::endian::native && form.numberSize != 1;

    const auto total = checkedProduct(sizes, rank);
    if (!total || !(Bytes(*total) * form.size).fits()) throw std::length_error(subject + "more than memory can hold");
    count = *total;
    if (isSeparate && memory.elements) refuse("both one array and one of each component are given");
    if (isSeparate && memory.components.size() != static_cast<std::size_t>(form.components))
        refuse(std::to_string(memory.components.size()) + " component arrays for " + std::to_string(form.components) +
               " components");
    if (memory.isSinglePrecision && !form.isDouble) refuse("single precision, of no numbers in double precision");
    if (isSwapped && (form.components == 0 || form.numberSize > 8)) refuse("the order of their bytes is not known");

    const std::size_t numberSize = memory.isSinglePrecision ? sizeof(float) : form.numberSize;
    const std::size_t size = isSeparate        ? numberSize
                             : form.components ? numberSize * static_cast<std::size_t>(form.components)
                                               : form.size;
    const std::size_t given = memory.strides.size();
    if (given > 1 && given != static_cast<std::size_t>(rank))
        refuse(std::to_string(given) + " strides for rank " + std::to_string(rank));
    for (std::size_t axis = 0; axis < given; ++axis)
        if (memory.strides[axis] < static_cast<std::ptrdiff_t>(size))
            refuse("stride " + std::to_string(axis) + " of " + std::to_string(memory.strides[axis]) +
                   " bytes is less than the " + std::to_string(size) + " of an element");

    // The last element ends where the memory may; nothing is needed for none.
    Bytes needed(size), next(given ? static_cast<index_t>(memory.strides[0]) : size);
    for (int axis = 0; axis < rank; ++axis) {
        const auto d = static_cast<std::size_t>(axis);
        extents[d] = sizes[axis];
        if (count == 0) continue;
        if (given > 1) next = Bytes(static_cast<index_t>(memory.strides[d]));
        if (extents[d] > 1) {
            needed = needed + next * (extents[d] - 1);
            strides[d] = needed.fits() ? static_cast<std::ptrdiff_t>(next.value()) : 0;
        }
        next = next * extents[d];
    }
    if (!needed.fits()) throw std::length_error(subject + "their strides lead beyond all memory");
    if (count > 0) {
        if (memory.bytes && *memory.bytes < needed.value())
            throw std::length_error(subject + std::to_string(*memory.bytes) + " bytes of memory, where " +
                                    std::to_string(needed.value()) + " are needed");
        if (!isSeparate && !memory.elements) refuse("the address of the first is null");
        for (std::size_t c = 0; c < memory.components.size(); ++c)
            if (!memory.components[c]) refuse("the address of component " + std::to_string(c) + " is null");
    }

    std::ptrdiff_t one = 0; // from each element to the next, if that is always the same
    bool isConstant = true;
    for (index_t d = 0, before = 1; d < static_cast<index_t>(rank); before *= extents[d++]) {
        if (count == 0 || extents[d] == 1) continue;
        if (one == 0) one = strides[d];
        isConstant = isConstant && strides[d] == one * static_cast<std::ptrdiff_t>(before);
    }
    const char* reason = nullptr;
    if (isSeparate)
        reason = "their components lie apart";
    else if (memory.isSinglePrecision)
        reason = "their numbers are in single precision";
    else if (isSwapped)
        reason = "the bytes of their numbers are in the other order";
    else if (!isConstant)
        reason = "they are not at one constant distance in storage order";
    else if (one % static_cast<std::ptrdiff_t>(form.size) != 0)
        reason = "their distance is no multiple of their size";
    else if (count > 0 && reinterpret_cast<std::uintptr_t>(memory.elements) % form.alignment != 0)
        reason = "the address of the first is not aligned";
    isInPlace = !reason;
    if (isInPlace && one != 0) step = static_cast<index_t>(one) / form.size;
    if (reason && memory.otherLayout == OtherLayout::Refuse)
        refuse(std::string(reason) + ", so they have to be copied");
}

const std::byte* ForeignElements::at(const ForeignMemory& memory, const std::array<index_t, 4>& index) const noexcept {
    const void* const first = memory.components.empty() ? memory.elements : memory.components.front();
    auto place = static_cast<const std::byte*>(first);
    for (std::size_t d = 0; d < 4; ++d) place += static_cast<std::ptrdiff_t>(index[d]) * strides[d];
    return place;
}

void ForeignElements::copyNumbers(const ForeignMemory& memory, void* target) const {
    if (count == 0) return;
    const auto copy = rowCopier(form.numberSize, memory.isSinglePrecision, memory.byteOrder != std::endian::native);
    const std::size_t numberSize = memory.isSinglePrecision ? sizeof(float) : form.numberSize;
    const auto components = static_cast<std::size_t>(form.components);
    const auto elementSize = static_cast<std::ptrdiff_t>(form.size);
    auto* row = static_cast<std::byte*>(target);
    std::array<index_t, 4> index{};
    for (index[3] = 0; index[3] < extents[3]; ++index[3])
        for (index[2] = 0; index[2] < extents[2]; ++index[2])
            for (index[1] = 0; index[1] < extents[1]; ++index[1]) {
                const std::ptrdiff_t offset =
                    at(memory, index) - at(memory, {}); // the same in all arrays of components
                for (std::size_t c = 0; c < components; ++c) {
                    const auto* const first = memory.components.empty()
                                                  ? static_cast<const std::byte*>(memory.elements) + c * numberSize
                                                  : static_cast<const std::byte*>(memory.components[c]);
                    copy(row + c * form.numberSize, elementSize, first + offset, strides[0], extents[0]);
                }
                row += elementSize * static_cast<std::ptrdiff_t>(extents[0]);
            }
}

} // namespace Vantle::detail
