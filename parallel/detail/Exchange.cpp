
#include <dataset/io/FileError.hpp>

#include <algorithm>
#include <limits>
#include <new>
#include <parallel/detail/Exchange.hpp>
#include <parallel/detail/Meter.hpp>
#include <stdexcept>
#include <utility>

namespace Vantle {

ParallelError::~ParallelError() = default; // here, so that it is one class for all libraries

namespace detail {

namespace {

constexpr std::int64_t Failed = -1; // in place of a count
constexpr int DataTag = 1;

struct Header {
    std::uint32_t to, from;
    std::uint64_t size;
};

using Kind = ParallelError::Kind;
constexpr char WasCancelled = 'c'; // in place of a kind

/// What is told of a failure: its kind, and the reason. What a caller's own function has thrown is taken out of its
/// wrapping.
std::string textOf(std::exception_ptr& failure) {
    const auto error = [](Kind kind, const std::string& why) { return static_cast<char>(kind) + why; };
    try {
        std::rethrow_exception(failure);
    } catch (const Passing& passing) {
        failure = passing.what;
        std::string text = textOf(failure);
        if (text[0] == static_cast<char>(Kind::Other)) text[0] = static_cast<char>(Kind::Caller);
        return text;
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

} // namespace

void Writer::put(std::span<const std::byte> more) { bytes.insert(bytes.end(), more.begin(), more.end()); }

std::span<const std::byte> Reader::take(std::size_t count) {
    if (count > myBytes.size()) throw std::length_error("a message between ranks is shorter than what it should say");
    const auto taken = myBytes.first(count);
    myBytes = myBytes.subspan(count);
    return taken;
}

void Outbox::add(int rank, std::uint32_t to, std::uint32_t from, const std::vector<std::byte>& message) {
    std::vector<std::byte>& bytes = myBytes[static_cast<std::size_t>(rank)];
    const Header header{to, from, message.size()};
    const auto head = std::as_bytes(std::span(&header, 1));
    bytes.insert(bytes.end(), head.begin(), head.end());
    bytes.insert(bytes.end(), message.begin(), message.end());
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
    MPI_Comm_dup(comm, &myComm);
    MPI_Comm_rank(myComm, &myRank);
    MPI_Comm_size(myComm, &myRanks);
}

Exchange::~Exchange() {
    int isOver = 0;
    MPI_Finalized(&isOver);
    if (!isOver) MPI_Comm_free(&myComm);
}

void Exchange::throwFailureOf(int rank) {
    std::exception_ptr cause = rank == myRank ? std::exchange(myFailure, nullptr) : nullptr;
    std::string text = cause ? textOf(cause) : std::string();
    myFailure = nullptr;
    int size = static_cast<int>(text.size());
    MPI_Bcast(&size, 1, MPI_INT, rank, myComm);
    text.resize(static_cast<std::size_t>(size));
    MPI_Bcast(text.data(), size, MPI_CHAR, rank, myComm);
    if (text[0] == WasCancelled) throw Cancelled();
    throw ParallelError(rank, text.substr(1), static_cast<Kind>(text[0]), std::move(cause));
}

Inbox Exchange::round(Outbox&& outbox) {
    const auto ranks = static_cast<std::size_t>(myRanks), self = static_cast<std::size_t>(myRank);
    std::vector<std::vector<std::byte>>& out = outbox.myBytes;
    std::vector<std::int64_t> sent(ranks, Failed), received(ranks, 0);
    if (!myFailure)
        for (std::size_t r = 0; r < ranks; ++r) sent[r] = static_cast<std::int64_t>(out[r].size());
    ++myTraffic.rounds;
    MPI_Alltoall(sent.data(), 1, MPI_INT64_T, received.data(), 1, MPI_INT64_T, myComm);
    if (const auto failed = std::find(received.begin(), received.end(), Failed); failed != received.end())
        throwFailureOf(static_cast<int>(failed - received.begin()));

    Inbox inbox;
    inbox.myBytes.resize(ranks);
    inbox.myBytes[self] = std::move(out[self]);
    std::vector<MPI_Request> requests;
    const auto inPieces = [&](std::vector<std::byte>& bytes, const auto& start) {
        for (std::size_t begin = 0; begin < bytes.size(); begin += myMost)
            start(bytes.data() + begin, static_cast<int>(std::min(myMost, bytes.size() - begin)),
                  &requests.emplace_back());
    };
    for (std::size_t n = 1; n < ranks; ++n) {
        const std::size_t from = (self + ranks - n) % ranks, to = (self + n) % ranks;
        inbox.myBytes[from].resize(static_cast<std::size_t>(received[from]));
        myTraffic.bytesReceived += inbox.myBytes[from].size();
        myTraffic.bytesSent += out[to].size();
        inPieces(inbox.myBytes[from], [&](std::byte* bytes, int count, MPI_Request* request) {
            MPI_Irecv(bytes, count, MPI_BYTE, static_cast<int>(from), DataTag, myComm, request);
        });
        inPieces(out[to], [&](const std::byte* bytes, int count, MPI_Request* request) {
            MPI_Isend(bytes, count, MPI_BYTE, static_cast<int>(to), DataTag, myComm, request);
        });
    }
    MPI_Waitall(static_cast<int>(requests.size()), requests.data(), MPI_STATUSES_IGNORE);
    return inbox;
}

std::vector<std::vector<std::byte>> Exchange::gather(const std::vector<std::byte>& own) {
    const auto ranks = static_cast<std::size_t>(myRanks);
    const std::int64_t size = myFailure ? Failed : static_cast<std::int64_t>(own.size());
    std::vector<std::int64_t> sizes(ranks);
    ++myTraffic.rounds;
    MPI_Allgather(&size, 1, MPI_INT64_T, sizes.data(), 1, MPI_INT64_T, myComm);
    if (const auto failed = std::find(sizes.begin(), sizes.end(), Failed); failed != sizes.end())
        throwFailureOf(static_cast<int>(failed - sizes.begin()));
    std::vector<std::vector<std::byte>> all(ranks);
    const auto longest = static_cast<std::size_t>(*std::max_element(sizes.begin(), sizes.end()));
    const std::size_t piece = std::max<std::size_t>(std::min(myMost, std::size_t{1} << 30) / ranks, 1);
    // Pieces of all ranks at a time: places among what is received are of 31 bits, too.
    std::vector<std::byte> together;
    for (std::size_t begin = 0; begin < longest; begin += piece) {
        std::vector<int> counts(ranks), places(ranks);
        int sum = 0;
        for (std::size_t r = 0; r < ranks; ++r) {
            const auto length = static_cast<std::size_t>(sizes[r]);
            counts[r] = static_cast<int>(std::min(piece, length - std::min(length, begin)));
            places[r] = sum;
            sum += counts[r];
        }
        together.resize(static_cast<std::size_t>(sum));
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
    // The lowest rank that has failed is the greatest of these complements.
    std::uint64_t numbers[2] = {own, myFailure ? ~static_cast<std::uint64_t>(myRank) : 0}, results[2] = {};
    ++myTraffic.rounds;
    MPI_Allreduce(numbers, results, 2, MPI_UINT64_T, MPI_MAX, myComm);
    if (results[1] != 0) throwFailureOf(static_cast<int>(~results[1]));
    return results[0];
}

} // namespace detail

} // namespace Vantle
