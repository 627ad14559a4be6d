
#include <dataset/Progress.hpp>
#include <dataset/io/FileError.hpp>

#include <algorithm>
#include <new>
#include <numeric>
#include <parallel/detail/Exchange.hpp>
#include <stdexcept>
#include <utility>

namespace Vantle {

ParallelError::~ParallelError() = default; // here, so that it is one class for all libraries

namespace detail {

namespace {

constexpr int DataTag = 1;

struct Header {
    std::uint32_t to, from;
    std::uint64_t size;
};

using Kind = ParallelError::Kind;
constexpr char WasCancelled = 'c'; // in place of a kind

/// What is told of a failure: its kind, and the reason.
std::string textOf(const std::exception_ptr& failure) {
    const auto error = [](Kind kind, const std::string& why) { return static_cast<char>(kind) + why; };
    try {
        std::rethrow_exception(failure);
    } catch (const Cancelled&) {
        return std::string(1, WasCancelled);
    } catch (const UnknownName& problem) {
        return error(Kind::Name, problem.what());
    } catch (const OutOfMemory& problem) {
        return error(Kind::Memory, problem.what());
    } catch (const std::bad_alloc&) {
        return error(Kind::Memory, "there is not enough memory");
    } catch (const FileError& problem) {
        return error(Kind::File, problem.what());
    } catch (const std::exception& problem) {
        return error(Kind::Other, problem.what());
    } catch (const char* problem) {
        return error(Kind::Other, problem);
    } catch (...) {
        return error(Kind::Other, "something that is no error");
    }
}

/// Says what the memory was for that there is not.
template<class F>
void orNoMemory(std::int64_t bytes, const F& f) {
    const auto fail = [&] {
        throw OutOfMemory("there is not enough memory for " + std::to_string(bytes) + " bytes of other ranks");
    };
    try {
        f();
    } catch (const std::bad_alloc&) {
        fail();
    } catch (const std::length_error&) {
        fail();
    }
}

} // namespace

std::span<const std::byte> Reader::take(std::size_t count) {
    if (count > myBytes.size()) throw std::length_error("a message between ranks is shorter than what it should say");
    const auto taken = myBytes.first(count);
    myBytes = myBytes.subspan(count);
    return taken;
}

std::size_t Outbox::begin(Writer& writer, std::uint32_t to, std::uint32_t from, std::size_t bytes) {
    const std::size_t needed = writer.bytes.size() + sizeof(Header) + bytes;
    if (needed > writer.bytes.capacity()) writer.bytes.reserve(std::max(needed, 2 * writer.bytes.capacity()));
    writer.put(Header{to, from, 0});
    return writer.bytes.size();
}

void Outbox::end(Writer& writer, std::size_t first) {
    const std::uint64_t size = writer.bytes.size() - first;
    std::memcpy(writer.bytes.data() + first - sizeof(size), &size, sizeof(size));
}

void Outbox::add(int rank, std::uint32_t to, std::uint32_t from, std::span<const std::byte> message) {
    add(rank, to, from, message.size(), [&](Writer& writer) { writer.put(message); });
}

std::size_t Outbox::bytes() const noexcept {
    std::size_t sum = 0;
    for (const Writer& writer : myWriters) sum += writer.bytes.size();
    return sum;
}

std::vector<Inbox::Message> Inbox::messages() const {
    std::vector<Message> all;
    for (std::size_t rank = 0; rank < myBytes.size(); ++rank)
        for (Reader reader(myBytes[rank]); !reader.isAtEnd();) {
            const auto header = reader.get<Header>();
            all.push_back({static_cast<int>(rank), header.to, header.from,
                           Reader(reader.take(static_cast<std::size_t>(header.size)))});
        }
    return all;
}

Exchange::Exchange(MPI_Comm comm, std::size_t budget, std::size_t most)
    : myBudget(std::max<std::size_t>(budget, 1)), myMost(most) {
    if (MPI_Comm_dup(comm, &myComm) != MPI_SUCCESS) throw DataSetError("the communicator cannot be duplicated");
    MPI_Comm_set_errhandler(myComm, MPI_ERRORS_ARE_FATAL); // also where the caller's returns errors, which nobody reads
    MPI_Comm_rank(myComm, &myRank);
    MPI_Comm_size(myComm, &myRanks);
    mySizes.resize(static_cast<std::size_t>(myRanks));
    myOffers.resize(mySizes.size());
}

Exchange::~Exchange() {
    int isOver = 0;
    MPI_Finalized(&isOver);
    if (!isOver) MPI_Comm_free(&myComm);
}

void Exchange::heed() {
    try {
        myPulse->rethrow();
    } catch (...) {
        myFailure = std::current_exception();
        isCallers = true;
    }
}

void Exchange::throwFailureOf(int rank) {
    std::exception_ptr cause = rank == myRank ? myFailure : nullptr;
    std::string text = cause ? textOf(cause) : std::string();
    if (std::exchange(isCallers, false) && !text.empty() && text[0] == static_cast<char>(Kind::Other))
        text[0] = static_cast<char>(Kind::Caller);
    myFailure = nullptr;
    int size = static_cast<int>(text.size());
    MPI_Bcast(&size, 1, MPI_INT, rank, myComm);
    text.resize(static_cast<std::size_t>(size));
    MPI_Bcast(text.data(), size, MPI_CHAR, rank, myComm);
    if (text[0] == WasCancelled) throw Cancelled();
    throw ParallelError(rank, text.substr(1), static_cast<Kind>(text[0]), std::move(cause));
}

Inbox Exchange::round(Outbox&& outbox, bool hasMore) {
    const auto ranks = static_cast<std::size_t>(myRanks), self = static_cast<std::size_t>(myRank);
    std::vector<Writer>& out = outbox.myWriters;
    for (std::size_t r = 0; r < ranks; ++r) mySizes[r] = static_cast<std::int64_t>(out[r].bytes.size());
    ++myTraffic.rounds;
    MPI_Alltoall(mySizes.data(), 1, MPI_INT64_T, myOffers.data(), 1, MPI_INT64_T, myComm);

    Inbox inbox;
    std::vector<MPI_Request> requests;
    attempt([&] { // all that is needed until everything has come in
        orNoMemory(std::accumulate(myOffers.begin(), myOffers.end(), -myOffers[self]), [&] {
            inbox.myStores.resize(ranks);
            inbox.myBytes.resize(ranks);
            std::size_t pieces = 0;
            for (std::size_t r = 0; r < ranks; ++r) {
                if (r == self) continue;
                const auto offered = static_cast<std::size_t>(myOffers[r]);
                if (offered > 0) inbox.myStores[r] = std::make_unique_for_overwrite<std::byte[]>(offered);
                inbox.myBytes[r] = {inbox.myStores[r].get(), offered};
                pieces += (offered + myMost - 1) / myMost + (out[r].bytes.size() + myMost - 1) / myMost;
            }
            requests.reserve(pieces);
        });
    });
    inbox.hasMore = agreeOn(hasMore ? 1 : 0) != 0;

    inbox.myOwn = std::move(out[self].bytes);
    inbox.myBytes[self] = inbox.myOwn;
    const auto inPieces = [&](auto* bytes, std::size_t size, const auto& start) {
        for (std::size_t begin = 0; begin < size; begin += myMost)
            start(bytes + begin, static_cast<int>(std::min(myMost, size - begin)), &requests.emplace_back());
    };
    for (std::size_t n = 1; n < ranks; ++n) {
        const std::size_t from = (self + ranks - n) % ranks, to = (self + n) % ranks;
        myTraffic.bytesReceived += inbox.myBytes[from].size();
        myTraffic.bytesSent += out[to].bytes.size();
        inPieces(inbox.myStores[from].get(), inbox.myBytes[from].size(),
                 [&](std::byte* bytes, int count, MPI_Request* request) {
                     MPI_Irecv(bytes, count, MPI_BYTE, static_cast<int>(from), DataTag, myComm, request);
                 });
        inPieces(out[to].bytes.data(), out[to].bytes.size(),
                 [&](const std::byte* bytes, int count, MPI_Request* request) {
                     MPI_Isend(bytes, count, MPI_BYTE, static_cast<int>(to), DataTag, myComm, request);
                 });
    }
    MPI_Waitall(static_cast<int>(requests.size()), requests.data(), MPI_STATUSES_IGNORE);
    return inbox;
}

std::vector<std::vector<std::byte>> Exchange::gather(const std::vector<std::byte>& own) {
    const auto ranks = static_cast<std::size_t>(myRanks);
    const auto size = static_cast<std::int64_t>(own.size());
    ++myTraffic.rounds;
    MPI_Allgather(&size, 1, MPI_INT64_T, myOffers.data(), 1, MPI_INT64_T, myComm);

    // Pieces of all ranks at a time: places among what is received are of 31 bits, too.
    const std::size_t piece = std::max<std::size_t>(std::min(myMost, std::size_t{1} << 30) / ranks, 1);
    const auto longest = static_cast<std::size_t>(*std::max_element(myOffers.begin(), myOffers.end()));
    std::vector<std::vector<std::byte>> all;
    std::vector<std::byte> together;
    std::vector<int> counts, places;
    attempt([&] {
        const auto sum = std::accumulate(myOffers.begin(), myOffers.end(), std::int64_t{0});
        orNoMemory(sum, [&] {
            all.resize(ranks);
            for (std::size_t r = 0; r < ranks; ++r) all[r].reserve(static_cast<std::size_t>(myOffers[r]));
            together.resize(std::min(static_cast<std::size_t>(sum), piece * ranks));
            counts.resize(ranks);
            places.resize(ranks);
        });
    });
    (void)agreeOn(0);
    for (std::size_t begin = 0; begin < longest; begin += piece) {
        int place = 0;
        for (std::size_t r = 0; r < ranks; ++r) {
            const auto length = static_cast<std::size_t>(myOffers[r]);
            counts[r] = static_cast<int>(std::min(piece, length - std::min(length, begin)));
            places[r] = std::exchange(place, place + counts[r]);
        }
        const int count = counts[static_cast<std::size_t>(myRank)];
        MPI_Allgatherv(count ? own.data() + begin : nullptr, count, MPI_BYTE, together.data(), counts.data(),
                       places.data(), MPI_BYTE, myComm);
        for (std::size_t r = 0; r < ranks; ++r)
            all[r].insert(all[r].end(), together.begin() + places[r], together.begin() + places[r] + counts[r]);
    }
    for (std::size_t r = 0; r < ranks; ++r)
        if (r != static_cast<std::size_t>(myRank)) myTraffic.bytesReceived += all[r].size();
    myTraffic.bytesSent += own.size() * (ranks - 1);
    return all;
}

std::uint64_t Exchange::greatest(std::uint64_t own) {
    ++myTraffic.rounds;
    return agreeOn(own);
}

std::uint64_t Exchange::agreeOn(std::uint64_t own) {
    // The lowest rank that has failed is the greatest of these complements.
    std::uint64_t numbers[2] = {own, myFailure ? ~static_cast<std::uint64_t>(myRank) : 0}, results[2] = {};
    MPI_Allreduce(numbers, results, 2, MPI_UINT64_T, MPI_MAX, myComm);
    if (results[1] != 0) throwFailureOf(static_cast<int>(~results[1]));
    return results[0];
}

} // namespace detail

} // namespace Vantle
