#pragma once
/// Who hears what operations of data sets say while they work: by default nobody.

#include <dataset/DataSetExport.hpp>
#include <model/hestra/Console.hpp>

namespace Vantle {

/// Gives what the operations of data sets say, those that the thread that makes this calls as long as it lives, to a
/// listener: the lines of the operations underneath. What their teams of threads say goes where
/// `Hestra::Console::setListener` says. Results do not depend on it.
class VANTLE_DATASET_API ScopedMessages {
public:
    explicit ScopedMessages(Hestra::Console::Listener listener) noexcept;
    ~ScopedMessages();
    ScopedMessages(const ScopedMessages&) = delete;
    ScopedMessages& operator=(const ScopedMessages&) = delete;

    [[nodiscard]] const Hestra::Console::Listener& listener() const noexcept { return myListener; }

private:
    Hestra::Console::Listener myListener;
    const ScopedMessages* myOuter;
};

} // namespace Vantle
