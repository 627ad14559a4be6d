#include <cstdlib>
#include <support/Testing.hpp>

namespace {

TEST(ConsoleTest, WritesTextsAsTheyAreOfAnyLength) {
    CaptureStdout();
    Hestra::Console::print("a%db", 7);
    Hestra::Console::puts("");
    Hestra::Console() << "100% as is\n";
    const std::string longText(3000, 'x');
    Hestra::Console::print("<%s>", longText.c_str());
    Hestra::Console::puts(longText);
    EXPECT_EQ(GetCapturedStdout(), "a7b\n100% as is\n<" + longText + ">" + longText + "\n");
}

// The innermost scope of a thread hears its messages, threads without one are heard by the process.
TEST(ConsoleTest, AScopeHearsItsOwnThread) {
    const auto into = [](std::string& text) { return [&text](std::string_view said) { text += said; }; };
    CaptureStdout();
    std::string outer, inner, other;
    {
        const Hestra::ScopedListener listener(into(outer));
        Hestra::Console::puts("one");
        {
            const Hestra::ScopedListener nested(into(inner));
            Hestra::Console::print("%d", 2);
        }
        {
            const Hestra::ScopedListener nobody{Hestra::Console::Listener()};
            EXPECT_FALSE(Hestra::Console::isHeard());
            Hestra::Console::puts("to the wind");
        }
        EXPECT_TRUE(Hestra::Console::isHeard());
        Hestra::Console::write("three\n");
        std::thread([&] {
            Hestra::Console::write("four");
            const Hestra::ScopedListener own(into(other));
            Hestra::Console() << "five";
        }).join();
    }
    Hestra::Console::write("six");
    EXPECT_EQ(outer, "one\nthree\n");
    EXPECT_EQ(inner, "2");
    EXPECT_EQ(other, "five");
    EXPECT_EQ(GetCapturedStdout(), "foursix");
}

// One call at a time, whatever it does: it may throw, say something, or replace itself.
TEST(ConsoleTest, TheListenerOfTheProcessHearsAllThreads) {
    CaptureStdout();
    std::vector<std::string> heard;
    bool isBusy = false, isOverlapping = false;
    Hestra::Console::setListener([&](std::string_view text) {
        isOverlapping |= std::exchange(isBusy, true);
        Hestra::Console::puts("an echo");
        heard.emplace_back(text);
        isBusy = false;
        throw std::runtime_error("dropped");
    });
    support::inThreads(4, [] {
        for (int k = 0; k < 100; ++k) Hestra::Console::print("%d\n", k);
    });
    EXPECT_EQ(heard.size(), 400u);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), "99\n"), 4);
    EXPECT_FALSE(isOverlapping);

    int calls = 0;
    Hestra::Console::setListener([&calls](std::string_view) {
        Hestra::Console::setListener({});
        ++calls;
    });
    for (int k = 0; k < 3; ++k) Hestra::Console::puts("once");
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(Hestra::Console::isHeard());
    Hestra::Console::useStandardOutput();
    Hestra::Console::write("aloud");
    EXPECT_EQ(GetCapturedStdout(), "aloud");
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
