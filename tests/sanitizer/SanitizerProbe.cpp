// Runs one fault, or correct parallel code, to see whether the sanitizer of this build tells them apart.

#include <cstdio>
#include <limits>
#include <numeric>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr int Count = 20000;

int threadRace() {
    int counter = 0;
    const auto work = [&counter] {
        for (int i = 0; i < Count; ++i) ++counter;
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
    return counter;
}

int openmpRace() {
    int counter = 0;
#pragma omp parallel for num_threads(4) shared(counter)
    for (int i = 0; i < Count; ++i) ++counter;
    return counter;
}

int heapOverflow(int index) {
    std::vector<int> values(8, 1);
    return values.data()[index];
}

int signedOverflow(int summand) { return std::numeric_limits<int>::max() + summand; }

// Loops that hand data from one team to the next, a reduction, a critical section, a barrier in between.
bool correct() {
    std::vector<int> values(Count, 1);
    int sum = 0;
    int visits = 0;
#pragma omp parallel for num_threads(4) reduction(+ : sum)
    for (int i = 0; i < Count; ++i) {
        sum += values[static_cast<std::size_t>(i)];
        values[static_cast<std::size_t>(i)] = i;
    }
    const int serial = std::accumulate(values.begin(), values.end(), 0);
#pragma omp parallel num_threads(4)
    {
#pragma omp for schedule(dynamic, 64)
        for (int i = 0; i < Count; ++i) values[static_cast<std::size_t>(i)] += 1;
#pragma omp critical
        ++visits;
#pragma omp for
        for (int i = 0; i < Count; ++i) values[static_cast<std::size_t>(Count - 1 - i)] -= 1;
    }
    return sum == Count && visits >= 1 && std::accumulate(values.begin(), values.end(), 0) == serial;
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    if (what == "correct") return correct() ? 0 : 1;
    if (what == "threadRace") return std::printf("%d\n", threadRace()) < 0;
    if (what == "openmpRace") return std::printf("%d\n", openmpRace()) < 0;
    if (what == "heapOverflow") return std::printf("%d\n", heapOverflow(7 + argc / 2)) < 0;
    if (what == "signedOverflow") return std::printf("%d\n", signedOverflow(argc)) < 0;
    std::fprintf(stderr, "usage: SanitizerProbe correct|threadRace|openmpRace|heapOverflow|signedOverflow\n");
    return 2;
}
