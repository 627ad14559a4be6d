#pragma once
/// Element types at run time: their identity, their registry, and what is known about each.

#include <model/hestra/Chunk.hpp>
#include <model/vantle/ElementTraits.hpp>

#include <string>
#include <typeinfo>
#include <vector>

namespace Vantle {

/// Identity of an element type, registered or not. The default, `typeid(void)`, stands for an unknown type.
class VANTLE_MODEL_API VantleTypeIndex {
public:
    VantleTypeIndex() noexcept : myType(&typeid(void)) {}
    VantleTypeIndex(const std::type_info& type) noexcept : myType(&type) {}

    [[nodiscard]] const std::type_info& type() const noexcept { return *myType; }
    /// Whether a type is known at all.
    [[nodiscard]] explicit operator bool() const noexcept { return *myType != typeid(void); }
    [[nodiscard]] bool operator==(const VantleTypeIndex& other) const noexcept { return *myType == *other.myType; }
    /// A fixed order without meaning, for use as a key.
    [[nodiscard]] bool operator<(const VantleTypeIndex& other) const noexcept { return myType->before(*other.myType); }

private:
    const std::type_info* myType;
};

/// Run-time entry of an element type.
///
/// Concurrency  entries never change; the registry is guarded by a mutex, and may be asked and added to at once.
class VANTLE_MODEL_API VantleTypeBase : public Hestra::ReferenceBase<VantleTypeBase> {
public:
    ~VantleTypeBase() override;

    /// The element type itself.
    [[nodiscard]] virtual const std::type_info& getType() const = 0;
    [[nodiscard]] bool isType(const std::type_info& type) const { return getType() == type; }
    [[nodiscard]] VantleTypeIndex index() const { return getType(); }

    /// The type of the components; the type itself when it has none.
    [[nodiscard]] virtual const std::type_info& element_type() const = 0;
    [[nodiscard]] VantleTypeIndex element_index() const { return element_type(); }
    /// Number of components; 1 for a number, 0 for a type without.
    [[nodiscard]] virtual int components() const = 0;
    [[nodiscard]] virtual IndexingScheme indexing_scheme() const = 0;
    /// The coordinate system or colour space that the components refer to; `typeid(void)` for none.
    [[nodiscard]] virtual const std::type_info& chart_type() const = 0;
    /// "x", "y", "z" for points and vectors, "r", "g", "b", "a" for colours, else the number in decimal.
    [[nodiscard]] virtual std::string coordinate_component_name(int component) const = 0;
    /// True for what is neither a number nor expressed in a coordinate system: indices, names, handles.
    [[nodiscard]] virtual bool nontensor() const = 0;
    /// A new chunk of `count` value-initialised elements.
    [[nodiscard]] virtual Hestra::StrongPtr<Hestra::ChunkBase> newChunk(std::size_t count) const = 0;

    /// The registered entry of a type, or null.
    [[nodiscard]] static Hestra::StrongPtr<VantleTypeBase> find(const VantleTypeIndex& type);
    /// Enters this object into the registry. An entry of the same type that is there already stays.
    void remember();
    /// Every registered entry, in order of registration.
    [[nodiscard]] static std::vector<Hestra::StrongPtr<VantleTypeBase>> registered();
};

/// Entry of element type `T`.
template<class T>
class VANTLE_MODEL_API VantleType : public VantleTypeBase {
public:
    [[nodiscard]] const std::type_info& getType() const override { return typeid(T); }
    [[nodiscard]] const std::type_info& element_type() const override {
        return typeid(typename ElementTraits<T>::component_type);
    }
    [[nodiscard]] int components() const override { return ElementTraits<T>::components; }
    [[nodiscard]] IndexingScheme indexing_scheme() const override { return ElementTraits<T>::scheme; }
    [[nodiscard]] const std::type_info& chart_type() const override { return typeid(typename ElementChart<T>::type); }
    [[nodiscard]] std::string coordinate_component_name(int component) const override {
        return componentName<T>(component);
    }
    [[nodiscard]] bool nontensor() const override {
        return !std::is_arithmetic_v<T> && std::is_void_v<typename ElementChart<T>::type>;
    }
    [[nodiscard]] Hestra::StrongPtr<Hestra::ChunkBase> newChunk(std::size_t count) const override {
        return Hestra::makeRef<Hestra::TypedChunk<T>>(count);
    }
};

} // namespace Vantle
