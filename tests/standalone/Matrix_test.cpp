#include "host/QsMath.h"
#include "host/QsPicture.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

using testing::Each;
using testing::ElementsAre;

namespace {

using Elements = std::vector<double>;

constexpr double poison = -7777.25;
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

int Invert(Elements& out, const Elements& in)
{
    const int order = static_cast<int>(std::lround(std::sqrt(static_cast<double>(in.size()))));
    out.assign(in.size(), poison);
    return CQsMKL_API::InvertMatrix(out.data(), in.data(), order);
}

bool IsRefused(const Elements& in)
{
    Elements out;
    const int status = Invert(out, in);
    EXPECT_THAT(out, Each(status == 0 ? testing::Not(poison) : testing::Matcher<double>(poison)));
    return status != 0;
}

// Greatest element of |in * inverse - 1|, each row in its own scale.
long double Residual(const Elements& in, const Elements& inverse)
{
    const auto order = static_cast<std::size_t>(std::lround(std::sqrt(static_cast<double>(in.size()))));
    long double worst = 0.0L;
    for (std::size_t row = 0; row < order; ++row)
        for (std::size_t column = 0; column < order; ++column)
        {
            long double sum = row == column ? -1.0L : 0.0L;
            long double size = 0.0L;
            for (std::size_t i = 0; i < order; ++i)
            {
                const long double product = static_cast<long double>(in[row * order + i]) * inverse[i * order + column];
                sum += product;
                size += std::fabs(product);
            }
            worst = std::max(worst, std::fabs(sum) / std::max(size, 1.0L));
        }
    return worst;
}

TEST(InvertMatrix, OfTheIdentityIsExactlyTheIdentity)
{
    Elements out;
    ASSERT_EQ(0, Invert(out, {1, 0, 0, 0, 1, 0, 0, 0, 1}));
    EXPECT_THAT(out, ElementsAre(1, 0, 0, 0, 1, 0, 0, 0, 1));
    for (const double element : out)
        EXPECT_FALSE(std::signbit(element));
}

TEST(InvertMatrix, AgreesWithInversesByHand)
{
    Elements out;
    ASSERT_EQ(0, Invert(out, {4}));
    EXPECT_THAT(out, ElementsAre(0.25));
    ASSERT_EQ(0, Invert(out, {0, 2, 4, 0}));
    EXPECT_THAT(out, ElementsAre(0, 0.25, 0.5, 0));
    // (x, y) -> (2x + 10, -4y + 20) back: (x, y) -> (x/2 - 5, -y/4 + 5).
    ASSERT_EQ(0, Invert(out, {2, 0, 10, 0, -4, 20, 0, 0, 1}));
    EXPECT_THAT(out, ElementsAre(0.5, 0, -5, 0, -0.25, 5, 0, 0, 1));
    // A quarter turn back is the transposed.
    ASSERT_EQ(0, Invert(out, {0, -1, 0, 1, 0, 0, 0, 0, 1}));
    EXPECT_THAT(out, ElementsAre(0, 1, 0, -1, 0, 0, 0, 0, 1));
    // A cyclic permutation back is the other one; the first pivot of each column is 0.
    ASSERT_EQ(0, Invert(out, {0, 0, 0, 1, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0}));
    EXPECT_THAT(out, ElementsAre(0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0, 0, 0));
}

TEST(InvertMatrix, WorksInPlace)
{
    Elements matrix{2, 0, 10, 0, -4, 20, 0, 0, 1};
    ASSERT_EQ(0, CQsMKL_API::InvertMatrix(matrix.data(), matrix.data(), 3));
    EXPECT_THAT(matrix, ElementsAre(0.5, 0, -5, 0, -0.25, 5, 0, 0, 1));
    Elements four{0, 0, 0, 1, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    ASSERT_EQ(0, CQsMKL_API::InvertMatrix(four.data(), four.data(), 4));
    EXPECT_THAT(four, ElementsAre(0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0, 0, 0));
}

TEST(InvertMatrix, RefusesWhatIsSingularToWorkingPrecision)
{
    EXPECT_TRUE(IsRefused({0}));
    EXPECT_TRUE(IsRefused({1, 2, 2, 4}));
    EXPECT_TRUE(IsRefused({1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_TRUE(IsRefused({0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(IsRefused({1, 2, 0, 2, 4, 0, 0, 0, 1}));
    EXPECT_TRUE(IsRefused({0.1, 0.2, 5, 0.3, 0.6, 7, 0, 0, 1})); // 0.3 * 0.2 is not exactly 0.1 * 0.6
    EXPECT_TRUE(IsRefused({1, 1, 0, 1, 1 + 2e-16, 0, 0, 0, 1}));
    EXPECT_TRUE(IsRefused({1e6, 2e6, 5e9, 3, 6, 7, 0, 0, 1}));
    EXPECT_TRUE(IsRefused(Elements(36, 1.0)));
    Elements chess(64); // rank 2
    for (std::size_t i = 0; i < chess.size(); ++i)
        chess[i] = (i / 8 + i % 8) % 2 == 0 ? 1.0 : 0.3;
    EXPECT_TRUE(IsRefused(chess));
}

TEST(InvertMatrix, TakesWhatIsOnlyNearlySingular)
{
    // The difference of 2^-40 leaves three digits.
    const double near = 1.0 + std::ldexp(1.0, -40);
    Elements out;
    ASSERT_EQ(0, Invert(out, {1, 1, 0, 1, near, 0, 0, 0, 1}));
    // By hand: 1/d * (near, -1; -1, 1) with d = 2^-40.
    const double scale = std::ldexp(1.0, 40);
    EXPECT_THAT(out, ElementsAre(near * scale, -scale, 0, -scale, scale, 0, 0, 0, 1));
}

TEST(InvertMatrix, DoesNotTakeTheScaleOfAMatrixForSingularity)
{
    const Elements benign{2, 1, -1, 1, 3, 2, -1, 2, 6};
    Elements reference;
    ASSERT_EQ(0, Invert(reference, benign));
    for (const int exponent : {-1000, -500, -400, -40, 40, 400, 500, 1000})
    {
        Elements scaled = benign;
        for (double& element : scaled)
            element = std::ldexp(element, exponent);
        Elements out;
        ASSERT_EQ(0, Invert(out, scaled)) << exponent;
        for (std::size_t i = 0; i < out.size(); ++i)
            EXPECT_NEAR(1.0, std::ldexp(out[i], exponent) / reference[i], 1e-14) << exponent << " element " << i;
    }
    // Rows and columns in units of their own: a matrix of the same inverse up to the units.
    const std::vector<int> rows{-300, 0, 200}, columns{90, -250, 10};
    Elements mixed = benign;
    for (std::size_t i = 0; i < mixed.size(); ++i)
        mixed[i] = std::ldexp(mixed[i], rows[i / 3] + columns[i % 3]);
    Elements out;
    ASSERT_EQ(0, Invert(out, mixed));
    for (std::size_t i = 0; i < out.size(); ++i)
        EXPECT_NEAR(1.0, std::ldexp(out[i], columns[i / 3] + rows[i % 3]) / reference[i], 1e-14) << i;
}

TEST(InvertMatrix, TakesMappingsWithFarTranslations)
{
    Elements out;
    ASSERT_EQ(0, Invert(out, {0.6, -0.8, 1e6, 0.8, 0.6, -1e6, 0, 0, 1}));
    // The rotation back, and the translation turned back and negated: -(0.6 - 0.8) 1e6, (0.8 + 0.6) 1e6.
    const Elements expected{0.6, 0.8, 2e5, -0.8, 0.6, 1.4e6, 0, 0, 1};
    for (std::size_t i = 0; i < out.size(); ++i)
        EXPECT_NEAR(expected[i], out[i], 1e-14 * std::max(1.0, std::fabs(expected[i]))) << i;
    EXPECT_FALSE(IsRefused({1e-3, 0, 1e15, 0, 1e-3, -1e15, 0, 0, 1}));
}

TEST(InvertMatrix, RefusesElementsThatAreNotFinite)
{
    for (const std::size_t order : {2u, 3u, 5u})
        for (std::size_t i = 0; i < order * order; ++i)
            for (const double wrong : {infinity, -infinity, notANumber})
            {
                Elements matrix(order * order, 0.0);
                for (std::size_t k = 0; k < order; ++k)
                    matrix[k * order + k] = 1.0;
                matrix[i] = wrong;
                EXPECT_TRUE(IsRefused(matrix)) << order << " element " << i << ": " << wrong;
            }
    EXPECT_TRUE(IsRefused({1e-310})); // its inverse is no number
}

TEST(InvertMatrix, RefusesWhatIsNoMatrix)
{
    double out = poison;
    const double in = 2.0;
    EXPECT_NE(0, CQsMKL_API::InvertMatrix(nullptr, &in, 1));
    EXPECT_NE(0, CQsMKL_API::InvertMatrix(&out, nullptr, 1));
    EXPECT_NE(0, CQsMKL_API::InvertMatrix(&out, &in, 0));
    EXPECT_NE(0, CQsMKL_API::InvertMatrix(&out, &in, -3));
    EXPECT_EQ(poison, out);
}

TEST(InvertMatrix, TimesTheMatrixIsTheIdentityForRandomMatricesOfAnyOrder)
{
    std::mt19937_64 random(20240611);
    std::uniform_real_distribution<double> element(-1.0, 1.0);
    std::uniform_int_distribution<int> exponent(-60, 60);
    int inverted = 0;
    constexpr int cases = 60000;
    for (int i = 0; i < cases; ++i)
    {
        const std::size_t order = i % 3 == 0 ? 1 + static_cast<std::size_t>(i) % 12 : 3;
        Elements matrix(order * order);
        std::vector<double> rows(order), columns(order);
        for (std::size_t k = 0; k < order; ++k)
        {
            rows[k] = std::ldexp(1.0, exponent(random));
            columns[k] = std::ldexp(1.0, exponent(random));
        }
        for (std::size_t k = 0; k < matrix.size(); ++k)
            matrix[k] = element(random) * rows[k / order] * columns[k % order];
        Elements out;
        if (Invert(out, matrix) != 0)
            continue; // such a one is nearly singular by chance
        ++inverted;
        // Elimination with pivoting leaves some ulps, times the condition for the few that are badly conditioned.
        EXPECT_LT(Residual(matrix, out), 1e-9L) << "case " << i << " order " << order;
    }
    EXPECT_GT(inverted, cases - 20);
}

TEST(Matrix, IsZeroAtFirstAndInvertsInPlace)
{
    CQsMatrix matrix(2, 2);
    EXPECT_EQ(2u, matrix.GetRows());
    EXPECT_EQ(2u, matrix.GetColumns());
    EXPECT_EQ(0.0, matrix(1, 1));
    EXPECT_FALSE(matrix.Inv());
    matrix(0, 1) = 2.0;
    matrix(1, 0) = 4.0;
    ASSERT_TRUE(matrix.Inv());
    EXPECT_EQ(0.25, matrix(0, 1));
    EXPECT_EQ(0.5, matrix(1, 0));
    EXPECT_EQ(0.0, matrix(0, 0));
}

TEST(Matrix, StaysAsItIsWhenItHasNoInverse)
{
    CQsMatrix oblong(2, 3);
    oblong(0, 2) = 5.0;
    EXPECT_FALSE(oblong.Inv());
    EXPECT_EQ(5.0, oblong(0, 2));
    EXPECT_FALSE(CQsMatrix(0, 0).Inv());
    CQsMatrix singular(3, 3);
    for (std::size_t i = 0; i < 9; ++i)
        singular(i / 3, i % 3) = static_cast<double>(i);
    EXPECT_FALSE(singular.Inv());
    for (std::size_t i = 0; i < 9; ++i)
        EXPECT_EQ(static_cast<double>(i), singular(i / 3, i % 3));
}

} // namespace
