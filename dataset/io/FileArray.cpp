#include <dataset/io/FileArray.hpp>
#include <model/hestra/Pulse.hpp>

#include <atomic>
#include <utility>

namespace Vantle {

using Hestra::StrongPtr;

namespace {

std::atomic<std::uint64_t> allFailures{0};

} // namespace

std::uint64_t FileArray::failures() noexcept { return allFailures; }

FileArray::FileArray(Reader reader, const VantleTypeIndex& elementType, const DynamicSize& size,
                     const Hestra::WeakPtr<Hestra::Cache>& cache)
    : CreativeArrayBase(elementType), myReader(std::move(reader)) {
    setCache(cache);
    if (size.rank() > 0) addInterface(Hestra::makeRef<SizeInterface>(size));
    touch();
}
FileArray::~FileArray() = default;

StrongPtr<MemBase> FileArray::produce() {
    StrongPtr<MemBase> made;
    std::exception_ptr failure;
    try {
        made = myReader(Hestra::WeakPtr<CreativeArrayBase>(*this));
    } catch (const Hestra::Interruption&) {
        throw; // no failure of the file
    } catch (...) {
        failure = std::current_exception();
        ++allFailures;
    }
    const std::lock_guard lock(myFailureMutex);
    myFailure = failure;
    return made;
}

std::exception_ptr FileArray::failure() const {
    const std::lock_guard lock(myFailureMutex);
    return myFailure;
}

StrongPtr<MemBase> FileArray::read() {
    for (;;) {
        if (StrongPtr<MemBase> data = getData()) return data;
        if (const std::exception_ptr reason = failure()) std::rethrow_exception(reason);
        // Somebody else has read them meanwhile.
        if (!hasData()) return nullptr; // they need themselves
    }
}

StrongPtr<MemBase> readData(const Field& field, const StrongPtr<FragmentID>& fragment) {
    const StrongPtr<CreativeArrayBase> creator = field.getCreator(fragment);
    if (!creator) return nullptr;
    const auto file = Hestra::dynamicCast<FileArray>(creator);
    return file ? file->read() : creator->getData();
}

void throwReadingFailure(const Field& field) {
    field.iterate([](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
        const auto file = Hestra::dynamicCast<FileArray>(creator);
        if (file && !file->hasData())
            if (const std::exception_ptr reason = file->failure()) std::rethrow_exception(reason);
        return true;
    });
}

} // namespace Vantle
