#pragma once
/// Value ranges of scalar arrays: computed once, attached to the array's creator, and published as its "Range".

#include <baseop/BaseOpExport.hpp>
#include <model/vantle/DataRangeBase.hpp>

#include <utility>

namespace Vantle {

/// Least and greatest value of one fragment's array of `T`, attached to the creator of the array.
///
/// `T` is double, float, unsigned char or unsigned short. `short` compiles and never yields a range.
///
/// A range is fresh while its age is not less than its creator's. A stale one stays attached until `compute` replaces
/// it; it survives its data being dropped and made again, which does not age the creator.
/// Concurrency  asking for a range is free; compute the range of one creator from one thread at a time.
template<class T>
class VANTLE_BASEOP_API DataRange : public DataRangeBase {
public:
    /// The range of no values, which takes over whatever it is expanded by.
    DataRange();
    DataRange(T min, T max);
    ~DataRange() override;

    [[nodiscard]] T getMin() const noexcept { return myMin; }
    [[nodiscard]] T getMax() const noexcept { return myMax; }

    /// Computes the range anew, attaches it to the creator in place of an earlier one, gives it the creator's age, and
    /// sets the creator's attribute "Range" to a chunk of the least and the greatest value.
    ///
    /// NaN         is not filtered: it replaces the extremes found so far, and the number after it replaces it. The
    ///             elements are cut into as many blocks as an OpenMP team has threads here, and each block is folded
    ///             in order; so with NaN (and with zeros of both signs) the result depends on the number of threads,
    ///             also where the data are so few that one thread folds all blocks. It is otherwise the same for any
    ///             number.
    /// Failure     empty when the creator announces another element type (the data are not made then), or has data of
    ///             another one, when there are no elements, and when the data do not exist and are not made. No
    ///             messages.
    /// Cost        one pass over the data, at the speed of memory; from 1 MB on by several threads. With strides (one
    ///             component of several) one element after the other. Of blocks of rank 3 with 2^16 elements or more,
    ///             extremes of bricks are found, too, and kept beside the creator, in `Cache::MemCache()`: 1/256 of the
    ///             data. Where these have NaN, or -0 at an end of the range, two passes.
    ///
    /// @param requestInBackground  if the data do not exist, only request them and return.
    /// @param doNotCreate          if the data do not exist, only return; wins over the other flag.
    static Hestra::WeakPtr<DataRange> compute(CreativeArrayBase& creator, bool requestInBackground, bool doNotCreate);
    /// The fresh range attached to the creator, or empty. Computes nothing and allocates nothing.
    [[nodiscard]] static Hestra::WeakPtr<DataRange> get(const CreativeArrayBase& creator);
    /// The fresh range attached to the creator, else what `compute` gives.
    static Hestra::WeakPtr<DataRange> retrieve(CreativeArrayBase& creator, bool requestInBackground, bool doNotCreate);

    /// Takes over the other's minimum unless that is greater or equal (so also if it is NaN), its maximum if that is
    /// greater, and the larger of both ages.
    void expandRange(const Hestra::StrongPtr<DataRangeBase>& other) noexcept override;
    [[nodiscard]] double getMinf() const override;
    [[nodiscard]] double getMaxf() const override;
    [[nodiscard]] std::pair<double, double> getFloatDataRange() const override;

private:
    T myMin;
    T myMax;
};

extern template class DataRange<double>;
extern template class DataRange<float>;
extern template class DataRange<unsigned char>;
extern template class DataRange<unsigned short>;
extern template class DataRange<short>;

} // namespace Vantle
