#pragma once
/// What has equal keys comes together: partitions by the leading bits of well-mixed keys, each sorted in the cache.

#include <baseop/detail/ParallelLoop.hpp>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <span>
#include <vector>

namespace Vantle::detail {

/// A key with all its bits mixed, and whose it is.
struct KeyEntry {
    std::uint64_t key;
    std::uint32_t id;
    std::uint32_t tag;
};

[[nodiscard]] inline std::uint64_t mixBits(std::uint64_t h) noexcept {
    h ^= h >> 32;
    h *= 0xd6e8feb86659fd93;
    h ^= h >> 32;
    h *= 0xd6e8feb86659fd93;
    return h ^ h >> 32;
}

/// Bytes that one thread would read while it sorts an entry.
constexpr std::size_t EntrySortBytes = 512;

/// Calls `function(group)` for the entries of each key that occurs more than once, ascending by id; several groups at
/// once, from several threads.
template<class F>
void forEachGroup(const std::vector<KeyEntry>& entries, const F& function) {
    const std::size_t count = entries.size(), chunk = 16384, chunks = (count + chunk - 1) / chunk;
    if (count < 2) return;
    const int bits = std::clamp(static_cast<int>(std::bit_width(count / 1024)), 1, 11);
    const std::size_t parts = std::size_t{1} << bits;
    const auto partOf = [bits](const KeyEntry& entry) { return static_cast<std::size_t>(entry.key >> (64 - bits)); };
    const auto inChunks = [&](const auto& call) {
        inParallel(chunks, 1, count * EntrySortBytes / 8, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) call(c, c * chunk, std::min(count, (c + 1) * chunk));
        });
    };

    // The place of the first entry that each chunk has for each part.
    std::vector<std::uint32_t> place(chunks * parts);
    inChunks([&](std::size_t c, std::size_t begin, std::size_t end) {
        for (std::size_t n = begin; n < end; ++n) ++place[c * parts + partOf(entries[n])];
    });
    std::vector<std::uint32_t> start(parts + 1);
    std::uint32_t next = 0;
    for (std::size_t part = 0; part < parts; ++part) {
        start[part] = next;
        for (std::size_t c = 0; c < chunks; ++c) {
            const std::uint32_t here = place[c * parts + part];
            place[c * parts + part] = next;
            next += here;
        }
    }
    start[parts] = next;
    std::vector<KeyEntry> sorted(count);
    inChunks([&](std::size_t c, std::size_t begin, std::size_t end) {
        std::uint32_t* const to = place.data() + c * parts;
        for (std::size_t n = begin; n < end; ++n) sorted[to[partOf(entries[n])]++] = entries[n];
    });
    inParallel(parts, 1, count * EntrySortBytes, [&](std::size_t begin, std::size_t end) {
        for (std::size_t part = begin; part < end; ++part) {
            KeyEntry* at = sorted.data() + start[part];
            KeyEntry* const last = sorted.data() + start[part + 1];
            std::sort(at, last, [](const KeyEntry& a, const KeyEntry& b) {
                return a.key != b.key ? a.key < b.key : a.id < b.id;
            });
            while (at != last) {
                KeyEntry* const first = at;
                while (at != last && at->key == first->key) ++at;
                if (at - first > 1) function(std::span<KeyEntry>(first, at));
            }
        }
    });
}

} // namespace Vantle::detail
