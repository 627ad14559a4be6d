// The progress line: silent when it should be, and gone at the end.

#include "io/Progress.hpp"

#include <chrono>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using tour::Progress;

std::string shown(bool isTerminal, std::chrono::milliseconds delay, std::chrono::milliseconds work) {
    std::ostringstream stream;
    {
        Progress progress("resampling", {&stream, isTerminal, delay, 5ms});
        progress.done(0.5);
        std::this_thread::sleep_for(work);
    }
    return stream.str();
}

TEST(Progress, IsSilentForShortStepsAndWithoutATerminal) {
    EXPECT_EQ(shown(true, 1h, 5ms), "");
    EXPECT_EQ(shown(false, 1ms, 30ms), "");
}

TEST(Progress, ShowsLongStepsOnOneLineAndWipesIt) {
    const std::string text = shown(true, 1ms, 300ms);
    EXPECT_NE(text.find("\rresampling ... 50 %, 0 s"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_TRUE(text.ends_with("\r\033[K"));
}

} // namespace
