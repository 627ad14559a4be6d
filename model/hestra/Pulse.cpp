#include <model/hestra/Pulse.hpp>

#include <algorithm>

namespace Hestra {

namespace {

constexpr double LeastStep = 1e-3;
constexpr std::chrono::milliseconds LongestSilence{20};

thread_local Pulse* innermost = nullptr;

} // namespace

Pulse::Pulse(Listener listener) : myListener(std::move(listener)), myOuter(innermost) { innermost = this; }
Pulse::~Pulse() { innermost = myOuter; }

void Pulse::rethrow() const {
    if (myEnd) std::rethrow_exception(myEnd);
}

bool Pulse::isHeard() noexcept { return innermost != nullptr; }

void Pulse::beat(double share) {
    if (innermost) innermost->tell(share);
}

void Pulse::tell(double share) {
    if (myEnd) throw Interruption(); // something went on with what was left in the middle
    const double done = std::max(myTold, at(std::clamp(share, 0.0, 1.0)));
    const bool isAStep = myTold < 0.0 || done >= myTold + LeastStep || (done >= 1.0 && myTold < 1.0);
    const auto now = std::chrono::steady_clock::now();
    if (!isAStep && now - myTime < LongestSilence) return;
    myTold = done;
    myTime = now;
    innermost = nullptr; // what the listener does is no part of this
    try {
        myListener(done);
    } catch (...) {
        myEnd = std::current_exception();
    }
    innermost = this;
    if (myEnd) throw Interruption();
}

Pulse::Part::Part(double from, double to) noexcept : myPulse(innermost) {
    if (!myPulse) return;
    myOuterFrom = myPulse->myFrom;
    myOuterTo = myPulse->myTo;
    const double begin = myPulse->at(from), end = myPulse->at(to);
    myPulse->myFrom = begin;
    myPulse->myTo = end;
}

Pulse::Part::~Part() {
    if (!myPulse) return;
    myPulse->myFrom = myOuterFrom;
    myPulse->myTo = myOuterTo;
}

} // namespace Hestra
