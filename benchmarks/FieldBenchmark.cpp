// What it costs to ask a field for an array that exists, beside a shared pointer's copy out of a hash map.

#include <model/vantle/Field.hpp>
#include <model/vantle/MemArray.hpp>

#include <benchmark/benchmark.h>
#include <memory>
#include <unordered_map>

namespace {

using namespace Vantle;

void FieldAsksForExistingArray(benchmark::State& state) {
    Field field;
    Hestra::StrongPtr<FragmentID> id;
    for (int n = 0; n < 8; ++n) {
        id = field.makeFragmentID("block" + std::to_string(n));
        field.setDiscardableData(MemArray<3, double>::create({4, 4, 4}), nullptr, id);
    }
    for (auto _ : state) benchmark::DoNotOptimize(field.getData(id));
}
BENCHMARK(FieldAsksForExistingArray);

void SharedPointerOutOfAMap(benchmark::State& state) {
    std::unordered_map<int, std::shared_ptr<double>> map;
    for (int n = 0; n < 8; ++n) map[n] = std::make_shared<double>(n);
    int key = 7;
    for (auto _ : state) {
        benchmark::DoNotOptimize(key);
        benchmark::DoNotOptimize(std::shared_ptr<double>(map.find(key)->second));
    }
}
BENCHMARK(SharedPointerOutOfAMap);

} // namespace
