#pragma once
/// What nearly every test needs: the model, the framework, the standard library, and short names.

#include <model/Model.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <memory>
#include <numbers>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <support/Arrays.hpp>
#include <support/Teams.hpp>
#include <thread>
#include <vector>

using namespace Vantle;
using Hestra::StrongPtr, Hestra::WeakPtr, Hestra::dynamicCast, Hestra::makeRef;
using Orvix::BoundingBall, Orvix::BoundingBox, Orvix::PhysicalSpace;
using point = PhysicalSpace::point;
using vector = PhysicalSpace::vector;
using support::filled;
using testing::internal::CaptureStderr, testing::internal::GetCapturedStderr;
using testing::internal::CaptureStdout, testing::internal::GetCapturedStdout;

inline constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
inline constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// What a call says on standard output.
template<class F>
std::string outputOf(const F& call) {
    CaptureStdout();
    call();
    return GetCapturedStdout();
}
