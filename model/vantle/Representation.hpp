#pragma once
/// Representations: a skeleton relative to a base space, with its named fields.

#include <model/vantle/Chart.hpp>
#include <model/vantle/Field.hpp>

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Vantle {

/// Name of the field that holds the coordinates of a representation.
inline constexpr const char* PositionsName = "Positions";

/// Key of a field in a representation; one object may be shared by several representations. Does not change.
class VANTLE_MODEL_API FieldID : public Hestra::ReferenceBase<FieldID> {
public:
    explicit FieldID(std::string name);
    ~FieldID() override;
    [[nodiscard]] const std::string& name() const noexcept { return myName; }

private:
    std::string myName;
};

/// A user's choice of one field by name. The empty name selects every field.
class VANTLE_MODEL_API FieldSelector {
public:
    explicit FieldSelector(std::string fieldName = {}) : myName(std::move(fieldName)) {}
    [[nodiscard]] const std::string& getFieldName() const noexcept { return myName; }
    [[nodiscard]] bool accepts(const std::string& fieldName) const { return myName.empty() || myName == fieldName; }

private:
    std::string myName;
};

/// A user's choice of several fields by name.
class VANTLE_MODEL_API FieldSelection {
public:
    FieldSelection() = default;
    explicit FieldSelection(std::set<std::string> fieldNames) : myNames(std::move(fieldNames)) {}
    [[nodiscard]] std::size_t getNumberOfFields() const noexcept { return myNames.size(); }
    [[nodiscard]] const std::set<std::string>& fieldNames() const noexcept { return myNames; }
    void add(const std::string& fieldName) { myNames.insert(fieldName); }
    [[nodiscard]] bool contains(const std::string& fieldName) const { return myNames.count(fieldName) > 0; }

private:
    std::set<std::string> myNames;
};

/// The slot of one name in a representation. Reading an empty slot gives null and creates nothing.
class VANTLE_MODEL_API FieldProxy {
public:
    FieldProxy(Representation& representation, std::string name)
        : myRepresentation(representation), myName(std::move(name)) {}

    /// Stores `field` under the slot's name, replacing what is there; a null handle empties the slot.
    FieldProxy& operator=(const Hestra::StrongPtr<Field>& field);
    FieldProxy& operator=(const FieldProxy& other) { return *this = other.get(); }
    FieldProxy(const FieldProxy&) = default;

    [[nodiscard]] Hestra::StrongPtr<Field> get() const;
    operator Hestra::StrongPtr<Field>() const { return get(); }
    [[nodiscard]] Hestra::StrongPtr<Field> operator->() const { return get(); }
    [[nodiscard]] bool operator!() const { return !get(); }
    [[nodiscard]] explicit operator bool() const { return bool(get()); }

private:
    Representation& myRepresentation;
    std::string myName;
};

/// What depends on a base space.
class VANTLE_MODEL_API BaseSpaceDependency : public Hestra::ReferenceBase<BaseSpaceDependency> {
public:
    ~BaseSpaceDependency() override;
};

/// A skeleton expressed relative to a base space or chart; holds named fields.
///
/// Concurrency  guarded by a mutex: fields and keys may be looked up, set and removed at once. The fields themselves
///              have their own promise.
class VANTLE_MODEL_API Representation : public BaseSpaceDependency,
                                        public Hestra::Intercube,
                                        public Ownable<Field>::Container {
public:
    using Owner = Ownable<BaseSpaceDependency>::Container;

    Representation(const Hestra::WeakPtr<BaseSpace>& base, const Hestra::WeakPtr<Owner>& owner);
    ~Representation() override;

    /// What this representation is relative to; null when that is gone.
    [[nodiscard]] Hestra::StrongPtr<BaseSpace> baseSpace() const { return myBase.lock(); }

    /// The key of this name, or null.
    [[nodiscard]] Hestra::StrongPtr<FieldID> findFieldID(const std::string& name) const;
    /// The key of this name, made when missing.
    Hestra::StrongPtr<FieldID> makeFieldID(const std::string& name);
    static Hestra::StrongPtr<FieldID> makeFieldID(Representation& representation, const std::string& name) {
        return representation.makeFieldID(name);
    }
    static Hestra::StrongPtr<FieldID> makeFieldID(const Hestra::StrongPtr<Representation>& representation,
                                                  const std::string& name) {
        return representation ? representation->makeFieldID(name) : nullptr;
    }
    /// The key of this name shared with `other`: what one of them has, or a new one in both. Two different keys that
    /// exist already stay; the own one is returned.
    Hestra::StrongPtr<FieldID> createSharedFieldID(Representation& other, const std::string& name);

    /// The field, or `Field::NullPtrField()`; never creates a key.
    [[nodiscard]] Hestra::StrongPtr<Field> findField(const Hestra::StrongPtr<FieldID>& id) const;
    [[nodiscard]] Hestra::StrongPtr<Field> findField(const std::string& name) const;
    [[nodiscard]] Hestra::StrongPtr<Field> findField(const char* name) const;
    /// The slot of this name, for reading and for assignment.
    [[nodiscard]] FieldProxy operator[](const std::string& name) { return FieldProxy(*this, name); }
    [[nodiscard]] Hestra::StrongPtr<Field> Positions() const { return findField(PositionsName); }
    void setPositions(const Hestra::StrongPtr<Field>& positions) { setField(PositionsName, positions); }
    /// Stores (replaces) the field of this name; a null handle removes it.
    void setField(const std::string& name, const Hestra::StrongPtr<Field>& field);

    /// The field of this key, made empty when missing.
    Hestra::StrongPtr<Field> makeField(const FieldID& id);
    /// A new field under this key over the fragments of `collection`, with `data` as unfragmented data if there are
    /// any; replaces an earlier one. Null when the key is gone.
    Hestra::StrongPtr<Field> makeField(const Hestra::WeakPtr<FieldID>& id,
                                       const Hestra::StrongPtr<FragmentIDCollection>& collection,
                                       const Hestra::StrongPtr<MemBase>& data = {});

    /// Calls `function` for every field, sorted by name; false ends the iteration and is returned.
    bool iterate(const std::function<bool(const FieldID&, const Field&)>& function) const;
    /// A description for messages.
    [[nodiscard]] std::string xml() const;

    Hestra::ReferenceRecord& referenceRecord() const override { return Referable::referenceRecord(); }
    bool iterateOwned(const std::function<bool(Field&)>& function) const override;
    [[nodiscard]] const Hestra::Referable* ownerObject() const override;

private:
    struct Slot {
        Hestra::StrongPtr<FieldID> id;
        Hestra::StrongPtr<Field> field;
    };
    using Slots = std::map<std::string, Slot, std::less<>>;
    [[nodiscard]] Slots slots() const;
    Slot& makeSlot(const std::string& name);

    Hestra::WeakPtr<BaseSpace> myBase;
    Hestra::WeakPtr<Owner> myOwner;
    mutable std::mutex myMutex;
    Slots mySlots;
};

/// The representations of one skeleton, by what they are relative to.
///
/// Concurrency  look-ups from any number of threads; making one from one thread while nobody looks.
class VANTLE_MODEL_API RepresentationMap {
public:
    virtual ~RepresentationMap();

    /// The representation relative to `base`, made when missing.
    Hestra::StrongPtr<Representation> operator()(const BaseSpace& base);
    /// The representation relative to `base`, or null.
    [[nodiscard]] Hestra::StrongPtr<Representation> operator()(const Hestra::WeakPtr<BaseSpace>& base) const;
    [[nodiscard]] Hestra::StrongPtr<Representation> findRepresentation(const Hestra::WeakPtr<BaseSpace>& base) const {
        return (*this)(base);
    }
    [[nodiscard]] Hestra::StrongPtr<Representation> findRepresentation(const BaseSpace& base) const;
    /// The representation made first, or null.
    [[nodiscard]] Hestra::StrongPtr<Representation> FirstRepresentation() const;
    [[nodiscard]] const std::vector<Hestra::StrongPtr<Representation>>& representations() const noexcept {
        return myRepresentations;
    }

protected:
    RepresentationMap() = default;
    [[nodiscard]] virtual Hestra::WeakPtr<Representation::Owner> representationOwner() = 0;

private:
    std::vector<Hestra::StrongPtr<Representation>> myRepresentations;
};

/// The bundle that a representation belongs to, or null when it is not attached to one.
[[nodiscard]] VANTLE_MODEL_API Hestra::StrongPtr<Bundle> getPrimaryBundle(const Representation& representation);

} // namespace Vantle
