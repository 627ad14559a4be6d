#include <support/Testing.hpp>

namespace {

using namespace Orvix;

constexpr double Precision = 1e-10;

template<int N>
using Vectors = FixedArray<Vector<double, N>, N>;

/// Rows that are orthonormal and random, by Gram and Schmidt, twice for their precision.
template<int N>
Vectors<N> randomFrame(std::mt19937& random) {
    std::normal_distribution<double> number;
    Vectors<N> frame;
    for (int i = 0; i < N; ++i) {
        for (double& c : frame[i]) c = number(random);
        for (int pass = 0; pass < 2; ++pass) {
            for (int j = 0; j < i; ++j) frame[i] -= frame[j] * dot(frame[i], frame[j]);
            frame[i] /= std::sqrt(dot(frame[i], frame[i]));
        }
    }
    return frame;
}

/// Decomposes a matrix made from its eigenvalues, and checks that they and an orthonormal frame come back.
template<int N>
void expectDecomposition(const std::array<double, N>& eigenvalues, const Vectors<N>& frame) {
    double scale = 0.0;
    for (const double e : eigenvalues) scale = std::max(scale, std::fabs(e));
    LowerTriangular<N, double> matrix;
    for (int row = 0; row < N; ++row)
        for (int column = 0; column <= row; ++column)
            for (int k = 0; k < N; ++k)
                matrix(row, column) += frame[k][row] * eigenvalues[static_cast<std::size_t>(k)] * frame[k][column];

    Vectors<N> vectors;
    FixedArray<double, N> values;
    ASSERT_TRUE((UnsortedEigenVectors<N, double>(matrix, vectors, values, Precision)));
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) {
            ASSERT_NEAR(dot(vectors[i], vectors[j]), i == j, 1e-14);
            double left = -values[i] * vectors[i][j];
            for (int k = 0; k < N; ++k) left += matrix(j, k) * vectors[i][k];
            ASSERT_LE(std::fabs(left), 2 * Precision * scale) << "A v - lambda v";
        }
    std::array<double, N> expected = eigenvalues;
    std::sort(expected.begin(), expected.end());
    std::sort(values.begin(), values.end());
    for (int i = 0; i < N; ++i)
        ASSERT_NEAR(values[i] / scale, expected[static_cast<std::size_t>(i)] / scale, 2 * Precision);
    if constexpr (N == 3) {
        ASSERT_TRUE(SortedEigenValues(matrix, values, Precision));
        for (int i = 0; i < N; ++i)
            ASSERT_NEAR(values[i] / scale, expected[static_cast<std::size_t>(i)] / scale, Precision / 10);
    }
}

/// Each eigenvalue is constant + slope x + scale 10^(-16 x), for a number x in [0, 1].
struct Spectrum {
    const char* name;
    struct {
        double constant, slope = 0.0, scale = 0.0;
    } eigenvalue[3];

    [[nodiscard]] std::array<double, 3> at(double x) const {
        std::array<double, 3> all{};
        for (std::size_t n = 0; n < 3; ++n)
            all[n] = eigenvalue[n].constant + eigenvalue[n].slope * x + eigenvalue[n].scale * std::pow(10.0, -16.0 * x);
        return all;
    }
};

class OrvixEigenTest : public testing::TestWithParam<Spectrum> {};

TEST_P(OrvixEigenTest, FindsTheSpectrumTheMatrixWasMadeOf) {
    std::mt19937 random(1);
    std::uniform_real_distribution<double> number(0, 1);
    for (int round = 0; round < 5000; ++round)
        expectDecomposition<3>(GetParam().at(number(random)), randomFrame<3>(random));
}

const Spectrum Spectra[] = {
    {"separate", {{0, 1}, {2}, {-1.5}}},
    {"twoEqual", {{0, 1}, {1}, {1}}},
    {"twoNearlyEqual", {{-2}, {1}, {1, 0, 1}}},
    {"allNearlyEqual", {{1}, {1, 0, -1}, {1, 0, 1}}},
    {"line", {{0, 1}, {0}, {0}}},
    {"plane", {{1}, {0, 1}, {0}}},
    {"opposite", {{0, 1}, {0, -1}, {0}}},
    {"graded", {{1}, {0, 1e-8}, {1e-16}}},
    {"tiny", {{0, 1e-300}, {2e-300}, {-3e-300}}},
    {"huge", {{0, 1e300}, {2e300}, {-3e300}}},
};
INSTANTIATE_TEST_SUITE_P(Spectra, OrvixEigenTest, testing::ValuesIn(Spectra),
                         [](const auto& spectrum) { return std::string(spectrum.param.name); });

TEST(OrvixEigen, OtherSizesAreDecomposedToo) {
    std::mt19937 random(2);
    for (int round = 0; round < 500; ++round) {
        expectDecomposition<2>({1.0, 1.0 + (round % 3) * 1e-9}, randomFrame<2>(random));
        expectDecomposition<5>({1.0, 1.0, -1.0, 0.0, round * 0.01}, randomFrame<5>(random));
    }
}

TEST(OrvixEigen, DiagonalZeroAndBrokenMatrices) {
    Vectors<3> vectors;
    FixedArray<double, 3> values;
    const Vectors<3> unit{Vector<double, 3>(1, 0, 0), Vector<double, 3>(0, 1, 0), Vector<double, 3>(0, 0, 1)};
    EXPECT_TRUE((UnsortedEigenVectors<3, double>({2, 0, -3, 0, 0, 1}, vectors, values, Precision)));
    EXPECT_EQ(values, (FixedArray<double, 3>(2, -3, 1)));
    EXPECT_EQ(vectors, unit);
    EXPECT_TRUE((UnsortedEigenVectors<3, double>({}, vectors, values, Precision)));
    EXPECT_EQ(values, (FixedArray<double, 3>()));
    EXPECT_EQ(vectors, unit);
    EXPECT_FALSE((UnsortedEigenVectors<3, double>({2, 0, -3, NAN, 0, 1}, vectors, values, Precision)));
    EXPECT_FALSE((UnsortedEigenVectors<3, double>({2, 0, -3, INFINITY, 0, 1}, vectors, values, Precision)));
    EXPECT_TRUE(std::isnan(values[0]) && std::isnan(values[1]) && std::isnan(values[2]));
    EXPECT_FALSE(SortedEigenValues({2, 0, -3, NAN, 0, 1}, values, Precision));
    EXPECT_EQ(vectors, unit);
}

} // namespace
