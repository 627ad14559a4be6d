#include <model/hestra/Console.hpp>
#include <model/hestra/Profiler.hpp>

#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>

namespace {

TEST(ConsoleTest, WritesTextsAsTheyAreOfAnyLength) {
    testing::internal::CaptureStdout();
    Hestra::Console::print("a%db", 7);
    Hestra::Console::puts("");
    Hestra::Console() << "100% as is\n";
    const std::string longText(3000, 'x');
    Hestra::Console::print("<%s>", longText.c_str());
    Hestra::Console::puts(longText);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a7b\n100% as is\n<" + longText + ">" + longText + "\n");
}

// Each thread collects its own messages, and the innermost collector gets them.
TEST(ConsoleTest, MessagesOfAThreadCanBeCaptured) {
    testing::internal::CaptureStdout();
    std::string outer, inner, other;
    {
        const Hestra::MessageCapture capture(outer);
        Hestra::Console::puts("one");
        {
            const Hestra::MessageCapture nested(inner);
            EXPECT_EQ(Hestra::MessageCapture::current(), &inner);
            Hestra::Console::print("%d", 2);
        }
        Hestra::Console::write("three\n");
        std::thread([&] {
            EXPECT_EQ(Hestra::MessageCapture::current(), nullptr);
            const Hestra::MessageCapture own(other);
            Hestra::Console() << "four";
        }).join();
    }
    Hestra::Console::write("five");
    EXPECT_EQ(outer, "one\nthree\n");
    EXPECT_EQ(inner, "2");
    EXPECT_EQ(other, "four");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "five");
}

TEST(EnvironmentTest, OnlyWholeDecimalIntegersCount) {
    const auto value = [](const char* text) {
        setenv("VANTLE_TEST_SETTING", text, 1);
        return Hestra::getEnvInteger("VANTLE_TEST_SETTING", "a setting for tests", 42);
    };
    EXPECT_EQ(value("1"), 1);
    EXPECT_EQ(value(" -3 "), -3);
    EXPECT_EQ(value("010"), 10);
    for (const char* text : {"", " ", "yes", "1x", "0x10", "99999999999999999999", "3000000000"})
        EXPECT_EQ(value(text), 42) << text;
    unsetenv("VANTLE_TEST_SETTING");
    EXPECT_EQ(Hestra::getEnvInteger("VANTLE_TEST_SETTING", "a setting for tests", 5), 5);
    EXPECT_EQ(Hestra::environmentHelp().at("VANTLE_TEST_SETTING"), "a setting for tests");
}

TEST(ProfilerTest, ScopesNestAndAreCountedOnlyWhenSwitchedOn) {
    Hestra::Profiler::reset();
    {
        const Hestra::FunctionStackProfiler quiet("quiet", 1, "file");
        EXPECT_EQ(Hestra::Profiler::innermost(), &quiet);
    }
    EXPECT_TRUE(Hestra::Profiler::table().empty());
    EXPECT_EQ(Hestra::Profiler::innermost(), nullptr);

    Hestra::Profiler::enable(true);
    for (int n = 0; n < 3; ++n) {
        const Hestra::Profiler outer("file", 10, "outer", "void outer()");
        const Hestra::FunctionStackProfiler inner("inner", 20, "file");
        EXPECT_EQ(inner.outer(), &outer);
        std::thread([] {
            EXPECT_EQ(Hestra::Profiler::innermost(), nullptr) << "each thread has its own stack";
        }).join();
    }
    Hestra::Profiler::enable(false);
    const auto table = Hestra::Profiler::table();
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[0].name, "inner");
    EXPECT_EQ(table[0].count, 3u);
    EXPECT_EQ(table[1].line, 10u);
    EXPECT_GE(table[1].seconds, table[0].seconds);
}

} // namespace
