#pragma once
/// What is derived from fields and made again on demand: never older or newer than it says.

#include <model/hestra/Freshness.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/Field.hpp>

namespace Vantle {

/// A field that is derived from another one, fragment by fragment: not older than that as long as it lives, nor than
/// the masks that it depends on, if any.
///
/// Its fragments are those of the time of its making. What becomes of each, a `DerivedArray` says.
class VANTLE_MODEL_API DerivedField : public Field {
public:
    DerivedField(const Hestra::WeakPtr<const Field>& source, const Hestra::StrongPtr<FragmentIDCollection>& collection,
                 const Hestra::StrongPtr<BlankingInput>& masks = {});
    ~DerivedField() override;

    [[nodiscard]] const Hestra::WeakPtr<const Field>& source() const noexcept { return mySource; }
    [[nodiscard]] age_t age() const noexcept override;

private:
    Hestra::WeakPtr<const Field> mySource;
    Hestra::StrongPtr<BlankingInput> myMasks;
};

/// The data of a fragment, derived from those of another one: made when they are first asked for, and again when they
/// were dropped and when the source has become newer, by new data, by `touch()`, or by losing them.
///
/// Law          same object, same age: same bits, whatever memory pressure did.
/// Age          that of the source, or a later one of its own.
/// Concurrency  as of every creator. Changes of the source go by the rules for fields.
class VANTLE_MODEL_API DerivedArray : public CreativeArray {
public:
    /// Makes the data from those of the source, for a creator that they are to refer to. Null in, null out is the rule.
    using Derivation = std::function<Hestra::StrongPtr<MemBase>(const Hestra::StrongPtr<MemBase>&,
                                                                const Hestra::WeakPtr<CreativeArrayBase>&)>;

    /// The fragment that data are derived from: the one of a field, whatever becomes of it as long as the field lives
    /// and handles own it; then, and without field, that of the creator that was used last, which stays alive. With
    /// masks, these are part of it.
    class VANTLE_MODEL_API Source {
    public:
        explicit Source(const Hestra::StrongPtr<CreativeArrayBase>& creator,
                        const Hestra::WeakPtr<const Field>& field = {}, const Hestra::StrongPtr<FragmentID>& id = {},
                        const Hestra::StrongPtr<BlankingInput>& masks = {});
        /// Does not keep the creator alive: without it there are no data.
        [[nodiscard]] static Source remembering(const Hestra::WeakPtr<CreativeArrayBase>& creator);
        [[nodiscard]] Hestra::StrongPtr<MemBase> data() const;
        [[nodiscard]] Hestra::Freshness freshness() const;
        [[nodiscard]] Hestra::Ageable::age_t age() const;
        /// The same, going on from the present creator.
        [[nodiscard]] Source followed() const;

    private:
        [[nodiscard]] Hestra::StrongPtr<CreativeArrayBase> present(const Hestra::StrongPtr<const Field>& field) const;

        Hestra::StrongPtr<CreativeArrayBase> myCreator;
        Hestra::WeakPtr<CreativeArrayBase> myRememberedCreator;
        Hestra::WeakPtr<const Field> myField;
        Hestra::StrongPtr<FragmentID> myID;
        Hestra::StrongPtr<BlankingInput> myMasks;
    };

    /// Derived when first asked for. Announces element type and, if its rank is not 0, size. Without a cache what was
    /// made is kept until the source gets newer.
    DerivedArray(const Source& source, Derivation derivation, const VantleTypeIndex& elementType,
                 const DynamicSize& size, const Hestra::WeakPtr<Hestra::Cache>& cache);
    /// The same with data that exist, derived from the source as `origin` knows it.
    DerivedArray(const Source& source, Derivation derivation, const Hestra::StrongPtr<MemBase>& data,
                 const Hestra::Freshness& origin, const Hestra::WeakPtr<Hestra::Cache>& cache);
    ~DerivedArray() override;

    [[nodiscard]] age_t age() const noexcept override;
    [[nodiscard]] bool isCurrent(const MemBase* data) const override;

protected:
    [[nodiscard]] bool canProduce() const override;
    [[nodiscard]] Hestra::StrongPtr<MemBase> produce() override;

private:
    [[nodiscard]] Source source() const;

    const Derivation myDerivation;
    mutable std::mutex mySourceMutex;
    Source mySource;
    // Of the data made last: while others take their place, readers must not believe in them.
    Hestra::WeakPtr<MemBase> myMade;
    Hestra::Freshness myOrigin;
};

} // namespace Vantle
