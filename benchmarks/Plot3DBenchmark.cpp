// Bytes per second of reading a block of a PLOT3D file, beside a plain loop that reads the same bytes and converts
// them: one read of the whole array, then one pass that turns bytes around and values into the type that is wanted.

#include <dataset/io/Plot3D.hpp>

#include <benchmark/benchmark.h>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace Vantle;
namespace fs = std::filesystem;

constexpr int kExtent = 200;
constexpr std::size_t kValues = std::size_t{kExtent} * kExtent * kExtent;

template<class Word>
Word turned(Word word) {
    Word result = 0;
    for (std::size_t i = 0; i < sizeof word; ++i) result = static_cast<Word>(result << 8 | (word >> (8 * i) & 0xff));
    return result;
}

// A single block, written once for each form and gone at the end.
class File {
public:
    File(std::endian order, Plot3DScalar scalar) {
        std::ofstream stream(path, std::ios::binary);
        const bool swap = order != std::endian::native;
        const auto put = [&](auto word) {
            if (swap) word = turned(word);
            stream.write(reinterpret_cast<const char*>(&word), sizeof word);
        };
        for (int d = 0; d < 3; ++d) put(std::uint32_t{kExtent});
        for (std::size_t n = 0; n < 3 * kValues; ++n) {
            const double value = 1.0 + 1e-3 * static_cast<double>(n % 1000);
            if (scalar == Plot3DScalar::float32)
                put(std::bit_cast<std::uint32_t>(static_cast<float>(value)));
            else
                put(std::bit_cast<std::uint64_t>(value));
        }
    }
    ~File() { fs::remove(path); }

    const fs::path path = fs::temp_directory_path() / ("plot3d-benchmark-" + std::to_string(::getpid()));
};

template<class T, class Stored, class Word, std::endian Order>
void plain(benchmark::State& state) {
    const File file(Order, sizeof(Stored) == 4 ? Plot3DScalar::float32 : Plot3DScalar::float64);
    for (auto _ : state) {
        std::FILE* const stream = std::fopen(file.path.c_str(), "rb");
        std::fseek(stream, 12, SEEK_SET);
        std::vector<Word> bytes(kValues);
        if (std::fread(bytes.data(), sizeof(Word), kValues, stream) != kValues) state.SkipWithError("cut");
        std::fclose(stream);
        std::vector<T> values(kValues);
        for (std::size_t n = 0; n < kValues; ++n)
            values[n] =
                static_cast<T>(std::bit_cast<Stored>(Order == std::endian::native ? bytes[n] : turned(bytes[n])));
        benchmark::DoNotOptimize(values.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kValues * sizeof(Word)));
}

template<class T, class Stored, std::endian Order>
void reader(benchmark::State& state) {
    const File file(Order, sizeof(Stored) == 4 ? Plot3DScalar::float32 : Plot3DScalar::float64);
    const auto opened = Plot3DFile::openGrid(file.path);
    for (auto _ : state) benchmark::DoNotOptimize(opened.read<T>(0, 0)->data());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kValues * sizeof(Stored)));
}

// Three arrays, which become one of points.
void plainPoints(benchmark::State& state) {
    const File file(std::endian::big, Plot3DScalar::float32);
    for (auto _ : state) {
        std::FILE* const stream = std::fopen(file.path.c_str(), "rb");
        std::fseek(stream, 12, SEEK_SET);
        std::vector<std::uint32_t> bytes(3 * kValues);
        if (std::fread(bytes.data(), 4, 3 * kValues, stream) != 3 * kValues) state.SkipWithError("cut");
        std::fclose(stream);
        std::vector<double> points(3 * kValues);
        for (std::size_t n = 0; n < kValues; ++n)
            for (std::size_t d = 0; d < 3; ++d)
                points[3 * n + d] = std::bit_cast<float>(turned(bytes[d * kValues + n]));
        benchmark::DoNotOptimize(points.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(3 * kValues * 4));
}

void readerPoints(benchmark::State& state) {
    const File file(std::endian::big, Plot3DScalar::float32);
    const auto opened = Plot3DFile::openGrid(file.path);
    for (auto _ : state) benchmark::DoNotOptimize(opened.readPoints(0)->data());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(3 * kValues * 4));
}

constexpr auto kBig = std::endian::big, kLittle = std::endian::little;
BENCHMARK(plain<float, float, std::uint32_t, kLittle>)->Name("plain/float/little")->UseRealTime();
BENCHMARK(reader<float, float, kLittle>)->Name("reader/float/little")->UseRealTime();
BENCHMARK(plain<float, float, std::uint32_t, kBig>)->Name("plain/float/big")->UseRealTime();
BENCHMARK(reader<float, float, kBig>)->Name("reader/float/big")->UseRealTime();
BENCHMARK(plain<double, float, std::uint32_t, kBig>)->Name("plain/float to double/big")->UseRealTime();
BENCHMARK(reader<double, float, kBig>)->Name("reader/float to double/big")->UseRealTime();
BENCHMARK(plain<double, double, std::uint64_t, kBig>)->Name("plain/double/big")->UseRealTime();
BENCHMARK(reader<double, double, kBig>)->Name("reader/double/big")->UseRealTime();
BENCHMARK(plainPoints)->Name("plain/points/big")->UseRealTime();
BENCHMARK(readerPoints)->Name("reader/points/big")->UseRealTime();

} // namespace
