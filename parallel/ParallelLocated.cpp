#include <baseop/detail/location/SpatialOrder.hpp>
#include <dataset/detail/NumberArray.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <parallel/detail/ParallelState.hpp>

namespace Vantle {

using detail::LocatedParts;
using detail::Reader;
using detail::Writer;
using Hestra::Pulse;
using Hestra::StrongPtr;

namespace {

/// Neighbours in order are neighbours in space: what is near all of so many positions is looked up at once, unless that
/// is more boxes than are looked at one by one.
constexpr std::size_t LookedUpAtOnce = 64, FewBoxes = 12;

/// What is sent and answered for a position, about: what the budget has to be enough for.
constexpr std::size_t BytesEach = 64;

struct Answer {
    std::uint32_t block;    // among all
    std::uint32_t position; // of those that were asked for
    Point place;
};

} // namespace

namespace {

/// Which ranks have blocks whose boxes hold positions.
class Routes {
public:
    Routes(std::vector<Box> boxes, const std::vector<detail::GlobalBlock>& blocks)
        : myBoxes(std::move(boxes)), myBlocks(blocks), myTree(myBoxes) {}

    /// For each rank the numbers of the positions that it is to be asked for, ascending.
    void find(std::span<const Point> positions, std::vector<std::vector<std::uint32_t>>& asked) const {
        std::vector<std::uint32_t> near;
        std::vector<int> to;
        for (std::size_t first = 0, last = 0; first < positions.size(); first = last) {
            last = std::min(first + LookedUpAtOnce, positions.size());
            last = first + detail::SpatialOrder::beforeJump(positions.subspan(first, last - first));
            Box around{positions[first], positions[first]};
            for (std::size_t k = first; k < last; ++k)
                for (int d = 0; d < 3; ++d) { // NaN widens nothing, and is in no box
                    around.low[d] = std::min(around.low[d], positions[k][d]);
                    around.high[d] = std::max(around.high[d], positions[k][d]);
                }
            near.clear();
            bool isFew = around.low == around.low && around.high == around.high;
            if (isFew) myTree.forEach(around, [&](std::uint32_t block) { near.push_back(block); });
            isFew = isFew && near.size() <= FewBoxes;
            const auto rankOf = [&](std::uint32_t block) { return myBlocks[block].rank; };
            std::sort(near.begin(), near.end(), [&](auto a, auto b) { return rankOf(a) < rankOf(b); });
            for (auto begin = near.begin(); isFew && begin != near.end();) {
                const int rank = rankOf(*begin);
                const auto end = std::find_if(begin, near.end(), [&](auto block) { return rankOf(block) != rank; });
                auto& of = asked[static_cast<std::size_t>(rank)];
                const bool hasAll = std::any_of(begin, end, [&](auto block) { return isWithin(around, block); });
                for (std::size_t k = first; k < last; ++k) {
                    const Box here{positions[k], positions[k]};
                    if ((hasAll && here.low == here.low) ||
                        std::any_of(begin, end, [&](auto block) { return detail::touch(myBoxes[block], here); }))
                        of.push_back(static_cast<std::uint32_t>(k));
                }
                begin = end;
            }
            for (std::size_t k = first; k < last && !isFew; ++k) {
                to.clear();
                myTree.forEach({positions[k], positions[k]}, [&](std::uint32_t block) {
                    if (std::find(to.begin(), to.end(), rankOf(block)) == to.end()) to.push_back(rankOf(block));
                });
                for (const int rank : to)
                    asked[static_cast<std::size_t>(rank)].push_back(static_cast<std::uint32_t>(k));
            }
        }
    }

private:
    [[nodiscard]] bool isWithin(const Box& box, std::uint32_t block) const {
        const Box& other = myBoxes[block];
        bool is = true;
        for (int d = 0; d < 3; ++d) is = is && other.low[d] <= box.low[d] && box.high[d] <= other.high[d];
        return is;
    }

    std::vector<Box> myBoxes;
    const std::vector<detail::GlobalBlock>& myBlocks;
    detail::BoxTree myTree;
};

} // namespace

std::shared_ptr<LocatedParts> ParallelDataSet::Data::locate(const std::shared_ptr<Data>& self,
                                                            std::span<const Point> positions) {
    const LocalFromWorldPoint& search = locator();
    const auto ranks = static_cast<std::size_t>(exchange->ranks()), here = static_cast<std::size_t>(exchange->rank());
    auto made = std::make_shared<LocatedParts>();
    made->data = self;
    std::size_t atOnce = 1;
    exchange->attempt([&] {
        constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
        made->blocks.assign(positions.size(), ParallelLocated::Nowhere);
        made->places.assign(positions.size(), Point(NaN, NaN, NaN));
        atOnce = std::clamp<std::size_t>(exchange->budget() / BytesEach, 1, std::size_t{1} << 31);
    });
    if (ranks == 1) { // nobody to ask
        exchange->attempt([&] {
            LocatedParts::Batch whole;
            whole.found = LocatedPositions(search, positions);
            made->found = whole.found.found();
            for (std::size_t k = 0; k < positions.size(); ++k) {
                const std::uint32_t fragment = whole.found.fragments()[k];
                if (fragment == LocatedPositions::Nowhere) continue;
                made->blocks[k] = all.own[fragment];
                made->places[k] = whole.found.places()[k];
            }
            made->batches.push_back(std::move(whole));
        });
        return made;
    }
    std::optional<Routes> routes;
    exchange->attempt([&] { routes.emplace(searchBoxes(), all.blocks); });
    const auto batches = static_cast<std::size_t>(exchange->greatest((positions.size() + atOnce - 1) / atOnce));
    detail::inParts(batches, [&](std::size_t batch) {
        LocatedParts::Batch now;
        now.first = std::min(batch * atOnce, positions.size());
        const std::span<const Point> own = positions.subspan(now.first, std::min(atOnce, positions.size() - now.first));
        std::vector<std::vector<std::uint32_t>> asked(ranks); // of this rank's positions
        detail::Outbox questions(exchange->ranks());
        exchange->attempt([&] {
            Pulse::beat(0.0);
            routes->find(own, asked);
            for (std::size_t r = 0; r < ranks; ++r)
                if (r != here && !asked[r].empty())
                    questions.add(static_cast<int>(r), 0, 0, 8 + asked[r].size() * sizeof(Point), [&](Writer& writer) {
                        writer.putEach(asked[r].size(), [&](std::size_t n) { return own[asked[r][n]]; });
                    });
        });
        const detail::Inbox inbox = exchange->round(std::move(questions));

        // Found here: numbers within `now.found`, of which those of a rank begin where `firstOf` says.
        std::vector<std::vector<std::uint32_t>> hits(ranks);
        std::vector<std::size_t> firstOf(ranks, 0);
        const auto answer = [&](std::size_t rank, std::uint32_t hit) {
            return Answer{all.own[now.found.fragments()[hit]], hit - static_cast<std::uint32_t>(firstOf[rank]),
                          now.found.places()[hit]};
        };
        detail::Outbox answers(exchange->ranks());
        exchange->attempt([&] {
            std::vector<Point> wanted;
            wanted.reserve(2 * asked[here].size());
            for (const std::uint32_t k : asked[here]) wanted.push_back(own[k]);
            std::vector<std::size_t> endOf(ranks, 0);
            endOf[here] = wanted.size();
            for (detail::Inbox::Message& message : inbox.messages()) {
                const auto rank = static_cast<std::size_t>(message.rank);
                firstOf[rank] = wanted.size();
                message.content.forAll<Point>([&](std::size_t, const Point& p) { wanted.push_back(p); });
                endOf[rank] = wanted.size();
            }
            now.found = LocatedPositions(search, wanted);
            for (std::size_t r = 0; r < ranks; ++r) {
                for (std::size_t n = firstOf[r]; n < endOf[r]; ++n)
                    if (now.found.fragments()[n] != LocatedPositions::Nowhere)
                        hits[r].push_back(static_cast<std::uint32_t>(n));
                if (r != here && !hits[r].empty())
                    answers.add(static_cast<int>(r), 0, 0, 8 + hits[r].size() * sizeof(Answer), [&](Writer& writer) {
                        writer.putEach(hits[r].size(), [&](std::size_t n) { return answer(r, hits[r][n]); });
                    });
            }
        });
        const detail::Inbox found = exchange->round(std::move(answers));

        // The lowest block has a position; ranks are told which of theirs these are.
        now.given.resize(ranks);
        now.taken.resize(ranks);
        detail::Outbox choices(exchange->ranks());
        exchange->attempt([&] {
            const std::span<std::uint32_t> blocks(made->blocks.data() + now.first, own.size());
            const auto forAnswers = [&](const auto& take) { // take(rank, number of the answer, answer, position)
                for (std::size_t n = 0; n < hits[here].size(); ++n) {
                    const Answer mine = answer(here, hits[here][n]);
                    take(here, n, mine, asked[here][mine.position]);
                }
                for (detail::Inbox::Message& message : found.messages()) {
                    const auto rank = static_cast<std::size_t>(message.rank);
                    message.content.forAll<Answer>(
                        [&](std::size_t n, const Answer& other) { take(rank, n, other, asked[rank][other.position]); });
                }
            };
            std::vector<std::size_t> count(ranks, 0);
            forAnswers([&](std::size_t rank, std::size_t, const Answer& one, std::uint32_t k) {
                ++count[rank];
                if (one.block >= blocks[k]) return;
                made->found += blocks[k] == ParallelLocated::Nowhere ? 1 : 0;
                blocks[k] = one.block;
                made->places[now.first + k] = one.place;
            });
            std::vector<std::vector<unsigned char>> isChosen(ranks);
            for (std::size_t r = 0; r < ranks; ++r) {
                now.taken[r].reserve(count[r]);
                if (r != here) isChosen[r].resize((count[r] + 7) / 8);
            }
            forAnswers([&](std::size_t rank, std::size_t n, const Answer& one, std::uint32_t k) {
                if (blocks[k] != one.block) return;
                now.taken[rank].push_back(k);
                if (rank == here)
                    now.given[here].push_back(hits[here][n]);
                else
                    isChosen[rank][n / 8] |= static_cast<unsigned char>(1U << n % 8);
            });
            for (std::size_t r = 0; r < ranks; ++r)
                if (!isChosen[r].empty()) choices.add(static_cast<int>(r), 0, 0, std::as_bytes(std::span(isChosen[r])));
        });
        const detail::Inbox chosen = exchange->round(std::move(choices));
        exchange->attempt([&] {
            for (detail::Inbox::Message& message : chosen.messages()) {
                const auto rank = static_cast<std::size_t>(message.rank);
                const auto isChosen = message.content.take((hits[rank].size() + 7) / 8);
                for (std::size_t n = 0; n < hits[rank].size(); ++n)
                    if (std::to_integer<unsigned>(isChosen[n / 8]) >> n % 8 & 1)
                        now.given[rank].push_back(hits[rank][n]);
            }
            made->batches.push_back(std::move(now));
        });
    });
    return made;
}

void ParallelDataSet::Data::sample(const LocatedParts& at, const std::string& name, const detail::Quantity& of,
                                   std::span<double> values, std::span<unsigned char> mask) {
    const auto components = static_cast<std::size_t>(of.components);
    const std::size_t bytesEach = components * sizeof(double);
    std::vector<StrongPtr<FragmentID>> fragments;
    std::vector<DynamicSize> sizes;
    for (const std::uint32_t block : all.own) {
        fragments.push_back(idOf(block));
        sizes.emplace_back(all.blocks[block].info.size);
    }
    const auto sampleHere = [&](const LocatedPositions& found, std::span<double> to, std::span<unsigned char> isThere) {
        try {
            found.sample(*of.field, fragments, of.components, to, isThere, sizes);
        } catch (const std::invalid_argument&) {
            for (const std::uint32_t block : all.own) (void)data(name, *of.field, block); // which says why
            throw;
        }
    };
    if (exchange->ranks() == 1) {
        exchange->attempt([&] { sampleHere(at.batches.front().found, values, mask); });
        return;
    }
    const auto here = static_cast<std::size_t>(exchange->rank());
    detail::inParts(at.batches.size(), [&](std::size_t number) {
        const LocatedParts::Batch& batch = at.batches[number];
        const auto take = [&](std::uint32_t k, const void* from) {
            std::memcpy(&values[(batch.first + k) * components], from, bytesEach);
            if (!mask.empty()) mask[batch.first + k] = 1;
        };
        detail::Outbox outbox(exchange->ranks());
        exchange->attempt([&] {
            Pulse::beat(0.0);
            std::vector<double> found(batch.found.size() * components);
            std::vector<unsigned char> isFound(batch.found.size());
            sampleHere(batch.found, found, isFound);
            const auto isThere = [&](std::uint32_t n) { return isFound[n] != 0; };
            for (std::size_t r = 0; r < batch.given.size(); ++r) {
                const std::vector<std::uint32_t>& given = batch.given[r];
                if (r == here) {
                    for (std::size_t n = 0; n < given.size(); ++n)
                        if (isThere(given[n])) take(batch.taken[r][n], &found[given[n] * components]);
                    continue;
                }
                if (given.empty()) continue;
                const bool isWhole = std::all_of(given.begin(), given.end(), isThere);
                const std::size_t bytes = 1 + given.size() * (bytesEach + (isWhole ? 0 : 1));
                outbox.add(static_cast<int>(r), 0, 0, bytes, [&](Writer& writer) {
                    writer.put(static_cast<unsigned char>(isWhole));
                    std::byte* to = writer.grow(given.size() * bytesEach);
                    for (const std::uint32_t n : given) {
                        std::memcpy(to, &found[n * components], bytesEach);
                        to += bytesEach;
                    }
                    if (!isWhole)
                        for (const std::uint32_t n : given) writer.put(isFound[n]);
                });
            }
        });
        const detail::Inbox inbox = exchange->round(std::move(outbox));
        exchange->attempt([&] {
            for (detail::Inbox::Message& message : inbox.messages()) {
                const std::vector<std::uint32_t>& taken = batch.taken[static_cast<std::size_t>(message.rank)];
                const bool isWhole = message.content.get<unsigned char>() != 0;
                Reader numbers(message.content.take(taken.size() * bytesEach));
                for (const std::uint32_t k : taken) {
                    const auto bytes = numbers.take(bytesEach);
                    if (isWhole || message.content.get<unsigned char>() != 0) take(k, bytes.data());
                }
            }
        });
    });
}

std::vector<Box> ParallelDataSet::Data::searchBoxes() const {
    // Locators go by boxes that may be rounded otherwise; a wider one costs a question.
    std::vector<Box> boxes = all.boxes;
    for (Box& box : boxes) {
        const double by = 1e-9 * distance(box.low, box.high);
        for (int d = 0; d < 3; ++d) {
            const double more = by + 1e-12 * std::max(std::abs(box.low[d]), std::abs(box.high[d]));
            box.low[d] -= more;
            box.high[d] += more;
        }
    }
    return boxes;
}

ParallelLocated::ParallelLocated(std::shared_ptr<const LocatedParts> parts) : myParts(std::move(parts)) {}

std::size_t ParallelLocated::size() const noexcept { return myParts->blocks.size(); }
std::size_t ParallelLocated::found() const noexcept { return myParts->found; }
std::span<const std::uint32_t> ParallelLocated::blocks() const noexcept { return myParts->blocks; }
std::span<const Point> ParallelLocated::places() const noexcept { return myParts->places; }

Samples ParallelLocated::sample(const std::string& field, double outside, const Progress& progress) const {
    ParallelDataSet::Data& data = *myParts->data;
    return detail::collective(*data.exchange, "sampling of field " + detail::quoted(field), progress, [&] {
        const detail::Quantity of = data.quantity(field);
        const auto mask = std::make_shared<std::vector<unsigned char>>();
        std::optional<detail::NumberArray> values;
        data.exchange->attempt([&] {
            mask->resize(size());
            values.emplace(field, of.components, MultiIndex<1>(size()), outside);
        });
        data.exchange->agree();
        data.sample(*myParts, field, of, values->numbers, *mask);
        return Samples(values->array, mask);
    });
}

} // namespace Vantle
