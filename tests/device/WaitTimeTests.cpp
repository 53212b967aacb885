#include "device/WaitTime.h"
#include "tests/support/Vectors.h"

#include <gtest/gtest.h>

#include <limits>

using QsTest::Member;

TEST(WaitTime, AgreesWithTheReferenceValues)
{
    for (const QsTest::Json* vector : QsTest::VectorsOf("wait ms"))
    {
        EXPECT_EQ(Member(*vector, "output").GetUint(), QsStimulationWaitMs(QsTest::ToDouble(Member(*vector, "input"))))
            << Member(*vector, "id").GetString();
    }
}

TEST(WaitTime, RoundsToTheNearestMillisecond)
{
    EXPECT_EQ(49u, QsStimulationWaitMs(49.25));
    EXPECT_EQ(50u, QsStimulationWaitMs(49.75));
    EXPECT_EQ(0u, QsStimulationWaitMs(0.25));
}

TEST(WaitTime, IsZeroForWhatIsNoDuration)
{
    EXPECT_EQ(0u, QsStimulationWaitMs(-1.0));
    EXPECT_EQ(0u, QsStimulationWaitMs(-1e300));
    EXPECT_EQ(0u, QsStimulationWaitMs(-0.5));
    EXPECT_EQ(0u, QsStimulationWaitMs(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_EQ(0u, QsStimulationWaitMs(-std::numeric_limits<double>::infinity()));
}

TEST(WaitTime, IsNeverTheValueThatMeansForEver)
{
    constexpr std::uint32_t longest = 0xFFFFFFFEu;
    EXPECT_EQ(longest, QsStimulationWaitMs(4294967294.0));
    EXPECT_EQ(longest, QsStimulationWaitMs(4294967294.75));
    EXPECT_EQ(longest, QsStimulationWaitMs(4294967295.0));
    EXPECT_EQ(longest, QsStimulationWaitMs(4294967296.0));
    EXPECT_EQ(longest, QsStimulationWaitMs(1e300));
    EXPECT_EQ(longest - 1, QsStimulationWaitMs(4294967293.0));
}
