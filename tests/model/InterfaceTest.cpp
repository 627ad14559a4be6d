#include <support/Testing.hpp>

namespace {

using Hestra::Intercube;

struct Size : Hestra::Interface<Size> {
    explicit Size(int v) : value(v) {}
    void apply(Hestra::InterfaceIterationParameter& parameter) override {
        ++value;
        parameter.stop = stopHere;
    }
    int value;
    bool stopHere = false;
};
struct SpecialSize : Size {
    using Size::Size;
};
struct Other : Hestra::Interface<Other> {};

StrongPtr<Hestra::InterfaceBase> handle(Hestra::InterfaceBase* object) {
    return StrongPtr<Hestra::InterfaceBase>(object);
}

TEST(InterfaceTest, OneObjectATypeFoundUnderItAndItsDomain) {
    const Intercube cube;
    cube.addInterface(handle(new Size(1)));
    EXPECT_TRUE(cube.findInterface(typeid(Size)));
    EXPECT_FALSE(cube.findInterface(typeid(SpecialSize)));
    EXPECT_FALSE(cube.findInterface(typeid(Other)));

    const WeakPtr<Hestra::InterfaceBase> old = cube.findInterface(typeid(Size));
    cube.addInterface(handle(new SpecialSize(2)));
    EXPECT_EQ(cube.findInterface(typeid(Size)), old) << "exactly of this type";
    EXPECT_TRUE(cube.removeInterface(typeid(Size)));
    EXPECT_FALSE(old);
    EXPECT_EQ(cube.findInterface(typeid(Size)), cube.findInterface(typeid(SpecialSize)));
    const WeakPtr<Hestra::InterfaceBase> special = cube.findInterface(typeid(SpecialSize));
    cube.addInterface(handle(new SpecialSize(3)));
    EXPECT_FALSE(special) << "the replaced object is released";
    EXPECT_FALSE(cube.findInterface(typeid(Hestra::InterfaceBase))) << "base classes are not searched";

    cube.addInterface(handle(new Other));
    EXPECT_TRUE(cube.removeInterface(typeid(Size)));
    EXPECT_FALSE(cube.removeInterface(typeid(Size)));
    EXPECT_TRUE(cube.findInterface(typeid(Other)));
    cube.addInterface(nullptr);
}

TEST(InterfaceTest, CopiesCarryNoAttachmentsAndTakeOverMovesThem) {
    Intercube source;
    source.addInterface(handle(new Size(1)));
    const Intercube copy(source);
    EXPECT_FALSE(copy.findInterface(typeid(Size)));
    const auto size = source.findInterface(typeid(Size));
    copy.takeOver(source);
    copy.takeOver(copy);
    EXPECT_EQ(copy.findInterface(typeid(Size)), size);
    EXPECT_FALSE(source.findInterface(typeid(Size)));
}

TEST(InterfaceTest, IterationCallsEachOnceAndStopsOnDemand) {
    Intercube cube;
    auto* const size = new Size(1);
    auto* const other = new Other;
    cube.addInterface(handle(size));
    cube.addInterface(handle(other));
    Hestra::InterfaceIterationParameter parameter;
    cube.iterateInterfaces(parameter);
    EXPECT_EQ(size->value, 2);
    size->stopHere = true;
    cube.iterateInterfaces(parameter);
    EXPECT_TRUE(parameter.stop);
}

TEST(InterfaceTest, ConcurrentUseKeepsOneOfEachDomain) {
    const Intercube cube;
    support::inThreads(4, [&cube] {
        for (int n = 0; n < 2000; ++n) {
            cube.addInterface(handle(new Size(n)));
            if (!cube.findInterface(typeid(Size))) std::abort();
        }
    });
    EXPECT_TRUE(cube.removeInterface(typeid(Size)));
    EXPECT_FALSE(cube.findInterface(typeid(Size)));
}

TEST(AgeableTest, TouchIsNewestAndSettingLeavesTheClock) {
    Hestra::Ageable a;
    Hestra::Ageable b;
    EXPECT_EQ(a.age(), 0);
    b.touch();
    a.touch();
    EXPECT_TRUE(b.isOlderThan(a));
    EXPECT_EQ(a.age(), Hestra::Ageable::GlobalTime.load());
    const auto clock = Hestra::Ageable::GlobalTime.load();
    b.raiseAge(a.age() + 5);
    b.raiseAge(1);
    EXPECT_EQ(b.age(), a.age() + 5);
    b.setAge(3);
    EXPECT_EQ(b.age(), 3);
    EXPECT_EQ(Hestra::Ageable::GlobalTime.load(), clock);
}

} // namespace
