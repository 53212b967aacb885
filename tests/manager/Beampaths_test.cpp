// The beampaths' state in the manager: which one is active, and when they have to be built anew.
#include "tests/manager/ManagerTest.h"

#include <future>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Beampaths = ManagerTest;

TEST_F(Beampaths, AreToBeBuiltAfterTheFirstGetInstance)
{
    EXPECT_TRUE(Access::AreBeampathsDirty(M()));
}

TEST_F(Beampaths, AreToBeBuiltAnewAfterAnUpdateAndOnRequest)
{
    Simple(L"A");
    Access::CleanBeampaths(M());
    ASSERT_FALSE(Access::AreBeampathsDirty(M()));
    M().Update();
    EXPECT_TRUE(Access::AreBeampathsDirty(M()));
    Access::CleanBeampaths(M());
    M().SetStimulationBeampathsDirty();
    EXPECT_TRUE(Access::AreBeampathsDirty(M()));
}

TEST_F(Beampaths, FireTheirCodeOnceForAnotherActiveOneAndNotForTheSame)
{
    ASSERT_EQ(-1, M().GetActiveStimulationBeampathId());
    LogChangeCodes();
    Access::SetActiveStimulationBPId(M(), -1);
    EXPECT_THAT(Log().Entries(), IsEmpty());
    Access::SetActiveStimulationBPId(M(), 4);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64"));
    EXPECT_EQ(4, M().GetActiveStimulationBeampathId());
    Access::SetActiveStimulationBPId(M(), 4);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64"));
    Access::SetActiveStimulationBPId(M(), -1);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64", "code 64"));
}

TEST_F(Beampaths, LetTheFunctionThatIsToldOfAnotherActiveOneWaitForAThreadThatAsksWhich)
{
    CWatchdog watchdog("a change function that waits for a question");
    static std::atomic<int> s_answer;
    s_answer = -1;
    M().AddCallbackForChange(
        [](unsigned)
        { s_answer = std::async(std::launch::async, [] { return M().GetActiveStimulationBeampathId(); }).get(); });
    Access::SetActiveStimulationBPId(M(), 4);
    EXPECT_EQ(4, s_answer);
}
