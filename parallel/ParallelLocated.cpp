#include <dataset/detail/NumberArray.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <parallel/detail/ParallelState.hpp>
#include <unordered_map>

namespace Vantle {

using detail::LocatedParts;
using detail::Meter;
using detail::Reader;
using detail::Writer;
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

std::shared_ptr<LocatedParts> ParallelDataSet::Data::locate(const std::shared_ptr<Data>& self,
                                                            std::span<const Point> positions, const Meter& meter) {
    const LocalFromWorldPoint& search = locator();
    const auto ranks = static_cast<std::size_t>(exchange->ranks());
    auto made = std::make_shared<LocatedParts>();
    made->data = self;
    std::size_t atOnce = 1;
    detail::BoxTree tree;
    std::vector<Box> boxes;
    exchange->attempt([&] {
        constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
        made->blocks.assign(positions.size(), ParallelLocated::Nowhere);
        made->places.assign(positions.size(), Point(NaN, NaN, NaN));
        atOnce = std::clamp<std::size_t>(exchange->budget() / BytesEach, 1, std::size_t{1} << 31);
        boxes = searchBoxes();
        tree = detail::BoxTree(boxes);
    });
    if (ranks == 1) { // nobody to ask
        exchange->attempt([&] {
            LocatedParts::Batch whole;
            whole.found = LocatedPositions(search, positions);
            made->found = whole.found.found();
            whole.given.resize(1);
            whole.taken.resize(1);
            for (std::size_t k = 0; k < positions.size(); ++k) {
                const std::uint32_t fragment = whole.found.fragments()[k];
                if (fragment == LocatedPositions::Nowhere) continue;
                made->blocks[k] = all.own[fragment];
                made->places[k] = whole.found.places()[k];
            }
            made->batches.push_back(std::move(whole));
            meter(1.0);
        });
        exchange->agree();
        return made;
    }
    const std::size_t own = (positions.size() + atOnce - 1) / atOnce;
    const auto batches = static_cast<std::size_t>(exchange->greatest(own));
    std::vector<std::vector<std::size_t>> asked(ranks); // of this rank's positions
    for (std::size_t batch = 0; batch < batches; ++batch) {
        const double share = static_cast<double>(batch) / static_cast<double>(batches);
        detail::Outbox questions(exchange->ranks());
        exchange->attempt([&] {
            meter(share);
            const std::size_t begin = std::min(batch * atOnce, positions.size());
            const std::size_t end = std::min(begin + atOnce, positions.size());
            std::vector<std::vector<Point>> sent(ranks);
            for (auto& of : asked) of.clear();
            std::vector<int> to;
            std::vector<std::uint32_t> near;
            for (std::size_t first = begin; first < end; first += LookedUpAtOnce) {
                const std::size_t last = std::min(first + LookedUpAtOnce, end);
                Box around{positions[first], positions[first]};
                for (std::size_t k = first; k < last; ++k)
                    for (int d = 0; d < 3; ++d) { // NaN widens nothing, and is in no box
                        around.low[d] = std::min(around.low[d], positions[k][d]);
                        around.high[d] = std::max(around.high[d], positions[k][d]);
                    }
                near.clear();
                bool isFew = around.low == around.low && around.high == around.high;
                if (isFew) tree.forEach(around, [&](std::uint32_t block) { near.push_back(block); });
                isFew = isFew && near.size() <= FewBoxes;
                for (std::size_t k = first; k < last; ++k) {
                    const Box here{positions[k], positions[k]};
                    const auto take = [&](std::uint32_t block) {
                        const int rank = all.blocks[block].rank;
                        if (std::find(to.begin(), to.end(), rank) == to.end()) to.push_back(rank);
                    };
                    to.clear();
                    if (isFew) {
                        for (const std::uint32_t block : near)
                            if (detail::touch(boxes[block], here)) take(block);
                    } else {
                        tree.forEach(here, take);
                    }
                    for (const int rank : to) {
                        asked[static_cast<std::size_t>(rank)].push_back(k);
                        sent[static_cast<std::size_t>(rank)].push_back(positions[k]);
                    }
                }
            }
            for (std::size_t r = 0; r < ranks; ++r) {
                if (sent[r].empty()) continue;
                Writer writer;
                writer.putAll(std::span<const Point>(sent[r]));
                questions.add(static_cast<int>(r), 0, 0, writer.bytes);
            }
        });
        const detail::Inbox inbox = exchange->round(std::move(questions));

        LocatedParts::Batch now;
        now.given.resize(ranks);
        now.taken.resize(ranks);
        std::vector<std::size_t> firstOf(ranks + 1, 0);
        detail::Outbox answers(exchange->ranks());
        exchange->attempt([&] {
            std::vector<Point> here;
            std::vector<std::size_t> count(ranks, 0);
            for (detail::Inbox::Message& message : inbox.messages()) {
                const auto rank = static_cast<std::size_t>(message.rank);
                firstOf[rank] = here.size();
                const auto more = message.content.getAll<Point>();
                count[rank] = more.size();
                here.insert(here.end(), more.begin(), more.end());
            }
            now.found = LocatedPositions(search, here);
            for (std::size_t r = 0; r < ranks; ++r) {
                std::vector<Answer> found;
                for (std::size_t n = 0; n < count[r]; ++n) {
                    const std::uint32_t fragment = now.found.fragments()[firstOf[r] + n];
                    if (fragment != LocatedPositions::Nowhere)
                        found.push_back(
                            {all.own[fragment], static_cast<std::uint32_t>(n), now.found.places()[firstOf[r] + n]});
                }
                if (found.empty()) continue;
                Writer writer;
                writer.putAll(std::span<const Answer>(found));
                answers.add(static_cast<int>(r), 0, 0, writer.bytes);
            }
        });
        const detail::Inbox found = exchange->round(std::move(answers));

        // The lowest block has a position; ranks are told which of theirs these are.
        detail::Outbox choices(exchange->ranks());
        exchange->attempt([&] {
            std::vector<std::vector<Answer>> of(ranks);
            for (detail::Inbox::Message& message : found.messages()) {
                const auto rank = static_cast<std::size_t>(message.rank);
                of[rank] = message.content.getAll<Answer>();
                for (const Answer& answer : of[rank]) {
                    const std::size_t k = asked[rank][answer.position];
                    if (answer.block >= made->blocks[k]) continue;
                    made->found += made->blocks[k] == ParallelLocated::Nowhere ? 1 : 0;
                    made->blocks[k] = answer.block;
                    made->places[k] = answer.place;
                }
            }
            for (std::size_t r = 0; r < ranks; ++r) {
                std::vector<std::uint32_t> chosen;
                std::vector<unsigned char> isChosen((of[r].size() + 7) / 8);
                for (std::size_t n = 0; n < of[r].size(); ++n) {
                    const std::size_t k = asked[r][of[r][n].position];
                    if (made->blocks[k] != of[r][n].block) continue;
                    now.taken[r].push_back(k);
                    isChosen[n / 8] |= static_cast<unsigned char>(1U << n % 8);
                }
                if (isChosen.empty()) continue;
                Writer writer;
                writer.putAll(std::span<const unsigned char>(isChosen));
                choices.add(static_cast<int>(r), 0, 0, writer.bytes);
            }
        });
        const detail::Inbox chosen = exchange->round(std::move(choices));
        exchange->attempt([&] {
            for (detail::Inbox::Message& message : chosen.messages()) {
                const auto rank = static_cast<std::size_t>(message.rank);
                const auto isChosen = message.content.getAll<unsigned char>();
                std::size_t n = 0; // of those that were found here
                for (std::size_t k = firstOf[rank]; n < 8 * isChosen.size() && k < now.found.size(); ++k) {
                    if (now.found.fragments()[k] == LocatedPositions::Nowhere) continue;
                    if (isChosen[n / 8] >> n % 8 & 1) now.given[rank].push_back(static_cast<std::uint32_t>(k));
                    ++n;
                }
            }
            made->batches.push_back(std::move(now));
        });
    }
    exchange->attempt([&] { meter(1.0); });
    exchange->agree();
    return made;
}

void ParallelDataSet::Data::sample(const LocatedParts& at, const std::string& name, const detail::Quantity& of,
                                   std::span<double> values, std::span<unsigned char> mask, const Meter& meter) {
    const auto components = static_cast<std::size_t>(of.components);
    std::vector<StrongPtr<FragmentID>> fragments;
    for (const std::uint32_t block : all.own) fragments.push_back(idOf(block));
    if (exchange->ranks() == 1) {
        exchange->attempt([&] {
            try {
                at.batches.front().found.sample(*of.field, fragments, of.components, values, mask);
            } catch (const std::invalid_argument&) {
                for (const std::uint32_t block : all.own) (void)data(name, *of.field, block); // which says why
                throw;
            }
        });
        exchange->agree();
        return;
    }
    std::size_t done = 0;
    for (const LocatedParts::Batch& batch : at.batches) {
        const double share = static_cast<double>(done++) / static_cast<double>(at.batches.size());
        detail::Outbox outbox(exchange->ranks());
        exchange->attempt([&] {
            meter(share);
            std::vector<double> found(batch.found.size() * components);
            std::vector<unsigned char> isFound(batch.found.size());
            try {
                batch.found.sample(*of.field, fragments, of.components, found, isFound);
            } catch (const std::invalid_argument&) {
                for (const std::uint32_t block : all.own) (void)data(name, *of.field, block); // which says why
                throw;
            }
            for (std::size_t r = 0; r < batch.given.size(); ++r) {
                if (batch.given[r].empty()) continue;
                Writer writer;
                bool isWhole = true;
                for (const std::uint32_t k : batch.given[r]) isWhole = isWhole && isFound[k] != 0;
                writer.put(static_cast<unsigned char>(isWhole));
                for (const std::uint32_t k : batch.given[r])
                    writer.put(std::as_bytes(std::span(found).subspan(k * components, components)));
                if (!isWhole)
                    for (const std::uint32_t k : batch.given[r]) writer.put(isFound[k]);
                outbox.add(static_cast<int>(r), 0, 0, writer.bytes);
            }
        });
        const detail::Inbox inbox = exchange->round(std::move(outbox));
        exchange->attempt([&] {
            for (detail::Inbox::Message& message : inbox.messages()) {
                const std::vector<std::size_t>& taken = batch.taken[static_cast<std::size_t>(message.rank)];
                const bool isWhole = message.content.get<unsigned char>() != 0;
                Reader numbers(message.content.take(taken.size() * components * sizeof(double)));
                for (const std::size_t k : taken) {
                    const bool isFound = isWhole || message.content.get<unsigned char>() != 0;
                    const auto bytes = numbers.take(components * sizeof(double));
                    if (!isFound) continue;
                    std::memcpy(&values[k * components], bytes.data(), bytes.size());
                    if (!mask.empty()) mask[k] = 1;
                }
            }
        });
    }
    exchange->agree();
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
    return detail::collective("sampling of field " + detail::quoted(field), [&] {
        const detail::Quantity of = data.quantity(field);
        data.exchange->agree();
        auto mask = std::make_shared<std::vector<unsigned char>>(size());
        const Meter meter(progress);
        const detail::NumberArray values(field, of.components, MultiIndex<1>(size()), outside);
        data.sample(*myParts, field, of, values.numbers, *mask, meter);
        return Samples(values.array, mask);
    });
}

} // namespace Vantle
