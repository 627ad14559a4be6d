#pragma once
/// The base of value ranges, through which a range is attached and asked without knowing its element type.

#include <model/hestra/Ageable.hpp>
#include <model/hestra/Interface.hpp>

#include <utility>

namespace Vantle {

/// Least and greatest value of one array, of whatever element type, with the age of the data they were taken from.
///
/// A creator may carry one of each element type; look-ups of this class find the one that was attached last.
/// Concurrency  reading from any number of threads; `expandRange` from one while nobody reads. Attached ranges are
///              replaced, never changed. The age may be read and set at once.
class VANTLE_MODEL_API DataRangeBase : public Hestra::Interface<DataRangeBase>, public Hestra::Ageable {
public:
    DataRangeBase();
    ~DataRangeBase() override;

    /// Widens this range by another one of the same element type; ignores any other and the null handle.
    virtual void expandRange(const Hestra::StrongPtr<DataRangeBase>& other) noexcept = 0;
    /// The least value as a double.
    [[nodiscard]] virtual double getMinf() const = 0;
    /// The greatest value as a double.
    [[nodiscard]] virtual double getMaxf() const = 0;
    /// Both, the least first.
    [[nodiscard]] virtual std::pair<double, double> getFloatDataRange() const = 0;
};

} // namespace Vantle
