// The setting is read with the first message, so it needs a process of its own.

#include <cstdlib>
#include <support/Testing.hpp>

namespace {

TEST(ConsoleProcess, ASettingSilencesTheProcessUntilSomebodyListens) {
    setenv("VANTLE_MESSAGES", "0", 1);
    CaptureStdout();
    Hestra::Console::puts("nobody hears");
    EXPECT_FALSE(Hestra::Console::isHeard());
    std::string heard;
    {
        const Hestra::ScopedListener listener([&](std::string_view text) { heard += text; });
        Hestra::Console::write("a scope");
    }
    EXPECT_EQ(heard, "a scope");
    Hestra::Console::useStandardOutput();
    Hestra::Console::write("aloud");
    EXPECT_EQ(GetCapturedStdout(), "aloud");
    EXPECT_TRUE(Hestra::environmentHelp().contains("VANTLE_MESSAGES"));
}

} // namespace
