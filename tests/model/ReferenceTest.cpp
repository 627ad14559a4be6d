#include <support/Testing.hpp>

namespace {

using Hestra::Ref;
using Hestra::RefPtr;

struct Counted : Hestra::ReferenceBase<Counted> {
    explicit Counted(int v = 0) : value(v) { ++living; }
    Counted(const Counted& other) : Hestra::ReferenceBase<Counted>(other), value(other.value) { ++living; }
    ~Counted() override { --living; }
    void extremeUnction() override { ++unctions; }
    int value;
    static inline std::atomic<int> living{0};
    static inline std::atomic<int> unctions{0};
};

struct Derived : Counted {
    using Counted::Counted;
};

// A shared object with another one as a member: only the outer one is made with new.
struct Holder : Hestra::ReferenceBase<Holder> {
    Counted member{7};
};

class ReferenceTest : public testing::Test {
protected:
    void SetUp() override { Counted::unctions = 0; }
    void TearDown() override { EXPECT_EQ(Counted::living, 0); }
};

static_assert(std::is_same_v<StrongPtr<Vantle::MemBase>, StrongPtr<Vantle::MemBase, Hestra::Cacheable>>);
static_assert(
    std::is_same_v<StrongPtr<Vantle::MemArray<3, double>>, StrongPtr<Vantle::MemArray<3, double>, Hestra::Cacheable>>);
static_assert(
    std::is_same_v<StrongPtr<Vantle::CreativeArrayBase>, StrongPtr<Vantle::CreativeArrayBase, Hestra::Creature>>);
static_assert(std::is_same_v<WeakPtr<BoundingBox>, WeakPtr<BoundingBox, Hestra::InterfaceBase>>);
static_assert(std::is_same_v<StrongPtr<Vantle::Grid>, StrongPtr<Vantle::Grid, Vantle::Grid>>);
static_assert(!std::is_convertible_v<Counted*, StrongPtr<Counted>>, "owning a raw pointer is said explicitly");

TEST_F(ReferenceTest, LastOwnerDeletesAndWeakHandlesExpire) {
    WeakPtr<Counted> weak;
    {
        StrongPtr<Counted> a(new Derived(3));
        const StrongPtr<Counted> b = a;
        weak = a;
        EXPECT_EQ(a->strongCount(), 2);
        a = nullptr;
        EXPECT_TRUE(weak);
        EXPECT_EQ(weak->value, 3);
        EXPECT_EQ(Counted::unctions, 0);
    }
    EXPECT_FALSE(weak);
    EXPECT_EQ(weak.rawptr(), nullptr);
    EXPECT_FALSE(weak.lock());
    EXPECT_EQ(Counted::unctions, 1);
}

TEST_F(ReferenceTest, OneRecordAnObjectHoweverHandlesAreMade) {
    auto* const raw = new Derived(5);
    StrongPtr<Derived> first(raw);
    StrongPtr<Counted> second(raw); // from the raw pointer again, through another class
    EXPECT_EQ(raw->strongCount(), 2);
    EXPECT_TRUE(first == second);
    first = nullptr;
    EXPECT_EQ(second->value, 5);
}

TEST_F(ReferenceTest, AssignmentKeepsWhatItStillNeeds) {
    StrongPtr<Counted> a(new Counted(1));
    auto& alias = a;
    a = alias;
    EXPECT_EQ(a->value, 1);
    a = std::move(alias);
    EXPECT_EQ(a->value, 1);
    StrongPtr<Counted> moved(std::move(a));
    EXPECT_FALSE(a); // NOLINT(bugprone-use-after-move): a moved-from handle is empty, that is promised
    EXPECT_EQ(moved->strongCount(), 1);
}

// Arrays have a virtual base: converting a pointer to it reads the object.
TEST_F(ReferenceTest, ExpiredWeakHandlesConvertToEmptyOnes) {
    struct Root : Counted {};
    struct Left : virtual Root {};
    StrongPtr<Left> object(new Left);
    const WeakPtr<Left> weak = object;
    const WeakPtr<Root> living = weak;
    EXPECT_TRUE(living);
    object = nullptr;
    const WeakPtr<Root> expired = weak;
    EXPECT_FALSE(expired);
    EXPECT_FALSE(living);
}

TEST_F(ReferenceTest, CopiesOfAnObjectStartWithoutHandles) {
    const StrongPtr<Counted> a(new Counted(1));
    const StrongPtr<Counted> b(new Counted(*a));
    EXPECT_EQ(a->strongCount(), 1);
    EXPECT_EQ(b->strongCount(), 1);
}

TEST_F(ReferenceTest, StackObjectsAndMembersAreNotDeleted) {
    CaptureStderr();
    WeakPtr<Counted> weak;
    {
        Counted onStack(4);
        weak = onStack;
        EXPECT_TRUE(weak);
        EXPECT_FALSE(weak.lock()) << "nobody owns it, so nobody becomes an owner by promotion";
        { const StrongPtr<Counted> owner(&onStack); }
        EXPECT_EQ(onStack.value, 4);
    }
    EXPECT_FALSE(weak);
    {
        const StrongPtr<Holder> holder(new Holder);
        { const StrongPtr<Counted> member(&holder->member); }
        EXPECT_EQ(holder->member.value, 7);
    }
    const std::string reports = GetCapturedStderr();
    EXPECT_NE(reports.find("not made with new"), std::string::npos);
}

TEST_F(ReferenceTest, OwnersThatOutliveAStackObjectExpire) {
    CaptureStderr();
    StrongPtr<Counted> owner;
    {
        Counted onStack;
        owner = StrongPtr<Counted>(&onStack);
    }
    EXPECT_FALSE(owner);
    owner = nullptr;
    EXPECT_NE(GetCapturedStderr().find("destroyed while 1 owning"), std::string::npos);
}

TEST_F(ReferenceTest, FactoriesConvertToHandles) {
    const Ref<Derived> made = makeRef<Derived>(9);
    const StrongPtr<Counted> asBase = made;
    const RefPtr<Counted> maybe = made;
    const RefPtr<Counted> none;
    EXPECT_EQ(asBase->value, 9);
    EXPECT_EQ(made->strongCount(), 3);
    EXPECT_TRUE(maybe);
    EXPECT_FALSE(none);
    EXPECT_TRUE(dynamicCast<Derived>(asBase));
    EXPECT_FALSE(dynamicCast<Derived>(StrongPtr<Counted>(new Counted)));
}

TEST_F(ReferenceTest, EveryHandleTakesANumber) {
    const auto before = Hestra::PointerID.load();
    const StrongPtr<Counted> a(new Counted);
    const StrongPtr<Counted> b = a;
    const WeakPtr<Counted> c = a;
    EXPECT_EQ(Hestra::PointerID.load(), before + 3);
    StrongPtr<Counted> d;
    const auto number = d.pointerID();
    d = b;
    EXPECT_EQ(d.pointerID(), number) << "assignment keeps the number";
}

TEST_F(ReferenceTest, AThrowingConstructorLeavesNothingBehind) {
    struct Thrower : Counted {
        Thrower() { throw 1; }
    };
    EXPECT_THROW((void)makeRef<Thrower>(), int);
    Counted onStack;
    CaptureStderr();
    { const StrongPtr<Counted> owner(&onStack); }
    EXPECT_FALSE(GetCapturedStderr().empty()) << "the stack object passes for one made with new";
}

TEST_F(ReferenceTest, ObjectsMadeWithNewAreAlignedAndKnownHoweverDeepTheyNest) {
    struct alignas(128) Wide : Counted {
        explicit Wide(Counted* i = nullptr) : inner(i) {}
        StrongPtr<Counted> inner;
    };
    CaptureStderr();
    {
        // Memory is taken before the argument of the constructor is evaluated.
        const std::function<Wide*(int)> nest = [&](int depth) { return new Wide(depth ? nest(depth - 1) : nullptr); };
        const StrongPtr<Wide> outermost(nest(200));
        EXPECT_EQ(Counted::living, 201);
        for (const Wide* at = outermost.rawptr(); at; at = dynamic_cast<const Wide*>(at->inner.rawptr()))
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(at) % alignof(Wide), 0u);
    }
    EXPECT_EQ(GetCapturedStderr(), "") << "taken for an object that was not made with new";
}

TEST_F(ReferenceTest, OwnersThatAreNoHandlesCountLikeHandles) {
    StrongPtr<Counted> owner(new Counted(2));
    const WeakPtr<Counted> weak = owner;
    weak.ref();
    owner = nullptr;
    EXPECT_EQ(weak->value, 2);
    weak.unref();
    EXPECT_FALSE(weak);
    EXPECT_EQ(Counted::living, 0);
}

TEST_F(ReferenceTest, MisuseIsReportedAndDoesNoHarm) {
    const StrongPtr<Counted> none;
    WeakPtr<Counted> expired;
    { expired = StrongPtr<Counted>(new Counted); }
    CaptureStderr();
    none.ref();
    none.unref();
    none.wunref();
    std::string reports = GetCapturedStderr();
    EXPECT_NE(reports.find("has no record"), std::string::npos);
    EXPECT_NE(reports.find("number " + std::to_string(none.pointerID())), std::string::npos);

    CaptureStderr();
    expired.ref();
    EXPECT_NE(GetCapturedStderr().find("does not point at an object"), std::string::npos);
    EXPECT_FALSE(expired.lock());

    alignas(StrongPtr<Counted>) unsigned char room[sizeof(StrongPtr<Counted>)] = {};
    auto* const place = reinterpret_cast<StrongPtr<Counted>*>(room);
    CaptureStderr();
    const auto* const made = new (place) StrongPtr<Counted>(*place);
    EXPECT_NE(GetCapturedStderr().find("constructed from itself"), std::string::npos);
    EXPECT_FALSE(*made);
}

// Promotion against the last release: a dying object is never handed out.
TEST_F(ReferenceTest, PromotionNeverRevivesADyingObject) {
    for (int round = 0; round < 300; ++round) {
        StrongPtr<Counted> owner(new Counted(round));
        const WeakPtr<Counted> weak = owner;
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t)
            threads.emplace_back([&, mine = weak] {
                while (!go) {
                }
                while (const StrongPtr<Counted> promoted = mine.lock()) {
                    if (promoted->value != round) std::abort();
                    if (promoted->strongCount() < 1) std::abort();
                }
            });
        go = true;
        owner = nullptr;
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(Counted::living, 0);
    }
}

} // namespace
