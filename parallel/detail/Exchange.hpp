#pragma once
/// What ranks tell each other: the only code that calls MPI.

#include <model/hestra/Pulse.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <mpi.h>
#include <parallel/ParallelError.hpp>
#include <span>
#include <type_traits>
#include <utility>
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
    void put(std::span<const std::byte> more) { bytes.insert(bytes.end(), more.begin(), more.end()); }
    /// So many bytes, to be filled; they stay where they are until more is put.
    [[nodiscard]] std::byte* grow(std::size_t count) {
        bytes.resize(bytes.size() + count);
        return bytes.data() + (bytes.size() - count);
    }
    /// So many elements, each made by a function of its number, and their count before, as by `putAll`.
    template<class Make>
    void putEach(std::size_t count, const Make& make) {
        using T = decltype(make(count));
        static_assert(std::is_trivially_copyable_v<T>);
        put(static_cast<std::uint64_t>(count));
        std::byte* to = grow(count * sizeof(T));
        for (std::size_t n = 0; n < count; ++n, to += sizeof(T)) {
            const T value = make(n);
            std::memcpy(to, static_cast<const void*>(&value), sizeof(T));
        }
    }

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
    /// What `getAll` gives, to be taken one by one.
    template<class T, class Take>
    void forAll(const Take& take) {
        Reader all(this->take(static_cast<std::size_t>(get<std::uint64_t>()) * sizeof(T)));
        for (std::size_t n = 0; !all.isAtEnd(); ++n) take(n, all.get<T>());
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
    explicit Outbox(int ranks) : myWriters(static_cast<std::size_t>(ranks)) {}
    /// Blocks by their global order; what they mean is the business of whoever exchanges.
    void add(int rank, std::uint32_t to, std::uint32_t from, std::span<const std::byte> message);
    /// One message by a function that writes it, without a copy of it. Those of `bytes` have their place already.
    template<class Write>
    void add(int rank, std::uint32_t to, std::uint32_t from, std::size_t bytes, const Write& write) {
        Writer& writer = myWriters[static_cast<std::size_t>(rank)];
        const std::size_t first = begin(writer, to, from, bytes);
        write(writer);
        end(writer, first);
    }
    /// For all ranks.
    [[nodiscard]] std::size_t bytes() const noexcept;

private:
    friend class Exchange;
    static std::size_t begin(Writer& writer, std::uint32_t to, std::uint32_t from, std::size_t bytes);
    static void end(Writer& writer, std::size_t first);

    std::vector<Writer> myWriters;
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
    /// Whether some rank has more to send in another round.
    [[nodiscard]] bool isFollowed() const noexcept { return hasMore; }

private:
    friend class Exchange;
    bool hasMore = false;
    std::vector<std::byte> myOwn;
    std::vector<std::unique_ptr<std::byte[]>> myStores;
    std::vector<std::span<const std::byte>> myBytes;
};

/// Exchanges between the ranks of a communicator, of which it has a duplicate.
///
/// All ranks do the same exchanges in the same order. What a rank does between two of them is an attempt: when that
/// throws, further attempts are skipped, and the next exchange throws on all ranks. So no rank waits for one that has
/// given up. Everything ends with an exchange. Nor does a rank begin to send before all have the memory to receive.
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
        if (myPulse) heed();
    }
    /// Sends all messages, and receives those of all ranks.
    [[nodiscard]] Inbox round(Outbox&& outbox, bool hasMore = false);
    /// Sends things one after the other, in as many rounds as the budget wants.
    ///
    /// @param put   writes the thing of a number to an outbox.
    /// @param take  what comes in with one round.
    template<class Put, class Take>
    void inRounds(std::size_t things, const Put& put, const Take& take) {
        std::size_t next = 0;
        for (bool isFollowed = true; isFollowed;) {
            Outbox outbox(myRanks);
            attempt([&] {
                while (next < things && outbox.bytes() < myBudget) put(outbox, next++);
            });
            const Inbox inbox = round(std::move(outbox), next < things);
            attempt([&] { take(inbox); });
            isFollowed = inbox.isFollowed();
        }
    }
    /// Sends each rank a list of elements, in rounds, and calls `take(rank, element)` for those of this one's lists and
    /// of all others', which keep their order.
    template<class T, class Take>
    void sendLists(const std::vector<std::vector<T>>& lists, const Take& take) {
        constexpr std::size_t AtOnce = 1024;
        std::vector<std::pair<std::size_t, std::size_t>> pieces; // of which list, and where they begin
        attempt([&] {
            for (std::size_t rank = 0; rank < lists.size(); ++rank)
                for (std::size_t first = 0; first < lists[rank].size(); first += AtOnce)
                    pieces.emplace_back(rank, first);
        });
        inRounds(
            pieces.size(),
            [&](Outbox& outbox, std::size_t n) {
                const auto [rank, first] = pieces[n];
                const std::size_t count = std::min(AtOnce, lists[rank].size() - first);
                outbox.add(static_cast<int>(rank), 0, 0, std::as_bytes(std::span(lists[rank]).subspan(first, count)));
            },
            [&](const Inbox& inbox) {
                for (Inbox::Message& message : inbox.messages())
                    while (!message.content.isAtEnd())
                        take(static_cast<std::size_t>(message.rank), message.content.template get<T>());
            });
    }
    /// The bytes of all ranks.
    [[nodiscard]] std::vector<std::vector<std::byte>> gather(const std::vector<std::byte>& own);
    /// The greatest number of all ranks.
    [[nodiscard]] std::uint64_t greatest(std::uint64_t own);
    /// Nothing but whether some rank has failed.
    void agree() { (void)greatest(0); }

    /// As long as it lives, what ends a pulse fails the attempt that is made.
    class Heeding {
    public:
        Heeding(Exchange& exchange, const Hestra::Pulse& pulse) : myExchange(exchange) { exchange.myPulse = &pulse; }
        ~Heeding() { myExchange.myPulse = nullptr; }
        Heeding(const Heeding&) = delete;
        Heeding& operator=(const Heeding&) = delete;

    private:
        Exchange& myExchange;
    };

private:
    void throwFailureOf(int rank);
    void heed();
    /// The greatest of all ranks, which all have to have got so far.
    [[nodiscard]] std::uint64_t agreeOn(std::uint64_t own);

    MPI_Comm myComm = MPI_COMM_NULL;
    int myRank = 0, myRanks = 1;
    std::size_t myBudget, myMost;
    std::vector<std::int64_t> mySizes, myOffers; // what is sent to each rank, and by each
    std::exception_ptr myFailure;
    bool isCallers = false; // thrown by the caller's progress function
    const Hestra::Pulse* myPulse = nullptr;
    Traffic myTraffic;
};

} // namespace detail

} // namespace Vantle
