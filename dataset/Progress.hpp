#pragma once
/// How long operations of the data set layer report how far they are, and how they are ended before.

#include <dataset/DataSetExport.hpp>

#include <functional>
#include <stdexcept>

namespace Vantle {

/// Told many times a second how much is done, a share between 0 and 1 that never falls; false ends the operation. What
/// it throws ends it, too, and reaches the caller. Empty: nobody wants to know.
///
/// How often    at the beginning, at the end, each thousandth, and some 50 times a second where that takes longer: also
///              while a file is read, a field is derived, or a structure is built.
/// Concurrency  called in the thread that called the operation, by one operation at a time. It must not ask the data
/// set
///              that is at work, nor copies of it.
using Progress = std::function<bool(double share)>;

/// Thrown by an operation that its progress function has ended. Everything is as it was before.
class VANTLE_DATASET_API Cancelled : public std::runtime_error {
public:
    Cancelled() : std::runtime_error("cancelled") {}
    ~Cancelled() override;
};

} // namespace Vantle
