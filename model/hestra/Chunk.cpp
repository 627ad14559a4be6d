#include <model/hestra/Ageable.hpp>
#include <model/hestra/Chunk.hpp>

#include <cstdint>

#ifdef __linux__
#    include <sys/mman.h>
#endif

namespace Hestra {

std::atomic<Ageable::age_t> Ageable::GlobalTime{0};
Ageable::~Ageable() = default;
std::atomic<long long> ChunkBase::TotalMemsize{0};

ChunkBase::~ChunkBase() { TotalMemsize.fetch_sub(myShare.load(std::memory_order_relaxed), std::memory_order_relaxed); }

void ChunkBase::settle() const {
    const auto now = static_cast<long long>(memsize());
    const long long before = myShare.exchange(now, std::memory_order_relaxed);
    TotalMemsize.fetch_add(now - before, std::memory_order_relaxed);
}

namespace {

[[maybe_unused]] constexpr std::uintptr_t hugePage = std::uintptr_t{2} << 20;

} // namespace

void adviseLargeArray(void* begin, std::size_t bytes) noexcept {
#ifdef __linux__
    if (bytes < 2 * hugePage) return;
    const auto first = (reinterpret_cast<std::uintptr_t>(begin) + hugePage - 1) & ~(hugePage - 1);
    const auto last = (reinterpret_cast<std::uintptr_t>(begin) + bytes) & ~(hugePage - 1);
    // Advice only: where the system does not know huge pages nothing changes.
    if (first < last) (void)::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#else
    (void)begin;
    (void)bytes;
#endif
}

void populateLargeArrayAhead(const void* begin, const void* end, const void* blockEnd) noexcept {
    const auto now = reinterpret_cast<std::uintptr_t>(end) / hugePage;
    const auto last = reinterpret_cast<std::uintptr_t>(blockEnd) / hugePage;
    if (reinterpret_cast<std::uintptr_t>(begin) / hugePage == now || now + 2 > last) return;
#ifdef MADV_POPULATE_WRITE
    // A page that lies within the block wholly, and that nobody has come to yet. Older systems refuse.
    (void)::madvise(reinterpret_cast<void*>((now + 1) * hugePage), hugePage, MADV_POPULATE_WRITE);
#endif
}

StrongPtr<ChunkBase> Attributes::getAttribute(std::string_view name) const {
    const std::lock_guard lock(myMutex);
    const auto found = myChunks.find(name);
    return found == myChunks.end() ? StrongPtr<ChunkBase>() : found->second;
}

void Attributes::setAttribute(std::string_view name, const StrongPtr<ChunkBase>& chunk) {
    StrongPtr<ChunkBase> replaced = chunk; // released after the lock
    const std::lock_guard lock(myMutex);
    const auto found = myChunks.find(name);
    if (!chunk) {
        if (found != myChunks.end()) {
            replaced = found->second;
            myChunks.erase(found);
        }
        return;
    }
    chunk->settle();
    if (found != myChunks.end())
        found->second.swap(replaced);
    else
        myChunks.emplace(name, chunk);
}

std::vector<std::string> Attributes::attributeNames() const {
    const std::lock_guard lock(myMutex);
    std::vector<std::string> names;
    for (const auto& [name, chunk] : myChunks) names.push_back(name);
    return names;
}

} // namespace Hestra
