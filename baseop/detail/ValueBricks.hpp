#pragma once
/// Least and greatest values of the bricks of a block: where a level, a plane or an extreme cannot be without looking
/// at it.

#include <baseop/BaseOpExport.hpp>
#include <model/hestra/Cache.hpp>
#include <model/vantle/CreativeArray.hpp>
#include <model/vantle/ElementTraits.hpp>
#include <model/vantle/MultiArray.hpp>

#include <vector>

namespace Vantle::detail {

/// Rows of values that follow each other.
template<class T>
struct ValueRows {
    const T* first;
    std::size_t count;    ///< of values in a row
    std::size_t rows = 1; ///< so many
    std::size_t step = 0; ///< from one row to the next
};

/// The values of a block by bricks of 8 x 8 x 8 cells, which have their faces in common.
///
/// `T` is double, float, unsigned char, short, unsigned short, or a point in double precision, of which each component
/// counts for itself. A brick with a NaN reaches from -infinity to infinity, so that nobody passes over it.
/// Cost         one pass at the speed of memory, on all cores; 1/256 of the block.
/// Concurrency  immutable.
template<class T>
class VANTLE_BASEOP_API ValueBricks : public Hestra::Cacheable {
public:
    using Component = typename ElementTraits<T>::component_type;
    static constexpr std::size_t Components = ElementTraits<T>::components;
    using age_t = Hestra::Ageable::age_t;
    /// Cells of a brick along each axis.
    static constexpr index_t Side = 8;
    /// Smaller blocks are read as fast as their bricks are found.
    static constexpr index_t FewestVertices = index_t{1} << 16;

    /// Whether bricks are worth their while: of blocks with cells, whose elements follow each other.
    [[nodiscard]] static bool suit(const MultiArray<3, T>& block) noexcept;
    /// Of a block that they suit.
    explicit ValueBricks(const MultiArray<3, T>& block);
    ~ValueBricks() override;
    [[nodiscard]] std::size_t memsize() const override;

    /// Finds the bricks of the data of a creator, and keeps them beside it, in `Cache::MemCache()`, which may drop
    /// them. They count until the creator is newer, or the field whose age is given. Null where they do not suit.
    static Hestra::StrongPtr<const ValueBricks> make(CreativeArrayBase& creator, const MultiArray<3, T>& block,
                                                     age_t ageOfField = 0);
    /// Those that are kept of these data and count, or null.
    [[nodiscard]] static Hestra::StrongPtr<const ValueBricks> find(const CreativeArrayBase& creator,
                                                                   const MultiArray<3, T>& block, age_t ageOfField = 0);
    /// Those, or else new ones.
    static Hestra::StrongPtr<const ValueBricks> of(CreativeArrayBase& creator, const MultiArray<3, T>& block,
                                                   age_t ageOfField = 0);

    /// Those that are kept; new ones where there was this question before, of the same data; otherwise null. For whom
    /// bricks pay from the second time on.
    static Hestra::StrongPtr<const ValueBricks> ofKnown(CreativeArrayBase& creator, const MultiArray<3, T>& block,
                                                        age_t ageOfField = 0);

    /// The extents of the block.
    [[nodiscard]] const MultiIndex<3>& block() const noexcept { return myBlock; }
    /// The number of bricks along each axis.
    [[nodiscard]] const MultiIndex<3>& Size() const noexcept { return mySize; }
    /// Of each brick, axis 0 fastest; its components follow each other.
    [[nodiscard]] const std::vector<Component>& least() const noexcept { return myLeast; }
    [[nodiscard]] const std::vector<Component>& greatest() const noexcept { return myGreatest; }
    [[nodiscard]] bool hasNaN() const noexcept { return myHasNaN; }
    /// Whether a value is -0.
    [[nodiscard]] bool hasNegativeZero() const noexcept { return myHasNegativeZero; }

private:
    MultiIndex<3> myBlock, mySize;
    std::vector<Component> myLeast, myGreatest;
    bool myHasNaN = false, myHasNegativeZero = false;
};

extern template class ValueBricks<double>;
extern template class ValueBricks<float>;
extern template class ValueBricks<unsigned char>;
extern template class ValueBricks<short>;
extern template class ValueBricks<unsigned short>;
extern template class VANTLE_BASEOP_API ValueBricks<Orvix::PhysicalSpace::point>;

} // namespace Vantle::detail
