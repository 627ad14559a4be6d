// The setting is read when the library is loaded, so each of its values needs a process of its own.

#include <baseop/ExpandBBox.hpp>

#include <cstdlib>
#include <filesystem>
#include <support/Creators.hpp>
#include <support/Testing.hpp>

namespace {

constexpr const char* kSetting = "DontUseCreatorRangeAttributeAsBoundingBoxDefault";
constexpr const char* kExpected = "VANTLE_TEST_EXPECTED_X";

TEST(ExpandBBoxProcess, ANonZeroSettingTurnsDeclaredRangesOff) {
    if (const char* const expected = std::getenv(kExpected)) { // a child
        const auto creator = support::creatorOf(std::vector<point>{{1, 1, 1}});
        creator->setAttribute("Range",
                              StrongPtr<Hestra::ChunkBase>(new Hestra::Chunk<point>{point(2, 2, 2), point(3, 3, 3)}));
        StrongPtr<BoundingBox> box;
        ASSERT_TRUE(Vantle::ExpandBBox(box, *creator, Vantle::CreateData));
        EXPECT_EQ(box->minCoord()[0], std::atof(expected));
        const auto help = Hestra::environmentHelp();
        EXPECT_NE(help.at(kSetting).find("export DontUseCreatorRangeAttributeAsBoundingBoxDefault=1\n"),
                  std::string::npos);
        return;
    }
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const auto inChild = [&self](const char* setting, const char* expected, const char* output = "") {
        setting ? setenv(kSetting, setting, 1) : unsetenv(kSetting);
        setenv(kExpected, expected, 1);
        const int status = std::system(("'" + self + "' --gtest_brief=1 " + output).c_str());
        unsetenv(kExpected);
        return status;
    };
    const char *fromRange = "2", *fromData = "1";
    for (const char* off : {static_cast<const char*>(nullptr), "", "0", "yes"}) EXPECT_EQ(inChild(off, fromRange), 0);
    for (const char* on : {"1", " 2 ", "-1"}) EXPECT_EQ(inChild(on, fromData), 0);
    EXPECT_NE(inChild("1", fromRange, ">/dev/null"), 0); // a child that sees something else does fail
}

} // namespace
