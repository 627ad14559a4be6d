#pragma once
/// What ranks tell each other: the only code that calls MPI.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <mpi.h>
#include <parallel/ParallelError.hpp>
#include <span>
#include <type_traits>
#include <vector>

namespace Vantle {

/// What a rank has exchanged so far.
struct Traffic {
    std::uint64_t rounds = 0;        ///< exchanges in which all ranks took part
    std::uint64_t bytesSent = 0;     ///< to other ranks
    std::uint64_t bytesReceived = 0; ///< from other ranks
};

namespace detail {

/// Appends values to bytes.
class VANTLE_PARALLEL_API Writer {
public:
    template<class T>
    requires std::is_trivially_copyable_v<T>
    void put(const T& value) { put(std::as_bytes(std::span(&value, 1))); }
    template<class T>
    requires std::is_trivially_copyable_v<T>
    void putAll(std::span<const T> values) {
        put(static_cast<std::uint64_t>(values.size()));
        put(std::as_bytes(values));
    }
    void putText(const std::string& text) { putAll(std::span<const char>(text)); }
    void put(std::span<const std::byte> more);

    std::vector<std::byte> bytes;
};

/// Takes values from bytes in the order in which they were put there. Failure: std::length_error beyond the end.
class VANTLE_PARALLEL_API Reader {
public:
    Reader() = default;
    explicit Reader(std::span<const std::byte> bytes) : myBytes(bytes) {}
    template<class T>
    requires std::is_trivially_copyable_v<T>
    [[nodiscard]] T get() {
        T value;
        std::memcpy(static_cast<void*>(&value), take(sizeof(T)).data(), sizeof(T));
        return value;
    }
    template<class T>
    requires std::is_trivially_copyable_v<T>
    [[nodiscard]] std::vector<T> getAll() {
        std::vector<T> values(static_cast<std::size_t>(get<std::uint64_t>()));
        const auto from = take(values.size() * sizeof(T));
        if (!from.empty()) std::memcpy(static_cast<void*>(values.data()), from.data(), from.size());
        return values;
    }
    [[nodiscard]] std::string getText() {
        const std::vector<char> text = getAll<char>();
        return {text.begin(), text.end()};
    }
    [[nodiscard]] std::span<const std::byte> take(std::size_t count);
    [[nodiscard]] bool isAtEnd() const noexcept { return myBytes.empty(); }

private:
    std::span<const std::byte> myBytes;
};

/// What goes to which rank, as messages from one block to another.
class VANTLE_PARALLEL_API Outbox {
public:
    explicit Outbox(int ranks) : myBytes(static_cast<std::size_t>(ranks)) {}
    /// Blocks by their global order; what they mean is the business of whoever exchanges.
    void add(int rank, std::uint32_t to, std::uint32_t from, const std::vector<std::byte>& message);

private:
    friend class Exchange;
    std::vector<std::vector<std::byte>> myBytes;
};

/// What has come from other ranks, and from this one.
class VANTLE_PARALLEL_API Inbox {
public:
    struct Message {
        int rank;
        std::uint32_t to, from;
        Reader content;
    };
    /// Ascending by rank; those of one rank in the order in which it has added them. They live as long as the inbox.
    [[nodiscard]] std::vector<Message> messages() const;

private:
    friend class Exchange;
    std::vector<std::vector<std::byte>> myBytes;
};

/// Exchanges between the ranks of a communicator, of which it has a duplicate.
///
/// All ranks do the same exchanges in the same order. What a rank does between two of them is an attempt: when that
/// throws, further attempts are skipped, and the next exchange throws on all ranks. So no rank waits for one that has
/// given up. Everything ends with an exchange.
///
/// Failure      ParallelError with the lowest rank that has failed, and its reason; `Cancelled` when that was
///              cancelled there.
/// Concurrency  one thread, that which MPI allows.
class VANTLE_PARALLEL_API Exchange {
public:
    /// @param budget  bytes that a rank sends at once, where an operation can choose.
    /// @param most    bytes in one message of MPI, whose counts are of 31 bits.
    Exchange(MPI_Comm comm, std::size_t budget, std::size_t most = std::size_t{1} << 30);
    ~Exchange();
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    [[nodiscard]] int rank() const noexcept { return myRank; }
    [[nodiscard]] int ranks() const noexcept { return myRanks; }
    [[nodiscard]] std::size_t budget() const noexcept { return myBudget; }
    [[nodiscard]] const Traffic& traffic() const noexcept { return myTraffic; }

    template<class F>
    void attempt(const F& f) {
        if (myFailure) return;
        try {
            f();
        } catch (...) {
            myFailure = std::current_exception();
        }
    }
    /// Sends all messages, and receives those of all ranks.
    [[nodiscard]] Inbox round(Outbox&& outbox);
    /// The bytes of all ranks.
    [[nodiscard]] std::vector<std::vector<std::byte>> gather(const std::vector<std::byte>& own);
    /// The greatest number of all ranks.
    [[nodiscard]] std::uint64_t greatest(std::uint64_t own);
    /// Nothing but whether some rank has failed.
    void agree() { (void)greatest(0); }

private:
    void throwFailureOf(int rank);

    MPI_Comm myComm = MPI_COMM_NULL;
    int myRank = 0, myRanks = 1;
    std::size_t myBudget, myMost;
    std::exception_ptr myFailure;
    Traffic myTraffic;
};

} // namespace detail

} // namespace Vantle
