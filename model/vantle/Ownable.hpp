#pragma once
/// Who holds whom: the owner side of the model's tree.

#include <model/hestra/Reference.hpp>

#include <functional>

namespace Vantle {

/// Names what is owned; `Container` is what its owner offers.
///
/// Owned objects hold a weak handle to their owner, never a strong one: the tree is held from the root.
/// Concurrency  as of the owner: iterating is reading.
template<class X>
struct Ownable {
    class VANTLE_MODEL_API Container {
    public:
        virtual ~Container() = default;
        /// Calls `function` for every owned object in the owner's order; false ends the iteration and is returned.
        virtual bool iterateOwned(const std::function<bool(X&)>& function) const = 0;
        /// The control record of the owner, through which handles to it are made.
        [[nodiscard]] virtual Hestra::ReferenceRecord& referenceRecord() const = 0;
        /// The owner's own owner, walking towards the root; null for a root and for what is not attached.
        [[nodiscard]] virtual const Hestra::Referable* ownerObject() const { return nullptr; }
    };
};

} // namespace Vantle
