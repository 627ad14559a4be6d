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
        Progress progress("resampling", stream, isTerminal, delay);
        for (auto gone = 0ms; gone <= work; gone += 10ms) {
            EXPECT_TRUE(progress(0.5));
            std::this_thread::sleep_for(10ms);
        }
    }
    return stream.str();
}

TEST(Progress, IsSilentForShortStepsAndWithoutATerminal) {
    EXPECT_EQ(shown(true, 1h, 20ms), "");
    EXPECT_EQ(shown(false, 0ms, 20ms), "");
}

TEST(Progress, ShowsLongStepsOnOneLineAndWipesIt) {
    const std::string text = shown(true, 15ms, 60ms);
    EXPECT_NE(text.find("\rresampling ... 50 %, 0 s"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_TRUE(text.ends_with("\r\033[K"));
}

} // namespace
