#include "tests/support/DoubleDouble.h"
#include "tests/support/Numbers.h"

#include <gmock/gmock.h>

#include <limits>

using QsTest::CDoubleDouble;
using QsTest::CTracked;
using testing::Not;

namespace {

double Distance(const CDoubleDouble& a, const CDoubleDouble& b)
{
    return std::fabs((a - b).High());
}

} // namespace

TEST(DoubleDouble, SumsKeepWhatADoubleLoses)
{
    const CDoubleDouble sum = CDoubleDouble(1e16) + CDoubleDouble(1.0);
    EXPECT_EQ(1e16, sum.High());
    EXPECT_EQ(1.0, (sum - CDoubleDouble(1e16)).High());
    EXPECT_EQ(0.0, (sum - sum).High());
    const CDoubleDouble tiny = CDoubleDouble(1.0) + CDoubleDouble(1e-30) - CDoubleDouble(1.0);
    EXPECT_EQ(1e-30, tiny.High());
}

TEST(DoubleDouble, ProductsAreExactToTheLastBitOfTheSecondDouble)
{
    // (1 + 2^-52)^2 = 1 + 2^-51 + 2^-104
    const double epsilon = std::numeric_limits<double>::epsilon();
    const CDoubleDouble square = CDoubleDouble(1.0 + epsilon) * CDoubleDouble(1.0 + epsilon);
    EXPECT_EQ(1.0 + 2.0 * epsilon, square.High());
    EXPECT_EQ(epsilon * epsilon, square.Low());
}

TEST(DoubleDouble, AQuotientTimesItsDivisorIsTheDividend)
{
    for (const double divisor : {3.0, 7.0, 0.1, -1234.567, 1e-20})
    {
        const CDoubleDouble quotient = CDoubleDouble(1.0) / CDoubleDouble(divisor);
        EXPECT_LT(Distance(quotient * CDoubleDouble(divisor), CDoubleDouble(1.0)), 1e-31) << divisor;
    }
}

TEST(DoubleDouble, ReadsDecimalsBeyondADouble)
{
    EXPECT_EQ(-12.5, CDoubleDouble::FromText("-12.5").High());
    const CDoubleDouble third = CDoubleDouble::FromText("0.33333333333333333333333333333333333");
    EXPECT_LT(Distance(third, CDoubleDouble(1.0) / CDoubleDouble(3.0)), 1e-31);
    EXPECT_NE(0.0, third.Low());
}

TEST(DoubleDouble, SineAndCosineHaveTheKnownDigits)
{
    const struct
    {
        CDoubleDouble angle;
        const char* sine;
        const char* cosine;
    } cases[] = {
        {CDoubleDouble(0.0), "0", "1"},
        {CDoubleDouble(1.0), "0.84147098480789650665250232163029899962", "0.54030230586813971740093660744297660373"},
        {CDoubleDouble(-1.0), "-0.84147098480789650665250232163029899962", "0.54030230586813971740093660744297660373"},
        {CDoubleDouble(2.0), "0.90929742682568169539601986591174484270", "-0.41614683654714238699756822950076218977"},
        {CDoubleDouble(10.0), "-0.54402111088936981340474766185137728168", "-0.83907152907645245225886394782406483451"},
        {CDoubleDouble::FromText("3.14159265358979323846264338327950288"), "0", "-1"},
        {CDoubleDouble::FromText("0.523598775598298873077107230546583814"), "0.5",
         "0.86602540378443864676372317075293618347"},
    };
    for (const auto& c : cases)
    {
        CDoubleDouble sine;
        CDoubleDouble cosine;
        CDoubleDouble::SinCos(c.angle, sine, cosine);
        EXPECT_LT(Distance(sine, CDoubleDouble::FromText(c.sine)), 1e-30) << c.sine;
        EXPECT_LT(Distance(cosine, CDoubleDouble::FromText(c.cosine)), 1e-30) << c.cosine;
    }
}

TEST(DoubleDouble, SineAndCosineOfAnyAngleLieOnTheUnitCircleAndFollowTheSystems)
{
    for (double angle = -400.0; angle < 400.0; angle += 0.73)
    {
        CDoubleDouble sine;
        CDoubleDouble cosine;
        CDoubleDouble::SinCos(CDoubleDouble(angle), sine, cosine);
        ASSERT_LT(Distance(sine * sine + cosine * cosine, CDoubleDouble(1.0)), 1e-30) << angle;
        ASSERT_NEAR(std::sin(angle), sine.High(), 1e-15) << angle;
        ASSERT_NEAR(std::cos(angle), cosine.High(), 1e-15) << angle;
    }
}

TEST(TrackedNumber, RemembersTheSizeOfWhatCancelled)
{
    const CTracked small = CTracked(1e6) + CTracked(0.5) - CTracked(1e6);
    EXPECT_EQ(0.5, small.ToDouble());
    EXPECT_EQ(2e6 + 0.5, small.Scale());
    EXPECT_TRUE(small.Agrees(0.5 + 1e-7, 1e-12));
    EXPECT_FALSE(small.Agrees(0.5 + 1e-5, 1e-12));
    EXPECT_TRUE(CTracked(0.5).Agrees(0.5, 0.0));
    EXPECT_FALSE(CTracked(0.5).Agrees(0.5 + 1e-7, 1e-12));
    EXPECT_EQ(1e6, (CTracked(1e6) / CTracked(1.0)).Scale());
    // An error of the divisor weighs with the square of what is left of it.
    EXPECT_EQ((2e6 + 0.5) / 0.25, (CTracked(1.0) / small).Scale());
}

TEST(TrackedNumber, NeverAgreesWithWhatIsNoNumber)
{
    const CTracked value = CTracked(1e300) * CTracked(1e300); // a scale without an end
    EXPECT_FALSE(value.Agrees(std::nan(""), 1.0));
    EXPECT_FALSE(CTracked(1.0).Agrees(std::numeric_limits<double>::infinity(), 1e300));
    EXPECT_FALSE(CTracked(1.0).Agrees(std::nan(""), 1e300));
}

TEST(NumberMatchers, RefuseNaNWrongCountsAndWhatIsOff)
{
    using namespace QsTest;
    const double nan = std::nan("");
    const std::vector<double> numbers{1.0, 2.0};
    EXPECT_THAT(numbers, AreNear({1.0, 2.0 + 1e-10}, 1e-9));
    EXPECT_THAT(numbers, Not(AreNear({1.0, 2.0 + 1e-8}, 1e-9)));
    EXPECT_THAT(numbers, Not(AreNear({1.0}, 1e-9)));
    EXPECT_THAT(numbers, Not(AreNear({1.0, nan}, 1e-9)));
    EXPECT_THAT((std::vector<double>{1.0, nan}), Not(AreNear({1.0, 2.0}, 1e9)));
    EXPECT_THAT((std::vector<double>{1.0, nan}), Not(AreReference({1.0, 2.0})));
    EXPECT_THAT(numbers, AreReference({1.0, 2.0 + 1e-9}));
    EXPECT_THAT(numbers, Not(AreReference({1.0, 2.0 + 1e-8})));
    // A small number is compared on its own scale, not on that of its neighbours.
    EXPECT_THAT((std::vector<double>{1e6, 1e-15}), Not(AreReference({1e6, 2e-15})));
    EXPECT_THAT((std::vector<double>{1e6, -1e-10}), AreReference({1e6, -0.0}));
    EXPECT_THAT((std::vector<double>{1.0, 1e-10}), Not(AreReference({1.0, 0.0})));

    Matrix3 m = UnwrittenMatrix3();
    EXPECT_THAT(m, IsUnwrittenMatrix3());
    m[7] = 0.0;
    EXPECT_THAT(m, Not(IsUnwrittenMatrix3()));
    EXPECT_THAT(m, Not(IsNearMatrix3({1, 0, 0, 0, 1, 0, 0, 0, 1}, 1e-9)));
    testing::StringMatchResultListener listener;
    EXPECT_FALSE(testing::ExplainMatchResult(IsNearMatrix3({1, 2, 3, 4, 5, 6, 7, 8, 9}, 0.0),
                                             Matrix3{1, 2, 3, 4, 5, 6.5, 7, 8, 9}, &listener));
    EXPECT_EQ("row 1, column 2: expected 6, got 6.5", listener.str());
}
