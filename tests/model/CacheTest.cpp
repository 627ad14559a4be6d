#include <chrono>
#include <support/Testing.hpp>

namespace {

using Hestra::Cache;

struct Data : Hestra::Cacheable {
    explicit Data(std::size_t b) : bytes(b) {}
    std::size_t memsize() const override { return bytes; }
    std::size_t bytes;
};

struct Maker : Hestra::CreatorBase<Data> {
    explicit Maker(std::size_t b, const WeakPtr<Cache>& cache = {}) : bytes(b) { setCache(cache); }
    bool canProduce() const override { return !disabled; }
    StrongPtr<Data> produce() override {
        ++runs;
        if (action == Throw) throw std::runtime_error("no data today");
        if (action == Nothing) return nullptr;
        if (inside) inside();
        return StrongPtr<Data>(new Data(bytes));
    }
    void adopt(const StrongPtr<Data>& data, const WeakPtr<Cache>& cache) { setData(data, false, cache); }
    enum Action { Make, Throw, Nothing } action = Make;
    std::function<void()> inside; // what the creation function does besides
    std::size_t bytes;
    bool disabled = false;
    std::atomic<int> runs{0};
};

TEST(CacheTest, DropsTheLeastRecentlyUsedFirstAndRebuildsOnDemand) {
    const StrongPtr<Cache> cache(new Cache);
    cache->setLimit(300);
    Maker a(100, cache), b(100, cache), c(100, cache), d(100, cache);
    (void)a.create();
    (void)b.create();
    (void)c.create();
    EXPECT_EQ(cache->bytes(), 300u);
    (void)a.create(); // used again: now b is the oldest
    (void)d.create();
    EXPECT_TRUE(a.hasData());
    EXPECT_FALSE(b.hasData());
    EXPECT_TRUE(c.hasData());
    EXPECT_TRUE(d.hasData());
    EXPECT_LE(cache->bytes(), 300u);
    EXPECT_TRUE(b.isValid());
    EXPECT_TRUE(b.create());
    EXPECT_EQ(b.runs, 2);
    EXPECT_EQ(a.runs, 1);
}

TEST(CacheTest, WhatSomebodyHoldsOutlivesItsDropping) {
    const StrongPtr<Cache> cache(new Cache);
    Maker maker(100, cache);
    const StrongPtr<Data> held = maker.create();
    cache->clear();
    EXPECT_EQ(cache->size(), 0u);
    EXPECT_TRUE(maker.hasData());
    EXPECT_EQ(maker.create(), held);
    EXPECT_EQ(maker.runs, 1);
}

TEST(CacheTest, WhatOneOperationInsertsStaysUntilALaterOneNeedsTheRoom) {
    const StrongPtr<Cache> cache(new Cache);
    cache->setLimit(150);
    Maker alone(1000, cache), low(100, cache), high(100, cache), later(100, cache), others(100, cache);
    (void)alone.create();
    EXPECT_TRUE(alone.hasData()) << "larger than the budget, and the last";
    {
        const Cache::Operation halves;
        (void)low.create();
        {
            const Cache::Operation within;
            (void)high.create();
        }
        EXPECT_FALSE(alone.hasData());
        std::thread([&] { (void)others.create(); }).join();
        EXPECT_TRUE(low.hasData() && high.hasData()) << "not at an end, whatever others need";
        EXPECT_TRUE(others.hasData());
    }
    (void)low.create(); // used again, and inserted before: of no help
    (void)later.create();
    EXPECT_TRUE(later.hasData());
    EXPECT_FALSE(low.hasData() || high.hasData() || others.hasData());
    EXPECT_EQ(cache->bytes(), 100u);
    cache->setLimit(10);
    EXPECT_EQ(cache->size(), 0u) << "a smaller limit is no operation";
}

TEST(CacheTest, DataLeaveTheCacheWithTheirLastCreator) {
    const StrongPtr<Cache> cache(new Cache);
    WeakPtr<Data> data;
    {
        Maker first(100, cache);
        data = first.create();
        Maker second(100, cache);
        second.adopt(first.create(), cache);
        EXPECT_EQ(cache->size(), 1u);
        EXPECT_EQ(cache->bytes(), 100u);
        first.adopt(StrongPtr<Data>(new Data(30)), cache);
        EXPECT_EQ(cache->bytes(), 130u);
        EXPECT_TRUE(data) << "the second creator's";
        first.adopt(StrongPtr<Data>(new Data(40)), cache);
        EXPECT_EQ(cache->bytes(), 140u);
    }
    EXPECT_FALSE(data);
    EXPECT_EQ(cache->size(), 0u);
    EXPECT_EQ(cache->bytes(), 0u);
}

TEST(CacheTest, DataAreToldOfTheirBeginningAndEnd) {
    struct Told : Data {
        Told(const StrongPtr<Cache>& c, int& n) : Data(10), cache(c), calls(n) {}
        void CacheableDeferredConstructor() override { calls += 1; }
        void PreDestructor() override { calls += cache->size() == 0 ? 10 : 1000; } // may use the cache
        WeakPtr<Cache> cache;
        int& calls;
    };
    const StrongPtr<Cache> cache(new Cache);
    int calls = 0;
    const StrongPtr<Data> told = makeRef<Told>(cache, calls);
    EXPECT_EQ(calls, 1);
    cache->insert(told);
    cache->setLimit(5);
    EXPECT_EQ(calls, 11);
    cache->setUnlimited();
    cache->insert(told);
    EXPECT_TRUE(cache->remove(*told));
    cache->insert(told);
    cache->clear();
    EXPECT_EQ(calls, 31);
}

TEST(CreatorTest, PersistentDataSurviveAndUncachedDataBelongToTheAsker) {
    Maker persistent(1);
    (void)persistent.create();
    EXPECT_TRUE(persistent.hasData());
    Maker uncached(1);
    uncached.enableCaching(false);
    (void)uncached.create();
    EXPECT_FALSE(uncached.hasData());
}

TEST(CreatorTest, FailuresGiveNullAndAreReportedOnce) {
    CaptureStderr();
    Maker maker(1);
    maker.action = Maker::Throw;
    EXPECT_FALSE(maker.create());
    EXPECT_FALSE(maker.create());
    EXPECT_EQ(GetCapturedStderr(), "creation of data failed: no data today\n");
    maker.action = Maker::Nothing;
    EXPECT_FALSE(maker.create());
    maker.action = Maker::Make;
    maker.inside = [&] { EXPECT_FALSE(maker.create()) << "asked for while being made"; };
    EXPECT_TRUE(maker.create());
    Maker disabled(1);
    disabled.disabled = true;
    EXPECT_FALSE(disabled.create());
    EXPECT_FALSE(disabled.isValid());
}

TEST(CreatorTest, ARequestOnlyRemembers) {
    Maker maker(1);
    EXPECT_FALSE(maker.create(true));
    EXPECT_TRUE(maker.wasRequested());
    EXPECT_EQ(maker.runs, 0);
    (void)maker.create();
    EXPECT_TRUE(maker.create(true)) << "what exists is given at once";
}

// Who closes the circle gets null, nobody waits for ever, and who stands outside of it waits and gets the data.
TEST(CreatorTest, CirclesOverThreadsEndInNull) {
    constexpr int kLength = 3;
    for (int round = 0; round < 50; ++round) {
        std::vector<std::unique_ptr<Maker>> ring;
        for (int n = 0; n < kLength; ++n) ring.push_back(std::make_unique<Maker>(1));
        std::atomic<int> begun{0}, nulls{0};
        for (std::size_t n = 0; n < kLength; ++n)
            ring[n]->inside = [&, n] {
                for (++begun; begun < kLength;) std::this_thread::yield(); // all are being made
                if (!ring[(n + 1) % kLength]->create()) ++nulls;
            };
        std::vector<StrongPtr<Data>> got(2 * kLength);
        support::inThreads(2 * kLength, [&](unsigned n) { got[n] = ring[n % kLength]->create(); });
        EXPECT_EQ(nulls, 1);
        for (std::size_t n = 0; n < got.size(); ++n) EXPECT_TRUE(got[n] && got[n] == got[n % kLength]);
    }
}

// Creators that ask others in any order, from several threads: without a circle each is made once and nobody gets null;
// with circles everybody gets an answer.
TEST(CreatorTest, CreatorsThatNeedEachOtherAnswerWithoutFail) {
    std::mt19937 random(7);
    for (int round = 0; round < 60; ++round) {
        const bool hasCircles = round % 3 == 0;
        std::vector<std::unique_ptr<Maker>> makers;
        for (int n = 0; n < 8; ++n) makers.push_back(std::make_unique<Maker>(1));
        std::atomic<int> nulls{0};
        for (std::size_t n = 0; n < makers.size(); ++n) {
            std::vector<Maker*> needed;
            for (std::size_t m = hasCircles ? 0 : n + 1; m < makers.size(); ++m)
                if (random() % 3 == 0) needed.push_back(makers[m].get());
            makers[n]->inside = [&nulls, needed] {
                for (Maker* one : needed)
                    if (!one->create()) ++nulls;
            };
        }
        support::inThreads(4, [&](unsigned t) {
            for (unsigned n = 0; n < makers.size(); ++n)
                if (!makers[(n * (2 * t + 1) + t) % makers.size()]->create()) ++nulls;
        });
        if (hasCircles) continue;
        EXPECT_EQ(nulls, 0);
        for (const auto& maker : makers) EXPECT_EQ(maker->runs, 1);
    }
}

TEST(CreatorTest, TheMakersOwnTeamGetsNullAndOtherTeamsWait) {
    const int levels = omp_get_max_active_levels();
    omp_set_max_active_levels(2); // the maker is a member of a team itself
    for (int round = 0; round < 20; ++round) {
        Maker maker(1), other(1);
        std::atomic<int> own{0}, around{0}, strangers{0}, others{0};
        other.inside = [&] { // through another creator, made by a member of the team
            if (maker.create()) std::abort();
        };
        std::atomic<bool> isBegun{false};
        maker.inside = [&] {
            isBegun = true;
#pragma omp parallel num_threads(3)
            {
                if (!maker.create()) ++own;
                if (other.create()) ++others;
                std::this_thread::sleep_for(std::chrono::milliseconds(1)); // for strangers to ask
            }
            std::thread([&, whole = Hestra::Creation::current()] {
                const Hestra::Creation::Helper part(whole);
                if (!maker.create()) ++own;
            }).join();
        };
        std::thread stranger([&] {
            while (!isBegun) std::this_thread::yield();
#pragma omp parallel num_threads(3)
            if (maker.create()) ++strangers;
        });
#pragma omp parallel num_threads(3) // one of them makes, the others wait for it
        if (maker.create()) ++around;
        stranger.join();
        EXPECT_EQ(maker.runs, 1);
        EXPECT_EQ(own, 4);
        EXPECT_EQ(others, 3);
        EXPECT_EQ(around, 3);
        EXPECT_EQ(strangers, 3);
        EXPECT_EQ(Hestra::Creation::current(), nullptr);
    }
    omp_set_max_active_levels(levels);
}

TEST(CreatorTest, CreationAndEvictionRaceSafely) {
    const StrongPtr<Cache> cache(new Cache);
    cache->setLimit(250);
    std::vector<std::unique_ptr<Maker>> makers;
    for (int n = 0; n < 8; ++n) makers.push_back(std::make_unique<Maker>(100, cache));
    support::inThreads(3, [&](unsigned t) {
        for (unsigned n = 0; n < 3000; ++n)
            if (const auto data = makers[(n * 5 + t) % makers.size()]->create(); !data || data->bytes != 100)
                std::abort();
    });
    EXPECT_LE(cache->bytes(), 250u);
}

TEST(ChunkTest, TotalMemsizeIsSettledAtResizeHandOverAndDeath) {
    const long long before = Hestra::ChunkBase::TotalMemsize;
    {
        const StrongPtr<Hestra::TypedChunk<double>> chunk(new Hestra::TypedChunk<double>);
        chunk->resize(10);
        EXPECT_EQ(Hestra::ChunkBase::TotalMemsize, before + 80);
        chunk->base_vector().push_back(1.0);
        chunk->base_vector().clear();
        chunk->settle();
        EXPECT_EQ(Hestra::ChunkBase::TotalMemsize, before);
        chunk->resize(3);
        EXPECT_EQ(chunk->base_vector(), std::vector<double>(3, 0.0));
    }
    EXPECT_EQ(Hestra::ChunkBase::TotalMemsize, before);
}

TEST(AttributesTest, SetReplacesAndTypesAreChecked) {
    Hestra::Attributes attributes;
    attributes.setAttribute("Range", StrongPtr<Hestra::ChunkBase>(new Hestra::Chunk<double>{1.0, 2.0}));
    EXPECT_EQ(attributes.getTypedAttribute<double>("Range")->base_vector()[1], 2.0);
    EXPECT_FALSE(attributes.getTypedAttribute<float>("Range"));
    EXPECT_FALSE(attributes.getAttribute("range"));
    const WeakPtr<Hestra::ChunkBase> old = attributes.getAttribute("Range");
    attributes.setAttribute("Range", StrongPtr<Hestra::ChunkBase>(new Hestra::Chunk<float>{1.0F}));
    EXPECT_FALSE(old);
    attributes.setAttribute("Range", nullptr);
    EXPECT_TRUE(attributes.attributeNames().empty());
}

} // namespace
