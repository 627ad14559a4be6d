#pragma once
/// Data of fragments that are read from files when they are first asked for.

#include <dataset/DataSetExport.hpp>
#include <model/vantle/Field.hpp>

#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>

namespace Vantle {

/// The data of one fragment, read when they are first asked for, and again after a cache has dropped them.
///
/// Failure      what the reading function throws is kept, and thrown by `read`; `create`, by which operations ask,
/// gives
///              null then, and says nothing. Data that were read stay what they are whatever becomes of the file.
/// Concurrency  as of every creator: one thread reads, the others wait for it.
class VANTLE_DATASET_API FileArray : public CreativeArrayBase {
public:
    using Reader = std::function<Hestra::StrongPtr<MemBase>(const Hestra::WeakPtr<CreativeArrayBase>&)>;

    /// Element type and size are announced, and must be those of what `reader` gives. Without a cache data stay.
    FileArray(Reader reader, const VantleTypeIndex& elementType, const DynamicSize& size,
              const Hestra::WeakPtr<Hestra::Cache>& cache);
    ~FileArray() override;

    /// The data; throws what kept them from being read.
    [[nodiscard]] Hestra::StrongPtr<MemBase> read();
    /// What the last reading threw; null when it succeeded, and before the first one.
    [[nodiscard]] std::exception_ptr failure() const;
    /// How often reading has failed in this process: whoever asks before and after an operation knows whether to ask
    /// `throwReadingFailure`.
    [[nodiscard]] static std::uint64_t failures() noexcept;

protected:
    [[nodiscard]] Hestra::StrongPtr<MemBase> produce() override;

private:
    const Reader myReader;
    mutable std::mutex myFailureMutex;
    std::exception_ptr myFailure;
};

/// The data of a fragment as `Field::getData`, but throws what kept them from being read from a file.
[[nodiscard]] VANTLE_DATASET_API Hestra::StrongPtr<MemBase> readData(const Field& field,
                                                                     const Hestra::StrongPtr<FragmentID>& fragment);

/// Throws what the last reading of a fragment of this field threw, of the first one where it failed. To be called after
/// an operation that gave nothing, to learn why.
VANTLE_DATASET_API void throwReadingFailure(const Field& field);

} // namespace Vantle
