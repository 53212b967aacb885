// The fit of an affine mapping to pairs of points of which some are wrong.
#include "stimhost/AffineFit.h"

#include <gmock/gmock.h>

#include <limits>
#include <random>

using namespace Stimhost;
using testing::HasSubstr;

namespace {

const CMatrix3 s_truth = {0.7, -0.05, 12.0, 0.04, 0.69, -8.0, 0.0, 0.0, 1.0};

// A grid of points with their images under the truth.
std::vector<SPointPair> Grid(int columns, int rows, double step = 100.0)
{
    std::vector<SPointPair> pairs;
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < columns; ++x)
        {
            const CPoint from{x * step, y * step};
            pairs.push_back({from, Mapped(s_truth, from)});
        }
    return pairs;
}

void ExpectMatrix(const CMatrix3& expected, const CMatrix3& found, double tolerance)
{
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_NEAR(expected[i], found[i], tolerance) << "element " << i;
}

} // namespace

TEST(AffineFit, RecoversAMappingThatIsExact)
{
    const SAffineFit fit = FitAffine(Grid(5, 4), {});
    EXPECT_EQ("", fit.refusal);
    ExpectMatrix(s_truth, fit.matrix, 1e-9);
    EXPECT_EQ(20u, fit.inlierCount);
    EXPECT_NEAR(0.0, fit.rms, 1e-9);
    EXPECT_NEAR(0.0, fit.largest, 1e-9);
}

TEST(AffineFit, LeavesOutPairsThatAreFarOffAndSaysWhich)
{
    std::vector<SPointPair> pairs = Grid(6, 5);
    std::mt19937 random(7);
    std::uniform_real_distribution<double> off(20.0, 300.0);
    for (const std::size_t wrong : {0u, 3u, 4u, 11u, 12u, 17u, 18u, 22u, 25u, 29u}) // a third
        pairs[wrong].to = {pairs[wrong].to.x + off(random), pairs[wrong].to.y - off(random)};
    const SAffineFit fit = FitAffine(pairs, {});
    EXPECT_EQ("", fit.refusal);
    ExpectMatrix(s_truth, fit.matrix, 1e-9);
    EXPECT_EQ(20u, fit.inlierCount);
    EXPECT_FALSE(fit.inliers[0]);
    EXPECT_FALSE(fit.inliers[29]);
    EXPECT_TRUE(fit.inliers[1]);
    EXPECT_GT(std::hypot(fit.residuals[0].x, fit.residuals[0].y), 20.0);
}

TEST(AffineFit, IsTheLeastSquaresSolution)
{
    // Four corners of a square, one of them moved by (0, 0.4). Along y, by hand: the mean moves by a quarter, both
    // slopes by half of the quarter per half side, so the residuals are +0.1, -0.1, +0.1, -0.1 round the square.
    std::vector<SPointPair> pairs = {
        {{-1.0, -1.0}, {-1.0, -1.0}}, {{1.0, -1.0}, {1.0, -1.0}}, {{1.0, 1.0}, {1.0, 1.4}}, {{-1.0, 1.0}, {-1.0, 1.0}}};
    const SAffineFit fit = FitAffine(pairs, {});
    EXPECT_EQ("", fit.refusal);
    ExpectMatrix({1.0, 0.0, 0.0, 0.1, 1.1, 0.1, 0.0, 0.0, 1.0}, fit.matrix, 1e-12);
    EXPECT_NEAR(0.1, fit.residuals[0].y, 1e-12);
    EXPECT_NEAR(-0.1, fit.residuals[1].y, 1e-12);
    EXPECT_NEAR(0.1, fit.residuals[2].y, 1e-12);
    EXPECT_NEAR(-0.1, fit.residuals[3].y, 1e-12);
    EXPECT_NEAR(0.1, fit.rms, 1e-12);
    EXPECT_NEAR(0.1, fit.largest, 1e-12);
}

TEST(AffineFit, ResidualsOfNoiseHaveTheSizeOfTheNoise)
{
    std::vector<SPointPair> pairs = Grid(20, 20, 40.0);
    std::mt19937 random(3);
    std::normal_distribution<double> noise(0.0, 0.2);
    for (SPointPair& pair : pairs)
        pair.to = {pair.to.x + noise(random), pair.to.y + noise(random)};
    const SAffineFit fit = FitAffine(pairs, {});
    // Root mean square of the length of two independent errors of 0.2, less the six numbers that were fitted to 800.
    EXPECT_NEAR(0.2 * std::sqrt(2.0 * (1.0 - 6.0 / 800.0)), fit.rms, 0.02);
    ExpectMatrix(s_truth, fit.matrix, 0.1);
    EXPECT_NEAR(s_truth[0], fit.matrix[0], 2e-4);
}

TEST(AffineFit, ConditionIsTheRatioOfTheExtents)
{
    // 5 x 3 points of equal steps: standard deviations in the ratio sqrt(24) to sqrt(8) = sqrt(3); the truth hardly
    // changes it. With an identity it is exact.
    std::vector<SPointPair> pairs = Grid(5, 3);
    for (SPointPair& pair : pairs)
        pair.to = pair.from;
    EXPECT_NEAR(std::sqrt(3.0), FitAffine(pairs, {}).condition, 1e-9);
}

TEST(AffineFit, RefusesFewerThanFourPairs)
{
    EXPECT_THAT(FitAffine({}, {}).refusal, HasSubstr("expected at least 4 spots, found 0"));
    EXPECT_THAT(FitAffine(Grid(3, 1), {}).refusal, HasSubstr("found 3"));
    EXPECT_EQ("", FitAffine(Grid(2, 2), {}).refusal);
}

TEST(AffineFit, RefusesPointsOnALineOnEitherSide)
{
    EXPECT_THAT(FitAffine(Grid(9, 1), {}).refusal, HasSubstr("line"));
    std::vector<SPointPair> noisy = Grid(9, 1);
    std::vector<SPointPair> flattened = Grid(5, 5);
    std::mt19937 random(5);
    std::normal_distribution<double> noise(0.0, 0.1);
    for (SPointPair& pair : noisy)
        pair.to.y += noise(random);
    for (SPointPair& pair : flattened)
        pair.to = {pair.to.x, 3.0 + noise(random)};
    EXPECT_THAT(FitAffine(noisy, {}).refusal, HasSubstr("line"));
    EXPECT_THAT(FitAffine(flattened, {}).refusal, HasSubstr("line"));
}

TEST(AffineFit, RefusesPairsOfWhichTooFewAgree)
{
    std::vector<SPointPair> pairs = Grid(5, 4);
    std::mt19937 random(11);
    std::uniform_real_distribution<double> anywhere(0.0, 600.0);
    for (SPointPair& pair : pairs)
        pair.to = {anywhere(random), anywhere(random)};
    EXPECT_THAT(FitAffine(pairs, {}).refusal, HasSubstr("do not agree"));
}

TEST(AffineFit, RefusesResidualsAboveTheLimit)
{
    std::vector<SPointPair> pairs = Grid(8, 8);
    std::mt19937 random(13);
    std::normal_distribution<double> noise(0.0, 0.5);
    for (SPointPair& pair : pairs)
        pair.to = {pair.to.x + noise(random), pair.to.y + noise(random)};
    SFitLimits limits;
    limits.largestRms = 0.3;
    EXPECT_THAT(FitAffine(pairs, limits).refusal, HasSubstr("expected a root mean square of at most 0.30 px"));
    limits.largestRms = 2.0;
    EXPECT_EQ("", FitAffine(pairs, limits).refusal);
}

TEST(AffineFit, RefusesWhatIsNotANumber)
{
    std::vector<SPointPair> pairs = Grid(4, 4);
    pairs[2].to.x = std::numeric_limits<double>::quiet_NaN();
    EXPECT_THAT(FitAffine(pairs, {}).refusal, HasSubstr("not a number"));
}

TEST(AffineFit, GivesTheSameFitForTheSamePairs)
{
    std::vector<SPointPair> pairs = Grid(6, 5);
    pairs[4].to.x += 50.0;
    EXPECT_EQ(FitAffine(pairs, {}).matrix, FitAffine(pairs, {}).matrix);
}
